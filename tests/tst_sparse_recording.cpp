// Sparse recordings: the recorder's reserved region and frame map without the media, for benchmarks of
// recordings too long to write. They must finalize to exactly the index of the dense recording.

#include "finalize/Finalize.h"
#include "movie/QuickTimeFile.h"
#include "simulate/RecordingSimulator.h"
#include "simulate/SparseRecording.h"
#include "support/AtomWalker.h"
#include "support/MessageCapture.h"
#include "support/TestSupport.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

using namespace TestSupport;

namespace {

// 40 frames of 3,000, 3,611, 4,222 ... bytes, and two tracks of 24-bit sound cut so the last chunk is short.
RecordingPlan smallPlan(RecordingPlan::Family family)
{
    RecordingPlan plan;
    plan.family = family;
    if (family == RecordingPlan::Heron) {
        plan.videoFramesPerChunk = 3;
        plan.audioSamplesPerChunk = 3072;
        plan.proResVariant = 0;
    } else {
        plan.videoFramesPerChunk = 3;
        plan.audioSamplesPerChunk = 5760;
    }
    for (int i = 0; i < 40; ++i)
        plan.videoFrames << syntheticFrame(i, 3000 + 611 * i);
    const int samples = 13 * int(plan.audioSamplesPerChunk) + 1000;
    plan.audioTracks << syntheticPcm(0, samples, 3) << syntheticPcm(1, samples, 3);
    plan.frameMapSaveInterval = 5;
    return plan;
}

QByteArray readRange(const QString& path, qint64 offset, qint64 bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || !file.seek(offset))
        return QByteArray();
    return file.read(bytes);
}

// Finalizes one file with the driver; returns the finished file's name, empty on failure.
QString finalizeWithDriver(const QString& path)
{
    const MessageCapture quiet(MessageCapture::Drop);
    Finalize driver;
    const unsigned int result = driver.doFinalize(path);
    return result == 0 ? driver.outputFileName : QString();
}

QByteArray moovOf(const QString& path)
{
    const QByteArray bytes = readFile(path);
    const AtomWalker::Atom moov = AtomWalker::find(bytes, "moov");
    return moov.valid() ? bytes.mid(int(moov.offset), int(moov.size)) : QByteArray();
}

} // namespace

class TestSparseRecording : public QObject
{
    Q_OBJECT

private slots:
    void regionIsTheRecorders_data();
    void regionIsTheRecorders();
    void mediaIsAHole_data();
    void mediaIsAHole();
    void finalizesToTheDenseIndex_data();
    void finalizesToTheDenseIndex();
    void planOfDenseRecording();
    void refusesWhatTheFrameMapCannotHold();
};

void TestSparseRecording::regionIsTheRecorders_data()
{
    QTest::addColumn<int>("family");
    QTest::addColumn<qint64>("mapPos");
    QTest::addColumn<QByteArray>("firstEntries");
    // Tern: its timecode sample 0x8001 first. Frames of 3,000 / 3,611 / 4,222 bytes take 6, 8, 9 blocks
    // plus the recorder's 2 (0x4008, 0x400A, 0x400B); a chunk of 2 x 5,760 x 3 bytes is 68 blocks (0x0044).
    QTest::newRow("tern") << int(RecordingPlan::Tern) << qint64(156) << hex("01 80 08 40 0A 40 0B 40 44 00");
    // Heron: no timecode sample yet; a chunk of 2 x 3,072 x 3 bytes is 36 blocks (0x0024).
    QTest::newRow("heron") << int(RecordingPlan::Heron) << qint64(128) << hex("08 40 0A 40 0B 40 24 00");
}

void TestSparseRecording::regionIsTheRecorders()
{
    QFETCH(int, family);
    QFETCH(qint64, mapPos);
    QFETCH(QByteArray, firstEntries);
    QTemporaryDir dir;
    const RecordingPlan plan = smallPlan(RecordingPlan::Family(family));
    const QString dense = dir.filePath("dense.zqv");
    const QString sparse = dir.filePath("sparse.zqv");
    const RecordingResult denseResult = writeInterruptedRecording(dense, plan);
    const RecordingResult sparseResult = writeSparseRecording(sparse, sparsePlanOf(plan));
    QVERIFY2(denseResult.ok, qPrintable(denseResult.error));
    QVERIFY2(sparseResult.ok, qPrintable(sparseResult.error));

    QCOMPARE(readRange(sparse, mapPos, firstEntries.size()), firstEntries);
    QCOMPARE(readRange(sparse, Tern::ternFamily.movieDataHeaderPos, 16),
        hex("00 00 00 01 6D 64 61 74 00 00 00 00 00 00 00 10"));
    // Everything up to the media (settings, the whole frame map, its terminator) is byte for byte the
    // recorder's, and the file ends where the recorder's writes ended.
    const qint64 start = Tern::ternFamily.movieDataStartOffset;
    QCOMPARE(readRange(sparse, 0, start), readRange(dense, 0, start));
    QCOMPARE(QFileInfo(sparse).size(), QFileInfo(dense).size());
    QCOMPARE(sparseResult.recordedEndPosition, denseResult.recordedEndPosition);
    QCOMPARE(sparseResult.videoFrames, 40u);
    QCOMPARE(sparseResult.soundChunks, denseResult.soundChunks);
    QCOMPARE(sparseResult.timecodeSamples, denseResult.timecodeSamples);
    QCOMPARE(sparseResult.lastChunkSamples, 1000u);
}

