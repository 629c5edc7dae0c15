#include "audio/AudioFile.h"

#include "support/TestSupport.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

using TestSupport::FailingBuffer;
using TestSupport::readFile;
using TestSupport::writeFile;

namespace {

// ---- A small WAV builder: every field is written out here, little-endian, byte by byte. ----

QByteArray le(quint64 value, int bytes)
{
    QByteArray out;
    for (int i = 0; i < bytes; ++i)
        out.append(char((value >> (8 * i)) & 0xFF));
    return out;
}

// A chunk header with the given size field (the payload's own size unless told otherwise), then payload.
QByteArray chunk(const char* id, const QByteArray& payload, qint64 sizeField = -1)
{
    return QByteArray(id, 4) + le(quint64(sizeField < 0 ? payload.size() : sizeField), 4) + payload;
}

QByteArray riff(const QByteArray& chunks, qint64 riffSize = -1, const char* form = "WAVE")
{
    return "RIFF" + le(quint64(riffSize < 0 ? chunks.size() + 4 : riffSize), 4) + QByteArray(form, 4)
        + chunks;
}

// 'fmt ' payload: tag, channels, sample rate, byte rate, block align, bits per sample.
QByteArray fmtPayload(quint16 tag, quint16 channels, quint32 rate, quint16 bits)
{
    const quint16 align = quint16(channels * ((bits + 7) / 8));
    return le(tag, 2) + le(channels, 2) + le(rate, 4) + le(rate * align, 4) + le(align, 2) + le(bits, 2);
}

// 'bext' payload (602 bytes): Description (256), Originator (32), OriginatorReference (32),
// OriginationDate (10), OriginationTime (8), TimeReference (8), Version (2), UMID (64), reserved (190).
QByteArray bextPayload(const QByteArray& description, quint64 timeReference)
{
    QByteArray out = description.leftJustified(256, '\0', true);
    out += QByteArray("Originator").leftJustified(32, '\0') + QByteArray(32, '\0');
    out += "2024-01-02" + QByteArray("10:11:12");
    out += le(timeReference, 8) + le(1, 2) + QByteArray(64 + 190, '\0');
    return out;
}

// MPEG 'fmt ' payload of 44 bytes: the 16 common bytes (tag 80, no bits per sample), the extension size at
// offset 16, two reserved bytes, then 24 extension bytes that open with the layer code.
QByteArray mpegFmtPayload(quint16 channels, quint32 rate, quint16 extensionSize, quint16 layer)
{
    return fmtPayload(80, channels, rate, 0) + le(extensionSize, 2) + le(0, 2) + le(layer, 2)
        + QByteArray(22, '\0');
}

QByteArray spaces(int n)
{
    return QByteArray(n, ' ');
}

QByteArray pcmBytes(int count)
{
    QByteArray out;
    for (int i = 0; i < count; ++i)
        out.append(char((i * 37 + 11) & 0xFF));
    return out;
}

const QByteArray kTrackXml
    = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<BWFXML><PROJECT>Alpha</PROJECT><SCENE>12</SCENE>"
      "<TAKE>3</TAKE><NOTE></NOTE><TRACK_LIST><TRACK_COUNT>2</TRACK_COUNT>"
      "<TRACK><CHANNEL_INDEX>1</CHANNEL_INDEX><INTERLEAVE_INDEX>1</INTERLEAVE_INDEX><NAME>Boom</NAME></TRACK>"
      "<TRACK><CHANNEL_INDEX>2</CHANNEL_INDEX><INTERLEAVE_INDEX>2</INTERLEAVE_INDEX><NAME>Lav</NAME></TRACK>"
      "</TRACK_LIST></BWFXML>";
const QByteArray kPlainXml = "<BWFXML><SCENE>7</SCENE><TAKE id=\"2\">2</TAKE></BWFXML>";
const int kRoom = 40; // keeps the track iXML chunk even-sized, as a RIFF reader that skips pad bytes expects

struct Recording
{
    QByteArray description = "sSCENE=12\r\nsTAKE=3\r\n";
    quint64 timeReference = 0;
    QByteArray xml = kTrackXml;
    int room = kRoom;
    int pcmSize = 96000; // 0.5 s of 16-bit stereo at 48 kHz
    bool cutOff = true; // size fields left at 0, as by an interrupted recording
};

QByteArray build(const Recording& r)
{
    const QByteArray chunks = chunk("fmt ", fmtPayload(1, 2, 48000, 16))
        + chunk("bext", bextPayload(r.description, r.timeReference)) + chunk("iXML", r.xml + spaces(r.room))
        + chunk("data", pcmBytes(r.pcmSize), r.cutOff ? 0 : -1);
    return riff(chunks, r.cutOff ? 0 : -1);
}

// Offset of the PCM bytes in a built recording: RIFF 12, 'fmt ' 24, 'bext' 610, 'iXML' 8 + text, 'data' 8.
int dataOffset(const Recording& r)
{
    return 12 + 24 + 610 + 8 + r.xml.size() + r.room + 8;
}

QByteArray ixmlOf(const AudioFile& file)
{
    return QByteArray(file.iXmlText(), file.iXmlLength());
}

QByteArray descriptionOf(const AudioFile& file)
{
    return QByteArray(file.description(), AudioFile::s_descriptionSize);
}

// A built file in memory, opened read-write and read once.
struct LoadedFile
{
    explicit LoadedFile(const QByteArray& bytes)
        : audio(buffer)
    {
        buffer.setData(bytes);
        buffer.open(QIODevice::ReadWrite);
        result = audio.ReadAudioFileInfo();
    }
    QBuffer buffer;
    AudioFile audio;
    unsigned int result = 0;
};

} // namespace

class AudioFileTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void repairsCutOffRecording();
    void leavesCompleteRecordingAlone();
    void brokenHeadersKeepTheirBytes_data();
    void brokenHeadersKeepTheirBytes();
    void verifyHeaderReportsFailedWrites();
    void bytesPerFrame_data();
    void bytesPerFrame();
    void timecodeFromBext();
    void descriptionKeys();
    void oddSizedChunkIsNotPadded();
    void iXmlChunkIsCapped();
    void iXmlStatusAndQueries();
    void putiXMLFieldEdits();
    void putiXMLFieldRefusesNamesAndFiles();
    void bextDescriptionEdits();
    void writeMetadataRoundTrip();
    void writeMetadataStopsAtDataEndingTheFile();
    void writeMetadataStopsOnFailedRead();
    void iXmlCapFollowsMpegLayer_data();
    void iXmlCapFollowsMpegLayer();
    void mpegFmtWithoutKnownLayer_data();
    void mpegFmtWithoutKnownLayer();

private:
    QString store(const QByteArray& bytes, const QString& name = "take.wav");
    QScopedPointer<QTemporaryDir> m_dir;
};

void AudioFileTest::init()
{
    m_dir.reset(new QTemporaryDir);
    QVERIFY(m_dir->isValid());
}

QString AudioFileTest::store(const QByteArray& bytes, const QString& name)
{
    const QString path = m_dir->filePath(name);
    writeFile(path, bytes);
    return path;
}

