// Cards as they are on a set: a recording another run holds, two runs on one card at once, a locked or
// read-only card, folders and files that cannot be read or written, and the current directory a run
// leaves behind. No take is given up for what the card does, and every line names its own file.

#include "finalize/CardFile.h"
#include "finalize/FinalizeRun.h"
#include "finalize/RecordingLock.h"
#include "simulate/RecordingSimulator.h"
#include "simulate/WavSimulator.h"
#include "support/MessageCapture.h"
#include "support/MixedCard.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QProcess>
#include <QSet>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

using namespace TestSupport;

namespace {

bool writeWavRecording(const QString& path, int seed)
{
    WavPlan wav;
    wav.pcm = interleavePcm({ syntheticPcm(seed % 7, 4800, 3), syntheticPcm(1, 4800, 3) }, 3);
    return writeWav(path, wav);
}

// A small card of one Tern movie, one Heron movie and one audio file, all healthy.
bool writeSmallCard(const QString& card)
{
    return QDir().mkpath(card + "/CLIPS")
        && writeInterruptedRecording(card + "/CLIPS/A001.zqv", moviePlan(RecordingPlan::Tern, 30, 1)).ok
        && writeInterruptedRecording(card + "/CLIPS/B001.zqv", moviePlan(RecordingPlan::Heron, 9, 1)).ok
        && writeWavRecording(card + "/CLIPS/B001T001.zqa", 1);
}

struct CliResult
{
    int exitCode = -1;
    QStringList lines;
};

CliResult runCliAsNobody(const QStringList& args)
{
    CliResult result;
    result.exitCode = runCliUnprivileged(args, &result.lines);
    return result;
}

// Opens the temporary folder to others, so an unprivileged run can reach the card inside it.
void openToOthers(const QString& path)
{
    QFile::setPermissions(path,
        QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner | QFileDevice::ReadOther
            | QFileDevice::ExeOther | QFileDevice::ReadGroup | QFileDevice::ExeGroup);
}

// A read-only bind mount of a folder for as long as it lives.
struct ReadOnlyMount
{
    QString target;
    bool mounted = false;

    ReadOnlyMount(const QString& source, const QString& mountPoint)
        : target(mountPoint)
    {
        if (::geteuid() != 0 || !QDir().mkpath(mountPoint))
            return;
        if (runCommand("mount", { "--bind", source, mountPoint }) != 0)
            return;
        mounted = true;
        if (runCommand("mount", { "-o", "remount,bind,ro", mountPoint }) != 0)
            unmount();
    }
    ~ReadOnlyMount() { unmount(); }
    void unmount()
    {
        if (mounted)
            runCommand("umount", { target });
        mounted = false;
    }
};

} // namespace

class TestCardSafety : public QObject
{
    Q_OBJECT

private slots:
    void lockModes();
    void recordingInUseIsLeftToTheOtherRun_data();
    void recordingInUseIsLeftToTheOtherRun();
    void sharedLockOfAScanDoesNotStopAnotherScan();
    void twoRunsAtOnceFinishEveryRecordingOnce();
    void currentDirectoryIsGivenBack();
    void writeProtectedDrive();
    void cardWithoutWritePermission();
    void unreadableFileFolderAndStartFolder();
    void cardFileTellsWhatTheCardRefused();
};

