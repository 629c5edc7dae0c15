// Movies this program finished, read back through the reader's seek and read operations: every video
// frame and every sound sample must be the bytes the recording simulator wrote.

#include "finalize/Finalize.h"
#include "movie/QuickTimeFile.h"
#include "simulate/RecordingSimulator.h"
#include "support/MessageCapture.h"

#include <QTemporaryDir>
#include <QtTest>

using MovieFile = Tern::QuickTimeFile;
using Tern::QuickTimePlayRegion;
using Tern::QuickTimeTrackInfo;

Q_DECLARE_METATYPE(RecordingPlan)

namespace {

RecordingPlan plan(RecordingPlan::Family family, int frames, int tracks, quint32 bytesPerSample,
    quint32 samplesPerChunk, quint32 soundSamples)
{
    RecordingPlan p;
    p.family = family;
    p.audioBytesPerSample = bytesPerSample;
    p.audioSamplesPerChunk = samplesPerChunk;
    for (int i = 0; i < frames; ++i)
        p.videoFrames << syntheticFrame(i, 3000 + 7 * i);
    for (int t = 0; t < tracks; ++t)
        p.audioTracks << syntheticPcm(t, int(soundSamples), int(bytesPerSample));
    return p;
}

// Samples per track of each sound chunk, as the recorder cuts the sound: a short first chunk when asked
// for, full chunks, and what is left in the last.
QList<quint32> chunkLengths(const RecordingPlan& p)
{
    QList<quint32> lengths;
    if (p.audioTracks.isEmpty())
        return lengths;
    quint32 left = quint32(p.audioTracks.first().size()) / p.audioBytesPerSample;
    if (p.firstChunkSamples != 0 && left > 0) {
        lengths << qMin(p.firstChunkSamples, left);
        left -= lengths.last();
    }
    while (left > 0) {
        lengths << qMin(p.audioSamplesPerChunk, left);
        left -= lengths.last();
    }
    return lengths;
}

// The byte length of a video frame's frame-map entry: the frame and the recorder's 1,024 bytes,
// in whole 512-byte blocks.
int entryBytes(int frameBytes)
{
    return ((frameBytes + 1535) >> 9) * 512;
}

} // namespace

class TestReaderMovies : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void everyFrameAndSampleIsWhatWasRecorded_data();
    void everyFrameAndSampleIsWhatWasRecorded();

private:
    QTemporaryDir m_dir;
    int m_movies = 0;
};

void TestReaderMovies::initTestCase()
{
    QVERIFY(m_dir.isValid());
}

void TestReaderMovies::everyFrameAndSampleIsWhatWasRecorded_data()
{
    QTest::addColumn<RecordingPlan>("recording");
    const auto tern = RecordingPlan::Tern;
    const auto heron = RecordingPlan::Heron;
    QTest::newRow("Tern, 2 tracks of 24 bits") << plan(tern, 31, 2, 3, 1920, 31 * 1920);
    RecordingPlan shortChunks = plan(tern, 31, 2, 3, 1920, 31 * 1920 + 500);
    shortChunks.firstChunkSamples = 1000;
    QTest::newRow("Tern, short first and last chunks") << shortChunks;
    RecordingPlan fields = plan(tern, 40, 4, 2, 1920, 40 * 1920);
    fields.videoFramesPerChunk = 1;
    fields.frameRate = 5000;
    fields.interlaced = 1;
    QTest::newRow("Tern, 50 fields, 4 tracks of 16 bits") << fields;
    QTest::newRow("Tern, video only") << plan(tern, 31, 0, 3, 1920, 0);
    QTest::newRow("Tern, sound only") << plan(tern, 0, 2, 4, 1920, 40 * 1920 + 17);
    QTest::newRow("Heron, 2 tracks, short last chunk") << plan(heron, 30, 2, 3, 3072, 30 * 1920);
    QTest::newRow("Heron, sound only") << plan(heron, 0, 1, 3, 3072, 10 * 3072 + 100);
    QTest::newRow("Heron, video only") << plan(heron, 12, 0, 3, 3072, 0);
}

