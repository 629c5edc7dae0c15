// AudioFile's metadata on WAVs built here byte by byte: the iXML chunk read, capped and queried, its
// fields and the 'bext' description edited in place, and the metadata written back, stopping where the
// file does not allow it.

#include "tst_audiofile.h"

#include <QFile>
#include <QtTest>

using namespace AudioFileFixtures;
using namespace WavBytes;
using TestSupport::FailingBuffer;
using TestSupport::le;
using TestSupport::readFile;
using TestSupport::writeFile;

void AudioFileTest::iXmlChunkIsCapped()
{
    QByteArray xml = kPlainXml + spaces(7274 - kPlainXml.size()) + "TAIL";
    xml += spaces(10000 - xml.size());
    LoadedFile loaded(
        riff(chunk("fmt ", fmtPayload(1, 2, 48000, 16)) + chunk("iXML", xml) + chunk("data", pcmBytes(40))));
    AudioFile& audio = loaded.audio;
    QCOMPARE(loaded.result, 0u);
    QCOMPARE(int(audio.iXmlLength()), 7274);
    QCOMPARE(ixmlOf(audio), xml.left(7274));
    QCOMPARE(audio.dataStart(), quint32(12 + 24 + 10008 + 8));
    QCOMPARE(audio.GetiXMLSpace(), 7274 - kPlainXml.size());
}

void AudioFileTest::iXmlStatusAndQueries()
{
    LoadedFile loaded(build(Recording()));
    AudioFile& audio = loaded.audio;
    QCOMPARE(loaded.result, 0u);
    QCOMPARE(audio.GetiXMLStatus(), 0);
    QCOMPARE(audio.GetNumiXMLTracks(), 2);
    int channel = -1;
    unsigned short length = 0;
    const char* name = audio.GetiXMLTrackInfo(1, channel, length);
    QVERIFY(name);
    QCOMPARE(QByteArray(name, length), QByteArray("Lav"));
    QCOMPARE(channel, 2);
    QVERIFY(!audio.GetiXMLTrackInfo(2, channel, length));
    QCOMPARE(int(length), 0);

    const char* scene = audio.GetMetadataField(2, length);
    QCOMPARE(QByteArray(scene, length), QByteArray("12"));
    QVERIFY(!audio.GetiXMLField(4, length)); // no <TAPE>
    QCOMPARE(audio.GetiXMLSpace(), kRoom);
    QCOMPARE(audio.GetiXMLSpace(short(4)), kRoom - 13); // "<TAPE>" and "</TAPE>"
    QCOMPARE(audio.GetiXMLSpace(short(2)), kRoom);
    QCOMPARE(int(audio.FindiXMLTag(audio.iXmlText(), "<SCENE>", false, -1) - audio.iXmlText()),
        kTrackXml.indexOf("<SCENE>"));
    QVERIFY(audio.GetiXMLBoolField("TRUE</CIRCLED>"));
    QVERIFY(!audio.GetiXMLBoolField("FALSE"));

    Recording plain;
    plain.xml = kPlainXml;
    LoadedFile plainFile(build(plain));
    AudioFile& plainAudio = plainFile.audio;
    QCOMPARE(plainFile.result, 0u);
    QVERIFY(!plainAudio.GetiXMLField(3, length)); // <TAKE id="2"> has an attribute

    Recording unclosed;
    unclosed.xml = "<BWFXML><SCENE>7</SCENE>";
    LoadedFile unclosedFile(build(unclosed));
    AudioFile& unclosedAudio = unclosedFile.audio;
    QCOMPARE(unclosedFile.result, 0u);
    QCOMPARE(unclosedAudio.GetiXMLStatus(), 2);

    LoadedFile noXml(riff(chunk("fmt ", fmtPayload(1, 2, 48000, 16)) + chunk("data", pcmBytes(8))));
    AudioFile& noXmlAudio = noXml.audio;
    QCOMPARE(noXml.result, 0u);
    QCOMPARE(noXmlAudio.GetiXMLStatus(), 1);
}

