// Failures while finishing a recording: a write that fails at every possible point, a process killed at
// random moments, a file size limit, a file system that refuses writes past the end of a file, and the
// order in which the finished index reaches the disk. Whatever happens, the media and the recovery data
// are never changed, the 'mdat' header is either untouched or final, and finishing the file again gives
// exactly the bytes of an undisturbed finish.

#include "finalize/Finalize.h"
#include "movie/HeronQuickTimeFile.h"
#include "simulate/RecordingSimulator.h"
#include "support/TestSupport.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QScopeGuard>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace TestSupport;

namespace {

const qint64 kDatPos = 5472240;
const qint64 kMediaStart = 5472256;
const QByteArray kUnclosedHeader = hex("00000001 6d646174 0000000000000010");

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

RecordingPlan plan(RecordingPlan::Family family, bool storeEnd, int frames = 45)
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

// A recording cut off as power failing leaves it: the last frame map entries unsaved (it is saved every
// few chunks) and a chunk torn at the end.
RecordingPlan tornPlan(RecordingPlan::Family family, bool storeEnd)
{
    RecordingPlan p = plan(family, storeEnd);
    p.tornTailBytes = 3000;
    p.frameMapSaveInterval = 8;
    return p;
}

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

// The device-error messages are expected here by the hundred; keep the test log readable.
void dropMessage(QtMsgType, const QMessageLogContext&, const QString&) {}

QByteArray hashOf(const QByteArray& bytes, qint64 from, qint64 to)
{
    return QCryptographicHash::hash(bytes.mid(int(from), int(to - from)), QCryptographicHash::Sha1);
}

// The recording's own bytes are intact: the reserved region and everything up to the media end.
void verifyUntouched(const QByteArray& before, const QByteArray& after, qint64 mediaEnd)
{
    QCOMPARE(hashOf(after, 0, kDatPos), hashOf(before, 0, kDatPos));
    QCOMPARE(hashOf(after, kMediaStart, mediaEnd), hashOf(before, kMediaStart, mediaEnd));
}

// The calls of a run that change a file or a name, or make them durable.
const QString kChangingCalls = "write,pwrite64,pwritev,pwritev2,fsync,fdatasync,ftruncate,fallocate,rename,"
                               "renameat,renameat2,link,linkat,unlink,unlinkat";

QProcessEnvironment traceableEnvironment()
{
    // LeakSanitizer cannot run under a tracer and would end a sanitized build of the program at exit.
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("ASAN_OPTIONS", env.value("ASAN_OPTIONS") + ":detect_leaks=0");
    return env;
}

// One call of a traced run: its name and which call of that name it was in its thread, counting from 1
// (the way strace counts the calls it tampers with).
struct TracedCall
{
    QString name;
    int number = 0;
};

// The calls that change files in a run of the program with `args`, in their order.
QList<TracedCall> changingCalls(const QStringList& args, const QString& traceFile)
{
    QProcess strace;
    strace.setProcessEnvironment(traceableEnvironment());
    strace.start("strace", QStringList{"-f", "-qq", "-e", "trace=" + kChangingCalls, "-o", traceFile,
                                       CLIPWARD_CLI_PATH} + args);
    QList<TracedCall> calls;
    if (!strace.waitForFinished(-1) || strace.exitCode() != 0)
        return calls;
    const QRegularExpression call("^(\\d+) +([a-z0-9_]+)\\(");
    QHash<QString, int> seen; // per thread and name
    for (const QString& line : QString::fromUtf8(readFile(traceFile)).split('\n')) {
        const QRegularExpressionMatch match = call.match(line);
        if (match.hasMatch())
            calls << TracedCall{match.captured(2), ++seen[match.captured(1) + ' ' + match.captured(2)]};
    }
    return calls;
}

// Whether the run made a call whose name starts with `name` (write also finds pwrite64).
bool madeCall(const QList<TracedCall>& calls, const QString& name)
{
    const auto named = [&](const TracedCall& c) { return c.name.startsWith(name); };
    return std::any_of(calls.begin(), calls.end(), named);
}

QString killedAtText(const QList<TracedCall>& calls, int i)
{
    return QString("killed at call %1 of %2 (%3 #%4)")
        .arg(i + 1)
        .arg(calls.size())
        .arg(calls[i].name)
        .arg(calls[i].number);
}

// Runs the program with `args`, killed as it makes `call`; returns whether the kill happened (the
// program may finish without making the call).
bool runKilledAt(const QStringList& args, const TracedCall& call, bool* ranOk)
{
    QProcess strace;
    strace.setProcessEnvironment(traceableEnvironment());
    // The call does not happen: it fails and the process is killed before it sees the failure.
    strace.start("strace", QStringList{"-f", "-qq", "-o", "/dev/null", "-e",
                                       QString("inject=%1:error=EIO:signal=KILL:when=%2")
                                           .arg(call.name)
                                           .arg(call.number),
                                       CLIPWARD_CLI_PATH} + args);
    *ranOk = strace.waitForFinished(-1);
    // strace ends as its tracee did: killed.
    return *ranOk && strace.exitStatus() == QProcess::CrashExit;
}

// The program with `args` killed at `call`, then run once more and killed at its first truncation when it
// makes one, as a second run cut short would be (counted in `killedTwice`); the second run only while
// `needed` is there, when one is named. False when the first run was not killed or a run did not end.
bool killedThenKilledAgain(
    const QStringList& args, const TracedCall& call, int* killedTwice, const QString& needed = QString())
{
    bool ranOk = false;
    if (!runKilledAt(args, call, &ranOk))
        return false;
    if ((needed.isEmpty() || QFile::exists(needed)) && runKilledAt(args, TracedCall{"ftruncate", 1}, &ranOk))
        ++*killedTwice;
    return ranOk;
}

} // namespace

