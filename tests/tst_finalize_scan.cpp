// The folder walk, name selection, family detection and scan-only report of the driver.

#include "finalize/Finalize.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using namespace TestSupport;

namespace {

const QByteArray kTernStart = hex("00000014 66747970");  // 20-byte 'ftyp'
const QByteArray kHeronStart = hex("00537ff0 66747970"); // 'ftyp' spanning the reserved region
const QByteArray kSmallestHeron = hex("00000080 66747970");

// Runs the driver over `paths` and returns every line it emitted, in order.
QStringList runDriver(const QStringList& paths, bool scanOnly, Finalize* driver)
{
    QStringList lines;
    QObject::connect(driver, &Finalize::textOutput, [&lines](const QString& text) { lines << text; });
    driver->scanOnly = scanOnly;
    driver->finalizeFolders(paths);
    return lines;
}

QStringList runDriver(const QStringList& paths, bool scanOnly)
{
    Finalize driver;
    return runDriver(paths, scanOnly, &driver);
}

} // namespace

class TestFinalizeScan : public QObject
{
    Q_OBJECT

private slots:
    void constructionDefaults();
    void emptyFolderPrintsOnlyItsScanLine();
    void givenUpFilesAreUnrecoverableInBothModes_data();
    void givenUpFilesAreUnrecoverableInBothModes();
    void upperCaseGivenUpNameGoesOnToDispatch();
    void upperCaseInProgressNameIsTypedLowerCased();
    void familyByFirstAtomSize_data();
    void familyByFirstAtomSize();
    void nonMovieNamesAreHeron();
    void scanOnlyChangesNothing();
    void missingFirstPathStopsTheRun();
    void filesBeforeSubfoldersDepthFirst();
    void hiddenEntriesAreNotListed();
    void folderMatchingAPatternIsListed();
    void skipFolderIsReportedAndNotEntered();
    void unreadableMovieInFinalizeModeKeepsStaleName();
    void folderLinkLoopIsEnteredOnce();
    void folderLinkToASiblingIsWalked();
    void namesAreReportedVerbatim();
    void entriesThatVanishDuringTheWalk();
};

void TestFinalizeScan::constructionDefaults()
{
    Finalize driver;
    QVERIFY(driver.workBuffer != nullptr);
    QCOMPARE(driver.nameFilters, QStringList({"*.zqv", "*.zqa", "*.nrv", "*.nra"}));
    QVERIFY(!driver.scanOnly);
    QCOMPARE(driver.goodCount, 0);
    QCOMPARE(driver.badCount, 0);
    QCOMPARE(driver.isTern, 0);
    QVERIFY(driver.outputFileName.isEmpty());
    QVERIFY(driver.skipFolders.isEmpty());
}

void TestFinalizeScan::emptyFolderPrintsOnlyItsScanLine()
{
    QTemporaryDir tmp;
    const QStringList lines = runDriver({tmp.path()}, true);
    QCOMPARE(lines, QStringList({QString("Scanning folder: %1\n").arg(tmp.path())}));
}

void TestFinalizeScan::givenUpFilesAreUnrecoverableInBothModes_data()
{
    QTest::addColumn<bool>("scanOnly");
    QTest::newRow("scan-only") << true;
    QTest::newRow("finalize") << false;
}

void TestFinalizeScan::givenUpFilesAreUnrecoverableInBothModes()
{
    QFETCH(bool, scanOnly);
    QTemporaryDir tmp;
    const QString nra = tmp.filePath("clip.nra");
    const QString nrv = tmp.filePath("clip.nrv");
    QVERIFY(writeFile(nra, "audio"));
    QVERIFY(writeFile(nrv, kTernStart));
    const auto before = snapshotTree(tmp.path());

    Finalize driver;
    const QStringList lines = runDriver({tmp.path()}, scanOnly, &driver);
    QCOMPARE(lines, QStringList({QString("Scanning folder: %1\n").arg(tmp.path()),
                                 QString("     %1 Unrecoverable\n").arg(nra),
                                 QString("     %1 Unrecoverable\n").arg(nrv)}));
    QCOMPARE(driver.badCount, 2);
    QCOMPARE(driver.goodCount, 0);
    QCOMPARE(snapshotTree(tmp.path()), before);
}