void TestCardSafety::lockModes()
{
    QTemporaryDir tmp;
    const QString path = tmp.filePath("A001.zqv");
    QVERIFY(writeFile(path, "x"));
    {
        RecordingLock shared1(path, RecordingLock::Mode::Shared);
        RecordingLock shared2(path, RecordingLock::Mode::Shared);
        QCOMPARE(shared1.state(), RecordingLock::State::Held);
        QCOMPARE(shared2.state(), RecordingLock::State::Held);
        QCOMPARE(RecordingLock(path, RecordingLock::Mode::Exclusive).state(), RecordingLock::State::InUse);
    }
    {
        RecordingLock exclusive(path, RecordingLock::Mode::Exclusive);
        QCOMPARE(exclusive.state(), RecordingLock::State::Held);
        QCOMPARE(RecordingLock(path, RecordingLock::Mode::Shared).state(), RecordingLock::State::InUse);
        QCOMPARE(RecordingLock(path, RecordingLock::Mode::Exclusive).state(), RecordingLock::State::InUse);

        // The lock follows the file through its rename; a new file at the old name is another file.
        QVERIFY(QFile::rename(path, tmp.filePath("A001.mov")));
        QCOMPARE(RecordingLock(tmp.filePath("A001.mov"), RecordingLock::Mode::Exclusive).state(),
            RecordingLock::State::InUse);
        QVERIFY(writeFile(path, "y"));
        QCOMPARE(RecordingLock(path, RecordingLock::Mode::Exclusive).state(), RecordingLock::State::Held);
    }
    QCOMPARE(RecordingLock(tmp.filePath("A001.mov"), RecordingLock::Mode::Exclusive).state(),
        RecordingLock::State::Held); // released with its holder
    QCOMPARE(RecordingLock(tmp.filePath("missing.zqv"), RecordingLock::Mode::Shared).state(),
        RecordingLock::State::Gone);
}

void TestCardSafety::recordingInUseIsLeftToTheOtherRun_data()
{
    QTest::addColumn<bool>("scanOnly");
    QTest::newRow("finalize") << false;
    QTest::newRow("scan-only") << true;
}

void TestCardSafety::recordingInUseIsLeftToTheOtherRun()
{
    QFETCH(bool, scanOnly);
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(writeSmallCard(card));
    const QString held = card + "/CLIPS/A001.zqv";
    const auto before = snapshotTree(card);

    // Another run is finishing this recording: it holds the lock.
    RecordingLock otherRun(held, RecordingLock::Mode::Exclusive);
    QVERIFY(otherRun.held());
    FinalizeRun::Summary summary;
    const QStringList lines = runFinalizeRun(card, scanOnly, &summary);
    QCOMPARE(summary.leftCount, 1);
    QCOMPARE(summary.badCount, 0);
    QVERIFY(lines.contains("     " + held + " in use by another run, left as it is"));
    QCOMPARE(snapshotTree(card).value("CLIPS/A001.zqv"), before.value("CLIPS/A001.zqv"));
    if (scanOnly) {
        QCOMPARE(lines.mid(lines.indexOf(" ")),
            QStringList({ " ", "1 file(s) left as they are.", "Test Debug", "2 file(s) require finalizing.",
                "Run again with Scan Mode set to 'Scan and Finalize'" }));
        QCOMPARE(snapshotTree(card), before);
    } else {
        QCOMPARE(summary.goodCount, 2);
        QCOMPARE(lines.mid(lines.indexOf(" ")),
            QStringList(
                { " ", "1 file(s) left as they are.", "2 file(s) have been successfully finalized." }));
        QVERIFY(QFile::exists(card + "/CLIPS/B001.mov"));
        QVERIFY(QFile::exists(card + "/CLIPS/B001T001.wav"));
    }
}

void TestCardSafety::sharedLockOfAScanDoesNotStopAnotherScan()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(writeSmallCard(card));
    RecordingLock otherScan(card + "/CLIPS/A001.zqv", RecordingLock::Mode::Shared);
    QVERIFY(otherScan.held());
    const QStringList lines = runFinalizeRun(card, true);
    QVERIFY(lines.contains("     " + card + "/CLIPS/A001.zqv (tern) Requires finalize"));
    QVERIFY(lines.contains("3 file(s) require finalizing."));
}

