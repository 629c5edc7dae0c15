// The window as a desktop user works it: the keyboard alone (focus, Tab, Enter, mnemonics, Escape), a
// read-only report that follows its end like a terminal, the whole report saved however long the run,
// and a window that fits the screen and cuts no text off at large fonts and scale factors.

#include "MainWindow.h"
#include "support/TestSupport.h"
#include "support/WidgetLookup.h"
#include "support/WindowTest.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPlainTextEdit>
#include <QProcess>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QScreen>
#include <QScrollBar>
#include <QSettings>
#include <QStandardPaths>
#include <QStatusBar>
#include <QTemporaryDir>
#include <QTextCursor>
#include <QtTest>

#include <cstdio>
#include <functional>
#include <memory>

using TestSupport::logBox;

namespace {

const char* const kReportGeometry = "--report-geometry";

// The report without the offscreen platform's notice about size hints, which the window logs like any
// message whenever its minimum size changes.
QString withoutPlatformNotices(const QString& text)
{
    QStringList lines = text.split('\n');
    lines.removeAll("This plugin does not support propagateSizeHints()");
    return lines.join('\n');
}

QString report(MainWindow& window)
{
    return withoutPlatformNotices(logBox(window)->toPlainText());
}

// A card whose run prints a line per file: `count` recordings given up earlier (".nrv").
QString cardOfGivenUpFiles(const QTemporaryDir& dir, int count)
{
    const QString card = dir.path() + "/CARD";
    QDir().mkpath(card);
    for (int i = 0; i < count; ++i)
        TestSupport::writeFile(QString("%1/C%2.nrv").arg(card).arg(i, 5, 10, QChar('0')), QByteArray());
    return card;
}

// The widgets that show a text that must never be cut off.
QList<QWidget*> textWidgets(MainWindow& window)
{
    QList<QWidget*> widgets;
    for (const char* name : {"scanAndFinalize", "scanOnly", "interchangeFinish", "label", "browseButton",
                             "startButton", "exitButton"})
        widgets << child<QWidget>(&window, name);
    return widgets;
}

// Every text widget at least as large as its text needs, and the scan-mode choices apart from each other
// inside their group.
QString clippedOrOverlapping(MainWindow& window)
{
    for (QWidget* widget : textWidgets(window)) {
        const QSize needed = widget->sizeHint(); // the text, its box or frame, and the style's margins
        if (widget->width() < needed.width() || widget->height() < needed.height())
            return QString("%1 is %2x%3, its text needs %4x%5")
                .arg(widget->objectName())
                .arg(widget->width())
                .arg(widget->height())
                .arg(needed.width())
                .arg(needed.height());
    }
    QGroupBox* group = child<QGroupBox>(&window, "scanModeGroup");
    const QList<QWidget*> choices { child<QWidget>(&window, "scanAndFinalize"),
        child<QWidget>(&window, "scanOnly"), child<QWidget>(&window, "interchangeFinish") };
    for (int i = 0; i < choices.size(); ++i) {
        if (!group->contentsRect().contains(choices[i]->geometry()))
            return choices[i]->objectName() + " reaches out of its group";
        for (int j = i + 1; j < choices.size(); ++j) {
            if (choices[i]->geometry().intersects(choices[j]->geometry()))
                return choices[i]->objectName() + " overlaps " + choices[j]->objectName();
        }
    }
    return QString();
}

} // namespace