void TestFinalizeScan::upperCaseGivenUpNameGoesOnToDispatch()
{
    // "clip.NRV" matches the wildcard but not the case-sensitive ending, so it is typed like any file.
    QTemporaryDir tmp;
    const QString path = tmp.filePath("clip.NRV");
    QVERIFY(writeFile(path, kTernStart));
    Finalize driver;
    const QStringList lines = runDriver({tmp.path()}, true, &driver);
    QCOMPARE(lines.value(1), QString("     %1 (heron) Requires finalize\n").arg(path));
    QCOMPARE(driver.goodCount, 1);
    QCOMPARE(driver.badCount, 0);
}

void TestFinalizeScan::upperCaseInProgressNameIsTypedLowerCased()
{
    QTemporaryDir tmp;
    const QString path = tmp.filePath("CLIP.ZQV");
    QVERIFY(writeFile(path, kTernStart));
    Finalize driver;
    QCOMPARE(driver.getFileType(path), 1);
    const QStringList lines = runDriver({tmp.path()}, true, &driver);
    QCOMPARE(lines.value(1), QString("     %1 (tern) Requires finalize\n").arg(path));
}

void TestFinalizeScan::familyByFirstAtomSize_data()
{
    QTest::addColumn<QByteArray>("start");
    QTest::addColumn<int>("family");
    QTest::addColumn<QString>("tag");
    QTest::newRow("0x14 is Tern") << kTernStart << 1 << "(tern)";
    QTest::newRow("0x7f is Tern") << hex("0000007f") << 1 << "(tern)";
    QTest::newRow("0x80 is Heron") << kSmallestHeron << 0 << "(heron)";
    QTest::newRow("region-sized is Heron") << kHeronStart << 0 << "(heron)";
    QTest::newRow("3 bytes cannot be typed") << hex("000000") << 2 << "(heron)";
    QTest::newRow("empty cannot be typed") << QByteArray() << 2 << "(heron)";
}

void TestFinalizeScan::familyByFirstAtomSize()
{
    QFETCH(QByteArray, start);
    QFETCH(int, family);
    QFETCH(QString, tag);
    QTemporaryDir tmp;
    const QString path = tmp.filePath("A001.zqv");
    QVERIFY(writeFile(path, start));
    Finalize driver;
    QCOMPARE(driver.getFileType(path), family);
    const QStringList lines = runDriver({tmp.path()}, true, &driver);
    QCOMPARE(lines.value(1), QString("     %1 %2 Requires finalize\n").arg(path, tag));
}

void TestFinalizeScan::nonMovieNamesAreHeron()
{
    QTemporaryDir tmp;
    const QString audio = tmp.filePath("B001.zqa");
    QVERIFY(writeFile(audio, kTernStart));
    Finalize driver;
    QCOMPARE(driver.getFileType(audio), 0);
    QCOMPARE(driver.getFileType(tmp.filePath("missing.wav")), 0);
    // A movie name that cannot be opened read-write is family 2.
    QCOMPARE(driver.getFileType(tmp.filePath("missing.zqv")), 2);
}

void TestFinalizeScan::scanOnlyChangesNothing()
{
    QTemporaryDir tmp;
    QVERIFY(writeFile(tmp.filePath("A001.zqv"), kTernStart + QByteArray(100, 'm')));
    QVERIFY(writeFile(tmp.filePath("B001.zqv"), kHeronStart + QByteArray(100, 'h')));
    QVERIFY(writeFile(tmp.filePath("C001.zqa"), "RIFF....WAVE"));
    QVERIFY(writeFile(tmp.filePath("sub/D001.zqv"), kTernStart));
    QVERIFY(writeFile(tmp.filePath("sub/old.nrv"), "x"));
    const auto before = snapshotTree(tmp.path());

    Finalize driver;
    const QStringList lines = runDriver({tmp.path()}, true, &driver);
    QCOMPARE(snapshotTree(tmp.path()), before);
    QCOMPARE(driver.goodCount, 4);
    QCOMPARE(driver.badCount, 1);
    QCOMPARE(lines.size(), 7);
}

void TestFinalizeScan::missingFirstPathStopsTheRun()
{
    QTemporaryDir tmp;
    QVERIFY(writeFile(tmp.filePath("A001.zqv"), kTernStart));
    const QString missing = tmp.filePath("no-such-card");
    Finalize driver;
    const QStringList lines = runDriver({missing, tmp.path()}, true, &driver);
    QCOMPARE(lines, QStringList({QString("ERROR: Specfied path does not exist: %1\n").arg(missing)}));
    QCOMPARE(driver.goodCount, 0);
}

