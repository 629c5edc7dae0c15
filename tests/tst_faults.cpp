// Failures while finishing a recording: a write that fails at every possible point, a process killed at
// each write, and a file system that refuses writes past the end of a file, all in the library's own
// writes. Whatever happens, the media and the recovery data are never changed, the 'mdat' header is either
// untouched or final, and finishing the file again gives exactly the bytes of an undisturbed finish. Runs
// of clipward-cli killed, limited or traced are in tst_faults_runs.cpp.

#include "tst_faults.h"

#include "finalize/Finalize.h"
#include "movie/HeronQuickTimeFile.h"
#include "support/MessageCapture.h"

#include <QCryptographicHash>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace FaultsTest;
using namespace TestSupport;

namespace FaultsTest {

RecordingPlan plan(RecordingPlan::Family family, bool storeEnd, int frames)
{
    RecordingPlan p;
    p.family = family;
    p.audioSamplesPerChunk = family == RecordingPlan::Heron ? 3072 : 1920;
    p.width = 1280;
    p.height = 720;
    p.storeRecordedEndPosition = storeEnd;
    for (int i = 0; i < frames; ++i)
        p.videoFrames << syntheticFrame(i, 1500 + 13 * i);
    p.audioTracks << syntheticPcm(0, frames * 1920, 3) << syntheticPcm(1, frames * 1920, 3);
    return p;
}

RecordingPlan tornPlan(RecordingPlan::Family family, bool storeEnd)
{
    RecordingPlan p = plan(family, storeEnd);
    p.tornTailBytes = 3000;
    p.frameMapSaveInterval = 8;
    return p;
}

} // namespace FaultsTest

namespace {

// A file whose n-th write fails (counting from 1), as a disk that dies or fills mid-write.
class FailingFile : public QFile
{
public:
    FailingFile(const QString& path, int failAt)
        : QFile(path)
        , m_failAt(failAt)
    {
    }
    int writes() const { return m_writes; }

protected:
    qint64 writeData(const char* data, qint64 len) override
    {
        if (++m_writes == m_failAt)
            return -1;
        return QFile::writeData(data, len);
    }

private:
    int m_failAt;
    int m_writes = 0;
};

// The finalizer's library calls on an already open file; true when the index was written.
bool finish(QFile& file, RecordingPlan::Family family, QVector<quint16>& heronMap)
{
    std::unique_ptr<Tern::QuickTimeFile> movie;
    if (family == RecordingPlan::Heron)
        movie.reset(new QuickTimeFile(file, heronMap.data()));
    else
        movie.reset(new Tern::QuickTimeFile(file));
    if (!movie->verifyHeader())
        return false;
    movie->initFile(nullptr);
    Tern::RecoverySettings* s = movie->loadSavedSettings();
    if (!s)
        return false;
    movie->setTimecode(s->timecode, s->dropFrame, false, true);
    movie->width = s->width;
    movie->height = s->height;
    movie->videoCodecType = s->videoCodecType;
    movie->proResVariant = s->proResVariant;
    movie->setFrameRate(s->frameRate);
    movie->audioTracks = s->audioTracks;
    movie->setAudioSamplesPerFrame(family == RecordingPlan::Heron ? 3072 : int(s->audioSamplesPerChunk));
    movie->setAudioBytesPerSample(s->audioBytesPerSample);
    movie->setAudioSampleRate(s->audioSampleRate);
    movie->videoFramesPerChunk = family == RecordingPlan::Heron ? 3 : s->videoFramesPerChunk;
    movie->reelName = s->reelNameText();
    movie->lastChunkSamples = s->lastChunkSamples;
    movie->firstChunkSamples = s->firstChunkSamples;
    movie->recordedEndPosition = s->recordedEndPosition;
    movie->InitQuickTimeFileInfo();
    return movie->recover();
}

// A file whose process is killed at its n-th write (counting from 1): that write and everything after it
// never happen, the cut-back of a failed close included, so the file is left as a kill leaves it.
class KilledFile : public QFile
{
public:
    KilledFile(const QString& path, int killAt)
        : QFile(path)
        , m_killAt(killAt)
    {
    }
    bool resize(qint64 size) override { return !killed() && QFile::resize(size); }

protected:
    qint64 writeData(const char* data, qint64 len) override
    {
        return ++m_writes >= m_killAt ? -1 : QFile::writeData(data, len);
    }

private:
    bool killed() const { return m_writes >= m_killAt; }
    int m_killAt;
    int m_writes = 0;
};

// A file on a file system that refuses a write starting past the end of the file (some FUSE drivers
// do, or lose it); it notes the first such write.
class GapRefusingFile : public QFile
{
public:
    using QFile::QFile;
    QString refused;

protected:
    qint64 writeData(const char* data, qint64 len) override
    {
        const qint64 end = size();
        if (pos() > end) {
            if (refused.isEmpty())
                refused = QString("%1 bytes at %2, %3 past the end").arg(len).arg(pos()).arg(pos() - end);
            return -1;
        }
        return QFile::writeData(data, len);
    }
};

// Finishes the file at `path` in a process killed at its n-th write; true only if the finish completed
// (which a kill prevents).
bool finishKilledAt(const QString& path, RecordingPlan::Family family, int killAt)
{
    QVector<quint16> heronMap(2736000);
    KilledFile file(path, killAt);
    return file.open(QIODevice::ReadWrite | QIODevice::Unbuffered) && finish(file, family, heronMap);
}

// Finishes the file at `path`, failing its n-th write (0: none). Returns the number of writes made.
int finishFile(const QString& path, RecordingPlan::Family family, int failAt, bool* finished)
{
    QVector<quint16> heronMap(2736000);
    FailingFile file(path, failAt);
    if (!file.open(QIODevice::ReadWrite | QIODevice::Unbuffered))
        return -1;
    *finished = finish(file, family, heronMap);
    file.close();
    return file.writes();
}

// A recording as the recorder left it and as one undisturbed finish leaves it, with that finish's writes.
struct Reference
{
    RecordingResult recording;
    QByteArray before;
    QByteArray undisturbed;
    int writes = 0; // 0 when the recording could not be written or finished
};

// `lostMediaBytes` are cut off the end of the recording's file, as when a card loses the end of a file.
Reference writeAndFinish(const QString& folder, RecordingPlan::Family kind, const RecordingPlan& plan,
                         qint64 lostMediaBytes = 0)
{
    Reference reference;
    const QString original = folder + "/original.zqv";
    reference.recording = writeInterruptedRecording(original, plan);
    if (!reference.recording.ok)
        return reference;
    QFile cut(original);
    if (lostMediaBytes > 0 && !cut.resize(cut.size() - lostMediaBytes))
        return reference;
    reference.before = readFile(original);
    const QString finished = folder + "/reference.zqv";
    bool done = false;
    if (!writeFile(finished, reference.before))
        return reference;
    const int writes = finishFile(finished, kind, 0, &done);
    if (done) {
        reference.undisturbed = readFile(finished);
        reference.writes = writes;
    }
    return reference;
}

QByteArray hashOf(const QByteArray& bytes, qint64 from, qint64 to)
{
    return QCryptographicHash::hash(bytes.mid(int(from), int(to - from)), QCryptographicHash::Sha1);
}

} // namespace