void TestCardSafety::twoRunsAtOnceFinishEveryRecordingOnce()
{
    // 105 recordings in five folders: Tern and Heron movies and audio files. A copy finished by one run
    // alone gives the bytes every recording must end with.
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    const QString alone = tmp.filePath("alone");
    QStringList recordings;
    for (int i = 0; i < 105; ++i) {
        const QString folder = QString("%1/F%2").arg(card).arg(i % 5);
        QDir().mkpath(folder);
        QString path;
        bool ok = false;
        if (i % 3 == 0) {
            path = QString("%1/A%2.zqv").arg(folder).arg(i, 3, 10, QChar('0'));
            ok = writeInterruptedRecording(path, moviePlan(RecordingPlan::Tern, 30, 1)).ok;
        } else if (i % 3 == 1) {
            path = QString("%1/B%2.zqv").arg(folder).arg(i, 3, 10, QChar('0'));
            ok = writeInterruptedRecording(path, moviePlan(RecordingPlan::Heron, 6, 1)).ok;
        } else {
            path = QString("%1/C%2.zqa").arg(folder).arg(i, 3, 10, QChar('0'));
            ok = writeWavRecording(path, i);
        }
        QVERIFY(ok);
        recordings << path;
        const QString copy = QString(path).replace(card, alone);
        QDir().mkpath(QFileInfo(copy).absolutePath());
        QVERIFY(QFile::copy(path, copy));
    }
    QStringList aloneLines;
    QCOMPARE(runCli({ alone }, &aloneLines), 0);

    QProcess first;
    QProcess second;
    first.start(CLIPWARD_CLI_PATH, { card });
    second.start(CLIPWARD_CLI_PATH, { card });
    QVERIFY(first.waitForFinished(-1));
    QVERIFY(second.waitForFinished(-1));
    QStringList lines[2] = { QString::fromUtf8(first.readAllStandardOutput()).split('\n'),
        QString::fromUtf8(second.readAllStandardOutput()).split('\n') };

    // Each recording is finished by exactly one of the two. The other run either never saw it (it listed
    // the folder after the rename) or says why it left it alone; no run has any other line about a file.
    QSet<QString> allowed[2];
    int finishedBy[2] = { 0, 0 };
    for (const QString& path : recordings) {
        const QString finished = QString(path).replace(".zqv", ".mov").replace(".zqa", ".wav");
        const QString tag = path.endsWith(".zqa") || path.contains("/B") ? "(Heron)" : "(Tern)";
        const QString finishedLine = "     " + finished + " " + tag + " Finalized";
        int finishes = 0;
        for (int run = 0; run < 2; ++run) {
            if (lines[run].contains(finishedLine)) {
                ++finishes;
                ++finishedBy[run];
            } else {
                allowed[run] << "     " + path + " in use by another run, left as it is"
                             << "     " + path + " is no longer there, passed over";
            }
            allowed[run] << finishedLine;
        }
        QVERIFY2(finishes == 1, qPrintable(path));
        QVERIFY2(!QFile::exists(path), qPrintable(path));
        QCOMPARE(readFile(finished), readFile(QString(finished).replace(card, alone)));
    }
    for (int run = 0; run < 2; ++run) {
        for (const QString& line : lines[run]) {
            if (line.startsWith("     "))
                QVERIFY2(allowed[run].contains(line), qPrintable(line));
        }
        QVERIFY(!lines[run].join('\n').contains("nrecoverable"));
    }
    QCOMPARE(finishedBy[0] + finishedBy[1], int(recordings.size()));
    QVERIFY(first.exitCode() == 0 || first.exitCode() == 3);
    QVERIFY(second.exitCode() == 0 || second.exitCode() == 3);
    QCOMPARE(snapshotTree(card).keys(), snapshotTree(alone).keys());
    qInfo("the first run finished %d of %d recordings, the second %d", finishedBy[0], int(recordings.size()),
        finishedBy[1]);
}

void TestCardSafety::currentDirectoryIsGivenBack()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(writeSmallCard(card));
    const QString before = QDir::currentPath();
    QVERIFY(!before.startsWith(card));
    runFinalizeRun(card, true);
    QCOMPARE(QDir::currentPath(), before);
    runFinalizeRun(card, false);
    QCOMPARE(QDir::currentPath(), before);
    QVERIFY(QFile::exists(card + "/CLIPS/A001.mov"));
}

