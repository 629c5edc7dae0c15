// Undoing a finish: a movie Clipward finished is taken back to the in-progress file its recorder left and
// renamed back, so that finishing it again gives the same bytes; a file Clipward gave up, which it never
// wrote to, only gets its in-progress name back. The rename comes last: until then the file keeps a name
// no finish takes, and a kill leaves a file the next restore completes.

#include "finalize/CardAccess.h"
#include "finalize/CardFile.h"
#include "finalize/Finalize.h"
#include "finalize/FinishTakeBack.h"
#include "finalize/QtMessageFilter.h"
#include "finalize/RecordingLock.h"
#include "movie/StableStorage.h"

#include <QFileInfo>

// Why `path` is not a file a restore takes, by its name and existence; empty when it is. `restoredPath`
// is set to its in-progress name once that is known.
QString Finalize::restoreRefusal(const QString& path, QString* restoredPath)
{
    const QString suffix = QFileInfo(path).suffix().toLower();
    if (suffix == "wav") {
        // A repair writes both sizes from the file's length and the finish keeps no copy of what they were,
        // and a WAV renamed unchanged cannot be told from one its recorder finished.
        return "the sizes a WAV held before its finish are not kept, so the recorder's file "
               "cannot be known exactly";
    }
    const bool movie = suffix == "mov" || suffix == "nrv";
    const bool givenUp = suffix == "nrv" || suffix == "nra";
    if (!movie && !givenUp)
        return "Clipward gives no finished or given-up file such a name";
    if (!QFileInfo(path).isFile())
        return "there is no such file";
    *restoredPath = path.left(path.size() - suffix.size()) + (movie ? "zqv" : "zqa");
    if (QFileInfo::exists(*restoredPath))
        return QString("%1 already exists").arg(*restoredPath);
    return QString();
}

// Cuts the index (and appended sample) off a movie Clipward finished and puts the in-progress 'mdat'
// header back; the name stays.
Finalize::Restore Finalize::takeBackFinishedMovie(const QString& path)
{
    CardFile file(path);
    if (!file.openToChange()) {
        notFinishedReason = file.mediumFailure();
        if (!notFinishedReason.isEmpty())
            return Restore::LeftForTheCard;
        notFinishedReason = "it cannot be opened";
        return Restore::Refused;
    }
    FinishTakeBack takeBack(*this, file, path);
    switch (takeBack.kind()) {
    case FinishTakeBack::Kind::Other:
        notFinishedReason = "Clipward did not finish this movie";
        return Restore::Refused;
    case FinishTakeBack::Kind::FinishedOverRecorderBytes:
        notFinishedReason = "its finish wrote the index over bytes the recorder left past the "
                            "recording's end, and those cannot be put back";
        return Restore::Refused;
    case FinishTakeBack::Kind::Finished:
    case FinishTakeBack::Kind::BetweenSteps:
    case FinishTakeBack::Kind::InProgress:
        break;
    }
    const bool takenBack = takeBack.takeBack();
    file.close();
    if (!takenBack) {
        notFinishedReason = file.mediumFailure();
        if (notFinishedReason.isEmpty())
            notFinishedReason = "the card refused the change";
        return Restore::LeftForTheCard;
    }
    return Restore::Restored;
}

Finalize::Restore Finalize::restore(const QString& path, QString* restoredPath)
{
    const QtMessageFilter libraryQuiet(QtMessageFilter::Drop::Everything);
    notFinishedReason = restoreRefusal(path, restoredPath);
    if (!notFinishedReason.isEmpty())
        return Restore::Refused;

    const RecordingLock lock(path, RecordingLock::Mode::Exclusive);
    if (lock.state() == RecordingLock::State::InUse)
        return Restore::InUse;
    notFinishedReason = CardAccess::reasonText(CardAccess::writeBlockFor(path));
    if (!notFinishedReason.isEmpty())
        return Restore::LeftForTheCard;

    // A file given up (".nrv", ".nra") was never written to: its bytes are the recorder's already.
    const QString suffix = QFileInfo(path).suffix().toLower();
    if (suffix == "mov") {
        const Restore takenBack = takeBackFinishedMovie(path);
        if (takenBack != Restore::Restored)
            return takenBack;
    }

    if (!QFile::rename(path, *restoredPath)) {
        notFinishedReason = QString("it could not be renamed to %1").arg(*restoredPath);
        return Restore::LeftForTheCard;
    }
    StableStorage::syncFolder(QFileInfo(*restoredPath).absolutePath());
    return Restore::Restored;
}
