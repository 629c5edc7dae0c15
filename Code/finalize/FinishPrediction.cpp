#include "finalize/FinishPrediction.h"

#include "finalize/CardFile.h"
#include "finalize/CopyOnWriteFile.h"
#include "movie/MovieFamily.h"
#include "movie/QuickTimeFile.h"
#include "movie/RecoverySettings.h"

namespace {

using Tern::MovieFamily;
using Tern::QuickTimeFile;

// What stopped recover() on the view, told from the state it left the movie in.
QString whyRecoveryFailed(QuickTimeFile& movie, CopyOnWriteFile& view)
{
    const MovieFamily& family = movie.family();
    const quint32 counted = movie.videoFrames() + movie.audioFrames() + movie.timecodeSamples;
    if (counted < family.minimumChunks)
        return QString(
            "%1 chunks in the frame map (%2 video, %3 sound, %4 timecode); a %5 recording needs %6")
            .arg(counted)
            .arg(movie.videoFrames())
            .arg(movie.audioFrames())
            .arg(movie.timecodeSamples)
            .arg(family.name)
            .arg(family.minimumChunks);
    const QString settings = Tern::indexRefusal(
        movie.videoFramesPerChunk, movie.audioTracks, movie.audioBytesPerSample, movie.recordedEndPosition,
        family);
    if (!settings.isEmpty())
        return "the settings give " + settings;
    const quint64 end = movie.recordedEndPosition;
    if (end != 0 && qint64(end) > view.size() && !view.seek(qint64(end)))
        return QString("the recorded end (%1) lies where no file on this card reaches").arg(end);
    if (!movie.indexFitsAtomSizes())
        return QStringLiteral("the index would not fit atoms with 32-bit sizes");
    return QStringLiteral("the index could not be written");
}

// A failure the card caused, in the words a run's line gives it; empty when the recording caused it.
QString cardFailure(const QuickTimeFile& movie, const CopyOnWriteFile& view)
{
    if (!view.readFailure().isEmpty())
        return QString("the card could not be read (%1)").arg(view.readFailure());
    if (!view.writeFailure().isEmpty())
        return view.writeFailure();
    return CardFile::failedCloseReason(movie);
}

} // namespace

void FinishPrediction::finalized(const QString& newExtension)
{
    outcome = QStringLiteral("finalized");
    extension = newExtension;
    finished = true;
}

void FinishPrediction::noOpenHeader(const MovieFamily& family)
{
    why = QString("no open 'mdat' header at %1 and not a whole movie Clipward finished")
              .arg(family.movieDataHeaderPos);
}

void FinishPrediction::recoveryFailed(
    QuickTimeFile& movie, CopyOnWriteFile& view, const QString& procedureLine)
{
    const QString card = cardFailure(movie, view);
    if (!card.isEmpty()) {
        outcome = QStringLiteral("left for the card");
        reason = card;
        extension.clear(); // the file keeps its name and bytes for a later run
        return;
    }
    outcome = QStringLiteral("given up");
    reason = procedureLine;
    why = whyRecoveryFailed(movie, view);
    extension = QStringLiteral(".nrv");
}
