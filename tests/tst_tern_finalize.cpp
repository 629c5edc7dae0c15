// The Tern finalize procedure: its messages, its validation and every renaming rule.

#include "finalize/Finalize.h"
#include "simulate/RecordingSimulator.h"
#include "support/AtomWalker.h"
#include "support/MessageCapture.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

using namespace TestSupport;

namespace {

RecordingPlan smallPlan(int frames = 30)
{
    RecordingPlan plan;
    plan.width = 1280;
    plan.height = 720;
    for (int i = 0; i < frames; ++i)
        plan.videoFrames << syntheticFrame(i, 2000);
    plan.audioTracks << syntheticPcm(0, frames * 1920, 3);
    plan.audioSamplesPerChunk = 5760;
    return plan;
}

bool record(const QString& path, const RecordingPlan& plan = smallPlan())
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    return writeInterruptedRecording(path, plan).ok;
}

// Settings record offsets of the fields the tests spoil.
const int kRecord = 36;
const int kFrameRate = kRecord + 16;
const int kWidthHeight = kRecord + 40;

QString stars(const QString& path, const char* what)
{
    return QString("********************* %1 %2").arg(path, what);
}

// The lines of a run over `folder` whose recording `zqv` has settings no index can be built from: it is
// left unchanged as `mov`.
QStringList invalidSettingsLines(const QString& folder, const QString& zqv, const QString& mov)
{
    return oneFileRunLines(folder, "Tern",
                           {stars(zqv, "needs to be restored!"),
                            stars(zqv, "recovery failed, invalid recovery settings!")},
                           mov, "Unrecoverable");
}

} // namespace

class TestTernFinalize : public QObject
{
    Q_OBJECT

private slots:
    void healthyRecordingBecomesMov();
    void zeroFrameRateIsInvalidAndRenamedMov();
    void validationStopsAtTheFirstZero();
    void corruptedFileIsRenamedMovUnchanged();
    void unopenableFileIsReportedAndRenamed();
    void failedRebuildBecomesNrvReplacingAnOldOne();
    void existingMovBlocksTheRename();
    void upperCaseNameIsRepairedButNotRenamed();
    void folderNamedLikeARecordingFailsTheRename();
    void nonMovieNameIsLeftAlone();
    void vanishedFileIsNotCreated();
    void settingsNoIndexCanBeBuiltFromAreInvalid_data();
    void settingsNoIndexCanBeBuiltFromAreInvalid();
    void endBeyondTheLargestFileShowsNoQtNotice();
    void finishCutShortBeforeTheRenameIsRenamed();
    void finishedLayoutThatDoesNotVerifyIsCorrupted();
};

void TestTernFinalize::healthyRecordingBecomesMov()
{
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A001.zqv");
    const QString mov = tmp.filePath("A001.mov");
    QVERIFY(record(zqv));
    const DriverRun run = runDriver({tmp.path()});
    QVERIFY(!QFile::exists(zqv));
    const QByteArray movie = readFile(mov);

    // Where the streamed tables begin, read back independently from the finished file.
    using namespace AtomWalker;
    const Atom moov = find(movie, "moov");
    const auto tablePos = [&](int trak) { return find(movie, QString("moov/trak:%1/mdia/minf/stbl/co64").arg(trak)).offset + 16; };
    const QString hexPos = "%1";
    QCOMPARE(run.lines,
             oneFileRunLines(tmp.path(), "Tern",
                             {stars(zqv, "needs to be restored!"),
                              "stream 1 entries (" + hexPos.arg(tablePos(1), 0, 16) + ")",
                              "done streaming 1 entries",
                              "stream 10 entries (" + hexPos.arg(tablePos(2), 0, 16) + ")",
                              "done streaming 10 entries",
                              "stream 10 entries (" + hexPos.arg(tablePos(3), 0, 16) + ")",
                              "done streaming 10 entries",
                              QString("Recorded FILE Last Position Start:%1 End:%2 Size:%3")
                                  .arg(moov.offset)
                                  .arg(moov.end())
                                  .arg(moov.size)},
                             mov, "Finalized"));
    QCOMPARE(run.good, 1);
    QCOMPARE(run.bad, 0);
}

void TestTernFinalize::zeroFrameRateIsInvalidAndRenamedMov()
{
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A001.zqv");
    QVERIFY(record(zqv));
    patchLe32(zqv, kFrameRate, 0);
    const QByteArray before = readFile(zqv);
    const DriverRun run = runDriver({tmp.path()});
    const QString mov = tmp.filePath("A001.mov");
    QCOMPARE(run.lines, invalidSettingsLines(tmp.path(), zqv, mov));
    QCOMPARE(run.bad, 1);
    QCOMPARE(readFile(mov), before);
}

void TestTernFinalize::validationStopsAtTheFirstZero()
{
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A001.zqv");
    QVERIFY(record(zqv));
    patchLe32(zqv, kFrameRate, 0);
    patchLe32(zqv, kWidthHeight, 0); // width and height 0 as well: still one message
    const DriverRun run = runDriver({tmp.path()});
    QCOMPARE(run.lines.filter("recovery failed").size(), 1);
}

