// Interrupted recordings of both recorder families, of real encoded frames and PCM, finalized by
// clipward-cli and checked with ffmpeg as the independent reader: the stream list, the counts, every
// decoded frame and every sample.

#include "simulate/RecordingSimulator.h"
#include "support/MediaTools.h"
#include "support/TestSupport.h"

#include <QCryptographicHash>
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
    bool dropFrame = false;
    bool timecodeSample = true;       // Tern: the recorder wrote its timecode sample
    QString expectedTimecode = "01:00:00:00"; // the start timecode as readers show it
    quint32 expectedTimecodeFrame = 90000;   // the frame number that shows so: 01:00:00:00 at 25
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
    void interchangeFinishReadsRightInEveryReader_data();
    void interchangeFinishReadsRightInEveryReader();
    void restoreGivesBackTheRecordersFile_data();
    void restoreGivesBackTheRecordersFile();
};

void TestMedia::initTestCase()
{
    if (!MediaTools::available())
        QSKIP("ffmpeg and ffprobe are needed (the test command installs them)");
}

namespace {

// Sound samples per track of the shape: as long as the video unless it says otherwise.
int samplesPerTrack(const Shape& shape)
{
    if (shape.samplesPerTrack)
        return shape.samplesPerTrack;
    return int(qint64(shape.frames) * 48000 * 100
               / (shape.interlaced ? shape.recordRate / 2 : shape.recordRate));
}

// The movies of the test: the codecs, rates, sound depths and chunk layouts the recorders write.
QList<QPair<const char*, Shape>> shapes()
{
    QList<QPair<const char*, Shape>> list;
    const QStringList proresHq{"-c:v", "prores_ks", "-profile:v", "3", "-pix_fmt", "yuv422p10le"};

    Shape hq;
    hq.encoder = proresHq;
    hq.width = 1920;
    hq.height = 1080;
    hq.frames = 15;
    hq.samplesPerChunk = 1920; // one frame's worth: 15 frames + 15 sound chunks + the timecode sample
    hq.expectedTag = "apch";
    hq.expectedFrameRate = "25/1";
    list.append({"ProRes 422 HQ 1080p25, two 24-bit tracks", hq});

    Shape p4444;
    p4444.encoder = QStringList{"-c:v", "prores_ks", "-profile:v", "4", "-pix_fmt", "yuva444p10le"};
    p4444.codecType = 2;
    p4444.variant = 1;
    p4444.bytesPerSample = 4;
    p4444.expectedTag = "ap4h";
    p4444.expectedFrameRate = "25/1";
    list.append({"ProRes 4444, 32-bit audio", p4444});

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
    lt.expectedTimecodeFrame = 216000; // 60 frames a second
    list.append({"ProRes LT 720p59.94, 16-bit audio", lt});

    Shape dnx;
    dnx.encoder = QStringList{"-c:v", "dnxhd", "-b:v", "36M", "-pix_fmt", "yuv422p"};
    dnx.width = 1920;
    dnx.height = 1080;
    dnx.frames = 15;
    dnx.samplesPerChunk = 1920;
    dnx.codecType = 0;
    dnx.expectedTag = "AVdn";
    dnx.expectedFrameRate = "25/1";
    list.append({"DNxHD 1080p25", dnx});

    Shape dnxi = dnx;
    dnxi.encoder = QStringList{"-c:v", "dnxhd", "-b:v", "120M", "-pix_fmt", "yuv422p", "-flags", "+ildct"};
    dnxi.recordRate = 5000; // 50 fields per second
    dnxi.interlaced = 1;
    list.append({"DNxHD 1080i50, field rate halved", dnxi});

    Shape film;
    film.encoder = proresHq;
    film.rate = "24000/1001";
    film.variant = 2;
    film.recordRate = 2398;
    film.samplesPerChunk = 6006;
    film.expectedTag = "apcn";
    film.expectedFrameRate = "2997/125"; // time scale 23976, 1000 per frame
    film.expectedTimecodeFrame = 86400; // 24 frames a second
    list.append({"ProRes 422 at 23.976", film});

    Shape odd = hq;
    odd.width = 1280;
    odd.height = 720;
    odd.frames = 31;
    odd.expectedTag = "apch";
    list.append({"31 frames in chunks of 3", odd});

    Shape shortChunks = odd;
    shortChunks.frames = 24;
    shortChunks.firstChunkSamples = 1000;
    shortChunks.samplesPerTrack = 1000 + 6 * 5760 + 333;
    shortChunks.tracks = 3;
    list.append({"short first and last sound chunks", shortChunks});

    Shape audioOnly = hq;
    audioOnly.frames = 0;
    audioOnly.samplesPerTrack = 48000 * 2 + 17;
    audioOnly.tracks = 4;
    audioOnly.samplesPerChunk = 2400;
    list.append({"audio only", audioOnly});

    Shape videoOnly = odd;
    videoOnly.tracks = 0;
    list.append({"video only", videoOnly});

    // Heron: 3 frames and 3,072 samples a chunk, 422 variants numbered from 0, no edit lists.
    Shape heron = odd;
    heron.family = RecordingPlan::Heron;
    heron.variant = 0;
    heron.samplesPerChunk = 3072;
    heron.frames = 24;
    list.append({"Heron ProRes 422 HQ, two 24-bit tracks", heron});

    Shape heron4444 = p4444;
    heron4444.family = RecordingPlan::Heron;
    heron4444.samplesPerChunk = 3072;
    list.append({"Heron ProRes 4444, 32-bit audio", heron4444});

    Shape heronDnx = dnx;
    heronDnx.family = RecordingPlan::Heron;
    heronDnx.samplesPerChunk = 3072;
    heronDnx.tracks = 4;
    list.append({"Heron DNxHD 1080p25, four tracks", heronDnx});

    Shape heronShort = heron;
    heronShort.frames = 6; // 2 video chunks and 2 sound chunks: Heron has no minimum
    list.append({"Heron with fewer than 30 chunks", heronShort});

    Shape heronAudio = heron;
    heronAudio.frames = 0;
    heronAudio.samplesPerTrack = 3072 * 5 + 100;
    list.append({"Heron audio only", heronAudio});
    return list;
}

// The interchange finish is tried on every movie above and on the recordings only it reads right
// everywhere: one without a timecode sample, and a drop-frame one.
QList<QPair<const char*, Shape>> interchangeShapes()
{
    QList<QPair<const char*, Shape>> list = shapes();
    Shape noTimecode = list.first().second;
    noTimecode.timecodeSample = false;
    list.append({"Tern without a timecode sample", noTimecode});

    Shape dropFrame = list.first().second;
    dropFrame.width = 1280;
    dropFrame.height = 720;
    dropFrame.rate = "30000/1001";
    dropFrame.frames = 30;
    dropFrame.recordRate = 2997;
    dropFrame.dropFrame = true;
    dropFrame.samplesPerChunk = 4804;
    dropFrame.bytesPerSample = 2;
    dropFrame.expectedFrameRate = "2997/100";
    dropFrame.expectedTimecode = "01:00:00;00";
    dropFrame.expectedTimecodeFrame = 107892; // 108,000 less 2 numbers in 54 of the 60 minutes
    list.append({"29.97 drop-frame, 16-bit", dropFrame});

    Shape heronDropFrame = dropFrame;
    heronDropFrame.family = RecordingPlan::Heron;
    heronDropFrame.samplesPerChunk = 3072;
    heronDropFrame.variant = 0; // Heron numbers the 422 variants from 0
    list.append({"Heron 29.97 drop-frame, 16-bit", heronDropFrame});

    Shape longSound = list.first().second;
    longSound.samplesPerTrack = 48000 + 7; // a second of sound to 0.6 s of picture
    list.append({"sound longer than the picture", longSound});

    Shape heronLongSound = longSound;
    heronLongSound.family = RecordingPlan::Heron;
    heronLongSound.variant = 0;
    heronLongSound.samplesPerChunk = 3072;
    list.append({"Heron sound longer than the picture", heronLongSound});

    Shape nothing = list.first().second; // only a chunk begun and never committed
    nothing.family = RecordingPlan::Heron;
    nothing.frames = 0;
    nothing.tracks = 0;
    nothing.samplesPerChunk = 3072;
    list.append({"Heron without picture or sound", nothing});
    return list;
}

} // namespace

