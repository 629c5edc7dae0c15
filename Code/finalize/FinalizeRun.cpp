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

namespace {

// A file of a command on given files that was refused or left: "     PATH not VERB: REASON."
QString notDoneLine(const QString& path, const char* verb, const QString& reason)
{
    return QString("     %1 not %2: %3.").arg(path, verb, reason);
}

QString inUseLine(const QString& path)
{
    return QString("     %1 in use by another run, left as it is").arg(path);
}

} // namespace

FinalizeRun::Summary FinalizeRun::eachGivenFile(const QStringList& files, const char* verb,
    const QString& doneLine, const std::function<FileLine(const QString& path)>& treat)
{
    Summary summary;
    summary.pathExists = true;
    for (const QString& each : files) {
        const FileLine line = treat(QFileInfo(each).absoluteFilePath());
        emit output(line.text);
        ++(summary.*line.count);
    }
    emit output(" ");
    if (summary.badCount != 0)
        emit output(QString("%1 file(s) not %2.").arg(summary.badCount).arg(verb));
    if (summary.leftCount != 0)
        emit output(QString("%1 file(s) left as they are.").arg(summary.leftCount));
    emit output(doneLine.arg(summary.goodCount));
    return summary;
}

FinalizeRun::Summary FinalizeRun::rewriteForInterchange(const QStringList& files)
{
    Finalize driver;
    const auto rewrite = [&driver](const QString& path) -> FileLine {
        if (!QFileInfo(path).isFile())
            return {notDoneLine(path, "rewritten", "there is no such file"), &Summary::badCount};
        switch (driver.rewriteForInterchange(path)) {
        case Finalize::Rewrite::Rewritten:
            return {QString("     %1 rewritten for interchange.").arg(path), &Summary::goodCount};
        case Finalize::Rewrite::NotFinishedByClipward:
            return {notDoneLine(path, "rewritten", "Clipward did not finish this movie"), &Summary::badCount};
        case Finalize::Rewrite::Failed:
            return {notDoneLine(path, "rewritten", "its recording could not be finished again"),
                &Summary::badCount};
        case Finalize::Rewrite::InUse:
            return {inUseLine(path), &Summary::leftCount};
        case Finalize::Rewrite::LeftForTheCard:
            break;
        }
        return {notDoneLine(path, "rewritten", driver.notFinishedReason), &Summary::leftCount};
    };
    return eachGivenFile(files, "rewritten", "%1 movie(s) rewritten for interchange.", rewrite);
}

FinalizeRun::Summary FinalizeRun::restore(const QStringList& files)
{
    Finalize driver;
    const auto restore = [&driver](const QString& path) -> FileLine {
        QString restoredPath;
        switch (driver.restore(path, &restoredPath)) {
        case Finalize::Restore::Restored:
            return {QString("     %1 restored as %2.").arg(path, restoredPath), &Summary::goodCount};
        case Finalize::Restore::Refused:
            return {notDoneLine(path, "restored", driver.notFinishedReason), &Summary::badCount};
        case Finalize::Restore::InUse:
            return {inUseLine(path), &Summary::leftCount};
        case Finalize::Restore::LeftForTheCard:
            break;
        }
        return {notDoneLine(path, "restored", driver.notFinishedReason), &Summary::leftCount};
    };
    return eachGivenFile(files, "restored", "%1 file(s) restored.", restore);
}

QString FinalizeRun::driveOf(const QString& path)
{
    return QFileInfo(path).absolutePath().left(2);
}

void FinalizeRun::announce(const QStringList& paths)
{
    for (const QString& each : paths)
        emit output(QString("Checking drive: %1").arg(driveOf(each)));
    if (m_scanOnly) {
        emit output("Displaying files that require finalization.");
        emit output("No files will be modifed."); // spelled so on purpose: scripts match the line as it is
    } else {
        emit output("Scanning for unfinalized files.");
    }
}

void FinalizeRun::closeRun(const Summary& summary)
{
    // The lines for files and folders left alone appear only when there were such.
    emit output(" ");
    if (summary.badCount != 0)
        emit output(QString("%1 file(s) unrecoverable.").arg(summary.badCount));
    if (summary.leftCount != 0)
        emit output(QString("%1 file(s) left as they are.").arg(summary.leftCount));
    if (summary.unreadableFolderCount != 0)
        emit output(QString("%1 folder(s) could not be read.").arg(summary.unreadableFolderCount));
    if (!m_scanOnly) {
        if (summary.goodCount == 0 && summary.somethingLeft())
            emit output("No file has been finalized.");
        else if (summary.goodCount == 0)
            emit output("No unfinalized files found.");
        else
            emit output(QString("%1 file(s) have been successfully finalized.").arg(summary.goodCount));
    } else {
        // A diagnostic line every scan has always logged before its counts; kept on purpose, since the
        // report's lines (and the tests and scripts reading them) include it.
        qDebug("Test Debug");
        emit output(QString("%1 file(s) require finalizing.").arg(summary.goodCount));
        emit output("Run again with Scan Mode set to 'Scan and Finalize'");
    }
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
    driver.outputFolder = m_outputFolder;
    driver.overwrite = m_overwrite;
    connect(&driver, &Finalize::textOutput, this, &FinalizeRun::output);
    connect(&driver, &Finalize::fileDone, this, &FinalizeRun::fileDone);
    connect(&driver, &Finalize::copyProgress, this, &FinalizeRun::copyProgress);

    Summary summary;
    summary.pathExists = QDir(QDir::toNativeSeparators(path)).exists();
    announce(paths);
    driver.finalizeFolders(paths);
    QDir::setCurrent(currentBefore);

    summary.goodCount = driver.goodCount;
    summary.badCount = driver.badCount;
    summary.leftCount = driver.leftCount;
    summary.unreadableFolderCount = driver.unreadableFolderCount;
    closeRun(summary);
    return summary;
}

bool FinalizeRun::outputInsidePath(const QString& path, const QString& folder)
{
    const QString start = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
    const QString into = QDir::cleanPath(QFileInfo(folder).absoluteFilePath());
    return into == start || into.startsWith(start + '/');
}
