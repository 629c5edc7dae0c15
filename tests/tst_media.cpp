// Interrupted recordings of both recorder families, of real encoded frames and PCM, finalized by
// clipward-cli and checked with ffmpeg as the independent reader: the stream list, the counts, every
// decoded frame and every sample.

#include "simulate/RecordingSimulator.h"
#include "support/MediaTools.h"
#include "support/TestSupport.h"

#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

using namespace TestSupport;

namespace {

const qint64 kDatPos = 5472240;

struct Shape
{
    RecordingPlan::Family family = RecordingPlan::Tern;
    QStringList encoder;    // ffmpeg arguments of the video encoder
    int width = 1280;
    int height = 720;
    QString rate = "25";    // the encoder's frame rate
    int frames = 24;
    quint32 codecType = 1;
    quint32 variant = 1;
    quint32 recordRate = 2500; // what the recorder stores: the field rate when interlaced
    quint32 interlaced = 0;
    int tracks = 2;
    quint32 bytesPerSample = 3;
    int samplesPerTrack = 0; // 0: as long as the video
    quint32 firstChunkSamples = 0;
    quint32 framesPerChunk = 3;
    quint32 samplesPerChunk = 5760;
    QString expectedTag;       // video codec tag
    QString expectedFrameRate; // as ffprobe prints r_frame_rate
};

QString rawFormat(quint32 bytesPerSample)
{
    return bytesPerSample == 2 ? "s16le" : bytesPerSample == 3 ? "s24le" : "s32le";
}

QString audioCodec(quint32 bytesPerSample)
{
    return "pcm_" + rawFormat(bytesPerSample);
}

} // namespace

Q_DECLARE_METATYPE(Shape)

class TestMedia : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void finalizedMovieDecodesLikeItsSource_data();
    void finalizedMovieDecodesLikeItsSource();
};

void TestMedia::initTestCase()
{
    if (!MediaTools::available())
        QSKIP("ffmpeg and ffprobe are needed (the test command installs them)");
}

