// Whole runs of the main window, started as a user starts them: the log box line by line against what
// clipward-cli prints for the same folder, the files left as the command line leaves them, the controls
// while a run goes on, the finish style for every player, and the current folder.

#include "tst_mainwindow.h"

#include "simulate/RecordingSimulator.h"
#include "simulate/WavSimulator.h"
#include "support/TestSupport.h"
#include "support/WidgetLookup.h"
#include "support/WindowTest.h"

#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QDir>
#include <QFileInfo>
#include <QGroupBox>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QRadioButton>
#include <QRegularExpression>
#include <QScrollBar>
#include <QSettings>
#include <QStatusBar>
#include <QtTest>

#include <algorithm>

using TestSupport::hex;
using TestSupport::logLines;
using TestSupport::runOn;

namespace {

// The controls a run switches off.
QList<QWidget*> runControls(QWidget* window)
{
    QList<QWidget*> controls;
    for (const char* name : {"scanModeGroup", "interchangeFinish", "drivePathEdit", "browseButton",
                             "copyToFolder", "startButton", "exitButton"})
        controls << child<QWidget>(window, name);
    return controls;
}

// Whether the window's finish-style choice as stored for the next session says interchange.
bool storedInterchange()
{
    return QSettings().value("finish/interchange", false).toBool();
}

// A run's report with the file positions it names left out: the finish styles place the index differently.
QStringList withoutPositions(QStringList lines)
{
    const QRegularExpression position("\\([0-9a-f]+\\)|(Start|End):[0-9]+");
    for (QString& line : lines)
        line.replace(position, "#");
    return lines;
}

// An unfinished Tern recording with 16-bit sound, the width whose description the finish style decides.
bool writeTern16BitRecording(const QString& path)
{
    RecordingPlan plan;
    for (int i = 0; i < 30; ++i)
        plan.videoFrames << syntheticFrame(i, 1200);
    plan.audioBytesPerSample = 2;
    plan.audioTracks << syntheticPcm(0, 30 * 1920, 2) << syntheticPcm(1, 30 * 1920, 2);
    return QDir().mkpath(QFileInfo(path).path()) && writeInterruptedRecording(path, plan).ok;
}

} // namespace

void TestMainWindow::missingPathRun_data()
{
    QTest::addColumn<bool>("scanOnly");
    QTest::addColumn<QStringList>("expected");
    const QString error = "ERROR: Specfied path does not exist: /nonexistent-clipward-test/CARD";
    QTest::newRow("finalize") << false
                              << QStringList{"Checking drive: /n", "Scanning for unfinalized files.",
                                             error, " ", "No unfinalized files found."};
    QTest::newRow("scan only") << true
                               << QStringList{"Checking drive: /n",
                                              "Displaying files that require finalization.",
                                              "No files will be modifed.", error, " ", "Test Debug",
                                              "0 file(s) require finalizing.",
                                              "Run again with Scan Mode set to 'Scan and Finalize'"};
}

void TestMainWindow::missingPathRun()
{
    QFETCH(bool, scanOnly);
    QFETCH(QStringList, expected);

    auto window = makeWindow();
    window->output("left from before");
    runOn(*window, kMissingPath, scanOnly);
    QCOMPARE(logLines(*window), expected);
}

