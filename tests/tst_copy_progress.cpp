// The progress of a run into copies: the driver counts the recordings it will copy, and their bytes,
// before the first copy, then tells each copy's turn (its number, its bytes, the run's bytes) until the
// run's bytes are all done, also where a recording is passed without a copy. clipward-cli shows it as one
// line on a terminal's stderr, rewritten in place and gone before the report goes on; without a terminal
// it shows nothing.

#include "finalize/Finalize.h"
#include "support/MessageCapture.h"
#include "support/MixedCard.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

using namespace TestSupport;

namespace {

// The recordings a run into copies takes a turn with, as the walk meets them: in-progress names, folders
// in name order, not those given up before.
QStringList recordingsToCopy(const QString& card)
{
    QStringList found;
    QDirIterator it(card, {"*.zqv", "*.zqa"}, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext())
        found << it.next();
    std::sort(found.begin(), found.end());
    return found;
}

qint64 sizeOfAll(const QStringList& paths)
{
    qint64 total = 0;
    for (const QString& path : paths)
        total += QFileInfo(path).size();
    return total;
}

// Every progress report of a run of the driver on `card` into `out`.
QList<CopyProgress> progressOfRun(const QString& card, const QString& out, bool scanOnly = false)
{
    QList<CopyProgress> heard;
    Finalize driver;
    driver.scanOnly = scanOnly;
    driver.outputFolder = out;
    QObject::connect(&driver, &Finalize::copyProgress,
        [&heard](const CopyProgress& progress) { heard << progress; });
    const MessageCapture quiet(MessageCapture::Drop);
    const QString current = QDir::currentPath(); // the walk makes the card's folder current
    driver.finalizeFolders({card});
    QDir::setCurrent(current);
    return heard;
}

// The reports that end a recording's turn.
QList<CopyProgress> turnEnds(const QList<CopyProgress>& heard)
{
    QList<CopyProgress> ends;
    for (const CopyProgress& progress : heard) {
        if (progress.fileEnded)
            ends << progress;
    }
    return ends;
}

// What clipward-cli writes to a terminal (stdout and stderr both), run under `script` with `args`.
QString runCliOnATerminal(const QString& folder, const QStringList& args)
{
    QStringList quoted{QString("'%1'").arg(CLIPWARD_CLI_PATH)};
    for (const QString& arg : args)
        quoted << QString("'%1'").arg(arg);
    QProcess process;
    process.setWorkingDirectory(folder);
    process.start("script", {"-q", "-e", "-c", quoted.join(' '), "/dev/null"});
    process.waitForFinished(-1);
    // The terminal ends its lines with "\r\n".
    return QString::fromUtf8(process.readAllStandardOutput()).replace("\r\n", "\n");
}

} // namespace

class TestCopyProgress : public QObject
{
    Q_OBJECT

private slots:
    void everyRecordingIsCountedBeforeTheFirstCopy();
    void theRunsBytesRiseToItsSize();
    void aRecordingPassedWithoutACopyCountsAsDone();
    void nothingIsToldWithoutCopies();
    void theTerminalShowsOneLineThatGoesBeforeTheReport();
    void withoutATerminalNoProgressIsShown();
};

void TestCopyProgress::everyRecordingIsCountedBeforeTheFirstCopy()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(writeMixedCard(card));
    const QStringList recordings = recordingsToCopy(card);
    QCOMPARE(recordings.size(), 5);

    const QList<CopyProgress> heard = progressOfRun(card, tmp.filePath("out"));
    QVERIFY(!heard.isEmpty());
    const CopyProgress& first = heard.first();
    QCOMPARE(first.path, recordings.first());
    QCOMPARE(first.fileNumber, 1);
    QCOMPARE(first.fileCount, 5);
    QCOMPARE(first.runSize, sizeOfAll(recordings));
    QCOMPARE(first.runDone, qint64(0));
    QCOMPARE(first.fileDone, qint64(0));
    QCOMPARE(first.fileSize, QFileInfo(recordings.first()).size());

    // One turn per recording, in the walk's order, each numbered and sized as its file.
    const QList<CopyProgress> ends = turnEnds(heard);
    QCOMPARE(ends.size(), 5);
    for (int i = 0; i < ends.size(); ++i) {
        QCOMPARE(ends[i].path, recordings[i]);
        QCOMPARE(ends[i].fileNumber, i + 1);
        QCOMPARE(ends[i].fileCount, 5);
        QCOMPARE(ends[i].fileSize, QFileInfo(recordings[i]).size());
        QCOMPARE(ends[i].fileDone, ends[i].fileSize);
    }
}

