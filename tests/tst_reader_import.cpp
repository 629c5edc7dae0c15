// Movies ffmpeg wrote, read through the reader's tables: every video frame and every sound sample must be
// what ffmpeg's own demuxer returns for the same stream.

#include "movie/QuickTimeFile.h"
#include "support/AtomBytes.h"
#include "support/AtomWalker.h"
#include "support/MediaTools.h"
#include "support/MessageCapture.h"
#include "support/TestSupport.h"

#include <QCryptographicHash>
#include <QTemporaryDir>
#include <QtTest>

using namespace AtomWalker;
using MovieFile = Tern::QuickTimeFile;

namespace {

// Size and MD5 of every packet of the first video stream, as ffmpeg's demuxer delivers them.
QStringList videoPackets(const QString& path)
{
    bool ok = false;
    const QByteArray out = MediaTools::run(
        "ffmpeg", { "-v", "error", "-i", path, "-map", "0:v:0", "-c", "copy", "-f", "framemd5", "-" }, &ok);
    QStringList packets;
    for (const QByteArray& line : out.split('\n')) {
        if (line.startsWith('#') || line.trimmed().isEmpty())
            continue;
        const QList<QByteArray> fields = line.split(',');
        packets << QString("%1 %2").arg(
            fields.value(4).trimmed().constData(), fields.last().trimmed().constData());
    }
    return packets;
}

// Every packet of audio stream `index` back to back, as ffmpeg's demuxer delivers them.
QByteArray soundPackets(const QString& path, int index)
{
    return MediaTools::run("ffmpeg",
        { "-v", "error", "-ignore_editlist", "1", "-i", path, "-map", QString("0:a:%1").arg(index), "-c",
            "copy", "-f", "data", "-" });
}

} // namespace

class TestReaderImport : public QObject
{
    Q_OBJECT

private slots:
    void framesAndSamplesEqualFfmpegs_data();
    void framesAndSamplesEqualFfmpegs();
};

void TestReaderImport::framesAndSamplesEqualFfmpegs_data()
{
    QTest::addColumn<QStringList>("inputs");
    QTest::addColumn<QStringList>("encoding");
    QTest::addColumn<bool>("chunkOffsets64");
    QTest::addColumn<int>("soundTracks");

    const QString sine = "sine=frequency=440:sample_rate=48000";
    const QStringList prores { "-c:v", "prores_ks", "-profile:v", "2" };
    const QStringList dnxhd { "-c:v", "dnxhd", "-profile:v", "dnxhr_lb", "-pix_fmt", "yuv422p" };
    QTest::newRow("ProRes, mono 24-bit, 'stco'")
        << QStringList { "testsrc2=size=320x240:rate=25", sine }
        << prores + QStringList { "-c:a", "pcm_s24le" } << false << 1;
    QTest::newRow("DNxHD, mono 32-bit, 'co64'") << QStringList { "testsrc2=size=256x144:rate=25", sine }
                                                << dnxhd + QStringList { "-c:a", "pcm_s32le" } << true << 1;
    QTest::newRow("ProRes, three sound tracks")
        << QStringList { "testsrc2=size=320x240:rate=30000/1001", sine,
               "sine=frequency=660:sample_rate=48000", "sine=frequency=880:sample_rate=48000" }
        << prores + QStringList { "-c:a:0", "pcm_s24le", "-c:a:1", "pcm_s16be", "-c:a:2", "pcm_s32le" }
        << false << 3;
    QTest::newRow("DNxHD, one 4-channel track, 'co64'")
        << QStringList { "testsrc2=size=256x144:rate=24",
               "aevalsrc=sin(440*2*PI*t)|sin(660*2*PI*t)|0.5*sin(880*2*PI*t)|0.25*sin(220*2*PI*t):s=48000" }
        << dnxhd + QStringList { "-c:a", "pcm_s24le" } << true << 1;
    QTest::newRow("ProRes after two sound tracks, index first")
        << QStringList { "testsrc2=size=320x240:rate=25", sine, "sine=frequency=660:sample_rate=44100" }
        << prores + QStringList { "-c:a", "pcm_s24le", "-movflags", "+faststart" } << false << 2;
}