void TestMedia::finalizedMovieDecodesLikeItsSource_data()
{
    QTest::addColumn<Shape>("shape");
    for (const auto& row : shapes())
        QTest::newRow(row.first) << row.second;
}

namespace {

// An interrupted recording of the shape on a card folder, with what the test holds the finish to.
struct Recorded
{
    bool ok = false;
    RecordingPlan plan;
    RecordingResult recording;
    QStringList sourceHashes; // MD5 of every decoded source frame
    QString card;
    QString zqv;
    QByteArray before; // the recording's bytes
};

Recorded record(const Shape& shape, const QTemporaryDir& tmp)
{
    Recorded r;
    const QString source = tmp.filePath("source.mov");
    RecordingPlan& plan = r.plan;
    plan.family = shape.family;
    plan.videoCodecType = shape.codecType;
    plan.proResVariant = shape.variant;
    plan.width = quint16(shape.width);
    plan.height = quint16(shape.height);
    plan.frameRate = shape.recordRate;
    plan.interlaced = shape.interlaced;
    plan.dropFrame = shape.dropFrame;
    plan.timecodeSample = shape.timecodeSample;
    plan.videoFramesPerChunk = shape.framesPerChunk;
    plan.audioBytesPerSample = shape.bytesPerSample;
    plan.audioSamplesPerChunk = shape.samplesPerChunk;
    plan.firstChunkSamples = shape.firstChunkSamples;
    plan.tornTailBytes = 4321; // a chunk begun but never committed

    if (shape.frames > 0) {
        plan.videoFrames = MediaTools::encodeFrames(source, shape.encoder, shape.width, shape.height, shape.rate,
                                                    shape.frames);
        r.sourceHashes = MediaTools::videoFrameHashes(source);
        if (plan.videoFrames.size() != shape.frames || r.sourceHashes.size() != shape.frames)
            return r;
        if (shape.codecType == 0) // the compression ID the encoder chose, from the frame header
            plan.videoCodecId = qFromBigEndian<quint32>(plan.videoFrames.first().constData() + 0x28);
    }
    for (int t = 0; t < shape.tracks; ++t)
        plan.audioTracks << syntheticPcm(t, samplesPerTrack(shape), int(shape.bytesPerSample));

    r.card = tmp.filePath("card");
    r.zqv = r.card + "/A001C001.zqv";
    QDir().mkpath(r.card);
    r.recording = writeInterruptedRecording(r.zqv, plan);
    r.before = readFile(r.zqv);
    r.ok = r.recording.ok;
    return r;
}

} // namespace

