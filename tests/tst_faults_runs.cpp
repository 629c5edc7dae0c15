// Runs of clipward-cli cut short while they finish a recording: killed at random moments, stopped by a
// file size limit, and killed at every system call that changes the file or its name (of a finish, of a
// rewrite for interchange, of a restore); and the order in which the finished index reaches the disk. The
// next run always completes what the killed one began, to exactly the bytes of an undisturbed run.

#include "tst_faults.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <algorithm>
#include <functional>

using namespace FaultsTest;
using namespace TestSupport;

namespace {

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

// Kills the program with `args` at each of `calls` in turn, and the run after each kill at its first
// truncation (killedThenKilledAgain; that run only while `needed` is there, when named). Before each kill
// `reset` puts back the file the program starts from; after it `complete` runs the program to the end (`at`
// names the call killed), and `left` must then be the only file in its folder, holding `expected`. Logs
// `summary` with the number of calls (%1) and of the next runs killed again (%2). Returns at the first
// failed check, so the test ends there as it would with the loop written out.
void killAtEveryCall(const QList<TracedCall>& calls, const QStringList& args, const QString& needed,
                     const std::function<void()>& reset,
                     const std::function<void(const QString& at)>& complete, const QString& left,
                     const QByteArray& expected, const char* summary)
{
    const QFileInfo leftInfo(left);
    int killedTwice = 0;
    for (int i = 0; i < calls.size(); ++i) {
        const QString at = killedAtText(calls, i);
        reset();
        if (QTest::currentTestFailed())
            return;
        QVERIFY2(killedThenKilledAgain(args, calls[i], &killedTwice, needed),
                 qPrintable(at + ": the program was not killed, or a run did not end"));
        complete(at);
        if (QTest::currentTestFailed())
            return;
        QCOMPARE(leftInfo.dir().entryList(QDir::Files), QStringList{leftInfo.fileName()});
        QVERIFY2(readFile(left) == expected, qPrintable(at));
    }
    qInfo("%s", qPrintable(QString(summary).arg(calls.size()).arg(killedTwice)));
}

} // namespace

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
    strace.setProcessEnvironment(traceableEnvironment());
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

    const auto reset = [&] {
        QVERIFY(QFile::remove(mov) || QFile::remove(zqv));
        QVERIFY(writeFile(zqv, before));
    };
    const auto complete = [&](const QString&) {
        QStringList out;
        QCOMPARE(runCli({card}, &out), 0);
    };
    killAtEveryCall(calls, {card}, QString(), reset, complete, mov, undisturbed,
                    "%1 calls killed in turn; %2 of the next runs killed again as they cut back");
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

    const auto reset = [&] { QVERIFY(writeFile(mov, recorderForm)); };
    const auto complete = [&](const QString& at) {
        const int status = runCli({"--interchange", mov}, &out);
        QVERIFY2(status == 0 && out.contains("     " + mov + " rewritten for interchange."),
                 qPrintable(at + ":\n" + out.join('\n')));
    };
    killAtEveryCall(calls, {"--interchange", mov}, QString(), reset, complete, mov, interchange,
                    "%1 calls of a rewrite killed in turn; %2 of the next rewrites killed again");
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

    const auto reset = [&] {
        QFile::remove(zqv);
        QVERIFY(writeFile(mov, finished));
    };
    const auto complete = [&](const QString& at) {
        if (QFile::exists(mov)) {
            const int status = runCli({ "--restore", mov }, &out);
            QVERIFY2(status == 0 && out.contains("     " + mov + " restored as " + zqv + "."),
                qPrintable(at + ":\n" + out.join('\n')));
        }
    };
    // A restore killed after its rename leaves nothing for a second one to do: the next run is killed again
    // only while the movie is still there.
    killAtEveryCall(calls, {"--restore", mov}, mov, reset, complete, zqv, original,
                    "%1 calls of a restore killed in turn; %2 of the next restores killed again");
}
