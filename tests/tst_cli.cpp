// The command-line front end: arguments, exit status and the run's lines on stdout.

#include "finalize/FinalizeRun.h"
#include "support/MessageCapture.h"
#include "support/TestSupport.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>


using namespace TestSupport;

namespace {

const QByteArray kTernStart = hex("00000014 66747970");

} // namespace

class TestCli : public QObject
{
    Q_OBJECT

private slots:
    void helpAndVersion();
    void wrongArgumentsExitTwo_data();
    void wrongArgumentsExitTwo();
    void missingPathPrintsTheRunAndExitsTwo_data();
    void missingPathPrintsTheRunAndExitsTwo();
    void scanOnlyReport();
    void unrecoverableFilesExitOne();
    void outputEqualsTheSharedRun();
    void relativePathIsWalkedFromWhereItWasGiven();
    void unreadableFolderIsReportedAndTheWalkGoesOn();
};

void TestCli::helpAndVersion()
{
    QStringList out;
    QCOMPARE(runCli({"--help"}, &out), 0);
    QVERIFY(out.value(0).startsWith("Usage: clipward-cli [--scan-only] [--interchange] [--json] PATH"));
    QCOMPARE(runCli({"--version"}, &out), 0);
    QCOMPARE(out, QStringList({"clipward-cli 1.4.4"}));
}

void TestCli::wrongArgumentsExitTwo_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QString>("reason");
    QTest::newRow("no path") << QStringList() << "clipward-cli: no PATH given";
    QTest::newRow("two paths") << QStringList({"/a", "/b"}) << "clipward-cli: give exactly one PATH";
    QTest::newRow("unknown option") << QStringList({"--fast", "/a"}) << "clipward-cli: unknown option --fast";
}

void TestCli::wrongArgumentsExitTwo()
{
    QFETCH(QStringList, args);
    QFETCH(QString, reason);
    QStringList out;
    QString err;
    QCOMPARE(runCli(args, &out, &err), 2);
    QVERIFY(out.isEmpty());
    QCOMPARE(err.section('\n', 0, 0), reason);
}

void TestCli::missingPathPrintsTheRunAndExitsTwo_data()
{
    QTest::addColumn<bool>("scanOnly");
    QTest::newRow("finalize") << false;
    QTest::newRow("scan-only") << true;
}

void TestCli::missingPathPrintsTheRunAndExitsTwo()
{
    QFETCH(bool, scanOnly);
    QTemporaryDir tmp;
    const QString missing = tmp.filePath("card");
    QStringList out;
    QString err;
    const QStringList args = scanOnly ? QStringList({"--scan-only", missing}) : QStringList({missing});
    QCOMPARE(runCli(args, &out, &err), 2);
    const QString drive = tmp.path().left(2);
    if (scanOnly) {
        QCOMPARE(out, QStringList({"Checking drive: " + drive, "Displaying files that require finalization.",
                                   "No files will be modifed.",
                                   "ERROR: Specfied path does not exist: " + missing, " ", "Test Debug",
                                   "0 file(s) require finalizing.",
                                   "Run again with Scan Mode set to 'Scan and Finalize'"}));
    } else {
        QCOMPARE(out, QStringList({"Checking drive: " + drive, "Scanning for unfinalized files.",
                                   "ERROR: Specfied path does not exist: " + missing, " ",
                                   "No unfinalized files found."}));
    }
    QCOMPARE(err, "clipward-cli: path does not exist: " + missing + "\n");
}

void TestCli::scanOnlyReport()
{
    QTemporaryDir tmp;
    QVERIFY(writeFile(tmp.filePath("card/A001.zqv"), kTernStart));
    const QString card = tmp.filePath("card");
    QStringList out;
    QCOMPARE(runCli({"--scan-only", card}, &out), 0);
    QCOMPARE(out, QStringList({"Checking drive: " + card.left(2), "Displaying files that require finalization.",
                               "No files will be modifed.", "Scanning folder: " + card,
                               "     " + card + "/A001.zqv (tern) Requires finalize", " ", "Test Debug",
                               "1 file(s) require finalizing.",
                               "Run again with Scan Mode set to 'Scan and Finalize'"}));
}