namespace FaultsTest {

void verifyUntouched(const QByteArray& before, const QByteArray& after, qint64 mediaEnd)
{
    QCOMPARE(hashOf(after, 0, kDatPos), hashOf(before, 0, kDatPos));
    QCOMPARE(hashOf(after, kMediaStart, mediaEnd), hashOf(before, kMediaStart, mediaEnd));
}

} // namespace FaultsTest

void TestFaults::everyFailingWriteLeavesARetryableFile_data()
{
    QTest::addColumn<int>("family");
    QTest::addColumn<bool>("storeEnd");
    QTest::newRow("Tern, recorded end") << int(RecordingPlan::Tern) << true;
    QTest::newRow("Tern, end from the file size") << int(RecordingPlan::Tern) << false;
    QTest::newRow("Heron, recorded end") << int(RecordingPlan::Heron) << true;
    QTest::newRow("Heron, end from the file size") << int(RecordingPlan::Heron) << false;
}

void TestFaults::everyFailingWriteLeavesARetryableFile()
{
    QFETCH(int, family);
    QFETCH(bool, storeEnd);
    const auto kind = RecordingPlan::Family(family);
    QTemporaryDir tmp;
    const Reference reference = writeAndFinish(tmp.path(), kind, plan(kind, storeEnd));
    const RecordingResult& recording = reference.recording;
    const QByteArray& before = reference.before;
    const QByteArray& undisturbed = reference.undisturbed;
    const int writes = reference.writes;
    QVERIFY(writes >= 4);
    bool finished = false;
    const QByteArray finalHeader = undisturbed.mid(int(kDatPos), 16);

    // The device-error messages are expected here by the hundred; keep the test log readable.
    const MessageCapture quiet(MessageCapture::Drop);
    for (int failAt = 1; failAt <= writes; ++failAt) {
        const QString path = tmp.filePath(QString("fail%1.zqv").arg(failAt));
        QVERIFY(writeFile(path, before));
        finishFile(path, kind, failAt, &finished);
        const QByteArray after = readFile(path);
        verifyUntouched(before, after, recording.recordedEndPosition);
        const QByteArray header = after.mid(int(kDatPos), 16);
        QVERIFY2(header == kUnclosedHeader || header == finalHeader, qPrintable(QString::number(failAt)));
        if (header == kUnclosedHeader) {
            QVERIFY2(!finished, qPrintable(QString("write %1 failed unnoticed").arg(failAt)));
            finishFile(path, kind, 0, &finished);
            QVERIFY(finished);
        }
        QVERIFY2(readFile(path) == undisturbed, qPrintable(QString("after failing write %1").arg(failAt)));
    }
}