void TestCardSafety::writeProtectedDrive()
{
    QTemporaryDir tmp;
    const QString source = tmp.filePath("source");
    QVERIFY(writeSmallCard(source));
    const auto before = snapshotTree(source);
    const QString card = tmp.filePath("card");
    ReadOnlyMount mount(source, card);
    if (!mount.mounted)
        QSKIP("a read-only bind mount needs root and mount(8)");

    const QString clips = card + "/CLIPS";
    QStringList out;
    QCOMPARE(runCli({ card }, &out), 3);
    QCOMPARE(out,
        QStringList({ "Checking drive: " + card.left(2), "Scanning for unfinalized files.",
            "Drive is write-protected: no file can be finalized here.", "Scanning folder: " + card,
            "Scanning folder: " + clips,
            "     " + clips + "/A001.zqv (Tern) Left as it is: the drive is write-protected",
            "     " + clips + "/B001.zqv (Heron) Left as it is: the drive is write-protected",
            "     " + clips + "/B001T001.zqa (Heron) Left as it is: the drive is write-protected", " ",
            "3 file(s) left as they are.", "No file has been finalized." }));

    QCOMPARE(runCli({ "--scan-only", card }, &out), 0);
    QCOMPARE(out,
        QStringList({ "Checking drive: " + card.left(2), "Displaying files that require finalization.",
            "No files will be modifed.", "Drive is write-protected: no file can be finalized here.",
            "Scanning folder: " + card, "Scanning folder: " + clips,
            "     " + clips
                + "/A001.zqv (tern) Requires finalize, cannot be finalized here: the drive is "
                  "write-protected",
            "     " + clips
                + "/B001.zqv (heron) Requires finalize, cannot be finalized here: the drive is "
                  "write-protected",
            "     " + clips
                + "/B001T001.zqa (heron) Requires finalize, cannot be finalized here: the drive "
                  "is write-protected",
            " ", "Test Debug", "3 file(s) require finalizing.",
            "Run again with Scan Mode set to 'Scan and Finalize'" }));
    mount.unmount();
    QCOMPARE(snapshotTree(source), before);
}

void TestCardSafety::cardWithoutWritePermission()
{
    // Owned by root, readable by all, writable by none but root; one folder's file is writable by all but
    // its folder is not, so it could be written but not renamed.
    if (::geteuid() != 0 || !canRunCliUnprivileged())
        QSKIP("needs root to run the program as a user that permissions stop");
    QTemporaryDir tmp;
    openToOthers(tmp.path());
    const QString card = tmp.filePath("card");
    QVERIFY(writeSmallCard(card));
    QVERIFY(QDir().mkpath(card + "/OPEN"));
    QVERIFY(writeWavRecording(card + "/OPEN/C001.zqa", 3));
    for (const QString& folder : { card, card + "/CLIPS", card + "/OPEN" })
        openToOthers(folder);
    for (const QString& file : { "/CLIPS/A001.zqv", "/CLIPS/B001.zqv", "/CLIPS/B001T001.zqa" })
        QVERIFY(QFile::setPermissions(
            card + file, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadOther));
    QVERIFY(QFile::setPermissions(card + "/OPEN/C001.zqa",
        QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadOther | QFileDevice::WriteOther));
    const auto before = snapshotTree(card);

    const CliResult run = runCliAsNobody({ card });
    QCOMPARE(run.exitCode, 3);
    const QString clips = card + "/CLIPS";
    QCOMPARE(run.lines,
        QStringList({ "Checking drive: " + card.left(2), "Scanning for unfinalized files.",
            "No permission to write in " + card + ": its files cannot be finalized.",
            "Scanning folder: " + card, "Scanning folder: " + clips,
            "     " + clips + "/A001.zqv (Tern) Left as it is: no permission to write it",
            "     " + clips + "/B001.zqv (Heron) Left as it is: no permission to write it",
            "     " + clips + "/B001T001.zqa (Heron) Left as it is: no permission to write it",
            "Scanning folder: " + card + "/OPEN",
            "     " + card
                + "/OPEN/C001.zqa (Heron) Left as it is: no permission to rename files in its folder",
            " ", "4 file(s) left as they are.", "No file has been finalized." }));
    QCOMPARE(snapshotTree(card), before);
}