void AudioFileTest::repairsCutOffRecording()
{
    const Recording r;
    const QString path = store(build(r));
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadWrite));
        AudioFile audio(file);
        QCOMPARE(audio.ReadAudioFileInfo(), 0u);
        QCOMPARE(audio.dataStart(), quint32(dataOffset(r)));
        QCOMPARE(audio.VerifyHeader(), 0u);
        AudioFile::AudioFileInfo info;
        audio.GetFileInfo(&info);
        QCOMPARE(info.sampleRate, 48000u);
        QCOMPARE(info.channels, quint16(2));
        QCOMPARE(info.bytesPerFrame, quint16(4));
        QCOMPARE(info.startTimecode, 0xFFFFFFFFu);
    }
    Recording complete = r;
    complete.cutOff = false;
    const QByteArray repaired = readFile(path);
    QCOMPARE(repaired.mid(4, 4), le(quint64(repaired.size() - 8), 4));
    QCOMPARE(repaired.mid(dataOffset(r) - 4, 4), le(96000, 4));
    QCOMPARE(repaired.mid(dataOffset(r)), pcmBytes(96000));
    QCOMPARE(repaired, build(complete));

    if (!QFile::exists("/usr/bin/ffprobe"))
        QSKIP("ffprobe is not installed at /usr/bin/ffprobe");
    QProcess probe;
    probe.start("/usr/bin/ffprobe",
        { "-v", "error", "-show_entries", "stream=channels,sample_rate,duration", "-of",
            "default=noprint_wrappers=1", path });
    QVERIFY(probe.waitForFinished(30000));
    QCOMPARE(probe.exitCode(), 0);
    const QStringList lines
        = QString::fromUtf8(probe.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
    QVERIFY2(lines.contains("sample_rate=48000"), qPrintable(lines.join(' ')));
    QVERIFY2(lines.contains("channels=2"), qPrintable(lines.join(' ')));
    QVERIFY2(lines.contains("duration=0.500000"), qPrintable(lines.join(' ')));
}

void AudioFileTest::leavesCompleteRecordingAlone()
{
    Recording r;
    r.cutOff = false;
    const QByteArray original = build(r);
    const QString path = store(original);
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadWrite));
    AudioFile audio(file);
    QCOMPARE(audio.ReadAudioFileInfo(), 0u);
    QCOMPARE(audio.dataEnd(), quint32(original.size()));
    QCOMPARE(audio.VerifyHeader(), 0u);
    AudioFile::AudioFileInfo info;
    audio.GetFileInfo(&info);
    QCOMPARE(info.sampleFrames, 24000u);
    file.close();
    QCOMPARE(readFile(path), original);
}

void AudioFileTest::brokenHeadersKeepTheirBytes_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<uint>("result");
    const QByteArray fmt = chunk("fmt ", fmtPayload(1, 2, 48000, 16));
    const QByteArray data = chunk("data", pcmBytes(16));
    const QByteArray bext = chunk("bext", bextPayload("", 0));
    const QByteArray ixml = chunk("iXML", kPlainXml);
    // Extension size 24 at payload offset 16; the 24 extension bytes start at offset 20 with the layer.
    const QByteArray mpegFmt = fmtPayload(80, 2, 48000, 0) + le(24, 2) + le(0, 2);
    const QByteArray layer3 = le(4, 2) + QByteArray(22, '\0');
    const QByteArray layer2 = le(2, 2) + QByteArray(22, '\0');

    QTest::newRow("11 bytes") << QByteArray("RIFF\x10\0\0\0WAV", 11) << 31u;
    QTest::newRow("empty") << QByteArray() << 31u;
    QTest::newRow("RIFX") << ("RIFX" + riff(fmt + data).mid(4)) << 148u;
    QTest::newRow("not WAVE") << riff(fmt + data, -1, "AVI ") << 148u;
    QTest::newRow("fmt of 18 bytes") << riff(chunk("fmt ", fmtPayload(1, 2, 48000, 16) + le(0, 2)) + data)
                                     << 148u;
    QTest::newRow("float fmt") << riff(chunk("fmt ", fmtPayload(3, 2, 48000, 32)) + data) << 148u;
    QTest::newRow("MPEG layer III") << riff(chunk("fmt ", mpegFmt + layer3) + data) << 148u;
    QTest::newRow("MPEG layer II") << riff(chunk("fmt ", mpegFmt + layer2) + data) << 148u;
    QTest::newRow("no fmt") << riff(data) << 8u;
    QTest::newRow("data before bext and iXML") << riff(fmt + data + bext + ixml) << 31u;
    QTest::newRow("cut inside bext") << riff(fmt + bext.left(200)) << 31u;
    QTest::newRow("cut inside fmt") << riff(fmt.left(14)) << 31u;
    QTest::newRow("no data") << riff(fmt + bext + ixml) << 31u;
}

