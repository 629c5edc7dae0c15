// Rewriting the index of a movie Clipward finished earlier into the interchange form: the finish is taken
// back to the in-progress state the recorder left (its index and appended timecode sample cut off, the
// 'mdat' header opened) and the recording is finished again, durably, as any finish is. A kill at any
// point leaves a file that the next rewrite completes.

#include "finalize/CardAccess.h"
#include "finalize/CardFile.h"
#include "finalize/Finalize.h"
#include "finalize/FinishTakeBack.h"
#include "finalize/QtMessageFilter.h"
#include "finalize/RecordingLock.h"

#include <QFile>

Finalize::Rewrite Finalize::rewriteForInterchange(const QString& path)
{
    const QtMessageFilter libraryQuiet(QtMessageFilter::Drop::Everything);
    notFinishedReason.clear();
    const RecordingLock lock(path, RecordingLock::Mode::Exclusive);
    if (lock.state() == RecordingLock::State::InUse)
        return Rewrite::InUse;
    notFinishedReason = CardAccess::reasonText(CardAccess::writeBlockFor(path));
    if (!notFinishedReason.isEmpty())
        return Rewrite::LeftForTheCard;

    CardFile file(path);
    if (!file.openToChange()) {
        notFinishedReason = file.mediumFailure();
        return notFinishedReason.isEmpty() ? Rewrite::NotFinishedByClipward : Rewrite::LeftForTheCard;
    }
    bool rewritten = false;
    bool recognised = false;
    {
        FinishTakeBack takeBack(*this, file, path);
        using Kind = FinishTakeBack::Kind;
        // A recording under its in-progress name is the finish's, not a rewrite's.
        const Kind kind = takeBack.kind();
        recognised = kind == Kind::Finished || kind == Kind::BetweenSteps
                  || (kind == Kind::InProgress && path.endsWith(".mov", Qt::CaseInsensitive));
        if (recognised) {
            Tern::QuickTimeFile& movie = takeBack.movie();
            movie.finishStyle = Tern::FinishStyle::Interchange;
            rewritten = takeBack.takeBack() && movie.recover();
            if (!rewritten)
                file.noteFailedClose(movie);
        }
    }
    file.close();
    if (rewritten)
        return Rewrite::Rewritten;
    notFinishedReason = file.mediumFailure();
    if (!notFinishedReason.isEmpty())
        return Rewrite::LeftForTheCard;
    return recognised ? Rewrite::Failed : Rewrite::NotFinishedByClipward;
}