void TestMedia::finalizedMovieDecodesLikeItsSource_data()
{
    QTest::addColumn<Shape>("shape");
    const QStringList proresHq{"-c:v", "prores_ks", "-profile:v", "3", "-pix_fmt", "yuv422p10le"};

    Shape hq;
    hq.encoder = proresHq;
    hq.width = 1920;
    hq.height = 1080;
    hq.frames = 15;
    hq.samplesPerChunk = 1920; // one frame's worth: 15 frames + 15 sound chunks + the timecode sample
    hq.expectedTag = "apch";
    hq.expectedFrameRate = "25/1";
    QTest::newRow("ProRes 422 HQ 1080p25, two 24-bit tracks") << hq;

    Shape p4444;
    p4444.encoder = QStringList{"-c:v", "prores_ks", "-profile:v", "4", "-pix_fmt", "yuva444p10le"};
    p4444.codecType = 2;
    p4444.variant = 1;
    p4444.bytesPerSample = 4;
    p4444.expectedTag = "ap4h";
    p4444.expectedFrameRate = "25/1";
    QTest::newRow("ProRes 4444, 32-bit audio") << p4444;

    Shape lt;
    lt.encoder = QStringList{"-c:v", "prores_ks", "-profile:v", "1", "-pix_fmt", "yuv422p10le"};
    lt.rate = "60000/1001";
    lt.frames = 30;
    lt.variant = 3;
    lt.recordRate = 5994;
    lt.bytesPerSample = 2;
    lt.samplesPerChunk = 2402;
    lt.expectedTag = "apcs";
    lt.expectedFrameRate = "2997/50"; // time scale 5994, 100 per frame
    QTest::newRow("ProRes LT 720p59.94, 16-bit audio") << lt;

    Shape dnx;
    dnx.encoder = QStringList{"-c:v", "dnxhd", "-b:v", "36M", "-pix_fmt", "yuv422p"};
    dnx.width = 1920;
    dnx.height = 1080;
    dnx.frames = 15;
    dnx.samplesPerChunk = 1920;
    dnx.codecType = 0;
    dnx.expectedTag = "AVdn";
    dnx.expectedFrameRate = "25/1";
    QTest::newRow("DNxHD 1080p25") << dnx;

    Shape dnxi = dnx;
    dnxi.encoder = QStringList{"-c:v", "dnxhd", "-b:v", "120M", "-pix_fmt", "yuv422p", "-flags", "+ildct"};
    dnxi.recordRate = 5000; // 50 fields per second
    dnxi.interlaced = 1;
    QTest::newRow("DNxHD 1080i50, field rate halved") << dnxi;

    Shape film;
    film.encoder = proresHq;
    film.rate = "24000/1001";
    film.variant = 2;
    film.recordRate = 2398;
    film.samplesPerChunk = 6006;
    film.expectedTag = "apcn";
    film.expectedFrameRate = "2997/125"; // time scale 23976, 1000 per frame
    QTest::newRow("ProRes 422 at 23.976") << film;

    Shape odd = hq;
    odd.width = 1280;
    odd.height = 720;
    odd.frames = 31;
    odd.expectedTag = "apch";
    QTest::newRow("31 frames in chunks of 3") << odd;

    Shape shortChunks = odd;
    shortChunks.frames = 24;
    shortChunks.firstChunkSamples = 1000;
    shortChunks.samplesPerTrack = 1000 + 6 * 5760 + 333;
    shortChunks.tracks = 3;
    QTest::newRow("short first and last sound chunks") << shortChunks;

    Shape audioOnly = hq;
    audioOnly.frames = 0;
    audioOnly.samplesPerTrack = 48000 * 2 + 17;
    audioOnly.tracks = 4;
    audioOnly.samplesPerChunk = 2400;
    QTest::newRow("audio only") << audioOnly;

    Shape videoOnly = odd;
    videoOnly.tracks = 0;
    QTest::newRow("video only") << videoOnly;

    // Heron: 3 frames and 3,072 samples a chunk, 422 variants numbered from 0, no edit lists.
    Shape heron = odd;
    heron.family = RecordingPlan::Heron;
    heron.variant = 0;
    heron.samplesPerChunk = 3072;
    heron.frames = 24;
    QTest::newRow("Heron ProRes 422 HQ, two 24-bit tracks") << heron;

    Shape heron4444 = p4444;
    heron4444.family = RecordingPlan::Heron;
    heron4444.samplesPerChunk = 3072;
    QTest::newRow("Heron ProRes 4444, 32-bit audio") << heron4444;

    Shape heronDnx = dnx;
    heronDnx.family = RecordingPlan::Heron;
    heronDnx.samplesPerChunk = 3072;
    heronDnx.tracks = 4;
    QTest::newRow("Heron DNxHD 1080p25, four tracks") << heronDnx;

    Shape heronShort = heron;
    heronShort.frames = 6; // 2 video chunks and 2 sound chunks: Heron has no minimum
    QTest::newRow("Heron with fewer than 30 chunks") << heronShort;

    Shape heronAudio = heron;
    heronAudio.frames = 0;
    heronAudio.samplesPerTrack = 3072 * 5 + 100;
    QTest::newRow("Heron audio only") << heronAudio;
}

