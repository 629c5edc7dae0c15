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
    void firstOfHelpVersionAndUnknownOptionDecides_data();
    void firstOfHelpVersionAndUnknownOptionDecides();
    void wrongArgumentsExitTwo_data();
    void wrongArgumentsExitTwo();
    void usageErrorEndsWithTheHelpText();
    void argumentWithOneDashIsAPath();
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

void TestCli::firstOfHelpVersionAndUnknownOptionDecides_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("firstLine");
    const QString usage = "Usage: clipward-cli [--scan-only] [--interchange] [--json] PATH";
    QTest::newRow("help, then an unknown option") << QStringList({"--help", "--fast"}) << 0 << usage;
    QTest::newRow("-h, then a double dash") << QStringList({"-h", "--"}) << 0 << usage;
    QTest::newRow("help after a path") << QStringList({"/a", "/b", "--help"}) << 0 << usage;
    QTest::newRow("help after wrong options") << QStringList({"--info", "--verify", "-h"}) << 0 << usage;
    QTest::newRow("help, then the version") << QStringList({"--help", "--version"}) << 0 << usage;
    QTest::newRow("the version, then help")
        << QStringList({"--version", "--help"}) << 0 << "clipward-cli 1.4.4";
    QTest::newRow("an unknown option, then help")
        << QStringList({"--fast", "--help"}) << 2 << "clipward-cli: unknown option --fast";
    QTest::newRow("a double dash, then help")
        << QStringList({"--", "--help"}) << 2 << "clipward-cli: unknown option --";
}

void TestCli::firstOfHelpVersionAndUnknownOptionDecides()
{
    QFETCH(QStringList, args);
    QFETCH(int, status);
    QFETCH(QString, firstLine);
    QStringList out;
    QString err;
    QCOMPARE(runCli(args, &out, &err), status);
    QCOMPARE(status == 0 ? out.value(0) : err.section('\n', 0, 0), firstLine);
    QVERIFY(status == 0 ? err.isEmpty() : out.isEmpty()); // help goes to stdout, a usage error to stderr
}

void TestCli::wrongArgumentsExitTwo_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QString>("reason");
    QTest::newRow("no path") << QStringList() << "clipward-cli: no PATH given";
    QTest::newRow("two paths") << QStringList({"/a", "/b"}) << "clipward-cli: give exactly one PATH";
    QTest::newRow("unknown option") << QStringList({"--fast", "/a"}) << "clipward-cli: unknown option --fast";
    QTest::newRow("unknown option after the path")
        << QStringList({"/a", "--fast"}) << "clipward-cli: unknown option --fast";
    QTest::newRow("two unknown options")
        << QStringList({"--fast", "--slow"}) << "clipward-cli: unknown option --fast";
    QTest::newRow("double dash alone") << QStringList({"--"}) << "clipward-cli: unknown option --";
    QTest::newRow("double dash before the path")
        << QStringList({"--", "/a"}) << "clipward-cli: unknown option --";
    QTest::newRow("option with a value")
        << QStringList({"--json=1", "/a"}) << "clipward-cli: unknown option --json=1";
    QTest::newRow("short name written long") << QStringList({"--h"}) << "clipward-cli: unknown option --h";
    QTest::newRow("abridged option")
        << QStringList({"--scan", "/a"}) << "clipward-cli: unknown option --scan";
    QTest::newRow("only options") << QStringList({"--scan-only", "--json"}) << "clipward-cli: no PATH given";
    QTest::newRow("two paths after the options")
        << QStringList({"--scan-only", "/a", "/b"}) << "clipward-cli: give exactly one PATH";
    QTest::newRow("interchange without a path")
        << QStringList({"--interchange"}) << "clipward-cli: no PATH given";
    QTest::newRow("interchange, scan-only and two paths")
        << QStringList({"--interchange", "--scan-only", "/a", "/b"})
        << "clipward-cli: --scan-only lists recordings on a PATH; it does not take finished movies";
    QTest::newRow("verify without a file") << QStringList({"--verify"}) << "clipward-cli: no FILE given";
    QTest::newRow("verify and scan-only")
        << QStringList({"--verify", "--scan-only", "/a"})
        << "clipward-cli: --verify and --scan-only cannot be combined";
    QTest::newRow("verify and interchange")
        << QStringList({"--verify", "--interchange", "/a"})
        << "clipward-cli: --verify and --interchange cannot be combined";
    QTest::newRow("verify, scan-only and interchange")
        << QStringList({"--interchange", "--scan-only", "--verify", "/a"})
        << "clipward-cli: --verify and --scan-only cannot be combined";
    QTest::newRow("restore without a file") << QStringList({"--restore"}) << "clipward-cli: no FILE given";
    for (const char* other : {"--json", "--scan-only", "--interchange", "--verify"}) {
        QTest::newRow(qPrintable(QString("restore and %1").arg(other)))
            << QStringList({"--restore", other, "/a"}) << "clipward-cli: --restore takes no other option";
    }
    QTest::newRow("restore and json without a file")
        << QStringList({"--restore", "--json"}) << "clipward-cli: --restore takes no other option";
    QTest::newRow("info without a file")
        << QStringList({"--info", "--json"}) << "clipward-cli: no FILE given";
    for (const char* other : {"--scan-only", "--interchange", "--verify", "--restore"}) {
        QTest::newRow(qPrintable(QString("info and %1").arg(other)))
            << QStringList({other, "--info", "/a"}) << "clipward-cli: --info takes only --json";
    }
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

void TestCli::usageErrorEndsWithTheHelpText()
{
    QStringList help;
    QCOMPARE(runCli({"--help"}, &help), 0);
    QStringList out;
    QString err;
    QCOMPARE(runCli({"--restore", "--json", "/a"}, &out, &err), 2);
    QCOMPARE(err, "clipward-cli: --restore takes no other option\n" + help.join('\n') + '\n');
}

void TestCli::argumentWithOneDashIsAPath()
{
    // Options start with "--" (and -h is --help): "-card" names a folder, not short options.
    QTemporaryDir tmp;
    QVERIFY(writeFile(tmp.filePath("-card/A001.zqv"), kTernStart));
    QProcess process;
    process.setWorkingDirectory(tmp.path());
    process.start(CLIPWARD_CLI_PATH, {"-card", "--scan-only"});
    QVERIFY(process.waitForFinished(-1));
    const QStringList out = QString::fromUtf8(process.readAllStandardOutput()).split('\n');
    QVERIFY(out.contains("     " + tmp.filePath("-card/A001.zqv") + " (tern) Requires finalize"));
    QCOMPARE(process.exitCode(), 0);
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