void TestCardSafety::unreadableFileFolderAndStartFolder()
{
    if (::geteuid() != 0 || !canRunCliUnprivileged())
        QSKIP("needs root to run the program as a user that permissions stop");
    QTemporaryDir tmp;
    openToOthers(tmp.path());
    const QString card = tmp.filePath("card");
    QVERIFY(QDir().mkpath(card + "/SHUT"));
    QVERIFY(writeWavRecording(card + "/A001.zqa", 1));
    QVERIFY(writeWavRecording(card + "/SHUT/B001.zqa", 2));
    const QFileDevice::Permissions everyone = QFileDevice::ReadOwner | QFileDevice::WriteOwner
        | QFileDevice::ExeOwner | QFileDevice::ReadOther | QFileDevice::WriteOther | QFileDevice::ExeOther;
    QVERIFY(QFile::setPermissions(card, everyone));
    QVERIFY(QFile::setPermissions(card + "/A001.zqa", QFileDevice::Permissions()));
    QVERIFY(QFile::setPermissions(card + "/SHUT", QFileDevice::Permissions()));

    const CliResult run = runCliAsNobody({ card });
    QCOMPARE(run.exitCode, 3);
    QCOMPARE(run.lines,
        QStringList({ "Checking drive: " + card.left(2), "Scanning for unfinalized files.",
            "Scanning folder: " + card, "     " + card + "/A001.zqa cannot be read, left as it is",
            "Scanning folder: " + card + "/SHUT", "     " + card + "/SHUT cannot be read, left as it is", " ",
            "1 file(s) left as they are.", "1 folder(s) could not be read.",
            "No file has been finalized." }));

    // A start folder that cannot be read is said to be so, not found empty.
    const CliResult shut = runCliAsNobody({ "--scan-only", card + "/SHUT" });
    QCOMPARE(shut.exitCode, 3);
    QCOMPARE(shut.lines,
        QStringList({ "Checking drive: " + card.left(2), "Displaying files that require finalization.",
            "No files will be modifed.", "Scanning folder: " + card + "/SHUT",
            "     " + card + "/SHUT cannot be read, left as it is", " ", "1 folder(s) could not be read.",
            "Test Debug", "0 file(s) require finalizing.",
            "Run again with Scan Mode set to 'Scan and Finalize'" }));
    QFile::setPermissions(card + "/SHUT", everyone); // so the temporary folder can be removed
    QFile::setPermissions(card + "/A001.zqa", everyone);
}

void TestCardSafety::cardFileTellsWhatTheCardRefused()
{
    // /dev/full answers every write as a full card does (ENOSPC).
    if (!QFileInfo::exists("/dev/full"))
        QSKIP("no /dev/full on this system");
    CardFile full("/dev/full");
    QVERIFY(full.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
    QCOMPARE(full.mediumFailure(), QString());
    QCOMPARE(full.write(QByteArray(4096, 'x')), qint64(-1));
    QCOMPARE(full.mediumFailure(), QString("the card is full"));

    // What the recording's own values cause is not the card's: a read past the end refuses nothing.
    QTemporaryDir tmp;
    QVERIFY(writeFile(tmp.filePath("A001.zqv"), "abc"));
    CardFile file(tmp.filePath("A001.zqv"));
    QVERIFY(file.open(QIODevice::ReadWrite | QIODevice::Unbuffered));
    QVERIFY(file.seek(1000));
    QCOMPARE(file.read(16), QByteArray());
    QCOMPARE(file.mediumFailure(), QString());
}

QTEST_GUILESS_MAIN(TestCardSafety)
#include "tst_card_safety.moc"