void TestMainWindow::scanOnlyRunOverTree()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString root = dir.path();
    QVERIFY(TestSupport::writeFile(root + "/A001.zqv", hex("00000014 66747970 71742020")));
    QVERIFY(TestSupport::writeFile(root + "/clip.nrv", hex("00")));
    QVERIFY(TestSupport::writeFile(root + "/clip.nra", hex("00")));
    QVERIFY(TestSupport::writeFile(root + "/done.mov", hex("00000014")));
    QVERIFY(TestSupport::writeFile(root + "/sub/B001.zqa", hex("52494646")));
    const QMap<QString, QByteArray> before = TestSupport::snapshotTree(root);

    auto window = makeWindow();
    runOn(*window, root, true);

    // The drive is the first two characters of the folder holding the start path.
    const QString drive = QFileInfo(root).path().left(2);
    const QStringList expected{
        "Checking drive: " + drive,
        "Displaying files that require finalization.",
        "No files will be modifed.",
        "Scanning folder: " + root,
        "     " + root + "/A001.zqv (tern) Requires finalize",
        "     " + root + "/clip.nra Unrecoverable",
        "     " + root + "/clip.nrv Unrecoverable",
        "Scanning folder: " + root + "/sub",
        "     " + root + "/sub/B001.zqa (heron) Requires finalize",
        " ",
        "2 file(s) unrecoverable.",
        "Test Debug",
        "2 file(s) require finalizing.",
        "Run again with Scan Mode set to 'Scan and Finalize'",
    };
    const QStringList lines = logLines(*window);
    QCOMPARE(lines, expected);
    QCOMPARE(lines.indexOf("Test Debug") + 1, lines.indexOf("2 file(s) require finalizing."));
    QCOMPARE(TestSupport::snapshotTree(root), before);
}

void TestMainWindow::runMatchesCli_data()
{
    QTest::addColumn<bool>("scanOnly");
    QTest::addColumn<bool>("missing");
    QTest::newRow("scan only, tree") << true << false;
    QTest::newRow("scan only, missing path") << true << true;
    QTest::newRow("finalize, missing path") << false << true;
}

void TestMainWindow::runMatchesCli()
{
    QFETCH(bool, scanOnly);
    QFETCH(bool, missing);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QString path = kMissingPath;
    if (!missing) {
        path = dir.path() + "/CARD";
        QVERIFY(TestSupport::writeFile(path + "/DCIM/A001.zqv", hex("00000014 66747970")));
        QVERIFY(TestSupport::writeFile(path + "/DCIM/H001.ZQV", hex("00000200 00000000")));
        QVERIFY(TestSupport::writeFile(path + "/DCIM/short.zqv", hex("0000")));
        QVERIFY(TestSupport::writeFile(path + "/AUDIO/A001.zqa", hex("52494646")));
        QVERIFY(TestSupport::writeFile(path + "/AUDIO/A000.nra", hex("00")));
        QVERIFY(QDir(path).mkpath("EMPTY"));
    }

    QStringList cliLines;
    const QStringList args = scanOnly ? QStringList{"--scan-only", path} : QStringList{path};
    QCOMPARE(TestSupport::runCli(args, &cliLines), missing ? 2 : 1);

    auto window = makeWindow();
    runOn(*window, path, scanOnly);
    const QStringList windowLines = logLines(*window);
    QCOMPARE(windowLines, cliLines);
    QVERIFY(windowLines.size() >= 5);
}

void TestMainWindow::longRunKeepsItsLatest4000Lines()
{
    // 4,100 folders log more lines than the box keeps; it ends with the command line's last 4000.
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString card = dir.path() + "/CARD";
    for (int i = 0; i < 4100; ++i)
        QVERIFY(QDir().mkpath(QString("%1/F%2").arg(card).arg(i, 4, 10, QLatin1Char('0'))));
    QVERIFY(TestSupport::writeFile(card + "/F4099/A001.zqv", hex("00000014 66747970")));

    QStringList cliLines;
    QCOMPARE(TestSupport::runCli({"--scan-only", card}, &cliLines), 0);
    QVERIFY(cliLines.size() > 4100);

    auto window = makeWindow();
    runOn(*window, card, true);
    QCOMPARE(logLines(*window), cliLines.mid(cliLines.size() - 4000));
    QScrollBar* scroll = child<QPlainTextEdit>(window.get(), "outputWindow")->verticalScrollBar();
    QVERIFY(scroll->maximum() > 3900);
    QCOMPARE(scroll->value(), scroll->maximum()); // the box followed the log to its end
}