void TestTernFinalize::corruptedFileIsRenamedMovUnchanged()
{
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A001.zqv");
    const QByteArray bytes = hex("00000014 66747970") + QByteArray(1000, 'x');
    checkLeftUnrecoverable(zqv, bytes, "Tern", {stars(zqv, "recovery failed, corrupted file!")},
                           tmp.filePath("A001.mov"));
}

void TestTernFinalize::unopenableFileIsReportedAndRenamed()
{
    // A folder cannot be opened as a file; the procedure still renames what stands at the path.
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A001.zqv");
    QVERIFY(QDir().mkpath(zqv));
    MessageCapture capture;
    Finalize driver;
    const unsigned int result = driver.ternDoFinalize(zqv);
    const QStringList lines = capture.lines();
    QCOMPARE(result, 31u);
    QCOMPARE(driver.isTern, 1);
    QCOMPARE(lines, QStringList({"doing tern finalize", stars(zqv, "recovery failed, can't open the file!")}));
    QCOMPARE(driver.outputFileName, tmp.filePath("A001.mov"));
    QVERIFY(QFileInfo(tmp.filePath("A001.mov")).isDir());
}

void TestTernFinalize::failedRebuildBecomesNrvReplacingAnOldOne()
{
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A001.zqv");
    const QString nrv = tmp.filePath("A001.nrv");
    RecordingPlan plan = smallPlan(20);
    plan.audioTracks.clear();
    plan.videoFramesPerChunk = 1; // 20 frames + 1 timecode sample: fewer than 30 chunks
    QVERIFY(record(zqv, plan));
    QVERIFY(writeFile(nrv, "older give-up"));
    const QByteArray before = readFile(zqv);
    const DriverRun run = runDriver({tmp.path()});
    // The old ".nrv" is listed first (name order) and reported; the new one replaces it.
    QCOMPARE(run.lines, QStringList({"Scanning folder: " + tmp.path(), "     " + nrv + " Unrecoverable",
                                     "doing tern finalize", stars(zqv, "needs to be restored!"),
                                     stars(zqv, "recovery failed, no frame map or finalization failed!"),
                                     "     " + nrv + " (Tern) Unrecoverable"}));
    QCOMPARE(run.bad, 2);
    QCOMPARE(readFile(nrv), before);
    QVERIFY(!QFile::exists(zqv));
}

void TestTernFinalize::existingMovBlocksTheRename()
{
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A001.zqv");
    const QString mov = tmp.filePath("A001.mov");
    QVERIFY(record(zqv));
    QVERIFY(writeFile(mov, "an older take"));
    const DriverRun run = runDriver({tmp.path()});
    QVERIFY(run.lines.contains(QString("Failed to rename file:  \"%1\"  ->  \"%2\"").arg(zqv, mov)));
    QCOMPARE(run.lines.last(), "     " + mov + " (Tern) Finalized");
    QCOMPARE(readFile(mov), QByteArray("an older take"));
    QVERIFY(AtomWalker::find(readFile(zqv), "moov").valid());

    // The logging stream escapes what it quotes: a double quote and a backslash in a name.
    QTemporaryDir odd;
    const QString folder = odd.filePath("take \"1\" \\ b");
    QVERIFY(record(folder + "/A001.zqv"));
    QVERIFY(writeFile(folder + "/A001.mov", "an older take"));
    const QString escaped = QString(folder).replace("\\", "\\\\").replace("\"", "\\\"");
    QVERIFY(runDriver({folder}).lines.contains(
        QString("Failed to rename file:  \"%1/A001.zqv\"  ->  \"%1/A001.mov\"").arg(escaped)));
}

void TestTernFinalize::upperCaseNameIsRepairedButNotRenamed()
{
    QTemporaryDir tmp;
    const QString path = tmp.filePath("A001.ZQV");
    QVERIFY(record(path));
    const DriverRun run = runDriver({tmp.path()});
    QCOMPARE(run.lines.last(), "     " + tmp.path() + "/Invalid output file. (Tern) Finalized");
    QVERIFY(AtomWalker::find(readFile(path), "moov").valid());
}

void TestTernFinalize::folderNamedLikeARecordingFailsTheRename()
{
    QTemporaryDir tmp;
    const QString folder = tmp.filePath("day1.zqv.backup");
    const QString zqv = folder + "/A001.zqv";
    QVERIFY(record(zqv));
    const DriverRun run = runDriver({folder});
    const QString target = tmp.filePath("day1.mov.backup/A001.mov");
    QVERIFY(run.lines.contains(QString("Failed to rename file:  \"%1\"  ->  \"%2\"").arg(zqv, target)));
    QCOMPARE(run.lines.last(), "     " + target + " (Tern) Finalized");
    QVERIFY(QFile::exists(zqv));
}