void TestFinalizeScan::filesBeforeSubfoldersDepthFirst()
{
    QTemporaryDir tmp;
    QVERIFY(writeFile(tmp.filePath("b/B1.zqa"), "x"));
    QVERIFY(writeFile(tmp.filePath("b/inner/I1.zqa"), "x"));
    QVERIFY(writeFile(tmp.filePath("A/A1.zqa"), "x"));
    QVERIFY(writeFile(tmp.filePath("z1.zqa"), "x"));
    QVERIFY(writeFile(tmp.filePath("Y1.zqa"), "x"));
    QVERIFY(writeFile(tmp.filePath("notes.txt"), "x"));
    const QString root = tmp.path();
    const QStringList lines = runDriver({root}, true);
    const QString tag = " (heron) Requires finalize\n";
    QCOMPARE(lines, QStringList({QString("Scanning folder: %1\n").arg(root),
                                 "     " + root + "/Y1.zqa" + tag,
                                 "     " + root + "/z1.zqa" + tag,
                                 QString("Scanning folder: %1/A\n").arg(root),
                                 "     " + root + "/A/A1.zqa" + tag,
                                 QString("Scanning folder: %1/b\n").arg(root),
                                 "     " + root + "/b/B1.zqa" + tag,
                                 QString("Scanning folder: %1/b/inner\n").arg(root),
                                 "     " + root + "/b/inner/I1.zqa" + tag}));
}

void TestFinalizeScan::hiddenEntriesAreNotListed()
{
    QTemporaryDir tmp;
    QVERIFY(writeFile(tmp.filePath(".hidden.zqv"), kTernStart));
    QVERIFY(writeFile(tmp.filePath(".trash/A001.zqv"), kTernStart));
    const QStringList lines = runDriver({tmp.path()}, true);
    QCOMPARE(lines, QStringList({QString("Scanning folder: %1\n").arg(tmp.path())}));
}

void TestFinalizeScan::folderMatchingAPatternIsListed()
{
    // The name filter lists folders too; a folder cannot be opened read-write, so it types as family 2.
    QTemporaryDir tmp;
    QVERIFY(QDir(tmp.path()).mkdir("odd.zqv"));
    const QStringList lines = runDriver({tmp.path()}, true);
    QCOMPARE(lines, QStringList({QString("Scanning folder: %1\n").arg(tmp.path()),
                                 QString("     %1/odd.zqv (heron) Requires finalize\n").arg(tmp.path()),
                                 QString("Scanning folder: %1/odd.zqv\n").arg(tmp.path())}));
}

void TestFinalizeScan::skipFolderIsReportedAndNotEntered()
{
    QTemporaryDir tmp;
    QVERIFY(writeFile(tmp.filePath("skip/A001.zqv"), kTernStart));
    Finalize driver;
    driver.skipFolders << tmp.filePath("skip");
    const QStringList lines = runDriver({tmp.path()}, true, &driver);
    QCOMPARE(lines, QStringList({QString("Scanning folder: %1\n").arg(tmp.path()),
                                 QString("Skipping folder: %1/skip\n").arg(tmp.path())}));
}

void TestFinalizeScan::unreadableMovieInFinalizeModeKeepsStaleName()
{
    // Family 2 runs no procedure: the first file of a run shows the folder path and "(Heron)".
    QTemporaryDir tmp;
    const QString path = tmp.filePath("A001.zqv");
    QVERIFY(writeFile(path, hex("0000")));
    Finalize driver;
    const QStringList lines = runDriver({tmp.path()}, false, &driver);
    QCOMPARE(lines.value(1), QString("     %1 (Heron) Unrecoverable\n").arg(tmp.path()));
    QCOMPARE(driver.badCount, 1);
    QCOMPARE(QFile::exists(path), true);
}