void TestMainWindow::finalizeRunMatchesCli()
{
    // The same card, finalized once by clipward-cli and once, restored, by the window.
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString card = dir.path() + "/CARD";
    RecordingPlan tern;
    for (int i = 0; i < 30; ++i)
        tern.videoFrames << syntheticFrame(i, 1200);
    tern.audioTracks << syntheticPcm(0, 30 * 1920, 3);
    QDir().mkpath(card + "/DCIM");
    QDir().mkpath(card + "/AUDIO");
    QVERIFY(writeInterruptedRecording(card + "/DCIM/A001.zqv", tern).ok);
    RecordingPlan heron = tern;
    heron.family = RecordingPlan::Heron;
    heron.audioSamplesPerChunk = 3072;
    QVERIFY(writeInterruptedRecording(card + "/DCIM/B001.zqv", heron).ok);
    WavPlan wav;
    wav.pcm = interleavePcm({syntheticPcm(0, 2000, 3), syntheticPcm(1, 2000, 3)}, 3);
    QVERIFY(writeWav(card + "/AUDIO/B001.zqa", wav));
    QVERIFY(TestSupport::writeFile(card + "/AUDIO/B000.nra", "x"));
    const auto before = TestSupport::snapshotTree(card);

    QStringList cliLines;
    QCOMPARE(TestSupport::runCli({card}, &cliLines), 1);
    const auto finished = TestSupport::snapshotTree(card);

    QVERIFY(QDir(card).removeRecursively());
    for (auto it = before.begin(); it != before.end(); ++it)
        QVERIFY(TestSupport::writeFile(card + "/" + it.key(), it.value()));
    auto window = makeWindow();
    runOn(*window, card, false);
    QCOMPARE(logLines(*window), cliLines);
    QCOMPARE(TestSupport::snapshotTree(card), finished);
    QVERIFY(cliLines.contains("3 file(s) have been successfully finalized."));
}

void TestMainWindow::controlsDisabledDuringRun()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(TestSupport::writeFile(dir.path() + "/A001.zqv", hex("00000014")));

    auto window = makeWindow();
    QPlainTextEdit* box = child<QPlainTextEdit>(window.get(), "outputWindow");
    const QList<QWidget*> controls = runControls(window.get());
    QProgressBar* bar = child<QProgressBar>(window.get(), "progressBar");

    int linesSeen = 0;
    QList<int> blockCounts; // the box's paragraphs each time its text changed: one line at a time
    int linesWithControlsOn = 0;
    int linesWithoutBusyBar = 0;
    connect(box, &QPlainTextEdit::textChanged, this, [&] {
        if (box->toPlainText().isEmpty())
            return; // the clear at the start of the run
        ++linesSeen;
        blockCounts << box->document()->blockCount();
        if (std::any_of(controls.begin(), controls.end(), [](QWidget* c) { return c->isEnabled(); }))
            ++linesWithControlsOn;
        if (bar->minimum() != 0 || bar->maximum() != 0)
            ++linesWithoutBusyBar;
    });

    runOn(*window, dir.path(), true);
    disconnect(box, nullptr, this, nullptr);

    QCOMPARE(logLines(*window).size(), 9);
    QVERIFY(linesSeen >= 9);
    QCOMPARE(blockCounts, QList<int>({1, 2, 3, 4, 5, 6, 7, 8, 9}));
    QScrollBar* scroll = box->verticalScrollBar();
    QCOMPARE(scroll->value(), scroll->maximum()); // the box followed the log to its end
    QCOMPARE(linesWithControlsOn, 0);
    QCOMPARE(linesWithoutBusyBar, 0);
    for (QWidget* control : controls)
        QVERIFY2(control->isEnabled(), qPrintable(control->objectName()));
    QCOMPARE(bar->minimum(), 0);
    QCOMPARE(bar->maximum(), 100);
}

