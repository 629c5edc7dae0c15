#include "MainWindow.h"
#include "ui_MainWindow.h"

#include "finalize/FinalizeRun.h"
#include "finalize/LogText.h"

#include <QAbstractTextDocumentLayout>
#include <QCloseEvent>
#include <QCoreApplication>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QMetaObject>
#include <QScrollBar>
#include <QSettings>
#include <QStatusBar>
#include <QTextCursor>
#include <QTextDocument>

#include <cstdlib>

MainWindow* mainWindowInstance = nullptr;

namespace {

// The log box keeps the latest lines of a long run; older ones fall off the top.
const int kMaxLogLines = 4000;

// The handler that was active before the window installed its own, put back when it goes.
QtMessageHandler previousHandler = nullptr;

// A run can log thousands of lines a second. The box's own append lays out and shapes each new line to
// scroll to it, and every repaint lays out what is in view; during a run the lines go into its document
// directly, where they are laid out only once shown, and the box is scrolled and repainted at most this
// often (milliseconds). Events are still processed after every line.
const qint64 kRunLogInterval = 33;

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
    ui->progressBar->reset();
    ui->scanAndFinalize->setChecked(true);
    ui->startButton->setEnabled(false);
    ui->outputWindow->setMaximumBlockCount(kMaxLogLines);
    setWindowTitle(QString("%1 version %2")
                       .arg(QCoreApplication::applicationName(), QCoreApplication::applicationVersion()));
    ui->descriptionLabel->setText(
        QString("%1 will scan through a drive/path, rebuilding files that did not properly close.")
            .arg(QCoreApplication::applicationName()));
    connect(ui->drivePathEdit, &QLineEdit::textChanged, this, &MainWindow::drivePathTextChanged);
    connect(ui->scanAndFinalize, &QRadioButton::toggled, this, &MainWindow::scanModeChanged);
    ui->interchangeFinish->setChecked(QSettings().value(kInterchangeKey, false).toBool());
    connect(ui->interchangeFinish, &QCheckBox::toggled, this, &MainWindow::finishStyleChanged);

    mainWindowInstance = this;
    previousHandler = qInstallMessageHandler(debugHandler);
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

void MainWindow::output(const QString& text)
{
    if (m_runInProgress)
        appendDuringRun(logLineText(text));
    else
        ui->outputWindow->appendPlainText(logLineText(text));
    // The run is synchronous on this thread: this is where the window repaints and the bar moves.
    QCoreApplication::processEvents();
}

void MainWindow::appendDuringRun(const QString& line)
{
    // A new paragraph, as appendPlainText makes one: an empty document takes the text in its first block.
    // One edit, so the document's layout sees a new block (laid out when shown), not a changed one (laid
    // out at once).
    QTextDocument* document = ui->outputWindow->document();
    QTextCursor cursor(document);
    cursor.beginEditBlock();
    cursor.movePosition(QTextCursor::End);
    if (!document->isEmpty())
        cursor.insertBlock();
    cursor.insertText(line);
    cursor.endEditBlock();

    if (!m_sinceLogShown.isValid() || m_sinceLogShown.hasExpired(kRunLogInterval))
        showLog();
    else
        ui->outputWindow->setUpdatesEnabled(false);
}

void MainWindow::showLog()
{
    // The box sizes its scroll bar from the last lines' layout whenever the document grows; between
    // showings that notice is held back, and given once here.
    QAbstractTextDocumentLayout* layout = ui->outputWindow->document()->documentLayout();
    layout->blockSignals(false);
    emit layout->documentSizeChanged(layout->documentSize());
    layout->blockSignals(m_runInProgress);
    ui->outputWindow->setUpdatesEnabled(true);
    QScrollBar* bar = ui->outputWindow->verticalScrollBar();
    if (bar->value() >= m_shownBottom)
        bar->setValue(bar->maximum());
    m_shownBottom = bar->maximum();
    ui->outputWindow->viewport()->update();
    m_sinceLogShown.restart();
}

void MainWindow::drivePathTextChanged(const QString& text)
{
    ui->startButton->setEnabled(!text.isEmpty());
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
    ui->outputWindow->clear();

    // output() pumps events during the run, so every control that could start another handler is off.
    ui->scanModeGroup->setEnabled(false);
    ui->interchangeFinish->setEnabled(false);
    ui->drivePathEdit->setEnabled(false);
    ui->browseButton->setEnabled(false);
    ui->startButton->setEnabled(false);
    ui->exitButton->setEnabled(false);
    ui->progressBar->setRange(0, 0);

    const Tern::FinishStyle style =
        ui->interchangeFinish->isChecked() ? Tern::FinishStyle::Interchange : Tern::FinishStyle::Recorder;
    FinalizeRun run(!ui->scanAndFinalize->isChecked(), style);
    connect(&run, &FinalizeRun::output, this, &MainWindow::output);
    m_runInProgress = true;
    m_sinceLogShown.invalidate();
    m_shownBottom = ui->outputWindow->verticalScrollBar()->maximum();
    run.run(typedPath());
    m_runInProgress = false;
    showLog();
    statusBar()->clearMessage();

    ui->scanModeGroup->setEnabled(true);
    ui->interchangeFinish->setEnabled(true);
    ui->drivePathEdit->setEnabled(true);
    ui->browseButton->setEnabled(true);
    ui->startButton->setEnabled(true);
    ui->exitButton->setEnabled(true);
    ui->progressBar->setRange(0, 100);
}

void MainWindow::on_browseButton_clicked()
{
    const QString folder = QFileDialog::getExistingDirectory(
        this, tr("Drive/path to scan."), browseStartFolder(), QFileDialog::ShowDirsOnly);
    if (!folder.isEmpty())
        ui->drivePathEdit->setText(folder);
}

QString MainWindow::typedPath() const
{
    const QString text = ui->drivePathEdit->text();
    return text.isEmpty() ? text : QDir(m_startFolder).filePath(text);
}

QString MainWindow::browseStartFolder() const
{
    const QString path = typedPath();
    return !path.isEmpty() && QFileInfo(path).isDir() ? QDir::cleanPath(path) : QString();
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
    ui->scanModeGroup->setEnabled(!running);
    ui->interchangeFinish->setEnabled(!running);
    ui->drivePathEdit->setEnabled(!running);
    ui->browseButton->setEnabled(!running);
    ui->startButton->setEnabled(!running);
    ui->exitButton->setEnabled(!running);
    ui->progressBar->setRange(0, running ? 0 : 100);
}

QString MainWindow::getDrive(const QString& path)
{
    return FinalizeRun::driveOf(path);
}

int MainWindow::checkDrive(const QString&, bool)
{
    return 2;
}
