#include "finalize/FinalizeRun.h"

#include "finalize/Finalize.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QStringList>

FinalizeRun::FinalizeRun(bool scanOnly)
    : m_scanOnly(scanOnly)
{
}

QString FinalizeRun::driveOf(const QString& path)
{
    return QFileInfo(path).absolutePath().left(2);
}

FinalizeRun::Summary FinalizeRun::run(const QString& path)
{
    const QString currentBefore = QDir::currentPath();
    Finalize driver;
    QStringList paths;
    paths.append(path);
    driver.scanOnly = m_scanOnly;
    connect(&driver, &Finalize::textOutput, this, &FinalizeRun::output);

    Summary summary;
    summary.pathExists = QDir(QDir::toNativeSeparators(path)).exists();

    for (const QString& each : paths)
        emit output(QString("Checking drive: %1").arg(driveOf(each)));
    if (m_scanOnly) {
        emit output("Displaying files that require finalization.");
        emit output("No files will be modifed.");
    } else {
        emit output("Scanning for unfinalized files.");
    }

    driver.finalizeFolders(paths);

    QDir::setCurrent(currentBefore);

    summary.goodCount = driver.goodCount;
    summary.badCount = driver.badCount;
    summary.leftCount = driver.leftCount;
    summary.unreadableFolderCount = driver.unreadableFolderCount;

    // The lines for files and folders left alone appear only when there were such.
    emit output(" ");
    if (driver.badCount != 0)
        emit output(QString("%1 file(s) unrecoverable.").arg(driver.badCount));
    if (driver.leftCount != 0)
        emit output(QString("%1 file(s) left as they are.").arg(driver.leftCount));
    if (driver.unreadableFolderCount != 0)
        emit output(QString("%1 folder(s) could not be read.").arg(driver.unreadableFolderCount));
    if (!m_scanOnly) {
        if (driver.goodCount == 0 && summary.somethingLeft())
            emit output("No file has been finalized.");
        else if (driver.goodCount == 0)
            emit output("No unfinalized files found.");
        else
            emit output(QString("%1 file(s) have been successfully finalized.").arg(driver.goodCount));
    } else {
        qDebug("Test Debug");
        emit output(QString("%1 file(s) require finalizing.").arg(driver.goodCount));
        emit output("Run again with Scan Mode set to 'Scan and Finalize'");
    }
    return summary;
}