void AudioFileTest::putiXMLFieldEdits()
{
    LoadedFile loaded(build(Recording()));
    AudioFile& audio = loaded.audio;
    QCOMPARE(loaded.result, 0u);
    QByteArray xml = kTrackXml;

    QCOMPARE(audio.PutiXMLField(2, "14A"), 0u); // replaced, one longer
    QVERIFY(audio.iXmlModified());
    xml.replace("<SCENE>12</SCENE>", "<SCENE>14A</SCENE>");
    QCOMPARE(ixmlOf(audio), xml + spaces(kRoom - 1));

    QCOMPARE(audio.PutiXMLField(1, "A"), 0u); // replaced, four shorter
    xml.replace("<PROJECT>Alpha</PROJECT>", "<PROJECT>A</PROJECT>");
    QCOMPARE(ixmlOf(audio), xml + spaces(kRoom + 3));

    QCOMPARE(audio.PutiXMLField(4, "T1"), 0u); // created before </BWFXML>
    xml.replace("</BWFXML>", "<TAPE>T1</TAPE></BWFXML>");
    QCOMPARE(ixmlOf(audio), xml + spaces(kRoom + 3 - 15));

    QVERIFY(audio.SetiXMLTrackNameField(0, "Boom 2"));
    xml.replace("<NAME>Boom</NAME>", "<NAME>Boom 2</NAME>");
    QCOMPARE(ixmlOf(audio), xml + spaces(kRoom + 3 - 15 - 2));
    QVERIFY(!audio.SetiXMLTrackNameField(5, "none"));

    // Created and truncated to the room left: 26 spaces less 2 * 9 + 1 for the tags leave 7 characters.
    QCOMPARE(audio.GetiXMLSpace(short(5)), 7);
    QCOMPARE(audio.PutiXMLField(5, "TRUE AND MORE"), 0u);
    xml.replace("</BWFXML>", "<CIRCLED>TRUE AN</CIRCLED></BWFXML>");
    QCOMPARE(ixmlOf(audio), xml);
    QCOMPARE(audio.GetiXMLSpace(), 0);

    QCOMPARE(audio.PutiXMLField(6, "no room"), 0u); // an empty value and no room: unchanged
    QCOMPARE(ixmlOf(audio), xml);

    QCOMPARE(audio.PutiXMLField(3, "12345"), 0u); // truncated to the old length of 1
    xml.replace("<TAKE>3</TAKE>", "<TAKE>1</TAKE>");
    QCOMPARE(ixmlOf(audio), xml);
    QCOMPARE(int(audio.iXmlLength()), kTrackXml.size() + kRoom);
}

void AudioFileTest::putiXMLFieldRefusesNamesAndFiles()
{
    Recording r;
    r.xml = kPlainXml;
    LoadedFile loaded(build(r));
    AudioFile& audio = loaded.audio;
    QCOMPARE(loaded.result, 0u);
    const QByteArray before = ixmlOf(audio);
    for (unsigned char field : { 0, 7, 9 }) {
        QCOMPARE(audio.PutiXMLField(field, "A001.wav"), 641u);
        QCOMPARE(ixmlOf(audio), before);
        QVERIFY(!audio.iXmlModified());
    }
    // A long text in an existing field takes every trailing space.
    const QByteArray note(100, 'n');
    QCOMPARE(audio.PutiXMLField(2, note.constData()), 0u);
    QCOMPARE(ixmlOf(audio),
        QByteArray(kPlainXml).replace("<SCENE>7</SCENE>", "<SCENE>" + note.left(kRoom + 1) + "</SCENE>"));
}

void AudioFileTest::bextDescriptionEdits()
{
    struct Case
    {
        QByteArray description;
        int field; // -1: track name of track 3
        QByteArray value;
        QByteArray expected;
    };
    const Case cases[] = {
        { "sSCENE=12\r\nsTAKE=3\r\n", 3, "4", "sSCENE=12\r\nsTAKE=4\r\n" },
        { "sSCENE=12\r\nsTAKE=3\r\n", 2, "14", "sTAKE=3\r\nsSCENE=14\r\n" },
        { "sSCENE=12\r\n", 6, "hi", "sSCENE=12\rsNOTE=hi\r\n" },
        { "", 6, "hi", "sNOTE=hi\r\n" },
        { "sTRK3=Old\r\nsNOTE=x\r\n", -1, "Boom", "sNOTE=x\r\nsTRK3Boom\r\n" },
        { "sTAKE=3", 3, "5", "sTAKE=5\r\n" },
        { QByteArray(250, 'd'), 1, "x", QByteArray(250, 'd') },
        { "A\r\n", 6, QByteArray(300, 'v'), "A\r" + QByteArray("sNOTE=") + QByteArray(248, 'v') },
        { QByteArray(247, 'd'), 8, "12", QByteArray(246, 'd') + "sFILEUID12" },
    };
    for (const Case& c : cases) {
        Recording r;
        r.description = c.description;
        LoadedFile loaded(build(r));
        AudioFile& audio = loaded.audio;
        QCOMPARE(loaded.result, 0u);
        if (c.field < 0)
            audio.SetBextTrackNameField(3, c.value.constData());
        else
            audio.PutBextField(uchar(c.field), c.value.constData());
        QCOMPARE(descriptionOf(audio), c.expected.leftJustified(256, '\0'));
    }
}

