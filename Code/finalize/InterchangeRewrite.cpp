// Rewriting the index of a movie Clipward finished earlier into the interchange form: the finish is taken
// back to the in-progress state the recorder left (its index and appended timecode sample cut off, the
// 'mdat' header opened) and the recording is finished again, durably, as any finish is. A kill at any
// point leaves a file that the next rewrite completes.

#include "finalize/CardAccess.h"
#include "finalize/CardFile.h"
#include "finalize/Finalize.h"
#include "finalize/QtMessageFilter.h"
#include "finalize/RecordingLock.h"
#include "finalize/TernSettings.h"
#include "movie/SampleTableCheck.h"

#include <QFile>

#include <memory>

namespace {

const QIODevice::OpenMode kOpenExisting =
    QIODevice::ReadWrite | QIODevice::Unbuffered | QIODevice::ExistingOnly;

// Entries of the frame list in the maker atom of a movie this library finished, and whether its index is
// the one this library writes for that list; false for any other movie.
bool finishedByClipward(const QString& path, quint32* listedEntries)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    if (!checkSampleTables(file).isEmpty())
        return false;
    Tern::QuickTimeFile reader(file);
    if (!reader.initFileRead(nullptr) || !reader.writtenByRecorder)
        return false;
    *listedEntries = reader.totalFrames();
    return true;
}

} // namespace

Finalize::Rewrite Finalize::rewriteForInterchange(const QString& path)
{
    const QtMessageFilter libraryQuiet(QtMessageFilter::Drop::Everything);
    notFinishedReason.clear();
    const RecordingLock lock(path, RecordingLock::Mode::Exclusive);
    if (lock.state() == RecordingLock::State::InUse)
        return Rewrite::InUse;
    const CardAccess::WriteBlock block = CardAccess::writeBlockFor(path);
    if (block != CardAccess::WriteBlock::None) {
        notFinishedReason = CardAccess::reasonText(block);
        return Rewrite::LeftForTheCard;
    }

    quint32 listedEntries = 0;
    const bool finished = finishedByClipward(path, &listedEntries);
    CardFile file(path);
    if (!file.open(kOpenExisting)) {
        notFinishedReason = file.mediumFailure();
        return notFinishedReason.isEmpty() ? Rewrite::NotFinishedByClipward : Rewrite::LeftForTheCard;
    }
    const bool tern = Tern::familyOfRecording(file) == &Tern::ternFamily;
    ::QuickTimeFile* heronMovie = tern ? nullptr : new ::QuickTimeFile(file, workBuffer);
    const std::unique_ptr<Tern::QuickTimeFile> owner(tern ? new Tern::QuickTimeFile(file) : heronMovie);
    Tern::QuickTimeFile& movie = *owner;

    bool rewritten = false;
    bool recognised = false;
    // Nothing is written to a file before it is known to be one of the three this rewrite takes: a movie
    // Clipward finished, one a rewrite left between its steps, and one a rewrite left in progress (it
    // keeps its finished name; a recording under its in-progress name is the finish's, not a rewrite's).
    const bool inProgressMovie = path.endsWith(".mov", Qt::CaseInsensitive) && movie.verifyHeader();
    const bool candidate = finished || movie.reopenedMediaEnd() >= 0 || inProgressMovie;
    if (candidate)
        movie.initFile(nullptr); // the file is longer than the reserved region: nothing is written
    Tern::RecoverySettings* settings = candidate ? movie.loadSavedSettings() : nullptr;
    if (settings && (!tern || TernSettings::usable(*settings))) {
        if (tern)
            TernSettings::configure(movie, *settings);
        else
            setQuickTimeFileInfo(settings, heronMovie);
        movie.finishStyle = Tern::FinishStyle::Interchange;

        // Where a finish, or a rewrite cut short, left the media's end; -1 for a file of neither kind.
        qint64 mediaEnd = -1;
        if (finished) {
            const quint32 saved = movie.savedFrameMapLength();
            if (listedEntries >= saved)
                mediaEnd = movie.finishedMediaEnd(listedEntries - saved);
        } else {
            mediaEnd = movie.reopenedMediaEnd();
        }
        const bool inProgress = mediaEnd < 0 && inProgressMovie;
        recognised = mediaEnd >= 0 || inProgress;
        if (recognised && (inProgress || movie.reopenMovieData(mediaEnd))) {
            rewritten = movie.recover();
        }
        if (recognised && !rewritten)
            file.noteFailedClose(movie);
    }
    file.close();
    if (rewritten)
        return Rewrite::Rewritten;
    notFinishedReason = file.mediumFailure();
    if (!notFinishedReason.isEmpty())
        return Rewrite::LeftForTheCard;
    return recognised ? Rewrite::Failed : Rewrite::NotFinishedByClipward;
}
