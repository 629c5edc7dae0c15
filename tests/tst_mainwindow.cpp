// The main window driven through its widgets: the form, the path/mode rules, the log box and the message
// handler. Whole runs are in tst_mainwindow_runs.cpp.

#include "tst_mainwindow.h"

#include "support/TestSupport.h"
#include "support/WidgetLookup.h"
#include "support/WindowTest.h"

#include <QApplication>
#include <QCheckBox>
#include <QFileDialog>
#include <QGroupBox>
#include <QImageReader>
#include <QLabel>
#include <QLayout>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QProcess>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QSettings>
#include <QStatusBar>
#include <QTabWidget>
#include <QTextBlock>
#include <QTimer>
#include <QXmlStreamReader>
#include <QtEndian>
#include <QtTest>

#include <cstdio>
#include <cstdlib>

using TestSupport::hex;
using TestSupport::logLines;

namespace {

const char* const kPressExit = "--press-exit";

// "Class name" of a widget, "Class name(items...)" of a layout, items in layout order.
QString layoutTree(QLayoutItem* item)
{
    if (QWidget* widget = item->widget())
        return QString("%1 %2").arg(widget->metaObject()->className(), widget->objectName());
    QLayout* layout = item->layout();
    QStringList items;
    for (int i = 0; i < layout->count(); ++i)
        items << layoutTree(layout->itemAt(i));
    return QString("%1 %2(%3)")
        .arg(layout->metaObject()->className(), layout->objectName(), items.join(", "));
}

QtMessageHandler currentHandler()
{
    const QtMessageHandler handler = qInstallMessageHandler(nullptr);
    qInstallMessageHandler(handler);
    return handler;
}

// The properties set directly on one widget of the form file, for the values the constructor
// replaces at run time.
QMap<QString, QString> formProperties(const QString& widgetName)
{
    QMap<QString, QString> values;
    QXmlStreamReader xml(TestSupport::readFile(QFINDTESTDATA("../Code/app/MainWindow.ui")));
    while (!xml.atEnd()
           && !(xml.readNext() == QXmlStreamReader::StartElement && xml.name() == QLatin1String("widget")
                && xml.attributes().value("name") == widgetName)) {
    }
    // Every <property> of the widget holds exactly one value element (<string>, <number>, <iconset>...).
    while (xml.readNextStartElement()) {
        const QString name = xml.attributes().value("name").toString();
        if (xml.name() == QLatin1String("property") && xml.readNextStartElement())
            values.insert(name, xml.readElementText(QXmlStreamReader::IncludeChildElements));
        xml.skipCurrentElement();
    }
    return values;
}

} // namespace

void TestMainWindow::initTestCase()
{
    QVERIFY(!QFileInfo::exists(kMissingPath));
    QVERIFY(TestSupport::useTestSettings(m_settingsDir));
}

void TestMainWindow::init()
{
    // Every test starts from fresh settings: a remembered interchange choice would change its runs.
    QSettings settings;
    settings.clear();
    settings.sync();
    QCOMPARE(settings.status(), QSettings::NoError);
}

void TestMainWindow::cleanup()
{
    QCOMPARE(mainWindowInstance, static_cast<MainWindow*>(nullptr));
}