class TestWindowUsability : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(TestSupport::useTestSettings(m_settingsDir));
    }

    void pathFieldHasTheFocusAtStartUp()
    {
        auto window = makeWindow();
        QCOMPARE(QApplication::focusWidget(), child<QWidget>(window.get(), "drivePathEdit"));
    }

    void tabMovesThroughTheControlsInOrder()
    {
        auto window = makeWindow();
        QTest::keyClicks(QApplication::focusWidget(), "/somewhere"); // Start is enabled with a path
        // The copies' folder and its Browse are off (and passed over) until copies are chosen.
        const QStringList forward{"browseButton", "copyToFolder", "scanAndFinalize", "interchangeFinish",
                                  "startButton", "exitButton", "drivePathEdit"};
        for (const QString& expected : forward) {
            QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
            QCOMPARE(QApplication::focusWidget()->objectName(), expected);
        }
        const QStringList backward{"exitButton", "startButton", "interchangeFinish", "scanAndFinalize",
                                   "copyToFolder", "browseButton", "drivePathEdit"};
        for (const QString& expected : backward) {
            QTest::keyClick(QApplication::focusWidget(), Qt::Key_Backtab, Qt::ShiftModifier);
            QCOMPARE(QApplication::focusWidget()->objectName(), expected);
        }
        QCOMPARE(child<QLineEdit>(window.get(), "drivePathEdit")->text(), QString("/somewhere"));
        QCOMPARE(report(*window), QString());
    }

    void keyboardOnlyRun()
    {
        // Type the path, press Enter: the run goes, the report ends with its summary, the focus is not in
        // the report, and keys typed afterwards change nothing in it.
        QTemporaryDir dir;
        const QString card = cardOfGivenUpFiles(dir, 3);
        auto window = makeWindow();
        QTest::keyClicks(QApplication::focusWidget(), card);
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Return);
        const QString firstReport = report(*window);
        QVERIFY2(firstReport.endsWith("3 file(s) unrecoverable.\nNo unfinalized files found."),
                 qPrintable(firstReport));
        QVERIFY(QApplication::focusWidget() != logBox(*window));

        // Enter on a focused Start runs again.
        child<QPushButton>(window.get(), "startButton")->setFocus();
        logBox(*window)->clear();
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Return);
        QCOMPARE(report(*window), firstReport);

        QTest::keyClicks(logBox(*window), "typed into the report");
        QTest::keyClick(logBox(*window), Qt::Key_Backspace);
        QTest::keyClick(logBox(*window), Qt::Key_Tab);
        QCOMPARE(report(*window), firstReport);
    }

    void enterWithoutAPathStartsNothing()
    {
        auto window = makeWindow();
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Return);
        QCOMPARE(report(*window), QString());
    }

    void reportIsReadOnlyWithCopySelectAllAndSave()
    {
        auto window = makeWindow();
        window->output("first line");
        window->output("second line");
        QPlainTextEdit* box = logBox(*window);
        QVERIFY(box->isReadOnly());
        QVERIFY(box->textInteractionFlags() & Qt::TextSelectableByMouse);
        QCOMPARE(box->focusPolicy(), Qt::ClickFocus);

        std::unique_ptr<QMenu> menu(window->createLogMenu());
        QStringList entries;
        for (QAction* action : menu->actions()) {
            if (!action->isSeparator())
                entries << action->text().remove('&');
        }
        QCOMPARE(entries, (QStringList{"Copy", "Select All", "Save Log...", "Save Outcomes..."}));
        QVERIFY(!menu->actions().first()->isEnabled()); // nothing selected yet

        menu->actions().at(1)->trigger(); // Select All
        std::unique_ptr<QMenu> again(window->createLogMenu());
        QVERIFY(again->actions().first()->isEnabled());
        again->actions().first()->trigger(); // Copy
        QCOMPARE(
            withoutPlatformNotices(QApplication::clipboard()->text()), QString("first line\nsecond line"));
        QCOMPARE(window->saveLogAction()->shortcut(), QKeySequence(QKeySequence::Save));
    }

    void mnemonicsActAndAltTypesNothing()
    {
        auto window = makeWindow();
        QLineEdit* path = child<QLineEdit>(window.get(), "drivePathEdit");
        QTest::keyClicks(path, "/card");
        // Through the window, as the window system delivers keys: shortcuts are matched first.
        QWindow* handle = window->windowHandle();
        // A mnemonic presses its button at once and lets it go a moment later, as a click.
        QTest::keyClick(handle, Qt::Key_O, Qt::AltModifier);
        QTRY_VERIFY(child<QRadioButton>(window.get(), "scanOnly")->isChecked());
        QTest::keyClick(handle, Qt::Key_F, Qt::AltModifier);
        QTRY_VERIFY(child<QRadioButton>(window.get(), "scanAndFinalize")->isChecked());
        path->setFocus();
        QTest::keyClick(handle, Qt::Key_Q, Qt::AltModifier); // no control has Alt+Q
        QTest::keyClick(handle, Qt::Key_D, Qt::AltModifier); // the path's own label
        QCOMPARE(QApplication::focusWidget(), path);
        QCOMPARE(path->text(), QString("/card"));
        const QMap<QString, QChar> letters { { "scanAndFinalize", 'f' }, { "scanOnly", 'o' },
            { "interchangeFinish", 'p' }, { "browseButton", 'b' }, { "startButton", 's' },
            { "exitButton", 'x' }, { "copyToFolder", 'c' }, { "outputBrowseButton", 'w' } };
        for (auto it = letters.begin(); it != letters.end(); ++it) {
            const QString text = child<QAbstractButton>(window.get(), qPrintable(it.key()))->text();
            QCOMPARE(text.at(text.indexOf('&') + 1).toLower(), it.value());
        }
    }

    void escapeDoesNothing()
    {
        auto window = makeWindow();
        QLineEdit* path = child<QLineEdit>(window.get(), "drivePathEdit");
        QTest::keyClicks(path, "/card");
        window->output("a line");
        QTest::keyClick(path, Qt::Key_Escape);
        QTest::keyClick(window.get(), Qt::Key_Escape);
        QVERIFY(window->isVisible());
        QCOMPARE(path->text(), QString("/card"));
        QCOMPARE(report(*window), QString("a line"));
    }

    void reportFollowsItsEndThroughResizes()
    {
        // Resized twice during a run, and once after: the last line is in view at the end each time.
        QTemporaryDir dir;
        const QString card = cardOfGivenUpFiles(dir, 600);
        auto window = makeWindow();
        QPlainTextEdit* box = logBox(*window);
        QScrollBar* scroll = box->verticalScrollBar();
        const int lines = startOn(*window, card, [&](int line) {
            if (line == 100)
                window->resize(window->width() + 80, window->height() - 120);
            if (line == 300)
                window->resize(window->width() - 120, window->height() + 200);
        });
        QVERIFY(lines > 300);
        QVERIFY(window->followsLog());
        QCOMPARE(scroll->value(), scroll->maximum());
        QVERIFY(lastLineInView(*box));

        window->resize(window->width() + 40, window->height() - 80);
        QCoreApplication::processEvents();
        QCOMPARE(scroll->value(), scroll->maximum());
        QVERIFY(lastLineInView(*box));
    }

    void scrollingUpKeepsTheViewUntilTheUserReturns()
    {
        QTemporaryDir dir;
        const QString card = cardOfGivenUpFiles(dir, 600);
        auto window = makeWindow();
        QPlainTextEdit* box = logBox(*window);
        QScrollBar* scroll = box->verticalScrollBar();
        int keptAt = -1;
        startOn(*window, card, [&](int line) {
            // The user sees the lines so far (the box shows them at most every 33 ms), then scrolls up.
            if (line == 200)
                QTest::qWait(50);
            if (line == 202) {
                scroll->triggerAction(QAbstractSlider::SliderPageStepSub); // as the wheel or Page Up does
                keptAt = scroll->value();
            }
        });
        QVERIFY(keptAt > 0);
        QVERIFY(!window->followsLog());
        QCOMPARE(scroll->value(), keptAt); // where the user put it, though 400 lines came in below
        window->resize(window->width() + 60, window->height() + 60);
        QCoreApplication::processEvents();
        QVERIFY(scroll->value() > 0); // a resize does not send the view to the top
        QVERIFY(scroll->value() < scroll->maximum());

        scroll->triggerAction(QAbstractSlider::SliderToMaximum); // back at the end: it follows again
        QVERIFY(window->followsLog());
        window->output("one more line");
        QCOMPARE(scroll->value(), scroll->maximum());
    }

    void saveLogWritesTheWholeRun()
    {
        // 4,500 files give more lines than the box keeps: the saved report still has every one, in order,
        // exactly as clipward-cli prints the run.
        QTemporaryDir dir;
        const QString card = cardOfGivenUpFiles(dir, 4500);
        QStringList cliLines;
        QCOMPARE(TestSupport::runCli({card}, &cliLines), 1);
        QVERIFY(cliLines.size() > 4500);

        auto window = makeWindow();
        startOn(*window, card);
        QCOMPARE(logBox(*window)->document()->blockCount(), 4000);
        const QString saved = dir.path() + "/report.txt";
        QString error;
        QVERIFY2(window->saveLogTo(saved, &error), qPrintable(error));
        const QString text = QString::fromUtf8(TestSupport::readFile(saved));
        QVERIFY(text.startsWith("Checking drive: "));
        QCOMPARE(text, cliLines.join('\n') + '\n');

        // A place that cannot be written says why.
        QVERIFY(!window->saveLogTo(dir.path() + "/no/such/folder/report.txt", &error));
        QVERIFY(!error.isEmpty());
    }

    void busyBarAndStatusStripShowOnlyWhenTheyMeanSomething()
    {
        QTemporaryDir dir;
        const QString card = cardOfGivenUpFiles(dir, 20);
        auto window = makeWindow();
        QProgressBar* bar = child<QProgressBar>(window.get(), "progressBar");
        QStatusBar* status = child<QStatusBar>(window.get(), "statusBar");
        QVERIFY(!bar->isVisible());
        QVERIFY(!status->isVisible());
        const int startX = child<QWidget>(window.get(), "startButton")->x();

        bool barShownDuringRun = false;
        connect(logBox(*window), &QPlainTextEdit::textChanged, this,
                [&] { barShownDuringRun = barShownDuringRun || (bar->isVisible() && bar->maximum() == 0); });
        startOn(*window, card);
        disconnect(logBox(*window), nullptr, this, nullptr);
        QVERIFY(barShownDuringRun);
        QVERIFY(!bar->isVisible());
        QCOMPARE(child<QWidget>(window.get(), "startButton")->x(), startX); // the buttons keep their places

        status->showMessage("a message");
        QVERIFY(status->isVisible());
        status->clearMessage();
        QVERIFY(!status->isVisible());
    }

    void nothingIsCutOffAtLargerFonts_data()
    {
        QTest::addColumn<double>("scale");
        QTest::newRow("100 %") << 1.0;
        QTest::newRow("125 %") << 1.25;
        QTest::newRow("150 %") << 1.5;
        QTest::newRow("200 %") << 2.0;
    }

    void nothingIsCutOffAtLargerFonts()
    {
        QFETCH(double, scale);
        const QFont before = QApplication::font();
        QFont larger = before;
        larger.setPointSizeF(before.pointSizeF() * scale);
        QApplication::setFont(larger);
        const auto restore = qScopeGuard([&] { QApplication::setFont(before); });
        {
            auto window = makeWindow();
            const QString problem = clippedOrOverlapping(*window);
            QVERIFY2(problem.isEmpty(), qPrintable(problem));
            // Even at the smallest size the window may take.
            window->resize(window->minimumSizeHint());
            QCoreApplication::processEvents();
            const QString smallest = clippedOrOverlapping(*window);
            QVERIFY2(smallest.isEmpty(), qPrintable(smallest));
        }
    }

    void fitsTheScreenArea()
    {
        // A 1280 x 800 screen at a scale factor of 2 leaves 640 x 400 of the window's own units.
        auto window = makeWindow();
        const QRect available(0, 0, 640, 400);
        window->fitIntoScreenArea(available);
        QVERIFY2(available.contains(window->frameGeometry()),
                 qPrintable(QString("%1x%2").arg(window->frameGeometry().width()).arg(window->height())));
        QVERIFY(clippedOrOverlapping(*window).isEmpty());
    }

    void opensWithinTheScreenAtScaleFactorTwo()
    {
        // The real program on a real X server: a 1280 x 800 screen at QT_SCALE_FACTOR=2.
        if (QStandardPaths::findExecutable("Xvfb").isEmpty())
            QSKIP("Xvfb is needed (the test command installs it)");
        // Xvfb picks a free display and says which on its standard output once it is ready.
        QProcess server;
        server.start("Xvfb", {"-displayfd", "1", "-screen", "0", "1280x800x24", "-nolisten", "tcp"});
        QVERIFY(server.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(server.canReadLine(), 20000);
        const QString display = ":" + QString::fromLatin1(server.readLine()).trimmed();
        QProcess program;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("QT_QPA_PLATFORM", "xcb");
        env.insert("DISPLAY", display);
        env.insert("QT_SCALE_FACTOR", "2");
        env.insert("XDG_CONFIG_HOME", m_settingsDir.path());
        env.insert("ASAN_OPTIONS", env.value("ASAN_OPTIONS") + ":detect_leaks=0");
        program.setProcessEnvironment(env);
        program.start(QCoreApplication::applicationFilePath(), {QString(kReportGeometry)});
        const bool finished = program.waitForFinished(60000);
        server.terminate();
        server.waitForFinished(5000);
        QVERIFY(finished);
        const QStringList report = QString::fromUtf8(program.readAllStandardOutput()).split(' ');
        QVERIFY2(report.size() == 9 && report[0] == "window", qPrintable(report.join(' ')));
        const QRect frame(report[1].toInt(), report[2].toInt(), report[3].toInt(), report[4].toInt());
        const QRect available(report[5].toInt(), report[6].toInt(), report[7].toInt(), report[8].toInt());
        QCOMPARE(available.size(), QSize(640, 400));
        QVERIFY2(available.contains(frame), qPrintable(report.join(' ')));
        QCOMPARE(program.exitCode(), 0); // nothing cut off or overlapping there either
    }

private:
    QTemporaryDir m_settingsDir;

    std::unique_ptr<MainWindow> makeWindow()
    {
        std::unique_ptr<MainWindow> window = TestSupport::shownActiveWindow();
        logBox(*window)->clear(); // what the platform logged while the window was shown
        return window;
    }

    // Starts a run on `path`; `eachLine` is called with the count of lines so far as each one comes in.
    // Returns the count.
    int startOn(MainWindow& window, const QString& path, const std::function<void(int)>& eachLine = {})
    {
        int lines = 0;
        QPlainTextEdit* box = logBox(window);
        connect(box, &QPlainTextEdit::textChanged, this, [&] {
            if (eachLine)
                eachLine(++lines);
        });
        child<QLineEdit>(&window, "drivePathEdit")->setText(path);
        QTest::mouseClick(child<QPushButton>(&window, "startButton"), Qt::LeftButton);
        disconnect(box, nullptr, this, nullptr);
        return lines;
    }

    static bool lastLineInView(QPlainTextEdit& box)
    {
        QTextCursor end(box.document());
        end.movePosition(QTextCursor::End);
        const QRect where = box.cursorRect(end); // in the view's coordinates
        return where.top() >= 0 && where.bottom() <= box.viewport()->height();
    }
};

// With kReportGeometry the program shows the window and prints its frame and the screen's free area,
// exiting 1 when a text is cut off or choices overlap.
int main(int argc, char* argv[])
{
    if (argc == 2 && qstrcmp(argv[1], kReportGeometry) == 0) {
        QApplication app(argc, argv);
        MainWindow window;
        window.show();
        if (!QTest::qWaitForWindowExposed(&window)) {
            std::fprintf(stderr, "the window was never shown\n");
            return 2;
        }
        QTest::qWait(300);
        const QRect frame = window.frameGeometry();
        const QRect available = window.screen()->availableGeometry();
        std::printf("window %d %d %d %d %d %d %d %d", frame.x(), frame.y(), frame.width(), frame.height(),
                    available.x(), available.y(), available.width(), available.height());
        std::fflush(stdout);
        const QString problem = clippedOrOverlapping(window);
        if (!problem.isEmpty())
            std::fprintf(stderr, "%s\n", qPrintable(problem));
        return problem.isEmpty() ? 0 : 1;
    }
    QApplication app(argc, argv);
    TestWindowUsability tests;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&tests, argc, argv);
}

#include "tst_window_usability.moc"
