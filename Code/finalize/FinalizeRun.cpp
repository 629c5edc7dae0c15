#include "finalize/FinalizeRun.h"

#include "finalize/Finalize.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QStringList>

FinalizeRun::FinalizeRun(bool scanOnly, Tern::FinishStyle style)
    : m_scanOnly(scanOnly)
    , m_style(style)
{
}

FinalizeRun::Summary FinalizeRun::rewriteForInterchange(const QStringList& files)
{
    Finalize driver;
    Summary summary;
    summary.pathExists = true;
    for (const QString& each : files) {
        const QString path = QFileInfo(each).absoluteFilePath();
        if (!QFileInfo(path).isFile()) {
            emit output(QString("     %1 not rewritten: there is no such file.").arg(path));
            ++summary.badCount;
            continue;
        }
        switch (driver.rewriteForInterchange(path)) {
        case Finalize::Rewrite::Rewritten:
            emit output(QString("     %1 rewritten for interchange.").arg(path));
            ++summary.goodCount;
            break;
        case Finalize::Rewrite::NotFinishedByClipward:
            emit output(QString("     %1 not rewritten: Clipward did not finish this movie.").arg(path));
            ++summary.badCount;
            break;
        case Finalize::Rewrite::Failed:
            emit output(
                QString("     %1 not rewritten: its recording could not be finished again.").arg(path));
            ++summary.badCount;
            break;
        case Finalize::Rewrite::InUse:
            emit output(QString("     %1 in use by another run, left as it is").arg(path));
            ++summary.leftCount;
            break;
        case Finalize::Rewrite::LeftForTheCard:
            emit output(QString("     %1 not rewritten: %2.").arg(path, driver.notFinishedReason));
            ++summary.leftCount;
            break;
        }
    }
    emit output(" ");
    if (summary.badCount != 0)
        emit output(QString("%1 file(s) not rewritten.").arg(summary.badCount));
    if (summary.leftCount != 0)
        emit output(QString("%1 file(s) left as they are.").arg(summary.leftCount));
    emit output(QString("%1 movie(s) rewritten for interchange.").arg(summary.goodCount));
    return summary;
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
    driver.finishStyle = m_style;
    driver.learnFacts = m_learnFacts;
    connect(&driver, &Finalize::textOutput, this, &FinalizeRun::output);
    connect(&driver, &Finalize::fileDone, this, &FinalizeRun::fileDone);

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