void TestReaderMovies::everyFrameAndSampleIsWhatWasRecorded()
{
    QFETCH(RecordingPlan, recording);
    const QString path = m_dir.filePath(QString("A%1.zqv").arg(++m_movies, 3, 10, QChar('0')));
    QVERIFY(writeInterruptedRecording(path, recording).ok);
    {
        const unsigned result = MessageCapture::quietly([&] {
            Finalize driver;
            return driver.doFinalize(path);
        });
        QCOMPARE(result, 0u);
    }
    QFile device(QString(path).replace(".zqv", ".mov"));
    QVERIFY(device.open(QIODevice::ReadOnly));
    MovieFile file(device);
    const bool opened = MessageCapture::quietly([&] { return file.initFileRead(&device); });
    QVERIFY(opened);
    QVERIFY(file.writtenByRecorder);

    const int frames = recording.videoFrames.size();
    const int tracks = recording.audioTracks.size();
    const quint32 bps = recording.audioBytesPerSample;
    QCOMPARE(file.trackCount, 1 + (frames > 0 ? 1 : 0) + tracks);
    QCOMPARE(int(file.videoFrames()), frames);
    QCOMPARE(int(file.audioTracks), tracks);
    // Play starts at the first video frame: behind the timecode sample a Tern recording starts with.
    const bool ternVideo = recording.family == RecordingPlan::Tern && frames > 0;
    QCOMPARE(file.playStart, ternVideo ? 1u : 0u);

    // Every frame by its number, in an order that also goes back.
    QByteArray buffer(64 * 1024, '\0');
    for (int step = 0; step < frames; ++step) {
        const int f = (step * 7) % frames;
        QVERIFY(file.gotoVideoFrame(quint32(f)));
        int size = buffer.size();
        QVERIFY(file.getMovieVideoData(buffer.data(), &size));
        const QByteArray& recorded = recording.videoFrames[f];
        QCOMPARE(size, entryBytes(recorded.size()));
        QCOMPARE(buffer.left(recorded.size()), recorded);
        QCOMPARE(
            buffer.mid(recorded.size(), size - recorded.size()), QByteArray(size - recorded.size(), '\0'));
    }
    QVERIFY(!file.gotoVideoFrame(quint32(frames)));

    // Every sample of every track, in pieces that straddle the chunks.
    for (int t = 0; t < tracks; ++t) {
        QByteArray read;
        QByteArray piece(777 * int(bps), '\0');
        for (;;) {
            const unsigned got
                = file.readAudioSamples(t, reinterpret_cast<unsigned char*>(piece.data()), 777);
            read += piece.left(int(got * bps));
            if (got < 777)
                break;
        }
        QCOMPARE(read.size(), recording.audioTracks[t].size());
        QVERIFY(read == recording.audioTracks[t]);
        QCOMPARE(file.samplesLeftInCurrentChunk(t), 0u);
    }

    // Video and sound together from frame 10: sound sample 1,920 x 10 (48,000 Hz at 25 frames).
    if (frames > 10) {
        QVERIFY(file.seekToVideoFrameAbsolute(10));
        for (int t = 0; t < tracks; ++t) {
            QByteArray sound(50 * int(bps), '\0');
            QCOMPARE(file.readAudioSamples(t, reinterpret_cast<unsigned char*>(sound.data()), 50), 50u);
            QCOMPARE(sound, recording.audioTracks[t].mid(19200 * int(bps), 50 * int(bps)));
        }
        int size = buffer.size();
        QVERIFY(file.getMovieVideoData(buffer.data(), &size));
        QCOMPARE(buffer.left(recording.videoFrames[10].size()), recording.videoFrames[10]);
    }

    // Played in file order: every frame, then each sound chunk with one plane per track.
    const QList<quint32> lengths = chunkLengths(recording);
    const quint32 fullChunk = recording.audioSamplesPerChunk;
    int videoSeen = 0;
    int soundSeen = 0;
    quint32 soundSample = 0;
    QuickTimePlayRegion region;
    for (bool more = file.getStartDataLocation(Tern::quicktime_playmode_all, &region); more;
         more = file.getNextDataLocation(Tern::quicktime_playmode_all, &region)) {
        if (region.type == Tern::quicktime_frametype_video) {
            QCOMPARE(file.currentVideoFrame, quint32(videoSeen));
            QCOMPARE(region.bytes, quint64(entryBytes(recording.videoFrames[videoSeen++].size())));
            continue;
        }
        QCOMPARE(region.type, Tern::quicktime_frametype_sound);
        QVERIFY(soundSeen < lengths.size());
        const quint32 samples = lengths[soundSeen];
        const bool shortLast = soundSeen == lengths.size() - 1 && lengths.size() > 1;
        const quint32 plane = shortLast ? samples : fullChunk;
        file.playFrame = region.index;
        unsigned size = unsigned(buffer.size());
        unsigned inChunk = 0;
        QVERIFY(file.getMovieSoundData(buffer.data(), &size, &inChunk));
        QCOMPARE(quint64(size), region.bytes);
        QCOMPARE(inChunk, samples);
        for (int t = 0; t < tracks; ++t)
            QVERIFY(buffer.mid(int(t * plane * bps), int(samples * bps))
                == recording.audioTracks[t].mid(int(soundSample * bps), int(samples * bps)));
        soundSample += samples;
        ++soundSeen;
    }
    QCOMPARE(videoSeen, frames);
    QCOMPARE(soundSeen, lengths.size());
    QVERIFY(file.closeFileRead());
}

QTEST_GUILESS_MAIN(TestReaderMovies)
#include "tst_reader_movies.moc"
