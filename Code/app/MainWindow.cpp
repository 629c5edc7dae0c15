#include "MainWindow.h"
#include "ui_MainWindow.h"

#include "finalize/FinalizeRun.h"
#include "finalize/LogText.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileDialog>
#include <QMetaObject>

#include <cstdlib>

MainWindow* mainWindowInstance = nullptr;

namespace {

// The log box keeps the latest lines of a long run; older ones fall off the top.
const int kMaxLogLines = 4000;

// The handler that was active before the window installed its own, put back when it goes.
QtMessageHandler previousHandler = nullptr;

// A run can log thousands of lines a second. While it runs, the log box is repainted at most this often
// (milliseconds); in between it takes its lines with updates off, so painting every line never dominates
// the run. Events are still processed after every line.
const qint64 kRunRepaintIntervalMs = 33;
bool runInProgress = false;
QElapsedTimer sinceLogRepaint;

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
    if (runInProgress) {
        // Turning updates back on repaints the whole box once, with this line in it.
        const bool repaintDue
            = !sinceLogRepaint.isValid() || sinceLogRepaint.hasExpired(kRunRepaintIntervalMs);
        ui->outputWindow->setUpdatesEnabled(repaintDue);
        if (repaintDue)
            sinceLogRepaint.restart();
    }
    ui->outputWindow->appendPlainText(logLineText(text));
    // The run is synchronous on this thread: this is where the window repaints and the bar moves.
    QCoreApplication::processEvents();
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

void MainWindow::on_exitButton_clicked()
{
    std::exit(0);
}

void MainWindow::on_startButton_clicked()
{
    ui->outputWindow->clear();

    // output() pumps events during the run, so every control that could start another handler is off.
    ui->scanModeGroup->setEnabled(false);
    ui->drivePathEdit->setEnabled(false);
    ui->browseButton->setEnabled(false);
    ui->startButton->setEnabled(false);
    ui->exitButton->setEnabled(false);
    ui->progressBar->setRange(0, 0);

    FinalizeRun run(!ui->scanAndFinalize->isChecked());
    connect(&run, &FinalizeRun::output, this, &MainWindow::output);
    runInProgress = true;
    sinceLogRepaint.invalidate();
    run.run(ui->drivePathEdit->text());
    runInProgress = false;
    ui->outputWindow->setUpdatesEnabled(true); // the lines logged since the last repaint show now

    ui->scanModeGroup->setEnabled(true);
    ui->drivePathEdit->setEnabled(true);
    ui->browseButton->setEnabled(true);
    ui->startButton->setEnabled(true);
    ui->exitButton->setEnabled(true);
    ui->progressBar->setRange(0, 100);
}

void MainWindow::on_browseButton_clicked()
{
    const QString folder = QFileDialog::getExistingDirectory(this, tr("Drive/path to scan."), QString(),
                                                             QFileDialog::ShowDirsOnly);
    if (!folder.isEmpty())
        ui->drivePathEdit->setText(folder);
}

void MainWindow::setRunning(bool running)
{
    ui->scanModeGroup->setEnabled(!running);
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