void TestFaults::killedAtEveryWriteIsCompletedToTheSameBytes_data()
{
    QTest::addColumn<int>("family");
    QTest::addColumn<bool>("storeEnd");
    QTest::addColumn<qint64>("lostMediaBytes");
    const auto tern = int(RecordingPlan::Tern);
    const auto heron = int(RecordingPlan::Heron);
    QTest::newRow("Tern, recorded end") << tern << true << qint64(0);
    QTest::newRow("Tern, end from the file size") << tern << false << qint64(0);
    QTest::newRow("Heron, recorded end") << heron << true << qint64(0);
    QTest::newRow("Heron, end from the file size") << heron << false << qint64(0);
    // Found by fuzzing: a file that lost the end of its media, so that its map lists more than it holds.
    // Finished at the file's end, inside what the map lists; a partial index left there is still found.
    QTest::newRow("Tern, end from the file size, media lost") << tern << false << qint64(20 * 512);
    QTest::newRow("Heron, end from the file size, media lost") << heron << false << qint64(20 * 512);
}

void TestFaults::killedAtEveryWriteIsCompletedToTheSameBytes()
{
    // Killed just before each write of a finish in turn, the file holds the media, part of the index or
    // all of it, and an unclosed header. Without a recorded end the file's end is not the media's any
    // more; the media the frame map does not list (saved every few chunks) and a torn chunk lie past the
    // listed end, so only the index itself tells where it begins. Finishing again gives the undisturbed
    // bytes every time.
    QFETCH(int, family);
    QFETCH(bool, storeEnd);
    QFETCH(qint64, lostMediaBytes);
    const auto kind = RecordingPlan::Family(family);
    const RecordingPlan p = tornPlan(kind, storeEnd);
    QTemporaryDir tmp;
    const Reference reference = writeAndFinish(tmp.path(), kind, p, lostMediaBytes);
    const QByteArray& before = reference.before;
    const QByteArray& undisturbed = reference.undisturbed;
    const int writes = reference.writes;
    QVERIFY(writes > 0);
    bool finished = false;

    // The device-error messages are expected here by the hundred; keep the test log readable.
    const MessageCapture quiet(MessageCapture::Drop);
    for (int killAt = 1; killAt <= writes; ++killAt) {
        const QString path = tmp.filePath(QString("killed%1.zqv").arg(killAt));
        QVERIFY(writeFile(path, before));
        QVERIFY(!finishKilledAt(path, kind, killAt));
        const QByteArray left = readFile(path);
        QVERIFY2(left.mid(int(kDatPos), 16) == kUnclosedHeader, qPrintable(QString::number(killAt)));
        finishFile(path, kind, 0, &finished);
        QVERIFY2(finished, qPrintable(QString("killed at write %1 of %2").arg(killAt).arg(writes)));
        QVERIFY2(readFile(path) == undisturbed,
                 qPrintable(QString("killed at write %1 of %2, %3 bytes left past the media")
                                .arg(killAt)
                                .arg(writes)
                                .arg(left.size() - before.size())));
    }
}

void TestFaults::noWriteLandsPastTheEndOfTheFile()
{
    // Four 16-bit sound tracks: their chunk offset tables are written in one walk of the frame map, the
    // later tables' entries ahead of the stream. The file is grown first, so every write lands within it.
    QFETCH(int, family);
    QFETCH(bool, storeEnd);
    const auto kind = RecordingPlan::Family(family);
    RecordingPlan p = plan(kind, storeEnd, 90);
    p.audioTracks << syntheticPcm(2, 90 * 1920, 3) << syntheticPcm(3, 90 * 1920, 3);
    QTemporaryDir tmp;
    const Reference reference = writeAndFinish(tmp.path(), kind, p);
    QVERIFY(reference.writes > 0);

    const QString path = tmp.filePath("card.zqv");
    QVERIFY(writeFile(path, reference.before));
    {
        QVector<quint16> heronMap(2736000);
        GapRefusingFile file(path);
        QVERIFY(file.open(QIODevice::ReadWrite | QIODevice::Unbuffered));
        const bool finished = finish(file, kind, heronMap);
        QVERIFY2(file.refused.isEmpty(), qPrintable("a write past the end: " + file.refused));
        QVERIFY(finished);
    }
    QVERIFY(readFile(path) == reference.undisturbed);
}

QTEST_GUILESS_MAIN(TestFaults)
