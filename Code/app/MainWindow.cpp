// The window's set-up, its run, and its place on the screen. The log box, saving and the keyboard are
// in MainWindowLog.cpp, MainWindowSaving.cpp and MainWindowKeyboard.cpp; the Files tab in OutcomeView.cpp.

#include "MainWindow.h"
#include "ui_MainWindow.h"

#include "OutcomeView.h"
#include "finalize/FinalizeRun.h"

#include <QAction>
#include <QCloseEvent>
#include <QCoreApplication>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QGroupBox>
#include <QMetaObject>
#include <QScreen>
#include <QSettings>
#include <QStatusBar>
#include <QTemporaryFile>
#include <QVBoxLayout>

#include <cstdlib>

MainWindow* mainWindowInstance = nullptr;

namespace {

// The handler that was active before the window installed its own, put back when it goes.
QtMessageHandler previousHandler = nullptr;

// The scan-mode group's minimum height in the form.
const int kScanModeGroupMinimumHeight = 70;
// The scan-mode group's margins around its choices, beside them and above and below.
const int kChoiceIndent = 9;
const int kChoiceMargin = 0;
// How far the description's width is widened at a time until its lines fit beside the scan modes.
const int kDescriptionWidthStep = 8;

// `path` when it is a folder, cleaned, where a folder picker can open; else empty (the picker's own).
QString existingFolderOrNone(const QString& path)
{
    return !path.isEmpty() && QFileInfo(path).isDir() ? QDir::cleanPath(path) : QString();
}

// Whether Start finishes in the interchange form; remembered from one session to the next.
const char* const kInterchangeKey = "finish/interchange";

} // namespace

// The icon resource lives in this static library and nothing else references it, so it is registered
// here. Outside any namespace: Q_INIT_RESOURCE declares the generated function in the enclosing one.
static void initResources()
{
    Q_INIT_RESOURCE(resources);
}

void debugHandler(QtMsgType, const QMessageLogContext&, const QString& message)
{
    if (mainWindowInstance)
        QMetaObject::invokeMethod(mainWindowInstance, "output", Qt::AutoConnection, Q_ARG(QString, message));
}

MainWindow::MainWindow(QWidget* parent)
    : QMainWindow(parent)
    , ui(new Ui::MainWindow)
    , m_startFolder(QDir::currentPath())
{
    initResources();
    ui->setupUi(this);
    setUpStartState();
    setUpLogBox();
    createSaveActions();
    setUpStatusStrip();
    layOutScanModes();
    showProgramName();
    connectPathAndChoices();
    setUpCopyChoice();
    setUpFilesTab();
    setUpKeyboard();
    routeMessagesToLog();
}

MainWindow::~MainWindow()
{
    // Messages logged after this point must not reach a window that is being destroyed.
    if (mainWindowInstance == this) {
        mainWindowInstance = nullptr;
        qInstallMessageHandler(previousHandler);
        previousHandler = nullptr;
    }
    delete ui;
}

void MainWindow::setUpStartState()
{
    ui->progressBar->reset();
    ui->scanAndFinalize->setChecked(true);
    ui->startButton->setEnabled(false);
    // The busy bar shows only during a run, keeping its place.
    QSizePolicy barPolicy = ui->progressBar->sizePolicy();
    barPolicy.setRetainSizeWhenHidden(true);
    ui->progressBar->setSizePolicy(barPolicy);
    ui->progressBar->hide();
}

void MainWindow::setUpStatusStrip()
{
    statusBar()->hide();
    connect(statusBar(), &QStatusBar::messageChanged, this,
            [this](const QString& message) { statusBar()->setVisible(!message.isEmpty()); });
}