void TestMainWindow::formTree()
{
    MainWindow window;
    QCOMPARE(window.objectName(), QString("MainWindow"));
    QCOMPARE(window.centralWidget()->objectName(), QString("centralWidget"));
    QCOMPARE(window.statusBar()->objectName(), QString("statusBar"));

    QLayout* top = window.centralWidget()->layout();
    QCOMPARE(layoutTree(top),
             QString("QVBoxLayout verticalLayout_2("
                     "QHBoxLayout horizontalLayout_2(QLabel descriptionLabel, QGroupBox scanModeGroup), "
                     "QVBoxLayout verticalLayout(QLabel label, "
                     "QHBoxLayout horizontalLayout(QLineEdit drivePathEdit, QPushButton browseButton), "
                     "QHBoxLayout outputLayout("
                     "QCheckBox copyToFolder, QLineEdit outputPathEdit, QPushButton outputBrowseButton)), "
                     "QTabWidget runViews, "
                     "QHBoxLayout horizontalLayout_3("
                     "QProgressBar progressBar, QPushButton startButton, QPushButton exitButton))"));
    QCOMPARE(top->contentsMargins(), QMargins(11, 11, 11, 11));

    // The log is the first tab and the whole of its page; the per-file table is the second.
    auto* views = child<QTabWidget>(&window, "runViews");
    QCOMPARE(views->count(), 2);
    QCOMPARE(views->currentIndex(), 0);
    QCOMPARE(layoutTree(views->widget(0)->layout()),
             QString("QVBoxLayout reportLayout(QPlainTextEdit outputWindow)"));
    QCOMPARE(views->widget(0)->layout()->contentsMargins(), QMargins());
    QCOMPARE(layoutTree(views->widget(1)->layout()),
             QString("QVBoxLayout filesLayout(QLabel outcomeSummary, QTableView outcomeTable)"));

    QStringList radios;
    for (QRadioButton* radio : child<QGroupBox>(&window, "scanModeGroup")->findChildren<QRadioButton*>())
        radios << radio->objectName() + " in " + radio->parentWidget()->objectName();
    QCOMPARE(radios, (QStringList{"scanAndFinalize in scanModeGroup", "scanOnly in scanModeGroup"}));
    QCOMPARE(child<QCheckBox>(&window, "interchangeFinish")->parentWidget()->objectName(),
             QString("scanModeGroup"));
}

void TestMainWindow::formTextsAndGeometry()
{
    MainWindow window;
    QCOMPARE(window.size(), QSize(532, 550));
    QCOMPARE(window.sizePolicy().horizontalPolicy(), QSizePolicy::Preferred);
    QCOMPARE(window.sizePolicy().verticalPolicy(), QSizePolicy::Preferred);

    QLabel* description = child<QLabel>(&window, "descriptionLabel");
    // The form's minimum; at run time the description is as wide as its lines need to fit beside the
    // scan modes.
    QCOMPARE(formProperties("descriptionLabel").value("minimumSize").simplified(), QString("0 50"));
    QCOMPARE(description->minimumHeight(), 50);
    QCOMPARE(description->alignment(), Qt::AlignLeft | Qt::AlignTop);
    QVERIFY(description->wordWrap());

    QGroupBox* group = child<QGroupBox>(&window, "scanModeGroup");
    // The form's minimum; at run time the group is at least as tall as its choices need.
    QCOMPARE(formProperties("scanModeGroup").value("minimumSize").simplified(), QString("0 70"));
    QVERIFY(group->minimumHeight() >= 70 && group->minimumWidth() == 0);
    QVERIFY(description->heightForWidth(description->minimumWidth()) <= group->minimumHeight());
    QCOMPARE(group->title(), QString("Scan Mode"));

    // The form places the choices at fixed places; the window lays them out by their size at run
    // time, so a larger font never cuts them off (the window's own tests check that).
    QCOMPARE(formProperties("scanAndFinalize").value("geometry").simplified(), QString("10 20 171 17"));
    QCOMPARE(formProperties("scanOnly").value("geometry").simplified(), QString("10 40 191 17"));
    QCOMPARE(formProperties("interchangeFinish").value("geometry").simplified(), QString("10 64 271 17"));

    // Each text reads as ever; an ampersand marks the letter Alt takes to it.
    const auto shown = [](const QAbstractButton* button) { return QString(button->text()).remove('&'); };
    QRadioButton* finalize = child<QRadioButton>(&window, "scanAndFinalize");
    QCOMPARE(shown(finalize), QString("Scan and finalize files."));
    QCOMPARE(finalize->toolTip(), QString("Scans for unfinalized files and finalizes them."));
    QCOMPARE(finalize->statusTip(), QString());

    QRadioButton* scanOnly = child<QRadioButton>(&window, "scanOnly");
    QCOMPARE(shown(scanOnly), QString("Scan only, do not finalize."));
    QCOMPARE(scanOnly->toolTip(), QString("Scans for unfinalized files, but does not finalize them."));

    QCheckBox* interchange = child<QCheckBox>(&window, "interchangeFinish");
    QCOMPARE(shown(interchange), QString("Finish for every player (interchange)"));
    QCOMPARE(interchange->toolTip(),
             QString("Writes an index that every common player and editor reads right: 16-bit sound as "
                     "'sowt', the start timecode as readers count it, each track as long as its own "
                     "media. Off: the finish the recorder maker's own tools produce."));

    QCOMPARE(child<QLabel>(&window, "label")->text().remove('&'), QString("Drive/ path to scan:"));
    QCOMPARE(shown(child<QPushButton>(&window, "browseButton")), QString("Browse..."));
    QCOMPARE(shown(child<QPushButton>(&window, "startButton")), QString("Start"));
    QCOMPARE(shown(child<QPushButton>(&window, "exitButton")), QString("Exit"));
    const QMap<QString, QString> texts{{"scanAndFinalize", "Scan and finalize files."},
                                       {"scanOnly", "Scan only, do not finalize."},
                                       {"label", "Drive/ path to scan:"}, {"browseButton", "Browse..."},
                                       {"startButton", "Start"}, {"exitButton", "Exit"}};
    for (auto it = texts.begin(); it != texts.end(); ++it)
        QCOMPARE(formProperties(it.key()).value("text"), it.value());
    QCOMPARE(child<QProgressBar>(&window, "progressBar")->format(), QString());
}

