#include "MainWindow.h"
#include "ui_MainWindow.h"

#include "finalize/FinalizeRun.h"
#include "finalize/LogText.h"

#include <QCoreApplication>
#include <QFileDialog>
#include <QMetaObject>

#include <cstdlib>

MainWindow* mainWindowInstance = nullptr;

namespace {

// The log box keeps the latest lines of a long run; older ones fall off the top.
const int kMaxLogLines = 4000;

// The handler that was active before the window installed its own, put back when it goes.
QtMessageHandler previousHandler = nullptr;

// A run can log thousands of lines a second, and the log box lays out and shapes the text of every line
// it is given at once. While a run is in progress it is given the new lines at most this often
// (milliseconds), all in one append, so it lays out only what it shows; the box lags the run by at most
// that. Events are still processed after every line.
const qint64 kRunLogInterval = 33;

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
    if (m_runInProgress) {
        m_pendingLog << logLineText(text);
        if (!m_sinceLogShown.isValid() || m_sinceLogShown.hasExpired(kRunLogInterval))
            showPendingLog();
    } else {
        ui->outputWindow->appendPlainText(logLineText(text));
    }
    // The run is synchronous on this thread: this is where the window repaints and the bar moves.
    QCoreApplication::processEvents();
}

void MainWindow::showPendingLog()
{
    if (!m_pendingLog.isEmpty())
        ui->outputWindow->appendPlainText(m_pendingLog.join(QLatin1Char('\n')));
    m_pendingLog.clear();
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
    m_runInProgress = true;
    m_sinceLogShown.invalidate();
    run.run(ui->drivePathEdit->text());
    m_runInProgress = false;
    showPendingLog();

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