void AudioFileTest::writeMetadataRoundTrip()
{
    const Recording r;
    const QString path = store(build(r));
    {
        StoredFile stored(path);
        QVERIFY(stored.opened);
        QCOMPARE(stored.result, 0u);
        AudioFile& audio = stored.audio;
        QCOMPARE(audio.VerifyHeader(), 0u);
        QCOMPARE(audio.PutiXMLField(2, "14A"), 0u);
        QCOMPARE(audio.PutiXMLField(4, "T1"), 0u);
        audio.PutBextField(2, "14A");
        stored.file.seek(100);
        QCOMPARE(audio.WriteMetadata(), 0u);
        QVERIFY(!audio.iXmlModified());
        QCOMPARE(stored.file.pos(), qint64(100));
    }
    Recording edited = r;
    edited.cutOff = false;
    edited.description = "sTAKE=3\r\nsSCENE=14A\r\n";
    edited.xml = QByteArray(kTrackXml)
                     .replace("<SCENE>12</SCENE>", "<SCENE>14A</SCENE>")
                     .replace("</BWFXML>", "<TAPE>T1</TAPE></BWFXML>");
    edited.room = kRoom - 16;
    QCOMPARE(readFile(path), build(edited)); // same chunk sizes, same audio

    StoredFile reopened(path, QIODevice::ReadOnly);
    QVERIFY(reopened.opened);
    QCOMPARE(reopened.result, 0u);
    AudioFile& fresh = reopened.audio;
    unsigned short length = 0;
    const char* scene = fresh.GetiXMLField(2, length);
    QCOMPARE(QByteArray(scene, length), QByteArray("14A"));
    const char* tape = fresh.GetiXMLField(4, length);
    QCOMPARE(QByteArray(tape, length), QByteArray("T1"));
    QCOMPARE(QByteArray(fresh.description()), edited.description);
}

// With neither 'iXML' nor 'bext' in the file, the metadata walk ends at the 'data' chunk that reaches the
// end of the device. The buffer refuses every write, so a result of 0 also proves nothing was written.

void AudioFileTest::writeMetadataStopsAtDataEndingTheFile()
{
    const QByteArray original
        = riff(chunk("fmt ", fmtPayload(1, 2, 48000, 16)) + chunk("data", pcmBytes(24)));
    QCOMPARE(original.size(), 12 + 24 + 32);
    FailingBuffer buffer(0);
    buffer.setData(original);
    QVERIFY(buffer.open(QIODevice::ReadWrite));
    AudioFile audio(buffer);
    QCOMPARE(audio.ReadAudioFileInfo(), 0u);
    QCOMPARE(audio.dataEnd(), 68u);
    QCOMPARE(int(audio.iXmlLength()), 0);
    QVERIFY(buffer.seek(30));

    QCOMPARE(audio.WriteMetadata(), 0u);
    QCOMPARE(buffer.accepted(), qint64(0));
    QCOMPARE(buffer.data(), original);
    QVERIFY(!audio.iXmlModified());
    QCOMPARE(buffer.pos(), qint64(30));
}

// A chunk header that cannot be read in full ends the metadata walk with 31. The iXML chunk met before
// it has already been written back; the modified flag is cleared and the position restored all the same.

void AudioFileTest::writeMetadataStopsOnFailedRead()
{
    const QByteArray fmt = chunk("fmt ", fmtPayload(1, 2, 48000, 16));
    const QByteArray xml = kPlainXml + spaces(kRoom);
    const QByteArray edited
        = QByteArray(kPlainXml).replace("<SCENE>7</SCENE>", "<SCENE>12</SCENE>") + spaces(kRoom - 1);
    struct Case
    {
        const char* name;
        QByteArray tail; // what follows the iXML chunk
    };
    const Case cases[] = {
        // The size field runs 4086 bytes past the end: the next header lies beyond the file.
        { "size past the end", chunk("junk", "0123456789", 4096) },
        // Three stray bytes after a 'data' chunk that does not reach the end: a short header.
        { "truncated header", chunk("data", pcmBytes(16)) + "xyz" },
    };
    for (const Case& c : cases) {
        const QByteArray original = riff(fmt + chunk("iXML", xml) + c.tail);
        const QString path = store(original, QString("%1.wav").arg(c.name));
        {
            StoredFile stored(path);
            QVERIFY(stored.opened);
            QCOMPARE(stored.result, 31u); // the reading walk meets the same header
            AudioFile& audio = stored.audio;
            QCOMPARE(ixmlOf(audio), xml);
            QCOMPARE(audio.PutiXMLField(2, "12"), 0u);
            QVERIFY(audio.iXmlModified());
            QVERIFY(stored.file.seek(7));

            QCOMPARE(audio.WriteMetadata(), 31u);
            QVERIFY2(!audio.iXmlModified(), c.name);
            QCOMPARE(stored.file.pos(), qint64(7));
        }
        QCOMPARE(readFile(path), riff(fmt + chunk("iXML", edited) + c.tail));
    }
}