void TestSparseRecording::mediaIsAHole_data()
{
    QTest::addColumn<int>("family");
    QTest::addColumn<qint64>("firstFrame");
    // Tern's first frame follows its 512-byte timecode sample; Heron's starts the media.
    QTest::newRow("tern") << int(RecordingPlan::Tern) << qint64(5472256 + 512);
    QTest::newRow("heron") << int(RecordingPlan::Heron) << qint64(5472256);
}

void TestSparseRecording::mediaIsAHole()
{
    QFETCH(int, family);
    QFETCH(qint64, firstFrame);
    QTemporaryDir dir;
    const RecordingPlan plan = smallPlan(RecordingPlan::Family(family));
    const QString sparse = dir.filePath("sparse.zqv");
    QVERIFY(writeSparseRecording(sparse, sparsePlanOf(plan)).ok);

    QCOMPARE(readRange(sparse, firstFrame, 3000), QByteArray(3000, '\0'));
    QVERIFY(plan.videoFrames.first() != QByteArray(3000, '\0'));
    if (family == RecordingPlan::Tern) // its timecode sample is real: 01:00:00:00 big-endian
        QCOMPARE(readRange(sparse, 5472256, 8), hex("01 00 00 00 00 00 00 00"));
}

void TestSparseRecording::finalizesToTheDenseIndex_data()
{
    QTest::addColumn<int>("family");
    QTest::addColumn<quint32>("firstChunkSamples");
    QTest::newRow("tern") << int(RecordingPlan::Tern) << 0u;
    QTest::newRow("tern, short first chunk") << int(RecordingPlan::Tern) << 2000u;
    QTest::newRow("heron") << int(RecordingPlan::Heron) << 0u;
}

void TestSparseRecording::finalizesToTheDenseIndex()
{
    QFETCH(int, family);
    QFETCH(quint32, firstChunkSamples);
    QTemporaryDir dir;
    RecordingPlan plan = smallPlan(RecordingPlan::Family(family));
    plan.firstChunkSamples = firstChunkSamples;
    const QString dense = dir.filePath("dense.zqv");
    const QString sparse = dir.filePath("sparse.zqv");
    QVERIFY(writeInterruptedRecording(dense, plan).ok);
    const RecordingResult written = writeSparseRecording(sparse, sparsePlanOf(plan));
    QVERIFY(written.ok);

    const QString denseMovie = finalizeWithDriver(dense);
    const QString sparseMovie = finalizeWithDriver(sparse);
    QCOMPARE(denseMovie, dir.filePath("dense.mov"));
    QCOMPARE(sparseMovie, dir.filePath("sparse.mov"));

    const QByteArray moov = moovOf(sparseMovie);
    QVERIFY(moov.size() > 1000);
    QCOMPARE(moov.mid(4, 4), QByteArray("moov"));
    QCOMPARE(moov, moovOf(denseMovie));
    // Everything the finalizer appended (Heron's timecode sample, the index, the closing zeros) and the
    // patched 'mdat' header agree as well.
    const qint64 end = written.recordedEndPosition;
    QCOMPARE(QFileInfo(sparseMovie).size(), QFileInfo(denseMovie).size());
    QCOMPARE(readRange(sparseMovie, end, QFileInfo(sparseMovie).size() - end),
        readRange(denseMovie, end, QFileInfo(denseMovie).size() - end));
    QCOMPARE(readRange(sparseMovie, Tern::ternFamily.movieDataHeaderPos, 16),
        readRange(denseMovie, Tern::ternFamily.movieDataHeaderPos, 16));
}

void TestSparseRecording::planOfDenseRecording()
{
    const RecordingPlan plan = smallPlan(RecordingPlan::Tern);
    const SparseRecordingPlan sparse = sparsePlanOf(plan);
    QCOMPARE(sparse.videoFrameBytes.size(), 40);
    QCOMPARE(sparse.videoFrameBytes.first(), 3000);
    QCOMPARE(sparse.videoFrameBytes.last(), 3000 + 611 * 39);
    QCOMPARE(sparse.audioTrackCount, 2);
    QCOMPARE(sparse.audioSamplesPerTrack, 13u * 5760u + 1000u);
    QVERIFY(sparse.recording.videoFrames.isEmpty());
    QVERIFY(sparse.recording.audioTracks.isEmpty());
}

void TestSparseRecording::refusesWhatTheFrameMapCannotHold()
{
    QTemporaryDir dir;
    SparseRecordingPlan sparse;
    // 8,387,072 bytes pad to 16,381 blocks, 16,383 with the trailer: the largest chunk an entry holds.
    sparse.videoFrameBytes << 8387072;
    QVERIFY(writeSparseRecording(dir.filePath("largest.zqv"), sparse).ok);
    QCOMPARE(readRange(dir.filePath("largest.zqv"), 156, 6), hex("01 80 FF 7F 00 00"));
    sparse.videoFrameBytes = { 8387073 };
    const RecordingResult tooLarge = writeSparseRecording(dir.filePath("too-large.zqv"), sparse);
    QVERIFY(!tooLarge.ok);
    QCOMPARE(tooLarge.error, QString("a video frame must be between 0 and 8,387,072 bytes"));
    QVERIFY(!QFile::exists(dir.filePath("too-large.zqv")));

    SparseRecordingPlan heron;
    heron.recording.family = RecordingPlan::Heron;
    heron.recording.videoFramesPerChunk = 2;
    QCOMPARE(writeSparseRecording(dir.filePath("heron.zqv"), heron).error,
        QString("Heron recordings use 3 frames and 3072 samples per chunk"));
}

QTEST_GUILESS_MAIN(TestSparseRecording)
#include "tst_sparse_recording.moc"