void AudioFileTest::brokenHeadersKeepTheirBytes()
{
    QFETCH(QByteArray, bytes);
    QFETCH(uint, result);
    const QString path = store(bytes);
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadWrite));
        AudioFile audio(file);
        QCOMPARE(audio.ReadAudioFileInfo(), result);
    }
    QCOMPARE(readFile(path), bytes);
}

void AudioFileTest::verifyHeaderReportsFailedWrites()
{
    const QByteArray original = build(Recording());
    for (qint64 limit : { 0, 4 }) {
        FailingBuffer buffer(limit);
        buffer.setData(original);
        QVERIFY(buffer.open(QIODevice::ReadWrite));
        AudioFile audio(buffer);
        QCOMPARE(audio.ReadAudioFileInfo(), 0u);
        QCOMPARE(audio.VerifyHeader(), 31u);
        QCOMPARE(buffer.data().mid(4, 4), le(0, 4)); // the RIFF size is written last, and failed
        QCOMPARE(buffer.data().mid(dataOffset(Recording()) - 4, 4), limit == 0 ? le(0, 4) : le(96000, 4));
    }
    const QString path = store(original);
    QFile readOnly(path);
    QVERIFY(readOnly.open(QIODevice::ReadOnly));
    AudioFile audio(readOnly);
    QCOMPARE(audio.ReadAudioFileInfo(), 0u);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("ReadOnly device"));
    QCOMPARE(audio.VerifyHeader(), 31u);
    readOnly.close();
    QCOMPARE(readFile(path), original);
}

void AudioFileTest::bytesPerFrame_data()
{
    QTest::addColumn<int>("channels");
    QTest::addColumn<int>("bits");
    QTest::addColumn<int>("fmtExtra"); // 0 for a 16-byte 'fmt ', 4 for a 20-byte one
    QTest::addColumn<int>("expected");
    QTest::newRow("24-bit stereo") << 2 << 24 << 0 << 6;
    QTest::newRow("20-bit stereo") << 2 << 20 << 0 << 6;
    QTest::newRow("16-bit mono") << 1 << 16 << 0 << 2;
    QTest::newRow("8-bit mono counts 3") << 1 << 8 << 0 << 3;
    QTest::newRow("24-bit 4 channels, 20-byte fmt") << 4 << 24 << 4 << 12;
}

void AudioFileTest::bytesPerFrame()
{
    QFETCH(int, channels);
    QFETCH(int, bits);
    QFETCH(int, fmtExtra);
    QFETCH(int, expected);
    const QByteArray fmt
        = fmtPayload(1, quint16(channels), 44100, quint16(bits)) + QByteArray(fmtExtra, '\0');
    LoadedFile loaded(riff(chunk("fmt ", fmt) + chunk("data", pcmBytes(120))));
    AudioFile& audio = loaded.audio;
    QCOMPARE(loaded.result, 0u);
    AudioFile::AudioFileInfo info;
    audio.GetFileInfo(&info);
    QCOMPARE(int(info.bytesPerFrame), expected);
    QCOMPARE(int(info.sampleFrames), 120 / expected);
    QCOMPARE(info.sampleRate, 44100u);
    QCOMPARE(int(info.bitsPerSample), bits);
    QCOMPARE(int(info.formatKind), 0);
}

void AudioFileTest::timecodeFromBext()
{
    struct Case
    {
        QByteArray description;
        quint64 timeReference;
        quint16 frameRate;
        quint32 startTimecode;
    };
    const Case cases[] = {
        { "SPEED=029.970-DF\r\n", 48000 * 60, 4, 0x00010002 }, // frame 1798 at 29.97 DF
        { "sNOTE=x\r\n", 48000 * 60, 5, 0x00010000 }, // 1800 frames at 30
        { "", 0, 100, 0xFFFFFFFF },
        { "SPEED=025.000-ND", 0, 2, 0 },
        { "SPEED=031.000-ND", 48000 * 2, 5, 0x00000200 },
        { "xSPEED=024.000-ND", 48000 * 3600 + 2000, 1, 0x01000001 },
    };
    for (const Case& c : cases) {
        Recording r;
        r.description = c.description;
        r.timeReference = c.timeReference;
        LoadedFile loaded(build(r));
        AudioFile& audio = loaded.audio;
        QCOMPARE(loaded.result, 0u);
        AudioFile::AudioFileInfo info;
        audio.GetFileInfo(&info);
        QCOMPARE(info.frameRate, c.frameRate);
        QCOMPARE(info.startTimecode, c.startTimecode);
        QCOMPARE(audio.timeReference(), c.timeReference);
    }
}

