// Finishing a copy instead of the card's file: the recording is copied (verified by hash) into a work
// folder inside the output folder, the family's procedure finishes the copy there, and the finished copy
// is renamed to its place under the output folder. The card's file is only read: nothing on the card is
// created, written, renamed or locked for writing. Until the last rename the copy has no finished name in
// the output folder, so a run cut short leaves only the work folder's leftovers, which the next run of
// the same recording clears first.

#include "finalize/Finalize.h"

#include "finalize/VerifiedCopy.h"
#include "movie/StableStorage.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>
#include <cstring>
#ifdef __linux__
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

namespace {

// The work folder, inside the output folder: on the same file system as the copies' places, so the last
// rename is one step.
const char* const kWorkFolder = ".clipward-partial";

// The copy's name in the work folder: the recording's, its extension in lower case as the procedures
// expect it ("A001.ZQV" is copied as "A001.zqv").
QString workName(const QString& recordingName)
{
    const QFileInfo info(recordingName);
    return info.completeBaseName() + '.' + info.suffix().toLower();
}

// The name a copy gets when finished (`finished`) or given up: a copy given up is never left under a
// finished name, whatever name the procedure gave it.
QString copyName(const QString& workName, bool finished)
{
    const QString base = QFileInfo(workName).completeBaseName();
    if (workName.endsWith(".zqa"))
        return base + (finished ? ".wav" : ".nra");
    return base + (finished ? ".mov" : ".nrv");
}

// Renames `from` to `to` without replacing a file already at `to`, unless `replace`. False with errno's
// reason in `failure` when the rename was not made.
bool renameInto(const QString& from, const QString& to, bool replace, QString* failure)
{
    const QByteArray source = QFile::encodeName(from);
    const QByteArray target = QFile::encodeName(to);
    int result = 0;
    if (replace) {
        result = std::rename(source.constData(), target.constData());
    } else {
#if defined(__linux__) && defined(SYS_renameat2)
        const unsigned kNoReplace = 1; // RENAME_NOREPLACE
        result = int(syscall(SYS_renameat2, AT_FDCWD, source.constData(), AT_FDCWD, target.constData(),
                             kNoReplace));
        if (result != 0 && (errno == EINVAL || errno == ENOSYS)) {
            // A file system without the flag: a hard link fails where the name is taken, like the flag.
            result = ::link(source.constData(), target.constData());
            if (result == 0)
                ::unlink(source.constData());
        }
#else
        if (QFileInfo::exists(to)) {
            errno = EEXIST;
            result = -1;
        } else {
            result = std::rename(source.constData(), target.constData());
        }
#endif
    }
    if (result != 0)
        *failure = QString::fromLocal8Bit(std::strerror(errno));
    return result == 0;
}

// How the copy was made and shown to hold the card's bytes, and the hash of those bytes, for the outcome.
void keepHowCopied(const VerifiedCopy::Result& copied, FileOutcome* outcome)
{
    const bool cloned = copied.method == VerifiedCopy::Method::Clone;
    outcome->copyMethod = cloned ? QStringLiteral("clone") : QStringLiteral("stream");
    if (!cloned)
        outcome->copyCheck = QStringLiteral("hashed as written");
    else if (copied.sharedBlocks)
        outcome->copyCheck = QStringLiteral("shared blocks");
    else
        outcome->copyCheck = QStringLiteral("read back");
    outcome->mediaHash = VerifiedCopy::hashText(copied.sourceHash);
}

// Removes what an earlier run of the same recording may have left in the work folder.
void clearLeftovers(const QString& workFolder, const QString& workName)
{
    const QDir work(workFolder);
    QFile::remove(work.filePath(workName));
    QFile::remove(work.filePath(copyName(workName, true)));
    QFile::remove(work.filePath(copyName(workName, false)));
}

} // namespace

QString Finalize::copyPlaceOf(const QString& path) const
{
    const QString relative = QDir(m_startFolder).relativeFilePath(path);
    return QDir(outputFolder).filePath(relative);
}