void TestCopyProgress::theRunsBytesRiseToItsSize()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(writeMixedCard(card));
    const qint64 size = sizeOfAll(recordingsToCopy(card));

    const QList<CopyProgress> heard = progressOfRun(card, tmp.filePath("out"));
    qint64 before = 0;
    for (const CopyProgress& progress : heard) {
        QVERIFY(progress.runDone >= before);
        QVERIFY(progress.fileDone <= progress.fileSize);
        QVERIFY(progress.runDone <= progress.runSize);
        QCOMPARE(progress.runSize, size);
        before = progress.runDone;
    }
    // Every copy was told whole before its turn ended: the copy's own last report.
    for (int i = 1; i < heard.size(); ++i) {
        if (heard[i].fileEnded)
            QCOMPARE(heard[i - 1].fileDone, heard[i - 1].fileSize);
    }
    QCOMPARE(heard.last().runDone, size);
    QVERIFY(heard.last().fileEnded);
}

void TestCopyProgress::aRecordingPassedWithoutACopyCountsAsDone()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    const QString out = tmp.filePath("out");
    QVERIFY(writeMixedCard(card));
    const QStringList recordings = recordingsToCopy(card);
    // The finished copy of the first movie is already there: its recording is passed, not copied.
    QVERIFY(writeFile(out + "/DCIM/100CLIPS/A001C001.mov", "a copy from before"));

    const QList<CopyProgress> heard = progressOfRun(card, out);
    const QString passed = card + "/DCIM/100CLIPS/A001C001.zqv";
    QList<CopyProgress> told;
    for (const CopyProgress& progress : heard) {
        if (progress.path == passed)
            told << progress;
    }
    // Its turn began and ended, nothing in between; its bytes count as done.
    QCOMPARE(told.size(), 2);
    QCOMPARE(told[0].fileDone, qint64(0));
    QVERIFY(!told[0].fileEnded);
    QVERIFY(told[1].fileEnded);
    QCOMPARE(told[1].runDone - told[0].runDone, QFileInfo(passed).size());
    QCOMPARE(heard.last().runDone, sizeOfAll(recordings));
    QCOMPARE(turnEnds(heard).size(), 5);
}

void TestCopyProgress::nothingIsToldWithoutCopies()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(writeMixedCard(card));
    QVERIFY(progressOfRun(card, tmp.filePath("out"), true).isEmpty()); // a scan copies nothing
    QVERIFY(progressOfRun(card, QString()).isEmpty()); // the in-place finish
}

void TestCopyProgress::theTerminalShowsOneLineThatGoesBeforeTheReport()
{
    if (QStandardPaths::findExecutable("script").isEmpty())
        QSKIP("script (Debian package bsdutils) is missing: no terminal to run on");
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(writeMixedCard(card));
    const QString shown = runCliOnATerminal(tmp.path(), {"--output", tmp.filePath("out"), card});

    // The line for the first copy, as its turn begins.
    const QString first = QString("\r\033[Kcopying B001T001.zqa (1 of 5): 0 % of %1 MB, 0.0 MB/s | "
                                  "run: 0 % of %2 MB")
                              .arg(QFileInfo(card + "/AUDIO/B001T001.zqa").size() / 1e6, 0, 'f', 1)
                              .arg(sizeOfAll(recordingsToCopy(card)) / 1e6, 0, 'f', 1);
    QVERIFY2(shown.contains(first), qPrintable(shown));
    // One line per copy, each erased before anything else is written.
    const QRegularExpression line("\r\033\\[Kcopying [^\r\n]*\r\033\\[K");
    QCOMPARE(shown.count(line), 5);

    // Without the progress lines, the terminal shows the report a run without a terminal prints.
    QString withoutProgress = shown;
    withoutProgress.remove(line);
    QStringList report;
    runCli({"--output", tmp.filePath("again"), card}, &report);
    report.replaceInStrings(tmp.filePath("again"), tmp.filePath("out"));
    QCOMPARE(withoutProgress, report.join('\n') + '\n');
}

void TestCopyProgress::withoutATerminalNoProgressIsShown()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(writeMixedCard(card));
    QStringList lines;
    QString errors;
    runCli({"--output", tmp.filePath("out"), card}, &lines, &errors);
    QCOMPARE(errors, QString());
    QVERIFY(!lines.join('\n').contains("copying"));
}

QTEST_GUILESS_MAIN(TestCopyProgress)
#include "tst_copy_progress.moc"