void TestMainWindow::formFileValuesReplacedAtRunTime()
{
    // The constructor overwrites these, so they are only visible in the form itself.
    const QMap<QString, QString> windowProps = formProperties("MainWindow");
    QCOMPARE(windowProps.value("windowTitle"), QString("Finalizer"));
    QCOMPARE(windowProps.value("windowIcon").trimmed(),
             QString(":/new/icons/CWIcon32.png:/new/icons/CWIcon32.png"));
    QCOMPARE(formProperties("descriptionLabel").value("text"),
             QString("Finalizer will scan the specified drive/path."));
    const QMap<QString, QString> bar = formProperties("progressBar");
    QCOMPARE(bar.value("value"), QString("24"));
    QVERIFY(bar.contains("format"));
    QCOMPARE(bar.value("format"), QString());
}

void TestMainWindow::stateAfterConstruction()
{
    MainWindow window;
    QCOMPARE(mainWindowInstance, &window);
    QVERIFY(currentHandler() == &debugHandler);

    QCOMPARE(window.windowTitle(), QString("Clipward version 1.4.4"));
    QCOMPARE(child<QLabel>(&window, "descriptionLabel")->text(),
             QString("Clipward will scan through a drive/path, "
                     "rebuilding files that did not properly close."));

    QProgressBar* bar = child<QProgressBar>(&window, "progressBar");
    QCOMPARE(bar->minimum(), 0);
    QCOMPARE(bar->maximum(), 100);
    QCOMPARE(bar->value(), -1); // reset: no progress shown

    QVERIFY(child<QRadioButton>(&window, "scanAndFinalize")->isChecked());
    QVERIFY(!child<QRadioButton>(&window, "scanOnly")->isChecked());
    QVERIFY(!child<QCheckBox>(&window, "interchangeFinish")->isChecked());
    QVERIFY(child<QCheckBox>(&window, "interchangeFinish")->isEnabled());
    QVERIFY(!child<QPushButton>(&window, "startButton")->isEnabled());
    QVERIFY(child<QPushButton>(&window, "browseButton")->isEnabled());
    QVERIFY(child<QPushButton>(&window, "exitButton")->isEnabled());
    QVERIFY(child<QLineEdit>(&window, "drivePathEdit")->text().isEmpty());
    QCOMPARE(child<QPlainTextEdit>(&window, "outputWindow")->maximumBlockCount(), 4000);
    QCOMPARE(child<QPlainTextEdit>(&window, "outputWindow")->toPlainText(), QString());
}

