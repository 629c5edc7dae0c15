// The main window driven through its widgets: the form, the path/mode rules, the log box and a
// whole run, compared line by line with what clipward-cli prints for the same folder.

#include "MainWindow.h"
#include "simulate/RecordingSimulator.h"
#include "simulate/WavSimulator.h"
#include "support/TestSupport.h"
#include "support/WidgetLookup.h"
#include "support/WindowTest.h"

#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
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
#include <QTabWidget>
#include <QStatusBar>
#include <QTemporaryDir>
#include <QTextBlock>
#include <QTimer>
#include <QXmlStreamReader>
#include <QtEndian>
#include <QScrollBar>
#include <QSettings>
#include <QtTest>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

using TestSupport::hex;

namespace {

const char* const kPressExit = "--press-exit";

// A start path that cannot exist; its folder gives the drive "/n".
const char* const kMissingPath = "/nonexistent-clipward-test/CARD";

QStringList logLines(MainWindow& window)
{
    return child<QPlainTextEdit>(&window, "outputWindow")->toPlainText().split('\n');
}

// Types the path into the field and presses Start, as a user would.
void runOn(MainWindow& window, const QString& path, bool scanOnly)
{
    QLineEdit* edit = child<QLineEdit>(&window, "drivePathEdit");
    edit->clear();
    QTest::keyClicks(edit, path);
    QRadioButton* mode = child<QRadioButton>(&window, scanOnly ? "scanOnly" : "scanAndFinalize");
    QTest::mouseClick(mode, Qt::LeftButton);
    QTest::mouseClick(child<QPushButton>(&window, "startButton"), Qt::LeftButton);
}

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

// The controls a run switches off.
QList<QWidget*> runControls(QWidget* window)
{
    QList<QWidget*> controls;
    for (const char* name : {"scanModeGroup", "interchangeFinish", "drivePathEdit", "browseButton",
                             "startButton", "exitButton"})
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

class TestMainWindow : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(!QFileInfo::exists(kMissingPath));
        QVERIFY(TestSupport::useTestSettings(m_settingsDir));
    }

    void init()
    {
        // Every test starts from fresh settings: a remembered interchange choice would change its runs.
        QSettings settings;
        settings.clear();
        settings.sync();
        QCOMPARE(settings.status(), QSettings::NoError);
    }

    void cleanup()
    {
        QCOMPARE(mainWindowInstance, static_cast<MainWindow*>(nullptr));
    }

    void formTree()
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
                         "QHBoxLayout horizontalLayout(QLineEdit drivePathEdit, QPushButton browseButton)), "
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

    void formTextsAndGeometry()
    {
        MainWindow window;
        QCOMPARE(window.size(), QSize(532, 550));
        QCOMPARE(window.sizePolicy().horizontalPolicy(), QSizePolicy::Preferred);
        QCOMPARE(window.sizePolicy().verticalPolicy(), QSizePolicy::Preferred);

        QLabel* description = child<QLabel>(&window, "descriptionLabel");
        QCOMPARE(description->minimumSize(), QSize(0, 50));
        QCOMPARE(description->alignment(), Qt::AlignLeft | Qt::AlignTop);
        QVERIFY(description->wordWrap());

        QGroupBox* group = child<QGroupBox>(&window, "scanModeGroup");
        // The form's minimum; at run time the group is at least as tall as its choices need.
        QCOMPARE(formProperties("scanModeGroup").value("minimumSize").simplified(), QString("0 70"));
        QVERIFY(group->minimumHeight() >= 70 && group->minimumWidth() == 0);
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

    void formFileValuesReplacedAtRunTime()
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

    void stateAfterConstruction()
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

    void iconFileLayout()
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

    void emptyPathDisablesStart()
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

    void changingScanModeClearsOutput()
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

    void browsePutsPickedFolderIntoPath()
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

    void missingPathRun_data()
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

    void missingPathRun()
    {
        QFETCH(bool, scanOnly);
        QFETCH(QStringList, expected);

        auto window = makeWindow();
        window->output("left from before");
        runOn(*window, kMissingPath, scanOnly);
        QCOMPARE(logLines(*window), expected);
    }

    void scanOnlyRunOverTree()
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

    void runMatchesCli_data()
    {
        QTest::addColumn<bool>("scanOnly");
        QTest::addColumn<bool>("missing");
        QTest::newRow("scan only, tree") << true << false;
        QTest::newRow("scan only, missing path") << true << true;
        QTest::newRow("finalize, missing path") << false << true;
    }

    void runMatchesCli()
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

    void longRunKeepsItsLatest4000Lines()
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

    void finalizeRunMatchesCli()
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

    void controlsDisabledDuringRun()
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

    void interchangeChoiceIsRemembered()
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

    void interchangeFinishDeclaresSowt()
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

    void interchangeChoiceLeavesScanOnlyAlone()
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

    void logKeepsLatest4000Lines()
    {
        auto window = makeWindow();
        for (int i = 1; i <= 5000; ++i)
            window->output(QString("line %1").arg(i));
        QTextDocument* document = child<QPlainTextEdit>(window.get(), "outputWindow")->document();
        QCOMPARE(document->blockCount(), 4000);
        QCOMPARE(document->firstBlock().text(), QString("line 1001"));
        QCOMPARE(document->lastBlock().text(), QString("line 5000"));
    }

    void oneTrailingNewlineDropped()
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

    void outputProcessesPendingEvents()
    {
        auto window = makeWindow();
        bool delivered = false;
        QMetaObject::invokeMethod(this, [&] { delivered = true; }, Qt::QueuedConnection);
        QVERIFY(!delivered);
        window->output("line");
        QVERIFY(delivered); // the run stays responsive only through this
    }

    void debugHandlerRoutesEveryMessageType()
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

    void exitButtonEndsTheProgramWithStatusZero()
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

    void handlerGoneWithWindow()
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

    void getDriveAndCheckDrive()
    {
        MainWindow window;
        QCOMPARE(window.getDrive("/Volumes/CARD"), QString("/V"));
        QCOMPARE(window.getDrive("/Volumes/CARD/DCIM/A001.zqv"), QString("/V"));
        QCOMPARE(window.getDrive("/x"), QString("/"));
        QCOMPARE(window.checkDrive("/Volumes/CARD", true), 2);
        QCOMPARE(window.checkDrive(QString(), false), 2);
    }

    void setRunningTogglesControls()
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

    void closeRequestDuringARunIsRefused()
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

    void relativePathIsTakenFromTheStartFolder()
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

    void runGivesTheCurrentFolderBack()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        QVERIFY(TestSupport::writeFile(dir.path() + "/card/A001.zqa", "x"));
        const QString before = QDir::currentPath();
        auto window = makeWindow();
        runOn(*window, dir.path() + "/card", true);
        QCOMPARE(QDir::currentPath(), before);
    }

    void browseOpensAtTheTypedFolder()
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

private:
    QTemporaryDir m_settingsDir;

    std::unique_ptr<MainWindow> makeWindow()
    {
        std::unique_ptr<MainWindow> window(new MainWindow);
        window->show();
        if (!QTest::qWaitForWindowExposed(window.get()))
            qWarning("window not exposed");
        return window;
    }
};

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
#include "tst_mainwindow.moc"