void MainWindow::layOutScanModes()
{
    auto* modes = new QVBoxLayout(ui->scanModeGroup);
    modes->setObjectName("scanModeLayout");
    // Set close, as a list of choices: the window stays short enough for a small screen with the row of
    // the copies' folder below the path.
    modes->setSpacing(0);
    modes->setContentsMargins(kChoiceIndent, kChoiceMargin, kChoiceIndent, kChoiceMargin);
    for (QWidget* choice : {static_cast<QWidget*>(ui->scanAndFinalize), static_cast<QWidget*>(ui->scanOnly),
                            static_cast<QWidget*>(ui->interchangeFinish)})
        modes->addWidget(choice);
    // Styled now, so their sizes are known before the window first shows.
    ui->scanModeGroup->ensurePolished();
    for (QWidget* choice : ui->scanModeGroup->findChildren<QWidget*>())
        choice->ensurePolished();
    keepScanModesWhole();
}

void MainWindow::keepScanModesWhole()
{
    // The form's minimum height is a floor; the choices at the window's font, as styled, may need more.
    QGroupBox* group = ui->scanModeGroup;
    const int needed = qMax(kScanModeGroupMinimumHeight, group->layout()->totalMinimumSize().height());
    if (group->minimumHeight() != needed)
        group->setMinimumHeight(needed);
}

void MainWindow::keepDescriptionWhole()
{
    // The description wraps beside the scan modes: it is never narrower than its lines need to fit in the
    // modes' height, so the window's minimum height is what its layouts say.
    QLabel* label = ui->descriptionLabel;
    const int height = ui->scanModeGroup->minimumHeight();
    int width = label->minimumSizeHint().width();
    while (label->heightForWidth(width) > height && width < label->sizeHint().width())
        width += kDescriptionWidthStep;
    if (label->minimumWidth() != width)
        label->setMinimumWidth(width);
}

void MainWindow::showProgramName()
{
    setWindowTitle(QString("%1 version %2")
                       .arg(QCoreApplication::applicationName(), QCoreApplication::applicationVersion()));
    ui->descriptionLabel->setText(
        QString("%1 will scan through a drive/path, rebuilding files that did not properly close.")
            .arg(QCoreApplication::applicationName()));
    keepDescriptionWhole();
}

void MainWindow::connectPathAndChoices()
{
    connect(ui->drivePathEdit, &QLineEdit::textChanged, this, &MainWindow::drivePathTextChanged);
    connect(ui->scanAndFinalize, &QRadioButton::toggled, this, &MainWindow::scanModeChanged);
    ui->interchangeFinish->setChecked(QSettings().value(kInterchangeKey, false).toBool());
    connect(ui->interchangeFinish, &QCheckBox::toggled, this, &MainWindow::finishStyleChanged);
}

void MainWindow::setUpFilesTab()
{
    const OutcomeView::Widgets widgets{
        ui->runViews, ui->filesPage, ui->outcomeSummary, ui->outcomeTable, m_saveOutcomesAction};
    m_outcomeView = new OutcomeView(this, widgets, [this] { focusStartOrPath(); });
}

void MainWindow::routeMessagesToLog()
{
    mainWindowInstance = this;
    previousHandler = qInstallMessageHandler(debugHandler);
}

const OutcomeTableModel* MainWindow::outcomeTable() const
{
    return m_outcomeView->model();
}

void MainWindow::changeEvent(QEvent* event)
{
    QMainWindow::changeEvent(event);
    if (event->type() == QEvent::FontChange || event->type() == QEvent::StyleChange) {
        keepScanModesWhole();
        keepDescriptionWhole();
        if (m_outcomeView) // the Files tab sizes its rows itself when it is set up
            m_outcomeView->fitRows();
    }
}

void MainWindow::showEvent(QShowEvent* event)
{
    QMainWindow::showEvent(event);
    if (m_fittedToScreen)
        return;
    m_fittedToScreen = true;
    if (const QScreen* where = screen())
        fitIntoScreenArea(where->availableGeometry());
}

void MainWindow::fitIntoScreenArea(const QRect& available)
{
    // The frame the window manager adds counts; the layouts' minimum at this font is never undercut.
    const QSize frame = frameGeometry().size() - geometry().size();
    const QSize wanted = size().boundedTo(available.size() - frame).expandedTo(minimumSizeHint());
    if (wanted != size())
        resize(wanted);
    const QRect outer = frameGeometry();
    const int left = qBound(
        available.left(), outer.left(), qMax(available.left(), available.right() + 1 - outer.width()));
    const int top = qBound(
        available.top(), outer.top(), qMax(available.top(), available.bottom() + 1 - outer.height()));
    if (QPoint(left, top) != outer.topLeft())
        move(left, top);
}

