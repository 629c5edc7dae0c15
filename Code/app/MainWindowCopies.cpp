// Finishing copies instead of the card's files: the check box, the folder for the copies and its Browse,
// remembered from one session to the next, and the bar that shows the copies' progress during a run.

#include "MainWindow.h"
#include "ui_MainWindow.h"

#include "finalize/FinalizeRun.h"

#include <QCoreApplication>
#include <QDir>
#include <QSettings>
#include <QStatusBar>

namespace {

// Whether Start finishes copies, and into which folder; remembered from one session to the next.
const char* const kCopiesKey = "copies/enabled";
const char* const kCopiesFolderKey = "copies/folder";

// Between the rows of the path and the copies' folder.
const int kPathRowsSpacing = 3;

// The bar counts the run's bytes in thousandths, so a run of any size fits its int range.
const int kBarSteps = 1000;

} // namespace

void MainWindow::setUpCopyChoice()
{
    // The path's label, the path and the copies' folder are one block, set close: the window stays short
    // enough for a small screen with the folder's row.
    ui->verticalLayout->setSpacing(kPathRowsSpacing);
    const QSettings settings;
    ui->outputPathEdit->setText(settings.value(kCopiesFolderKey).toString());
    ui->copyToFolder->setChecked(settings.value(kCopiesKey, false).toBool());
    showCopyChoice(false);
    connect(ui->copyToFolder, &QCheckBox::toggled, this, [this](bool copies) {
        QSettings().setValue(kCopiesKey, copies);
        showCopyChoice(false);
        updateStartButton();
    });
    connect(ui->outputPathEdit, &QLineEdit::textChanged, this, [this](const QString& folder) {
        QSettings().setValue(kCopiesFolderKey, folder);
        updateStartButton();
    });
    connect(ui->outputBrowseButton, &QPushButton::clicked, this, &MainWindow::browseForCopiesFolder);
}

void MainWindow::showCopyChoice(bool running)
{
    const bool copies = ui->copyToFolder->isChecked() && !running;
    ui->outputPathEdit->setEnabled(copies);
    ui->outputBrowseButton->setEnabled(copies);
}

void MainWindow::updateStartButton()
{
    const bool hasPath = !ui->drivePathEdit->text().isEmpty();
    const bool hasFolder = !ui->copyToFolder->isChecked() || !ui->outputPathEdit->text().isEmpty();
    ui->startButton->setEnabled(hasPath && hasFolder);
}

QString MainWindow::copiesFolder() const
{
    const QString folder = fromStartFolder(ui->outputPathEdit->text());
    return ui->copyToFolder->isChecked() && !folder.isEmpty() ? QDir::cleanPath(folder) : QString();
}

bool MainWindow::refuseCopiesFolder(const QString& path)
{
    if (!ui->copyToFolder->isChecked())
        return false;
    const QString folder = copiesFolder();
    if (folder.isEmpty())
        statusBar()->showMessage(tr("Not started: choose the folder for the copies."));
    else if (FinalizeRun::outputInsidePath(path, folder))
        statusBar()->showMessage(
            tr("Not started: the folder for the copies must not be inside the drive/path to scan."));
    else
        return false;
    return true;
}

void MainWindow::browseForCopiesFolder()
{
    askForFolder(ui->outputPathEdit, tr("Folder for the finished copies."));
}

void MainWindow::showCopyProgress(const CopyProgress& progress)
{
    // A copy can take minutes with no line logged: the lines before it show now.
    showHeldLines();
    QProgressBar* bar = ui->progressBar;
    bar->setFormat(tr("Copying %1 of %2: %p%").arg(progress.fileNumber).arg(progress.fileCount));
    bar->setRange(0, kBarSteps);
    bar->setValue(progress.runSize > 0 ? int(progress.runDone * kBarSteps / progress.runSize) : kBarSteps);
    // The run is synchronous on this thread: the bar moves when events are handled.
    QCoreApplication::processEvents();
}
