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

namespace {

const QIODevice::OpenMode kOpenExisting =
    QIODevice::ReadWrite | QIODevice::Unbuffered | QIODevice::ExistingOnly;

} // namespace

Finalize::Restore Finalize::restore(const QString& path, QString* restoredPath)
{
    const QtMessageFilter libraryQuiet(QtMessageFilter::Drop::Everything);
    notFinishedReason.clear();
    const QString suffix = QFileInfo(path).suffix().toLower();
    if (suffix == "wav") {
        // A repair writes both sizes from the file's length and the finish keeps no copy of what they were,
        // and a WAV renamed unchanged cannot be told from one its recorder finished.
        notFinishedReason = "the sizes a WAV held before its finish are not kept, so the recorder's file "
                            "cannot be known exactly";
        return Restore::Refused;
    }
    const bool movie = suffix == "mov" || suffix == "nrv";
    const bool givenUp = suffix == "nrv" || suffix == "nra";
    if (!movie && !givenUp) {
        notFinishedReason = "Clipward gives no finished or given-up file such a name";
        return Restore::Refused;
    }
    if (!QFileInfo(path).isFile()) {
        notFinishedReason = "there is no such file";
        return Restore::Refused;
    }
    *restoredPath = path.left(path.size() - suffix.size()) + (movie ? "zqv" : "zqa");
    if (QFileInfo::exists(*restoredPath)) {
        notFinishedReason = QString("%1 already exists").arg(*restoredPath);
        return Restore::Refused;
    }

    const RecordingLock lock(path, RecordingLock::Mode::Exclusive);
    if (lock.state() == RecordingLock::State::InUse)
        return Restore::InUse;
    notFinishedReason = CardAccess::reasonText(CardAccess::writeBlockFor(path));
    if (!notFinishedReason.isEmpty())
        return Restore::LeftForTheCard;

    // A file given up was never written to: its bytes are the recorder's already.
    if (!givenUp) {
        CardFile file(path);
        if (!file.open(kOpenExisting)) {
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
    }

    if (!QFile::rename(path, *restoredPath)) {
        notFinishedReason = QString("it could not be renamed to %1").arg(*restoredPath);
        return Restore::LeftForTheCard;
    }
    StableStorage::syncFolder(QFileInfo(*restoredPath).absolutePath());
    return Restore::Restored;
}