void TestReaderImport::framesAndSamplesEqualFfmpegs()
{
    QFETCH(QStringList, inputs);
    QFETCH(QStringList, encoding);
    QFETCH(bool, chunkOffsets64);
    QFETCH(int, soundTracks);
    if (!MediaTools::available())
        QSKIP("ffmpeg is not installed");

    QTemporaryDir tmp;
    const QString path = tmp.filePath("import.mov");
    QStringList args { "-v", "error", "-y" };
    for (const QString& input : inputs)
        args << "-f"
             << "lavfi"
             << "-i" << input;
    // Sound first when the row says the video comes after the sound tracks.
    const bool videoLast = QString(QTest::currentDataTag()).contains("after");
    if (videoLast) {
        for (int i = 1; i < inputs.size(); ++i)
            args << "-map" << QString("%1:a").arg(i);
        args << "-map"
             << "0:v";
    } else {
        for (int i = 0; i < inputs.size(); ++i)
            args << "-map" << QString::number(i);
    }
    args << "-t"
         << "1" << encoding << "-f"
         << "mov" << path;
    bool ok = false;
    MediaTools::run("ffmpeg", args, &ok);
    QVERIFY(ok);
    if (chunkOffsets64) {
        const QByteArray rewritten = AtomBytes::withChunkOffsets64(TestSupport::readFile(path));
        QVERIFY(find(rewritten, "moov/trak:1/mdia/minf/stbl/co64").valid());
        QVERIFY(TestSupport::writeFile(path, rewritten));
    }
    const QStringList expectedFrames = videoPackets(path);
    QVERIFY(expectedFrames.size() >= 24);

    QFile device(path);
    QVERIFY(device.open(QIODevice::ReadOnly));
    MovieFile file(device);
    const bool opened = MessageCapture::quietly([&] { return file.initFileRead(&device); });
    QVERIFY(opened);
    QVERIFY(!file.writtenByRecorder);
    QCOMPARE(file.trackCount, 1 + soundTracks);
    if (videoLast)
        QCOMPARE(file.tracks[soundTracks].type, Tern::quicktime_frametype_video);
    // One sound track of several channels counts its channels, and marks them interleaved.
    const bool multiChannel = QString(QTest::currentDataTag()).contains("4-channel");
    QCOMPARE(file.audioTracks, multiChannel ? 4u : quint32(soundTracks));
    QCOMPARE(file.interleavedAudio, multiChannel);

    QStringList frames;
    QByteArray buffer(4 * 1024 * 1024, '\0');
    for (quint32 f = 0; f < file.videoFrames(); ++f) {
        QVERIFY(file.gotoVideoFrame(f));
        int size = buffer.size();
        QVERIFY(file.getMovieVideoData(buffer.data(), &size));
        frames << QString("%1 %2").arg(size).arg(QString::fromLatin1(
            QCryptographicHash::hash(buffer.left(size), QCryptographicHash::Md5).toHex()));
    }
    QCOMPARE(frames, expectedFrames);

    for (int t = 0; t < soundTracks; ++t) {
        const Tern::QuickTimeTrackInfo* track = file.getAudioTrack(t);
        QVERIFY(track);
        const int frameBytes = int(track->audioBytesPerSample * track->audioChannels);
        QVERIFY(frameBytes > 0);
        QByteArray read;
        QByteArray piece(1000 * frameBytes, '\0');
        for (;;) {
            const unsigned got
                = file.readAudioSamples(t, reinterpret_cast<unsigned char*>(piece.data()), 1000);
            read += piece.left(int(got) * frameBytes);
            if (got < 1000)
                break;
        }
        const QByteArray expected = soundPackets(path, t);
        QVERIFY(!expected.isEmpty());
        QCOMPARE(read.size(), expected.size());
        QVERIFY(read == expected);
        QCOMPARE(quint64(read.size() / frameBytes), quint64(track->stszEntries));
    }
    QVERIFY(file.closeFileRead());
}

QTEST_GUILESS_MAIN(TestReaderImport)
#include "tst_reader_import.moc"