void TestTernFinalize::nonMovieNameIsLeftAlone()
{
    QTemporaryDir tmp;
    const QString path = tmp.filePath("B001.zqa");
    QVERIFY(writeFile(path, "RIFF"));
    Finalize driver;
    driver.outputFileName = "previous";
    QCOMPARE(driver.ternDoFinalize(path), 0u);
    QCOMPARE(driver.outputFileName, QString("previous"));
    QCOMPARE(driver.isTern, 1);
    QCOMPARE(readFile(path), QByteArray("RIFF"));
}

void TestTernFinalize::vanishedFileIsNotCreated()
{
    // Listed by the walk, gone by the time it is finished: reported, and nothing appears in its place.
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A001.zqv");
    MessageCapture capture;
    Finalize driver;
    const unsigned int result = driver.ternDoFinalize(zqv);
    const QStringList lines = capture.lines();
    QCOMPARE(result, 31u);
    QCOMPARE(lines, QStringList({"doing tern finalize", stars(zqv, "recovery failed, can't open the file!")}));
    QCOMPARE(driver.outputFileName, QString("Invalid output file."));
    QCOMPARE(QDir(tmp.path()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries), QStringList());
}

void TestTernFinalize::settingsNoIndexCanBeBuiltFromAreInvalid_data()
{
    QTest::addColumn<int>("offset");
    QTest::addColumn<quint32>("value");
    QTest::newRow("two billion sound tracks") << kRecord + 24 << 0x7FFFFFF0u;
    QTest::newRow("63 sound tracks") << kRecord + 24 << 63u;
    QTest::newRow("sound without a sample size") << kRecord + 28 << 0u;
    QTest::newRow("end inside the reserved region") << kRecord + 72 << 100u;
}

void TestTernFinalize::settingsNoIndexCanBeBuiltFromAreInvalid()
{
    // Settings that would need millions of tracks, a sound size list longer than the frame map, or an
    // index written over the recovery data fail the file like the other invalid settings: unchanged,
    // under the finished name.
    QFETCH(int, offset);
    QFETCH(quint32, value);
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A001.zqv");
    QVERIFY(record(zqv));
    patchLe32(zqv, offset, value);
    const QByteArray before = readFile(zqv);
    const DriverRun run = runDriver({tmp.path()});
    const QString mov = tmp.filePath("A001.mov");
    QCOMPARE(run.lines, invalidSettingsLines(tmp.path(), zqv, mov));
    QCOMPARE(readFile(mov), before);
}

void TestTernFinalize::endBeyondTheLargestFileShowsNoQtNotice()
{
    // A recorded end no file system holds: the seek there fails, and the log carries the procedure's own
    // line only, not Qt's "QFile::at: Cannot set file position ...".
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A001.zqv");
    QVERIFY(record(zqv));
    patchLe32(zqv, kRecord + 72, 0);
    patchLe32(zqv, kRecord + 76, 0x40000000); // 2^62 bytes
    const DriverRun run = runDriver({tmp.path()});
    QCOMPARE(run.lines, oneFileRunLines(tmp.path(), "Tern",
                                        {stars(zqv, "needs to be restored!"),
                                         stars(zqv, "recovery failed, no frame map or finalization failed!")},
                                        tmp.filePath("A001.nrv"), "Unrecoverable"));
}

void TestTernFinalize::finishCutShortBeforeTheRenameIsRenamed()
{
    // A finish killed between patching the header and the rename leaves the finished movie under the
    // in-progress name: the next run checks it through the reader and only renames it.
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A001.zqv");
    const QString mov = tmp.filePath("A001.mov");
    QVERIFY(record(zqv));
    runDriver({tmp.path()});
    const QByteArray finished = readFile(mov);
    QVERIFY(QFile::rename(mov, zqv));

    const DriverRun run = runDriver({tmp.path()});
    QCOMPARE(run.lines, oneFileRunLines(tmp.path(), "Tern",
                                        {stars(zqv, "was finished by an earlier run cut short, verified!")},
                                        mov, "Finalized"));
    QCOMPARE(run.good, 1);
    QCOMPARE(run.bad, 0);
    QCOMPARE(readFile(mov), finished);
}

void TestTernFinalize::finishedLayoutThatDoesNotVerifyIsCorrupted()
{
    // Laid out like a finished movie, but the index sends a chunk beyond the file: not taken as finished.
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A001.zqv");
    const QString mov = tmp.filePath("A001.mov");
    QVERIFY(record(zqv));
    runDriver({tmp.path()});
    QByteArray damaged = readFile(mov);
    const AtomWalker::Atom co64 = AtomWalker::find(damaged, "moov/trak:2/mdia/minf/stbl/co64");
    QVERIFY(co64.valid());
    damaged.replace(int(co64.offset) + 16, 8, hex("0000007FFFFFFF00"));
    QVERIFY(QFile::remove(mov));
    checkLeftUnrecoverable(zqv, damaged, "Tern", {stars(zqv, "recovery failed, corrupted file!")}, mov);
}

QTEST_GUILESS_MAIN(TestTernFinalize)
#include "tst_tern_finalize.moc"