void TestMainWindow::interchangeChoiceIsRemembered()
{
    QVERIFY(!storedInterchange());
    {
        auto window = makeWindow();
        QCheckBox* box = child<QCheckBox>(window.get(), "interchangeFinish");
        QVERIFY(!box->isChecked());
        // The whole box shows inside the group, under the two scan modes.
        QGroupBox* group = child<QGroupBox>(window.get(), "scanModeGroup");
        QVERIFY(group->rect().contains(box->geometry()));
        // Text widths only mean something with the desktop's own fonts.
        if (QGuiApplication::platformName() != "offscreen")
            QVERIFY(box->width() >= box->sizeHint().width());
        QVERIFY(box->y() >= child<QRadioButton>(window.get(), "scanOnly")->geometry().bottom());

        QTest::mouseClick(box, Qt::LeftButton);
        QVERIFY(box->isChecked());
        QVERIFY(storedInterchange());
    }
    {
        auto window = makeWindow();
        QCheckBox* box = child<QCheckBox>(window.get(), "interchangeFinish");
        QVERIFY(box->isChecked());
        QTest::mouseClick(box, Qt::LeftButton);
        QVERIFY(!storedInterchange());
    }
    auto window = makeWindow();
    QVERIFY(!child<QCheckBox>(window.get(), "interchangeFinish")->isChecked());
}

void TestMainWindow::interchangeFinishDeclaresSowt()
{
    // One card, restored between runs: finished with the box off, with it on, and by clipward-cli
    // --interchange. Only the sound description's format tells the two finishes' reports apart.
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString card = dir.path() + "/CARD";
    const QString movie = card + "/DCIM/A001.mov";
    QVERIFY(writeTern16BitRecording(card + "/DCIM/A001.zqv"));
    const auto before = TestSupport::snapshotTree(card);
    auto restore = [&] {
        QVERIFY(QDir(card).removeRecursively());
        for (auto it = before.begin(); it != before.end(); ++it)
            QVERIFY(TestSupport::writeFile(card + "/" + it.key(), it.value()));
    };

    auto window = makeWindow();
    QCheckBox* box = child<QCheckBox>(window.get(), "interchangeFinish");
    runOn(*window, card, false);
    const QStringList recorderLines = logLines(*window);
    QVERIFY(recorderLines.contains("     " + movie + " (Tern) Finalized"));
    const QByteArray recorderMovie = TestSupport::readFile(movie);
    QVERIFY(recorderMovie.contains("twos"));
    QVERIFY(!recorderMovie.contains("sowt"));

    restore();
    QTest::mouseClick(box, Qt::LeftButton);
    QVERIFY(box->isChecked());
    runOn(*window, card, false);
    QVERIFY(box->isEnabled());
    const QStringList interchangeLines = logLines(*window);
    QCOMPARE(withoutPositions(interchangeLines), withoutPositions(recorderLines));
    QVERIFY(interchangeLines.contains("     " + movie + " (Tern) Finalized"));
    const auto finished = TestSupport::snapshotTree(card);
    const QByteArray interchangeMovie = finished.value("DCIM/A001.mov");
    QVERIFY(!interchangeMovie.contains("twos"));
    QCOMPARE(interchangeMovie.count("sowt"), recorderMovie.count("twos")); // each sound description

    restore();
    QStringList cliLines;
    QCOMPARE(TestSupport::runCli({"--interchange", card}, &cliLines), 0);
    QCOMPARE(cliLines, interchangeLines);
    QCOMPARE(TestSupport::snapshotTree(card), finished);
}

void TestMainWindow::interchangeChoiceLeavesScanOnlyAlone()
{
    // A scan changes nothing either way: the box stays usable and the report is the same.
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(writeTern16BitRecording(dir.path() + "/CARD/DCIM/A001.zqv"));
    const auto before = TestSupport::snapshotTree(dir.path());

    auto window = makeWindow();
    QCheckBox* box = child<QCheckBox>(window.get(), "interchangeFinish");
    runOn(*window, dir.path() + "/CARD", true);
    const QStringList plainLines = logLines(*window);
    QVERIFY(box->isEnabled());
    QTest::mouseClick(box, Qt::LeftButton);
    runOn(*window, dir.path() + "/CARD", true);
    QCOMPARE(logLines(*window), plainLines);
    QCOMPARE(TestSupport::snapshotTree(dir.path()), before);
}