void AudioFileTest::iXmlCapFollowsMpegLayer_data()
{
    QTest::addColumn<bool>("fmtFirst");
    QTest::addColumn<int>("layer");
    QTest::addColumn<int>("kind");
    QTest::addColumn<uint>("result");
    QTest::addColumn<int>("kept");
    QTest::newRow("layer II") << true << 2 << 2 << 148u << 7214;
    QTest::newRow("layer III") << true << 4 << 1 << 148u << 7274;
    QTest::newRow("iXML before the layer II fmt") << false << 2 << 2 << 148u << 7274;
    QTest::newRow("layer I") << true << 1 << 3 << 0u << 7274;
}

// The smaller iXML room applies only once a Layer II 'fmt ' has been read; the rest of the chunk is
// skipped and the walk still finds 'data' behind it.

void AudioFileTest::iXmlCapFollowsMpegLayer()
{
    QFETCH(bool, fmtFirst);
    QFETCH(int, layer);
    QFETCH(int, kind);
    QFETCH(uint, result);
    QFETCH(int, kept);
    QByteArray xml = kPlainXml;
    while (xml.size() < 10000)
        xml += "<!-- " + QByteArray::number(xml.size()) + " -->";
    xml.truncate(10000);
    const QByteArray fmt = chunk("fmt ", mpegFmtPayload(2, 48000, 24, quint16(layer)));
    const QByteArray ixml = chunk("iXML", xml);
    LoadedFile loaded(riff((fmtFirst ? fmt + ixml : ixml + fmt) + chunk("data", pcmBytes(40))));
    AudioFile& audio = loaded.audio;
    QCOMPARE(loaded.result, result);
    AudioFile::AudioFileInfo info;
    audio.GetFileInfo(&info);
    QCOMPARE(int(info.formatKind), kind);
    QCOMPARE(int(audio.iXmlLength()), kept);
    QCOMPARE(ixmlOf(audio), xml.left(kept));
    QCOMPARE(audio.iXmlText()[kept], '\0');
    QCOMPARE(audio.dataStart(), quint32(12 + 52 + 10008 + 8));
}

void AudioFileTest::mpegFmtWithoutKnownLayer_data()
{
    QTest::addColumn<QByteArray>("fmt");
    // The layer code says Layer II, but an extension size other than 24 stops before it is read.
    QTest::newRow("extension size 22") << mpegFmtPayload(1, 32000, 22, 2);
    QTest::newRow("extension size 0, 20-byte fmt") << fmtPayload(80, 1, 32000, 0) + le(0, 2) + le(0, 2);
    QTest::newRow("layer code 1") << mpegFmtPayload(1, 32000, 24, 1);
    QTest::newRow("layer code 3") << mpegFmtPayload(1, 32000, 24, 3);
}

// An MPEG 'fmt ' whose layer is not known is accepted with the format kind left unknown (3): the file
// reads as 0, with the common fields taken and no sample count (that is for PCM only).

void AudioFileTest::mpegFmtWithoutKnownLayer()
{
    QFETCH(QByteArray, fmt);
    LoadedFile loaded(riff(chunk("fmt ", fmt) + chunk("data", pcmBytes(48))));
    AudioFile& audio = loaded.audio;
    QCOMPARE(loaded.result, 0u);
    AudioFile::AudioFileInfo info;
    audio.GetFileInfo(&info);
    QCOMPARE(int(info.formatKind), 3);
    QCOMPARE(info.sampleRate, 32000u);
    QCOMPARE(int(info.channels), 1);
    QCOMPARE(int(info.bitsPerSample), 0);
    QCOMPARE(int(info.bytesPerFrame), 4); // the default: only a PCM 'fmt ' computes it
    QCOMPARE(info.sampleFrames, 0u);
    QCOMPARE(audio.dataStart(), quint32(12 + 8 + fmt.size() + 8));
    QCOMPARE(audio.dataEnd(), quint32(12 + 8 + fmt.size() + 8 + 48));
}