void TestFinalizeScan::folderLinkLoopIsEnteredOnce()
{
    QTemporaryDir tmp;
    QVERIFY(writeFile(tmp.filePath("a/A001.zqa"), "x"));
    QVERIFY(QFile::link(tmp.filePath("a"), tmp.filePath("a/back")));
    QVERIFY(QFile::link(tmp.path(), tmp.filePath("a/up")));
    const QString root = tmp.path();
    const QStringList lines = runDriver({root}, true);
    QCOMPARE(lines, QStringList({QString("Scanning folder: %1\n").arg(root),
                                 QString("Scanning folder: %1/a\n").arg(root),
                                 "     " + root + "/a/A001.zqa (heron) Requires finalize\n",
                                 QString("Skipping folder: %1/a/back\n").arg(root),
                                 QString("Skipping folder: %1/a/up\n").arg(root)}));
}

void TestFinalizeScan::folderLinkToASiblingIsWalked()
{
    // No loop: the sibling is walked under both of its names, as any folder is.
    QTemporaryDir tmp;
    const QString root = tmp.path();
    QVERIFY(writeFile(root + "/b/B001.zqa", "x"));
    QVERIFY(QDir().mkpath(root + "/a"));
    QVERIFY(QFile::link(root + "/b", root + "/a/link"));
    QCOMPARE(runDriver({root}, true),
             QStringList({QString("Scanning folder: %1\n").arg(root),
                          QString("Scanning folder: %1/a\n").arg(root),
                          QString("Scanning folder: %1/a/link\n").arg(root),
                          "     " + root + "/a/link/B001.zqa (heron) Requires finalize\n",
                          QString("Scanning folder: %1/b\n").arg(root),
                          "     " + root + "/b/B001.zqa (heron) Requires finalize\n"}));
}

void TestFinalizeScan::namesAreReportedVerbatim()
{
    QTemporaryDir tmp;
    const QStringList names{"clip%1 %2.zqa", "take \"one\" 'b'.zqa", "line\nbreak.zqa", "Ünïcødé 日本.zqa"};
    QStringList expected{QString("Scanning folder: %1\n").arg(tmp.path())};
    for (const QString& name : names)
        QVERIFY(writeFile(tmp.filePath(name), "x"));
    QStringList sorted = names;
    std::sort(sorted.begin(), sorted.end(),
              [](const QString& a, const QString& b) { return QString::compare(a, b, Qt::CaseInsensitive) < 0; });
    for (const QString& name : sorted)
        expected << "     " + tmp.filePath(name) + " (heron) Requires finalize\n";
    QCOMPARE(runDriver({tmp.path()}, true), expected);
}

void TestFinalizeScan::entriesThatVanishDuringTheWalk()
{
    // Once the first file is reported its neighbour, already listed, is taken away; once the walk enters
    // folder b, its listed sibling c is. The file is said to be gone and counted neither way, nothing is
    // created in its place, and the missing folder is passed over.
    QTemporaryDir tmp;
    const QString root = tmp.path();
    QVERIFY(writeFile(root + "/A001.zqa", "x"));
    QVERIFY(writeFile(root + "/A002.zqa", "x"));
    QVERIFY(writeFile(root + "/b/B001.zqa", "x"));
    QVERIFY(writeFile(root + "/c/C001.zqa", "x"));

    Finalize driver;
    QObject::connect(&driver, &Finalize::textOutput, [&](const QString& line) {
        if (line.contains("/A001.nra") && QFile::exists(root + "/A002.zqa"))
            QVERIFY(QFile::remove(root + "/A002.zqa"));
        if (line == QString("Scanning folder: %1/b\n").arg(root))
            QVERIFY(QDir(root + "/c").removeRecursively());
    });
    const QStringList lines = runDriver({root}, false, &driver);
    QCOMPARE(lines, QStringList({QString("Scanning folder: %1\n").arg(root),
                                 "     " + root + "/A001.nra (Heron) Unrecoverable\n",
                                 "     " + root + "/A002.zqa is no longer there, passed over\n",
                                 QString("Scanning folder: %1/b\n").arg(root),
                                 "     " + root + "/b/B001.nra (Heron) Unrecoverable\n"}));
    QCOMPARE(driver.badCount, 2);
    QCOMPARE(driver.leftCount, 0);
    QVERIFY(!QFile::exists(root + "/A002.zqa"));
    QVERIFY(!QFile::exists(root + "/A002.nra"));
    QVERIFY(!QDir(root + "/c").exists());
}

QTEST_GUILESS_MAIN(TestFinalizeScan)
#include "tst_finalize_scan.moc"
