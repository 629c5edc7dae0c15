// AudioFile on WAVs built here byte by byte: a cut-off recording's header repaired, a complete one left
// alone, broken headers refused with their bytes kept, failed writes reported, and what the header tells
// (bytes per frame, the timecode in 'bext', the description's keys). The iXML and 'bext' metadata are in
// tst_audiofile_metadata.cpp.

#include "tst_audiofile.h"

#include <QFile>
#include <QProcess>
#include <QtTest>

using namespace AudioFileFixtures;
using namespace WavBytes;
using TestSupport::FailingBuffer;
using TestSupport::le;
using TestSupport::readFile;
using TestSupport::writeFile;

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
        StoredFile stored(path);
        QVERIFY(stored.opened);
        QCOMPARE(stored.result, 0u);
        AudioFile& audio = stored.audio;
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
    StoredFile stored(path);
    QVERIFY(stored.opened);
    QCOMPARE(stored.result, 0u);
    AudioFile& audio = stored.audio;
    QCOMPARE(audio.dataEnd(), quint32(original.size()));
    QCOMPARE(audio.VerifyHeader(), 0u);
    AudioFile::AudioFileInfo info;
    audio.GetFileInfo(&info);
    QCOMPARE(info.sampleFrames, 24000u);
    stored.file.close();
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
        const StoredFile stored(path);
        QVERIFY(stored.opened);
        QCOMPARE(stored.result, result);
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
    StoredFile readOnly(path, QIODevice::ReadOnly);
    QVERIFY(readOnly.opened);
    QCOMPARE(readOnly.result, 0u);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("ReadOnly device"));
    QCOMPARE(readOnly.audio.VerifyHeader(), 31u);
    readOnly.file.close();
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
        const StoredFile misread(path);
        QVERIFY(misread.opened);
        QCOMPARE(misread.result, 31u);
    }
    QCOMPARE(readFile(path), padded);
}

QTEST_GUILESS_MAIN(AudioFileTest)