void MainWindow::drivePathTextChanged(const QString&)
{
    updateStartButton();
    ui->outputWindow->clear();
}

void MainWindow::scanModeChanged()
{
    ui->outputWindow->clear();
}

void MainWindow::finishStyleChanged(bool interchange)
{
    QSettings().setValue(kInterchangeKey, interchange);
}

void MainWindow::on_exitButton_clicked()
{
    std::exit(0);
}

void MainWindow::on_startButton_clicked()
{
    const QString path = typedPath();
    if (refuseCopiesFolder(path))
        return;
    startRunReport();
    // The Files tab lists this run's files only, each as soon as its turn is over.
    m_outcomeView->clear(path);

    // output() pumps events during the run, so every control that could start another handler is off.
    showRunning(true);

    const Tern::FinishStyle style =
        ui->interchangeFinish->isChecked() ? Tern::FinishStyle::Interchange : Tern::FinishStyle::Recorder;
    FinalizeRun run(!ui->scanAndFinalize->isChecked(), style);
    // The table shows what each file holds: one read of its settings after its turn.
    run.setLearnFacts(true);
    run.setOutput(copiesFolder(), false);
    connect(&run, &FinalizeRun::output, this, &MainWindow::output);
    connect(&run, &FinalizeRun::copyProgress, this, &MainWindow::showCopyProgress);
    connect(&run, &FinalizeRun::fileDone, m_outcomeView, &OutcomeView::fileDone);
    m_runInProgress = true;
    m_outcomeView->runStarted();
    run.run(path);
    m_runInProgress = false;
    m_outcomeView->runFinished();
    endRunReport();
    statusBar()->clearMessage();

    showRunning(false);
    // The focus goes back where a keyboard user continues, never into the report.
    if (!ui->drivePathEdit->hasFocus() && !ui->startButton->hasFocus())
        ui->startButton->setFocus();
}

void MainWindow::showRunning(bool running)
{
    ui->scanModeGroup->setEnabled(!running); // the interchange box with it
    ui->drivePathEdit->setEnabled(!running);
    ui->browseButton->setEnabled(!running);
    ui->copyToFolder->setEnabled(!running);
    showCopyChoice(running);
    ui->startButton->setEnabled(!running);
    ui->exitButton->setEnabled(!running);
    m_saveOutcomesAction->setEnabled(!running && m_outcomeView->runEnded());
    // Busy until a copy tells how far the run is; without copies, busy throughout.
    ui->progressBar->setRange(0, running ? 0 : 100);
    ui->progressBar->setFormat(QString());
    ui->progressBar->setVisible(running);
}

void MainWindow::on_browseButton_clicked()
{
    askForFolder(ui->drivePathEdit, tr("Drive/path to scan."));
}

void MainWindow::askForFolder(QLineEdit* field, const QString& title)
{
    const QString folder = QFileDialog::getExistingDirectory(
        this, title, existingFolderOrNone(fromStartFolder(field->text())), QFileDialog::ShowDirsOnly);
    if (!folder.isEmpty())
        field->setText(folder);
}

QString MainWindow::fromStartFolder(const QString& text) const
{
    return text.isEmpty() ? text : QDir(m_startFolder).filePath(text);
}

QString MainWindow::typedPath() const
{
    return fromStartFolder(ui->drivePathEdit->text());
}

QString MainWindow::browseStartFolder() const
{
    return existingFolderOrNone(typedPath());
}

void MainWindow::closeEvent(QCloseEvent* event)
{
    if (m_runInProgress) {
        event->ignore();
        statusBar()->showMessage(
            tr("The run is still going: the window can be closed when it has finished."));
        return;
    }
    QMainWindow::closeEvent(event);
}

void MainWindow::setRunning(bool running)
{
    showRunning(running);
}

QString MainWindow::getDrive(const QString& path)
{
    return FinalizeRun::driveOf(path);
}

int MainWindow::checkDrive(const QString&, bool)
{
    return 2;
}