class TestFaults : public QObject
{
    Q_OBJECT

private slots:
    void everyFailingWriteLeavesARetryableFile_data();
    void everyFailingWriteLeavesARetryableFile();
    void killedAtRandomMomentsIsCompletedToTheSameBytes();
    void killedAtEveryWriteIsCompletedToTheSameBytes_data();
    void killedAtEveryWriteIsCompletedToTheSameBytes();
    void fileSizeLimitLeavesTheTakeForALaterRun();
    void noWriteLandsPastTheEndOfTheFile_data() { everyFailingWriteLeavesARetryableFile_data(); }
    void noWriteLandsPastTheEndOfTheFile();
    void indexReachesTheDiskBeforeTheHeaderAndTheName();
    void killedAtEverySystemCallIsCompletedByTheNextRun_data()
    {
        everyFailingWriteLeavesARetryableFile_data();
    }
    void killedAtEverySystemCallIsCompletedByTheNextRun();
    void rewriteKilledAtEverySystemCallIsCompletedByTheNextRewrite_data()
    {
        killedAtEverySystemCallIsCompletedByTheNextRun_data();
    }
    void rewriteKilledAtEverySystemCallIsCompletedByTheNextRewrite();
    void restoreKilledAtEverySystemCallIsCompletedByTheNextRestore_data()
    {
        killedAtEverySystemCallIsCompletedByTheNextRun_data();
    }
    void restoreKilledAtEverySystemCallIsCompletedByTheNextRestore();
};

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

    const QtMessageHandler previous = qInstallMessageHandler(dropMessage);
    const auto restoreHandler = qScopeGuard([previous] { qInstallMessageHandler(previous); });
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

    const QtMessageHandler previous = qInstallMessageHandler(dropMessage);
    const auto restoreHandler = qScopeGuard([previous] { qInstallMessageHandler(previous); });
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