void TestMainWindow::iconFileLayout()
{
    MainWindow window;
    const QList<QSize> sizes = window.windowIcon().availableSizes();
    for (int side : {16, 24, 32, 48, 256})
        QVERIFY2(sizes.contains(QSize(side, side)), qPrintable(QString::number(side)));

    QImageReader reader(":/new/icons/CWIcon32.png");
    QCOMPARE(reader.format(), QByteArray("ico"));
    QCOMPARE(reader.imageCount(), 5);

    const QByteArray ico = TestSupport::readFile(":/new/icons/CWIcon32.png");
    QVERIFY(ico.size() > 6 + 5 * 16);
    QCOMPARE(ico.left(6), hex("0000 0100 0500")); // reserved, type icon, five images
    const int sides[] = {16, 24, 32, 48, 0}; // 0 stands for 256
    for (int i = 0; i < 5; ++i) {
        const QByteArray entry = ico.mid(6 + 16 * i, 16);
        QCOMPARE(quint8(entry[0]), quint8(sides[i]));
        QCOMPARE(quint8(entry[1]), quint8(sides[i]));
        QCOMPARE(entry.mid(4, 4), hex("0100 2000")); // one plane, 32 bits per pixel
        const quint32 length = qFromLittleEndian<quint32>(entry.constData() + 8);
        const quint32 offset = qFromLittleEndian<quint32>(entry.constData() + 12);
        QVERIFY(offset + length <= quint32(ico.size()));
        const QByteArray image = ico.mid(int(offset), int(length));
        if (sides[i] != 0) {
            // BITMAPINFOHEADER: size 40, width, doubled height (image + mask), 1 plane, 32 bits.
            QCOMPARE(image.left(4), hex("2800 0000"));
            QCOMPARE(qFromLittleEndian<qint32>(image.constData() + 4), sides[i]);
            QCOMPARE(qFromLittleEndian<qint32>(image.constData() + 8), 2 * sides[i]);
            QCOMPARE(image.mid(12, 4), hex("0100 2000"));
            const int maskStride = ((sides[i] + 31) / 32) * 4;
            QCOMPARE(int(length), 40 + sides[i] * sides[i] * 4 + maskStride * sides[i]);
        } else {
            QCOMPARE(image.left(8), hex("89504E47 0D0A1A0A"));
            QCOMPARE(image.mid(12, 12), hex("49484452 00000100 00000100")); // IHDR 256 x 256
            QCOMPARE(image, TestSupport::readFile(QFINDTESTDATA("../Code/app/icons/clipward-256.png")));
        }
    }
}

void TestMainWindow::emptyPathDisablesStart()
{
    auto window = makeWindow();
    QLineEdit* edit = child<QLineEdit>(window.get(), "drivePathEdit");
    QPushButton* start = child<QPushButton>(window.get(), "startButton");
    QPlainTextEdit* box = child<QPlainTextEdit>(window.get(), "outputWindow");

    QVERIFY(!start->isEnabled());
    window->output("earlier line");
    QTest::keyClicks(edit, "/");
    QVERIFY(start->isEnabled());
    QCOMPARE(box->toPlainText(), QString());

    window->output("earlier line");
    QTest::keyClick(edit, Qt::Key_Backspace);
    QCOMPARE(edit->text(), QString());
    QVERIFY(!start->isEnabled());
    QCOMPARE(box->toPlainText(), QString());
}

void TestMainWindow::changingScanModeClearsOutput()
{
    auto window = makeWindow();
    QPlainTextEdit* box = child<QPlainTextEdit>(window.get(), "outputWindow");
    QRadioButton* finalize = child<QRadioButton>(window.get(), "scanAndFinalize");
    QRadioButton* scanOnly = child<QRadioButton>(window.get(), "scanOnly");

    window->output("earlier line");
    QTest::mouseClick(scanOnly, Qt::LeftButton);
    QVERIFY(scanOnly->isChecked());
    QVERIFY(!finalize->isChecked());
    QCOMPARE(box->toPlainText(), QString());

    window->output("earlier line");
    QTest::mouseClick(finalize, Qt::LeftButton);
    QVERIFY(finalize->isChecked());
    QCOMPARE(box->toPlainText(), QString());
}