void Finalize::copyAndFinish(FileOutcome* outcome)
{
    const QString& path = outcome->pathBefore;
    const QFileInfo place(copyPlaceOf(path));
    const QString folder = place.absolutePath();
    const QString relativeFolder = QDir(outputFolder).relativeFilePath(folder);
    const QString workFolder =
        QDir::cleanPath(QDir(QDir(outputFolder).filePath(kWorkFolder)).filePath(relativeFolder));
    const QString name = workName(place.fileName());
    outcome->family = familyNameOf(familyByFirstAtom(path, QIODevice::ReadOnly));
    if (copyNameTaken(folder, name, outcome))
        return;
    if (!QDir().mkpath(folder) || !QDir().mkpath(workFolder)) {
        outcome->fate = FileOutcome::Fate::LeftForTheCard;
        outcome->reason = QString("the output folder %1 cannot be made").arg(folder);
        return;
    }
    clearLeftovers(workFolder, name);

    const QString copy = QDir(workFolder).filePath(name);
    const VerifiedCopy::Result copied = verifiedCopy(path, copy);
    if (copied.ok()) {
        keepHowCopied(copied, outcome);
        finishCopy(copy, folder, outcome);
    } else {
        outcome->fate = FileOutcome::Fate::LeftForTheCard;
        outcome->reason = copied.reason;
    }
    // The work folder goes as soon as nothing is left in it.
    QDir(outputFolder).rmpath(QDir::cleanPath(QString(kWorkFolder) + '/' + relativeFolder));
}

bool Finalize::copyNameTaken(const QString& folder, const QString& workName, FileOutcome* outcome) const
{
    // A finished or given-up name already taken in the output folder is never replaced unasked.
    for (const bool finished : {true, false}) {
        const QString taken = QDir(folder).filePath(copyName(workName, finished));
        if (!overwrite && QFileInfo::exists(taken)) {
            outcome->fate = FileOutcome::Fate::CopyExists;
            outcome->reason = QString("%1 already exists").arg(taken);
            return true;
        }
    }
    return false;
}

VerifiedCopy::Result Finalize::verifiedCopy(const QString& path, const QString& copy)
{
    VerifiedCopy::Options options;
    options.progress = [this](qint64 done, qint64 total) {
        CopyProgress now = m_copyProgress; // as the recording's turn began
        now.fileDone = done;
        now.fileSize = total;
        now.runDone += done;
        now.runSize = qMax(now.runSize, now.runDone);
        emit copyProgress(now);
        return true;
    };
    options.corruptCopyHashInput = copyHashTamper;
    return VerifiedCopy::copy(path, copy, options);
}

void Finalize::finishCopy(const QString& copy, const QString& folder, FileOutcome* outcome)
{
    const FileFinish finish = finishAndJudge(copy, outcome);
    // The procedure named the copy (or left it as it was, when it could not start on it).
    const QString named = !finish.outputName.isEmpty() && QFileInfo::exists(finish.outputName)
        ? finish.outputName
        : copy;
    if (outcome->fate == FileOutcome::Fate::LeftForTheCard) {
        // The output folder's file system stopped the finish: nothing stays behind for it.
        QFile::remove(named);
        return;
    }
    const QString target = QDir(folder).filePath(copyName(QFileInfo(copy).fileName(), finish.finished()));
    QString failure;
    if (!renameInto(named, target, overwrite, &failure)) {
        QFile::remove(named);
        const bool taken = QFileInfo::exists(target);
        outcome->fate = taken ? FileOutcome::Fate::CopyExists : FileOutcome::Fate::LeftForTheCard;
        outcome->reason = taken ? QString("%1 already exists").arg(target)
                                : QString("the copy could not be named %1 (%2)").arg(target, failure);
        return;
    }
    StableStorage::syncFolder(folder);
    outcome->copyPath = target;
    outcome->reportedPath = target;
}