void TestFaults::killedAtRandomMomentsIsCompletedToTheSameBytes()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QDir().mkpath(card);
    const QString zqv = card + "/A001.zqv";
    const QString mov = card + "/A001.mov";
    const QString nrv = card + "/A001.nrv";
    // Many small chunks make a long index, so the kills land while it is being written.
    RecordingPlan p = plan(RecordingPlan::Tern, true, 0);
    p.audioSamplesPerChunk = 80;
    p.audioTracks = {syntheticPcm(0, 80 * 40000, 2)};
    p.audioBytesPerSample = 2;
    const RecordingResult recording = writeInterruptedRecording(zqv, p);
    QVERIFY(recording.ok);
    const QByteArray before = readFile(zqv);

    QElapsedTimer clock;
    clock.start();
    QStringList out;
    QCOMPARE(runCli({card}, &out), 0);
    const qint64 undisturbedMs = qMax<qint64>(clock.elapsed(), 20);
    const QByteArray undisturbed = readFile(mov);

    QRandomGenerator random(20261122);
    int interrupted = 0;
    for (int round = 0; round < 50; ++round) {
        QFile::remove(mov);
        QVERIFY(writeFile(zqv, before));
        QProcess cli;
        cli.start(CLIPWARD_CLI_PATH, {card});
        QVERIFY(cli.waitForStarted());
        QThread::usleep(random.bounded(quint32(undisturbedMs * 1000)));
        cli.kill();
        cli.waitForFinished();

        // Whatever name it has now, the recording's own bytes are intact.
        const QString left = QFile::exists(mov) ? mov : QFile::exists(nrv) ? nrv : zqv;
        const QByteArray after = readFile(left);
        verifyUntouched(before, after, recording.recordedEndPosition);
        const QByteArray header = after.mid(int(kDatPos), 16);
        QVERIFY(header == kUnclosedHeader || header == undisturbed.mid(int(kDatPos), 16));
        // No kill gives the take up, and the next run completes it with no step by hand: it finishes an
        // unfinished file, and renames one whose header was already patched.
        QVERIFY2(left != nrv, qPrintable(QString("round %1").arg(round)));
        if (left != mov) {
            ++interrupted;
            QCOMPARE(runCli({card}, &out), 0);
        }
        QVERIFY2(readFile(mov) == undisturbed, qPrintable(QString("round %1").arg(round)));
    }
    qInfo("%d of 50 runs were interrupted before the file was renamed", interrupted);
}