void TestCli::unrecoverableFilesExitOne()
{
    QTemporaryDir tmp;
    QVERIFY(writeFile(tmp.filePath("A001.nrv"), "x"));
    QStringList out;
    QCOMPARE(runCli({"--scan-only", tmp.path()}, &out), 1);
    QCOMPARE(out.mid(4, 3), QStringList({"     " + tmp.path() + "/A001.nrv Unrecoverable", " ",
                                         "1 file(s) unrecoverable."}));
}

void TestCli::outputEqualsTheSharedRun()
{
    QTemporaryDir tmp;
    QVERIFY(writeFile(tmp.filePath("A001.zqv"), kTernStart));
    QVERIFY(writeFile(tmp.filePath("x/B001.zqa"), "RIFF"));
    QVERIFY(writeFile(tmp.filePath("x/y/C001.nra"), "x"));
    QStringList out;
    runCli({"--scan-only", tmp.path()}, &out);
    QCOMPARE(out, runFinalizeRun(tmp.path(), true));
}

void TestCli::relativePathIsWalkedFromWhereItWasGiven()
{
    QTemporaryDir tmp;
    QVERIFY(writeFile(tmp.filePath("card/sub/A001.zqv"), kTernStart));
    QProcess process;
    process.setWorkingDirectory(tmp.path());
    process.start(CLIPWARD_CLI_PATH, {"--scan-only", "card"});
    QVERIFY(process.waitForFinished(-1));
    const QStringList out = QString::fromUtf8(process.readAllStandardOutput()).split('\n');
    QVERIFY(out.contains("     " + tmp.filePath("card/sub/A001.zqv") + " (tern) Requires finalize"));
    QCOMPARE(process.exitCode(), 0);
}

void TestCli::unreadableFolderIsReportedAndTheWalkGoesOn()
{
    // A folder that cannot be listed holds nothing the walk can see: it is reported on its own line, the
    // walk goes on, and the exit status says something was passed over.
    // Permissions do not stop root, so as root the program runs as nobody.
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(TestSupport::writeFile(card + "/locked/B001.zqa", "x"));
    QVERIFY(TestSupport::writeFile(card + "/ok/A001.zqa", "x"));
    const QFileDevice::Permissions open = QFileDevice::ReadOwner | QFileDevice::WriteOwner
        | QFileDevice::ExeOwner | QFileDevice::ReadOther | QFileDevice::ExeOther;
    QVERIFY(QFile::setPermissions(tmp.path(), open));
    QVERIFY(QFile::setPermissions(card, open));
    QVERIFY(QFile::setPermissions(card + "/ok", open));
    QVERIFY(QFile::setPermissions(card + "/ok/A001.zqa", open));
    QVERIFY(QFile::setPermissions(card + "/locked", QFileDevice::Permissions()));

    if (!canRunCliUnprivileged())
        QSKIP("cannot run the program as a user that permissions stop");

    QStringList lines;
    const int exitCode = runCliUnprivileged({"--scan-only", card}, &lines);
    QFile::setPermissions(card + "/locked", open); // so the folder can be removed again
    QCOMPARE(exitCode, 3);
    const int locked = lines.indexOf("Scanning folder: " + card + "/locked");
    QVERIFY(locked > 0);
    QCOMPARE(lines.value(locked + 1), "     " + card + "/locked cannot be read, left as it is");
    QCOMPARE(lines.value(locked + 2), "Scanning folder: " + card + "/ok");
    // Owned by root and not writable by others: the scan says it cannot be finished here.
    QCOMPARE(lines.value(locked + 3),
        "     " + card
            + "/ok/A001.zqa (heron) Requires finalize, cannot be finalized here: "
              "no permission to write it");
    QCOMPARE(lines.mid(locked + 4),
        QStringList({ " ", "1 folder(s) could not be read.", "Test Debug", "1 file(s) require finalizing.",
            "Run again with Scan Mode set to 'Scan and Finalize'" }));
}

QTEST_GUILESS_MAIN(TestCli)
#include "tst_cli.moc"