void TestMainWindow::setRunningTogglesControls()
{
    MainWindow window;
    QProgressBar* bar = child<QProgressBar>(&window, "progressBar");

    window.setRunning(true);
    for (QWidget* control : runControls(&window))
        QVERIFY2(!control->isEnabled(), qPrintable(control->objectName()));
    QCOMPARE(bar->maximum(), 0);

    window.setRunning(false);
    for (QWidget* control : runControls(&window))
        QVERIFY2(control->isEnabled(), qPrintable(control->objectName()));
    QCOMPARE(bar->minimum(), 0);
    QCOMPARE(bar->maximum(), 100);
}

void TestMainWindow::closeRequestDuringARunIsRefused()
{
    // The title bar's close box and Alt+F4 both arrive as a close request; during a run it is refused,
    // so no run goes on changing a card with no window shown. Afterwards the window closes as usual.
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(TestSupport::writeFile(dir.path() + "/A001.zqv", hex("00000014")));
    auto window = makeWindow();
    QStatusBar* status = child<QStatusBar>(window.get(), "statusBar");
    QPlainTextEdit* box = child<QPlainTextEdit>(window.get(), "outputWindow");

    int requests = 0;
    bool closedDuringRun = true;
    bool visibleDuringRun = false;
    QString statusDuringRun;
    connect(box, &QPlainTextEdit::textChanged, this, [&] {
        if (requests != 0 || !box->toPlainText().contains("Scanning folder"))
            return;
        ++requests;
        // As the window system delivers it: a spontaneous close event, not a call of close().
        QCloseEvent request;
        QApplication::sendEvent(window.get(), &request);
        closedDuringRun = request.isAccepted();
        visibleDuringRun = window->isVisible();
        statusDuringRun = status->currentMessage();
    });
    runOn(*window, dir.path(), false);
    disconnect(box, nullptr, this, nullptr);

    QCOMPARE(requests, 1);
    QVERIFY(!closedDuringRun);
    QVERIFY(visibleDuringRun);
    QCOMPARE(statusDuringRun,
        QString("The run is still going: the window can be closed when it has finished."));
    QVERIFY(window->isVisible());
    QCOMPARE(status->currentMessage(), QString());
    QVERIFY(logLines(*window).contains("1 file(s) have been successfully finalized.")
        || logLines(*window).contains("1 file(s) unrecoverable."));
    QVERIFY(window->close()); // idle: the request is taken
    QVERIFY(!window->isVisible());
}

void TestMainWindow::relativePathIsTakenFromTheStartFolder()
{
    // A relative path means the same folder however the current folder has changed since start-up.
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(TestSupport::writeFile(dir.path() + "/start/card/A001.zqa", "x"));
    QVERIFY(QDir().mkpath(dir.path() + "/elsewhere/card"));
    const QString before = QDir::currentPath();
    QVERIFY(QDir::setCurrent(dir.path() + "/start"));
    auto window = makeWindow();
    QVERIFY(QDir::setCurrent(dir.path() + "/elsewhere"));

    runOn(*window, "card", true);
    QVERIFY(QDir::setCurrent(before));
    QVERIFY(logLines(*window).contains(
        "     " + dir.path() + "/start/card/A001.zqa (heron) Requires finalize"));
    QCOMPARE(window->typedPath(), dir.path() + "/start/card");
}

void TestMainWindow::runGivesTheCurrentFolderBack()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(TestSupport::writeFile(dir.path() + "/card/A001.zqa", "x"));
    const QString before = QDir::currentPath();
    auto window = makeWindow();
    runOn(*window, dir.path() + "/card", true);
    QCOMPARE(QDir::currentPath(), before);
}