void TestFaults::fileSizeLimitLeavesTheTakeForALaterRun()
{
    // The size limit of a process stands in for a card that cannot hold the finished file: writes past
    // it fail (EFBIG). The take keeps its in-progress name and bytes; a run without the limit finishes it.
    if (QStandardPaths::findExecutable("bash").isEmpty())
        QSKIP("bash is needed to limit the file size");
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QDir().mkpath(card);
    const QString zqv = card + "/A001.zqv";
    const RecordingResult recording = writeInterruptedRecording(zqv, plan(RecordingPlan::Tern, false));
    QVERIFY(recording.ok);
    const QByteArray before = readFile(zqv);

    const qint64 limitKb = before.size() / 1024 + 1; // room for a little of the index only
    QProcess cli;
    cli.start("bash", {"-c", QString("trap '' XFSZ; ulimit -f %1; exec \"%2\" \"%3\"")
                                 .arg(limitKb)
                                 .arg(CLIPWARD_CLI_PATH, card)});
    QVERIFY(cli.waitForFinished(-1));
    QCOMPARE(cli.exitCode(), 3);
    const QStringList lines = QString::fromUtf8(cli.readAllStandardOutput()).split('\n');
    QVERIFY2(lines.contains("     " + zqv + " not finished: the finished file would be larger than the card "
                                          "allows."),
             qPrintable(lines.join('\n')));
    QVERIFY(lines.contains("1 file(s) left as they are."));
    // The part of the index that fit is cut off again.
    QCOMPARE(readFile(zqv), before);

    QStringList out;
    QCOMPARE(runCli({card}, &out), 0);
    const QString undisturbedCard = tmp.filePath("undisturbed");
    QVERIFY(writeFile(undisturbedCard + "/A001.zqv", before));
    QCOMPARE(runCli({undisturbedCard}, &out), 0);
    QCOMPARE(readFile(card + "/A001.mov"), readFile(undisturbedCard + "/A001.mov"));
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

void TestFaults::indexReachesTheDiskBeforeTheHeaderAndTheName()
{
    if (QStandardPaths::findExecutable("strace").isEmpty())
        QSKIP("strace is needed to watch the system calls (the test command installs it)");
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QDir().mkpath(card);
    QVERIFY(writeInterruptedRecording(card + "/A001.zqv", plan(RecordingPlan::Tern, true)).ok);
    const QString trace = tmp.filePath("trace");
    QProcess strace;
    // LeakSanitizer cannot run under a tracer and would end a sanitized build of the program at exit.
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("ASAN_OPTIONS", env.value("ASAN_OPTIONS") + ":detect_leaks=0");
    strace.setProcessEnvironment(env);
    strace.start("strace", {"-f", "-qq", "-e", "trace=fsync,fdatasync,write,rename,renameat,renameat2", "-o",
                            trace, CLIPWARD_CLI_PATH, card});
    QVERIFY(strace.waitForFinished(-1));
    QCOMPARE(strace.exitCode(), 0);

    // Positions in the trace of: the last index write, the header write, the renaming, and the syncs.
    const QStringList calls = QString::fromUtf8(readFile(trace)).split('\n');
    int header = -1, rename = -1;
    QList<int> syncs;
    for (int i = 0; i < calls.size(); ++i) {
        const QString& call = calls[i];
        if (call.contains("fsync(") || call.contains("fdatasync("))
            syncs << i;
        else if (call.contains("write(") && call.contains("\"\\0\\0\\0\\1mdat"))
            header = i;
        else if (call.contains("rename"))
            rename = i;
    }
    QVERIFY(header > 0);
    QVERIFY(rename > header);
    const auto syncBetween = [&](int from, int to) {
        return std::any_of(syncs.begin(), syncs.end(), [&](int s) { return s > from && s < to; });
    };
    QVERIFY2(syncBetween(0, header), "the index is synced before the header is patched");
    QVERIFY2(syncBetween(header, rename), "the header is synced before the file is renamed");
    QVERIFY2(syncBetween(rename, calls.size()), "the folder is synced after the rename");
}

void TestFaults::killedAtEverySystemCallIsCompletedByTheNextRun()
{
    // The program is killed at each call of a finish that changes the file or its name in turn (every
    // write, sync, truncation and rename), and the next run is killed at its first truncation (cutting
    // off what the killed run left). The run after that leaves the undisturbed movie under its finished
    // name, with no step by hand.
    if (QStandardPaths::findExecutable("strace").isEmpty())
        QSKIP("strace is needed to kill the program at its system calls (the test command installs it)");
    QFETCH(int, family);
    QFETCH(bool, storeEnd);
    const auto kind = RecordingPlan::Family(family);
    const RecordingPlan p = tornPlan(kind, storeEnd);
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    const QString zqv = card + "/A001.zqv";
    const QString mov = card + "/A001.mov";
    QVERIFY(QDir().mkpath(card));
    QVERIFY(writeInterruptedRecording(zqv, p).ok);
    const QByteArray before = readFile(zqv);

    const QList<TracedCall> calls = changingCalls({card}, tmp.filePath("trace"));
    QVERIFY(!calls.isEmpty());
    const QByteArray undisturbed = readFile(mov);
    QVERIFY(!undisturbed.isEmpty());
    QVERIFY(madeCall(calls, "write") && madeCall(calls, "fsync") && madeCall(calls, "rename"));

    int killedTwice = 0;
    for (int i = 0; i < calls.size(); ++i) {
        const QString at = killedAtText(calls, i);
        QVERIFY(QFile::remove(mov) || QFile::remove(zqv));
        QVERIFY(writeFile(zqv, before));
        QVERIFY2(killedThenKilledAgain({card}, calls[i], &killedTwice),
                 qPrintable(at + ": the program was not killed, or a run did not end"));
        QStringList out;
        QCOMPARE(runCli({card}, &out), 0);
        QCOMPARE(QDir(card).entryList(QDir::Files), QStringList{"A001.mov"});
        QVERIFY2(readFile(mov) == undisturbed, qPrintable(at));
    }
    qInfo("%d calls killed in turn; %d of the next runs killed again as they cut back", int(calls.size()),
          killedTwice);
}

void TestFaults::rewriteKilledAtEverySystemCallIsCompletedByTheNextRewrite()
{
    // A movie finished in the recorder's form is rewritten into the interchange form, killed at each call
    // that changes the file (the cut of the old index, the syncs, the opening of the 'mdat' header, every
    // write of the new index). The next rewrite, itself killed at its first truncation when it makes one,
    // and the one after it leave exactly the movie an interchange finish of the recording gives.
    if (QStandardPaths::findExecutable("strace").isEmpty())
        QSKIP("strace is needed to kill the program at its system calls (the test command installs it)");
    QFETCH(int, family);
    QFETCH(bool, storeEnd);
    const RecordingPlan p = tornPlan(RecordingPlan::Family(family), storeEnd);
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    const QString mov = card + "/A001.mov";
    QVERIFY(QDir().mkpath(card));
    QVERIFY(writeInterruptedRecording(card + "/A001.zqv", p).ok);
    QStringList out;
    QCOMPARE(runCli({"--interchange", card}, &out), 0);
    const QByteArray interchange = readFile(mov);
    QVERIFY(QFile::remove(mov));
    QVERIFY(writeInterruptedRecording(card + "/A001.zqv", p).ok);
    QCOMPARE(runCli({card}, &out), 0);
    const QByteArray recorderForm = readFile(mov);
    QVERIFY(!interchange.isEmpty() && recorderForm != interchange);

    const QList<TracedCall> calls = changingCalls({"--interchange", mov}, tmp.filePath("trace"));
    QCOMPARE(readFile(mov), interchange);
    QVERIFY(madeCall(calls, "ftruncate") && madeCall(calls, "fsync") && madeCall(calls, "write"));

    int killedTwice = 0;
    for (int i = 0; i < calls.size(); ++i) {
        const QString at = killedAtText(calls, i);
        QVERIFY(writeFile(mov, recorderForm));
        QVERIFY2(killedThenKilledAgain({"--interchange", mov}, calls[i], &killedTwice),
                 qPrintable(at + ": the program was not killed, or a run did not end"));
        const int status = runCli({"--interchange", mov}, &out);
        QVERIFY2(status == 0 && out.contains("     " + mov + " rewritten for interchange."),
                 qPrintable(at + ":\n" + out.join('\n')));
        QCOMPARE(QDir(card).entryList(QDir::Files), QStringList{"A001.mov"});
        QVERIFY2(readFile(mov) == interchange, qPrintable(at));
    }
    qInfo("%d calls of a rewrite killed in turn; %d of the next rewrites killed again", int(calls.size()),
        killedTwice);
}

void TestFaults::restoreKilledAtEverySystemCallIsCompletedByTheNextRestore()
{
    // A finished movie is restored, killed at each call that changes the file or its name (the cut of the
    // index, the syncs, the opening of the 'mdat' header, the rename). The next restore, itself killed at
    // its first truncation when it makes one, and the one after it leave exactly the recorder's file under
    // its in-progress name; a restore killed after its rename has nothing left to do.
    if (QStandardPaths::findExecutable("strace").isEmpty())
        QSKIP("strace is needed to kill the program at its system calls (the test command installs it)");
    QFETCH(int, family);
    QFETCH(bool, storeEnd);
    const auto kind = RecordingPlan::Family(family);
    // Without a recorded end a torn chunk is part of the media, and comes back with it.
    const RecordingPlan p = storeEnd ? plan(kind, true) : tornPlan(kind, false);
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    const QString zqv = card + "/A001.zqv";
    const QString mov = card + "/A001.mov";
    QVERIFY(QDir().mkpath(card));
    QVERIFY(writeInterruptedRecording(zqv, p).ok);
    const QByteArray original = readFile(zqv);
    QStringList out;
    QCOMPARE(runCli({ card }, &out), 0);
    const QByteArray finished = readFile(mov);

    const QList<TracedCall> calls = changingCalls({ "--restore", mov }, tmp.filePath("trace"));
    QCOMPARE(readFile(zqv), original);
    QVERIFY(madeCall(calls, "ftruncate") && madeCall(calls, "fsync") && madeCall(calls, "write"));

    int killedTwice = 0;
    for (int i = 0; i < calls.size(); ++i) {
        const QString at = killedAtText(calls, i);
        QFile::remove(zqv);
        QVERIFY(writeFile(mov, finished));
        // A restore killed after its rename leaves nothing for a second one to do.
        QVERIFY2(killedThenKilledAgain({"--restore", mov}, calls[i], &killedTwice, mov),
                 qPrintable(at + ": the program was not killed, or a run did not end"));
        if (QFile::exists(mov)) {
            const int status = runCli({ "--restore", mov }, &out);
            QVERIFY2(status == 0 && out.contains("     " + mov + " restored as " + zqv + "."),
                qPrintable(at + ":\n" + out.join('\n')));
        }
        QCOMPARE(QDir(card).entryList(QDir::Files), QStringList { "A001.zqv" });
        QVERIFY2(readFile(zqv) == original, qPrintable(at));
    }
    qInfo("%d calls of a restore killed in turn; %d of the next restores killed again", int(calls.size()),
        killedTwice);
}

QTEST_GUILESS_MAIN(TestFaults)
#include "tst_faults.moc"