void TestMedia::finalizedMovieDecodesLikeItsSource()
{
    QFETCH(Shape, shape);
    QTemporaryDir tmp;
    const Recorded recorded = record(shape, tmp);
    QVERIFY2(recorded.ok, qPrintable(recorded.recording.error));
    const RecordingPlan& plan = recorded.plan;
    const RecordingResult& recording = recorded.recording;
    const QStringList& sourceHashes = recorded.sourceHashes;
    const QString& card = recorded.card;
    const QByteArray& before = recorded.before;

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

void TestMedia::interchangeFinishReadsRightInEveryReader_data()
{
    QTest::addColumn<Shape>("shape");
    for (const auto& row : interchangeShapes())
        QTest::newRow(row.first) << row.second;
}

void TestMedia::interchangeFinishReadsRightInEveryReader()
{
    if (!MediaTools::gstreamerAvailable() || !MediaTools::mediaInfoAvailable())
        QSKIP("GStreamer and MediaInfo are needed (the test command installs them)");
    QFETCH(Shape, shape);
    QTemporaryDir tmp;
    const Recorded recorded = record(shape, tmp);
    QVERIFY2(recorded.ok, qPrintable(recorded.recording.error));
    const bool heron = shape.family == RecordingPlan::Heron;

    QStringList out;
    QCOMPARE(runCli({"--interchange", recorded.card}, &out), 0);
    const QString mov = recorded.card + "/A001C001.mov";
    QVERIFY(out.contains("     " + mov + (heron ? " (Heron) Finalized" : " (Tern) Finalized")));
    const QByteArray after = readFile(mov);

    // The recorder's bytes are untouched; behind the media the finish appends its timecode sample, the
    // start timecode as a frame number, and the 'mdat' header closes over it.
    const int end = int(recorded.recording.recordedEndPosition);
    QCOMPARE(after.left(int(kDatPos) + 8), recorded.before.left(int(kDatPos) + 8));
    QCOMPARE(qFromBigEndian<quint64>(after.constData() + kDatPos + 8), quint64(end + 512 - kDatPos));
    QCOMPARE(after.mid(int(kDatPos) + 16, end - int(kDatPos) - 16),
             recorded.before.mid(int(kDatPos) + 16, end - int(kDatPos) - 16));
    QCOMPARE(qFromBigEndian<quint32>(after.constData() + end), shape.expectedTimecodeFrame);
    QCOMPARE(after.mid(end + 4, 508), QByteArray(508, '\0'));

    const int samples = shape.tracks > 0 ? samplesPerTrack(shape) : 0;
    const double frameSeconds = shape.frames > 0 ? 100.0 / (shape.interlaced ? shape.recordRate / 2
                                                                              : shape.recordRate)
                                                 : 0;
    const double videoSeconds = shape.frames * frameSeconds;
    const double soundSeconds = samples / 48000.0;
    // A movie with neither lasts one frame: the span of its timecode and of its empty caption.
    const bool nothing = shape.frames == 0 && shape.tracks == 0;
    const double movieSeconds = nothing ? 100.0 / shape.recordRate : qMax(videoSeconds, soundSeconds);
    const double tolerance = 0.002;

    // ffprobe and ffmpeg: every track with its whole count and duration, the start timecode, and every
    // frame and sample as recorded, the edit lists followed.
    const QList<MediaTools::Stream> streams = MediaTools::streams(mov);
    QCOMPARE(streams.size(), 1 + (shape.frames > 0 ? 1 : 0) + shape.tracks + (nothing ? 1 : 0));
    QCOMPARE(streams[0].tag, QString("tmcd"));
    if (nothing)
        QCOMPARE(streams[1].tag, QString("tx3g"));
    QCOMPARE(streams[0].timecode, shape.expectedTimecode);
    QVERIFY(qAbs(MediaTools::formatDuration(mov) - movieSeconds) < tolerance);
    int next = 1;
    if (shape.frames > 0) {
        const MediaTools::Stream& video = streams[next++];
        QCOMPARE(video.tag, shape.expectedTag);
        QCOMPARE(video.frames, qint64(shape.frames));
        QCOMPARE(video.frameRate, shape.expectedFrameRate);
        QVERIFY(qAbs(video.duration - videoSeconds) < tolerance);
        QCOMPARE(MediaTools::videoFrameHashes(mov), recorded.sourceHashes);
    }
    for (int t = 0; t < shape.tracks; ++t) {
        const MediaTools::Stream& audio = streams[next++];
        QCOMPARE(audio.codec, audioCodec(shape.bytesPerSample));
        QCOMPARE(audio.tag, QString(shape.bytesPerSample == 2 ? "sowt" : shape.bytesPerSample == 3 ? "in24"
                                                                                                 : "lpcm"));
        QVERIFY2(
            qAbs(audio.duration - soundSeconds) < tolerance, qPrintable(QString::number(audio.duration)));
        QVERIFY2(
            MediaTools::decodeAudio(mov, t, rawFormat(shape.bytesPerSample)) == recorded.plan.audioTracks[t],
            qPrintable(QString("ffmpeg: sound track %1 differs").arg(t)));
    }

    // GStreamer: the movie opens without an error, as long as its longest track, with every stream; its
    // sound decodes to the recorded samples and its picture to every frame.
    const MediaTools::Discovery discovered = MediaTools::gstreamerDiscover(mov);
    QVERIFY2(discovered.ok, qPrintable(discovered.output));
    QVERIFY2(qAbs(discovered.duration - movieSeconds) < tolerance, qPrintable(discovered.output));
    QStringList kinds;
    if (shape.frames > 0)
        kinds << "video";
    for (int t = 0; t < shape.tracks; ++t)
        kinds << "audio";
    if (nothing)
        kinds << "subtitles";
    QCOMPARE(discovered.streams, kinds);
    const QString gstFormat = shape.bytesPerSample == 2 ? "S16LE"
        : shape.bytesPerSample == 3                     ? "S24LE"
                                                        : "S32LE";
    for (int t = 0; t < shape.tracks; ++t) {
        QVERIFY2(MediaTools::gstreamerDecodeAudio(mov, t, gstFormat) == recorded.plan.audioTracks[t],
                 qPrintable(QString("GStreamer: sound track %1 differs").arg(t)));
    }
    if (shape.frames > 0)
        QCOMPARE(MediaTools::gstreamerVideoFrames(mov, shape.width, shape.height), shape.frames);

    // MediaInfo: the counts, the byte order of the sound, the durations and the start timecode.
    const QList<QMap<QString, QString>> tracks = MediaTools::mediaInfoTracks(mov);
    int videoTracks = 0, soundTracks = 0, timecodeTracks = 0;
    for (const QMap<QString, QString>& track : tracks) {
        const QString type = track.value("@type");
        if (type == "General") {
            QVERIFY(qAbs(track.value("Duration").toDouble() - movieSeconds) < tolerance);
        } else if (type == "Video") {
            ++videoTracks;
            QCOMPARE(track.value("FrameCount").toInt(), shape.frames);
        } else if (type == "Audio") {
            ++soundTracks;
            // MediaInfo counts the samples of the duration it shows in milliseconds.
            QVERIFY(qAbs(track.value("SamplingCount").toInt() - samples) <= 48);
            QCOMPARE(track.value("BitDepth").toUInt(), shape.bytesPerSample * 8);
            QCOMPARE(track.value("Format_Settings_Endianness"), QString("Little"));
            QVERIFY(qAbs(track.value("Duration").toDouble() - soundSeconds) < tolerance);
        } else if (type == "Other" && track.value("Format") == "QuickTime TC") {
            ++timecodeTracks;
            QCOMPARE(track.value("TimeCode_FirstFrame"), shape.expectedTimecode);
        }
    }
    QCOMPARE(videoTracks, shape.frames > 0 ? 1 : 0);
    QCOMPARE(soundTracks, shape.tracks);
    QCOMPARE(timecodeTracks, 1);

    // mkvmerge: remuxed into Matroska, every frame and sample is still the recorded one.
    if (MediaTools::mkvmergeAvailable() && !nothing) {
        const QString mkv = tmp.filePath("remuxed.mkv");
        QVERIFY(MediaTools::remuxToMatroska(mov, mkv));
        if (shape.frames > 0)
            QCOMPARE(MediaTools::videoFrameHashes(mkv), recorded.sourceHashes);
        for (int t = 0; t < shape.tracks; ++t) {
            QVERIFY2(MediaTools::decodeAudio(mkv, t, rawFormat(shape.bytesPerSample))
                    == recorded.plan.audioTracks[t],
                qPrintable(QString("mkvmerge: sound track %1 differs").arg(t)));
        }
    }

    // The program's own reader reads the interchange form as well.
    QStringList verified;
    QCOMPARE(runCli({"--verify", mov}, &verified), 0);
    QVERIFY2(!verified.isEmpty() && verified.last().endsWith(", verified"), qPrintable(verified.join('\n')));
}

void TestMedia::restoreGivesBackTheRecordersFile_data()
{
    finalizedMovieDecodesLikeItsSource_data();
}

void TestMedia::restoreGivesBackTheRecordersFile()
{
    // Each real-codec recording, with its end recorded and without (a torn chunk then lies inside the
    // media), finished in either form and restored: the recorder's file comes back byte for byte under
    // its in-progress name, and finishing it again gives the same movie.
    QFETCH(Shape, shape);
    QTemporaryDir tmp;
    Recorded recorded = record(shape, tmp);
    QVERIFY2(recorded.ok, qPrintable(recorded.recording.error));
    const QString& zqv = recorded.zqv;
    const QString mov = recorded.card + "/A001C001.mov";
    for (const bool storeEnd : {true, false}) {
        RecordingPlan plan = recorded.plan;
        plan.storeRecordedEndPosition = storeEnd;
        // Past a recorded end a torn chunk is not media: the finish writes its index over it.
        plan.tornTailBytes = storeEnd ? 0 : 4321;
        for (const bool interchange : {false, true}) {
            const QString at = QString("%1, %2").arg(storeEnd ? "recorded end" : "torn, no recorded end",
                                                     interchange ? "interchange" : "recorder's form");
            QFile::remove(zqv);
            QVERIFY(writeInterruptedRecording(zqv, plan).ok);
            const QByteArray original = readFile(zqv);
            const QStringList finishArgs = interchange ? QStringList{"--interchange", recorded.card}
                                                       : QStringList{recorded.card};
            QStringList out;
            QCOMPARE(runCli(finishArgs, &out), 0);
            const QByteArray finished = readFile(mov);
            QVERIFY2(!finished.isEmpty(), qPrintable(at));

            QCOMPARE(runCli({"--restore", mov}, &out), 0);
            QVERIFY2(out.contains("     " + mov + " restored as " + zqv + "."), qPrintable(at));
            QVERIFY2(!QFile::exists(mov), qPrintable(at));
            QVERIFY2(QCryptographicHash::hash(readFile(zqv), QCryptographicHash::Sha256)
                         == QCryptographicHash::hash(original, QCryptographicHash::Sha256),
                     qPrintable(at));

            QCOMPARE(runCli(finishArgs, &out), 0);
            QVERIFY2(readFile(mov) == finished, qPrintable(at + ": finished again differently"));
            QFile::remove(mov);
        }
    }
}

QTEST_GUILESS_MAIN(TestMedia)
#include "tst_media.moc"