void TestMainWindow::browsePutsPickedFolderIntoPath()
{
    QTemporaryDir dir;
    const QString picked = dir.path() + "/CARD";
    QVERIFY(dir.isValid() && QDir().mkpath(picked));

    auto window = makeWindow();
    QLineEdit* edit = child<QLineEdit>(window.get(), "drivePathEdit");
    window->output("earlier line");

    QString caption;
    bool dirsOnly = false, seen = false;
    // The dialog runs its own event loop; answer it from there once it is up.
    auto answer = [&](bool accept) {
        auto* poll = new QTimer(this);
        connect(poll, &QTimer::timeout, this, [&, accept, poll] {
            auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
            if (!dialog || !dialog->isVisible())
                return;
            poll->deleteLater();
            seen = true;
            caption = dialog->windowTitle();
            dirsOnly = dialog->testOption(QFileDialog::ShowDirsOnly);
            if (!accept) {
                dialog->reject();
                return;
            }
            dialog->setDirectory(picked); // with nothing selected, a folder picker returns where it is
            QMetaObject::invokeMethod(dialog, "accept");
        });
        poll->start(10);
        // Never leave the test waiting in a dialog nobody answers.
        QTimer::singleShot(10000, poll, [] {
            if (QWidget* modal = QApplication::activeModalWidget())
                modal->close();
        });
    };

    answer(false);
    QTest::mouseClick(child<QPushButton>(window.get(), "browseButton"), Qt::LeftButton);
    QVERIFY(seen);
    QCOMPARE(caption, QString("Drive/path to scan."));
    QVERIFY(dirsOnly);
    QCOMPARE(edit->text(), QString()); // cancelled: path unchanged
    QVERIFY(logLines(*window).contains("earlier line")); // not cleared: the path did not change

    seen = false;
    answer(true);
    QTest::mouseClick(child<QPushButton>(window.get(), "browseButton"), Qt::LeftButton);
    QVERIFY(seen);
    QCOMPARE(edit->text(), picked);
    QVERIFY(child<QPushButton>(window.get(), "startButton")->isEnabled());
    QCOMPARE(child<QPlainTextEdit>(window.get(), "outputWindow")->toPlainText(), QString());
}

void TestMainWindow::logKeepsLatest4000Lines()
{
    auto window = makeWindow();
    for (int i = 1; i <= 5000; ++i)
        window->output(QString("line %1").arg(i));
    QTextDocument* document = child<QPlainTextEdit>(window.get(), "outputWindow")->document();
    QCOMPARE(document->blockCount(), 4000);
    QCOMPARE(document->firstBlock().text(), QString("line 1001"));
    QCOMPARE(document->lastBlock().text(), QString("line 5000"));
}

void TestMainWindow::oneTrailingNewlineDropped()
{
    auto window = makeWindow();
    QPlainTextEdit* box = child<QPlainTextEdit>(window.get(), "outputWindow");
    box->clear(); // drops what the platform logged while the window was shown

    window->output("a\n");
    QCOMPARE(box->toPlainText(), QString("a"));
    QCOMPARE(box->document()->blockCount(), 1);

    window->output("b\n\n");
    QCOMPARE(box->toPlainText(), QString("a\nb\n"));
    QCOMPARE(box->document()->blockCount(), 3);

    window->output("c");
    QCOMPARE(logLines(*window), (QStringList{"a", "b", "", "c"}));
}

void TestMainWindow::outputProcessesPendingEvents()
{
    auto window = makeWindow();
    bool delivered = false;
    QMetaObject::invokeMethod(this, [&] { delivered = true; }, Qt::QueuedConnection);
    QVERIFY(!delivered);
    window->output("line");
    QVERIFY(delivered); // the run stays responsive only through this
}

void TestMainWindow::debugHandlerRoutesEveryMessageType()
{
    auto window = makeWindow();
    child<QPlainTextEdit>(window.get(), "outputWindow")->clear();
    qDebug("debug %d", 1);
    qWarning("warning %s", "two");
    qCritical("critical\n");
    qInfo() << "info";
    debugHandler(QtFatalMsg, QMessageLogContext(), "fatal text"); // not raised: that would abort
    const QStringList expected{"debug 1", "warning two", "critical", "info", "fatal text"};
    QCOMPARE(logLines(*window), expected);
}