void TestMedia::finalizedMovieDecodesLikeItsSource()
{
    QFETCH(Shape, shape);
    QTemporaryDir tmp;
    const QString source = tmp.filePath("source.mov");

    RecordingPlan plan;
    plan.family = shape.family;
    plan.videoCodecType = shape.codecType;
    plan.proResVariant = shape.variant;
    plan.width = quint16(shape.width);
    plan.height = quint16(shape.height);
    plan.frameRate = shape.recordRate;
    plan.interlaced = shape.interlaced;
    plan.videoFramesPerChunk = shape.framesPerChunk;
    plan.audioBytesPerSample = shape.bytesPerSample;
    plan.audioSamplesPerChunk = shape.samplesPerChunk;
    plan.firstChunkSamples = shape.firstChunkSamples;
    plan.tornTailBytes = 4321; // a chunk begun but never committed

    QStringList sourceHashes;
    if (shape.frames > 0) {
        plan.videoFrames = MediaTools::encodeFrames(source, shape.encoder, shape.width, shape.height, shape.rate,
                                                    shape.frames);
        QCOMPARE(plan.videoFrames.size(), shape.frames);
        sourceHashes = MediaTools::videoFrameHashes(source);
        QCOMPARE(sourceHashes.size(), shape.frames);
        if (shape.codecType == 0) // the compression ID the encoder chose, from the frame header
            plan.videoCodecId = qFromBigEndian<quint32>(plan.videoFrames.first().constData() + 0x28);
    }
    const int samples = shape.samplesPerTrack
                          ? shape.samplesPerTrack
                          : int(qint64(shape.frames) * 48000 * 100 / (shape.interlaced ? shape.recordRate / 2
                                                                                        : shape.recordRate));
    for (int t = 0; t < shape.tracks; ++t)
        plan.audioTracks << syntheticPcm(t, samples, int(shape.bytesPerSample));

    const QString card = tmp.filePath("card");
    const QString zqv = card + "/A001C001.zqv";
    QDir().mkpath(card);
    const RecordingResult recording = writeInterruptedRecording(zqv, plan);
    QVERIFY2(recording.ok, qPrintable(recording.error));
    const QByteArray before = readFile(zqv);

    QStringList out;
    QCOMPARE(runCli({card}, &out), 0);
    const QString mov = card + "/A001C001.mov";
    const bool heron = shape.family == RecordingPlan::Heron;
    QVERIFY(out.contains("     " + mov + (heron ? " (Heron) Finalized" : " (Tern) Finalized")));
    const QByteArray after = readFile(mov);

    // The reserved region and the media are untouched; only the 'mdat' header changed before the end.
    const int end = int(recording.recordedEndPosition);
    QCOMPARE(after.left(int(kDatPos)), before.left(int(kDatPos)));
    QCOMPARE(after.mid(int(kDatPos), 8), before.mid(int(kDatPos), 8));
    // Heron closes its media with one more timecode sample: the start timecode, big-endian.
    const int timecodeBytes = heron ? 512 : 0;
    QCOMPARE(qFromBigEndian<quint64>(after.constData() + kDatPos + 8), quint64(end + timecodeBytes - kDatPos));
    if (heron) {
        QCOMPARE(after.mid(end, 4), hex("01000000"));
        QCOMPARE(after.mid(end + 4, 508), QByteArray(508, '\0'));
    }
    QCOMPARE(after.mid(int(kDatPos) + 16, end - int(kDatPos) - 16), before.mid(int(kDatPos) + 16, end - int(kDatPos) - 16));

    const QList<MediaTools::Stream> streams = MediaTools::streams(mov);
    QCOMPARE(streams.size(), 1 + (shape.frames > 0 ? 1 : 0) + shape.tracks);
    QCOMPARE(streams[0].type, QString("data"));
    QCOMPARE(streams[0].tag, QString("tmcd"));
    QCOMPARE(streams[0].frames, qint64(1));
    int next = 1;
    if (shape.frames > 0) {
        const MediaTools::Stream& video = streams[next++];
        QCOMPARE(video.type, QString("video"));
        QCOMPARE(video.tag, shape.expectedTag);
        QCOMPARE(video.frames, qint64(shape.frames));
        QCOMPARE(video.width, shape.width);
        QCOMPARE(video.height, shape.height);
        QCOMPARE(video.frameRate, shape.expectedFrameRate);
        QCOMPARE(MediaTools::videoFrameHashes(mov), sourceHashes);
    }
    for (int t = 0; t < shape.tracks; ++t) {
        const MediaTools::Stream& audio = streams[next++];
        QCOMPARE(audio.type, QString("audio"));
        QCOMPARE(audio.codec, audioCodec(shape.bytesPerSample));
        QCOMPARE(audio.channels, 1);
        QCOMPARE(audio.sampleRate, 48000);
        // Without video the movie and track durations are 0 (they count video frames), so the edit lists
        // are empty; the sound media itself is whole and is read past them.
        const QByteArray decoded =
            MediaTools::decodeAudio(mov, t, rawFormat(shape.bytesPerSample), shape.frames == 0 && !heron);
        QCOMPARE(decoded.size(), plan.audioTracks[t].size());
        QVERIFY2(decoded == plan.audioTracks[t], qPrintable(QString("sound track %1 differs").arg(t)));
    }

    // The program's own check agrees: every frame and sample read through its reader, where the index
    // and the frame map put them.
    QStringList verified;
    QCOMPARE(runCli({"--verify", mov}, &verified), 0);
    QVERIFY2(!verified.isEmpty() && verified.last().endsWith(", verified"), qPrintable(verified.join('\n')));
}

QTEST_GUILESS_MAIN(TestMedia)
#include "tst_media.moc"