void AudioFileTest::descriptionKeys()
{
    Recording r;
    r.description = "MEDIA=12\r\nUBITS=$12345678\r\n";
    LoadedFile loaded(build(r));
    AudioFile& audio = loaded.audio;
    QCOMPARE(loaded.result, 0u);
    AudioFile::AudioFileInfo info;
    audio.GetFileInfo(&info);
    QCOMPARE(info.media, quint16(12));
    QCOMPARE(info.userBits, 0x0C22384Eu);
    QCOMPARE(QByteArray(audio.description()), r.description);
}

// An odd-sized chunk is followed by the next header at exactly its end: found when the writer did not
// pad, misread (and the walk runs off the file) when it did.
void AudioFileTest::oddSizedChunkIsNotPadded()
{
    const QByteArray fmt = chunk("fmt ", fmtPayload(1, 2, 48000, 16));
    LoadedFile unpadded(riff(fmt + chunk("junk", "abc") + chunk("data", pcmBytes(8))));
    AudioFile& audio = unpadded.audio;
    QCOMPARE(unpadded.result, 0u);
    QCOMPARE(audio.dataStart(), 12u + 24 + 11 + 8);

    const QByteArray padded
        = riff(fmt + chunk("junk", QByteArray("abc\0", 4), 3) + chunk("data", pcmBytes(8)));
    const QString path = store(padded);
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadWrite));
        AudioFile misread(file);
        QCOMPARE(misread.ReadAudioFileInfo(), 31u);
    }
    QCOMPARE(readFile(path), padded);
}

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
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadWrite));
        AudioFile audio(file);
        QCOMPARE(audio.ReadAudioFileInfo(), 0u);
        QCOMPARE(audio.VerifyHeader(), 0u);
        QCOMPARE(audio.PutiXMLField(2, "14A"), 0u);
        QCOMPARE(audio.PutiXMLField(4, "T1"), 0u);
        audio.PutBextField(2, "14A");
        file.seek(100);
        QCOMPARE(audio.WriteMetadata(), 0u);
        QVERIFY(!audio.iXmlModified());
        QCOMPARE(file.pos(), qint64(100));
    }
    Recording edited = r;
    edited.cutOff = false;
    edited.description = "sTAKE=3\r\nsSCENE=14A\r\n";
    edited.xml = QByteArray(kTrackXml)
                     .replace("<SCENE>12</SCENE>", "<SCENE>14A</SCENE>")
                     .replace("</BWFXML>", "<TAPE>T1</TAPE></BWFXML>");
    edited.room = kRoom - 16;
    QCOMPARE(readFile(path), build(edited)); // same chunk sizes, same audio

    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    AudioFile fresh(file);
    QCOMPARE(fresh.ReadAudioFileInfo(), 0u);
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
            QFile file(path);
            QVERIFY(file.open(QIODevice::ReadWrite));
            AudioFile audio(file);
            QCOMPARE(audio.ReadAudioFileInfo(), 31u); // the reading walk meets the same header
            QCOMPARE(ixmlOf(audio), xml);
            QCOMPARE(audio.PutiXMLField(2, "12"), 0u);
            QVERIFY(audio.iXmlModified());
            QVERIFY(file.seek(7));

            QCOMPARE(audio.WriteMetadata(), 31u);
            QVERIFY2(!audio.iXmlModified(), c.name);
            QCOMPARE(file.pos(), qint64(7));
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

QTEST_GUILESS_MAIN(AudioFileTest)
#include "tst_audiofile.moc"