void TestMainWindow::exitButtonEndsTheProgramWithStatusZero()
{
    // Exit ends the process at once, so it is pressed in a second run of this program.
    QProcess program;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("QT_QPA_PLATFORM", "offscreen");
    env.insert("XDG_CONFIG_HOME", m_settingsDir.path()); // nothing of the user's settings is read
    // Nothing is torn down on the way out: a leak check at exit would only report the window.
    env.insert("ASAN_OPTIONS", env.value("ASAN_OPTIONS") + ":detect_leaks=0");
    program.setProcessEnvironment(env);
    program.start(QCoreApplication::applicationFilePath(), {QString(kPressExit)});
    QVERIFY(program.waitForFinished(60000));
    QCOMPARE(program.exitStatus(), QProcess::NormalExit);
    QCOMPARE(program.exitCode(), 0);
    QCOMPARE(program.readAllStandardOutput(), QByteArray("window shown\n"));
}

void TestMainWindow::handlerGoneWithWindow()
{
    const QtMessageHandler before = currentHandler();
    QVERIFY(before != &debugHandler);
    {
        MainWindow window;
        QVERIFY(currentHandler() == &debugHandler);
    }
    QCOMPARE(mainWindowInstance, static_cast<MainWindow*>(nullptr));
    QVERIFY(currentHandler() == before);
    // With no window the handler drops the message instead of calling into freed memory.
    debugHandler(QtDebugMsg, QMessageLogContext(), "after the window");
}

void TestMainWindow::getDriveAndCheckDrive()
{
    MainWindow window;
    QCOMPARE(window.getDrive("/Volumes/CARD"), QString("/V"));
    QCOMPARE(window.getDrive("/Volumes/CARD/DCIM/A001.zqv"), QString("/V"));
    QCOMPARE(window.getDrive("/x"), QString("/"));
    QCOMPARE(window.checkDrive("/Volumes/CARD", true), 2);
    QCOMPARE(window.checkDrive(QString(), false), 2);
}

void TestMainWindow::browseOpensAtTheTypedFolder()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid() && QDir().mkpath(dir.path() + "/CARD/DCIM"));
    auto window = makeWindow();
    QLineEdit* edit = child<QLineEdit>(window.get(), "drivePathEdit");

    QString opened;
    auto cancelWhenUp = [&] {
        auto* poll = new QTimer(this);
        connect(poll, &QTimer::timeout, this, [&, poll] {
            auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
            if (!dialog || !dialog->isVisible())
                return;
            poll->deleteLater();
            opened = dialog->directory().absolutePath();
            dialog->reject();
        });
        poll->start(10);
    };

    edit->setText(dir.path() + "/CARD/DCIM");
    QCOMPARE(window->browseStartFolder(), dir.path() + "/CARD/DCIM");
    cancelWhenUp();
    QTest::mouseClick(child<QPushButton>(window.get(), "browseButton"), Qt::LeftButton);
    QCOMPARE(opened, dir.path() + "/CARD/DCIM");

    // A path that does not exist (yet) leaves the picker where it opens by itself.
    edit->setText(dir.path() + "/CARD/MISSING");
    QCOMPARE(window->browseStartFolder(), QString());
    edit->clear();
    QCOMPARE(window->browseStartFolder(), QString());
}

std::unique_ptr<MainWindow> TestMainWindow::makeWindow()
{
    std::unique_ptr<MainWindow> window(new MainWindow);
    window->show();
    if (!QTest::qWaitForWindowExposed(window.get()))
        qWarning("window not exposed");
    return window;
}

// With kPressExit the program shows the window and presses Exit; returning from the click at all is a
// failure (status 1). Otherwise it runs the tests.
int main(int argc, char* argv[])
{
    if (argc == 2 && qstrcmp(argv[1], kPressExit) == 0) {
        QApplication app(argc, argv);
        MainWindow window;
        window.show();
        std::printf("window shown\n");
        std::fflush(stdout);
        QTimer::singleShot(0, [&window] { window.findChild<QPushButton*>("exitButton")->click(); });
        QTimer::singleShot(0, [] { std::exit(1); });
        return app.exec();
    }
    QApplication app(argc, argv);
    TestMainWindow tests;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&tests, argc, argv);
}
