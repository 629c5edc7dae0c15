// Finishing one in-progress file of the older Heron recorder: a movie is rebuilt with the shared movie
// library run as the Heron family, an audio file has its WAV sizes repaired. Only the result and the new
// name tell the outcome; nothing is logged beyond the first line.

#include "audio/AudioFile.h"
#include "finalize/CardFile.h"
#include "finalize/CopyOnWriteFile.h"
#include "finalize/EarlierFinish.h"
#include "finalize/Finalize.h"
#include "finalize/FinishPrediction.h"
#include "movie/StableStorage.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>

#include <vector>

namespace {

// Renames the closed file and makes the new name durable.
void renameDurably(QFile& file, const QString& newName)
{
    if (file.rename(newName))
        StableStorage::syncFolder(QFileInfo(newName).absolutePath());
}

} // namespace

void Finalize::setQuickTimeFileInfo(QuickTimeFile::RecoverySettings* settings, QuickTimeFile* movie)
{
    settings->copyInto(*movie);
}

Finalize::HeronStep Finalize::finishHeronMovie(
    QuickTimeFile& movie, const QString& path, Tern::FinishStyle style)
{
    if (!movie.verifyHeader())
        return EarlierFinish::completes(movie, path) ? HeronStep::FinishedEarlier : HeronStep::NotInProgress;
    movie.initFile(nullptr);
    QuickTimeFile::RecoverySettings* settings = movie.loadSavedSettings();
    if (!settings)
        return HeronStep::NoSettings;
    setQuickTimeFileInfo(settings, &movie);
    movie.finishStyle = style;
    return movie.recover() ? HeronStep::Finalized : HeronStep::RebuildFailed;
}

unsigned int Finalize::finishHeronSound(AudioFile& audio, Tern::FinishStyle style)
{
    const unsigned int result = audio.ReadAudioFileInfo();
    if (result != 0)
        return result;
    return style == Tern::FinishStyle::Interchange ? audio.VerifyHeaderInWholeFrames()
                                                         : audio.VerifyHeader();
}

unsigned int Finalize::heronDoFinalize(QString path)
{
    return keep(heronFinish(path));
}

Finalize::FileFinish Finalize::heronFinish(const QString& path)
{
    FileFinish finish;
    finish.family = &Tern::heronFamily;
    CardFile file(path);
    qDebug("doing heron finalize");
    const QString lower = path.toLower();

    if (lower.endsWith(".zqv")) {
        finish.code = FileFinish::s_unrecoverable;
        if (!file.openToChange())
            return finish;
        auto* movie = new QuickTimeFile(file, workBuffer);
        const HeronStep step = finishHeronMovie(*movie, path, finishStyle);
        // A movie finished before is renamed now.
        if (step == HeronStep::Finalized || step == HeronStep::FinishedEarlier)
            finish.code = FileFinish::s_finalized;
        if (step == HeronStep::RebuildFailed)
            file.noteFailedClose(*movie);
        delete movie;
        file.close();
        if (leftForTheCard(file, finish.finished()))
            return finish;
        // Unlike Tern, every failure gives the movie up; an existing file of the new name is kept.
        finish.outputName = QString(path).replace(".zqv", finish.finished() ? ".mov" : ".nrv");
        renameDurably(file, finish.outputName);
        return finish;
    }

    if (lower.endsWith(".zqa")) {
        finish.code = FileFinish::s_unrecoverable;
        if (!file.openToChange())
            return finish;
        AudioFile audio(file);
        finish.code = finishHeronSound(audio, finishStyle);
        StableStorage::sync(file); // the repaired sizes reach the disk before the finished name does
        file.close();
        if (leftForTheCard(file, finish.finished()))
            return finish;
        finish.outputName = QString(path).replace(".zqa", finish.finished() ? ".wav" : ".nra");
        renameDurably(file, finish.outputName);
        return finish;
    }
    // Any other name (a given-up name in capitals, say) is left as it is and named nothing: the report's
    // line then names the previous file, as it always has.
    return finish;
}

FinishPrediction Finalize::predictHeronFinish(CopyOnWriteFile& view, const QString& path)
{
    FinishPrediction p;
    std::vector<quint16> frameMap(QuickTimeFile::s_frameMapEntries); // what the driver hands the movie
    QuickTimeFile movie(view, frameMap.data());
    // Heron logs none of its steps; every failure gives the movie up.
    p.outcome = QStringLiteral("given up");
    p.extension = QStringLiteral(".nrv");
    switch (finishHeronMovie(movie, path, Tern::FinishStyle::Recorder)) {
    case HeronStep::Finalized:
        p.finalized(QStringLiteral(".mov"));
        break;
    case HeronStep::FinishedEarlier:
        p.finalized(QStringLiteral(".mov"));
        p.reason = QStringLiteral("finished by an earlier run cut short, verified");
        break;
    case HeronStep::NotInProgress:
        p.reason = QStringLiteral("not laid out as an unfinished recording");
        p.noOpenHeader(movie.family());
        break;
    case HeronStep::NoSettings:
        p.reason = QStringLiteral("the settings record cannot be read");
        break;
    case HeronStep::RebuildFailed:
        p.recoveryFailed(movie, view, QStringLiteral("the index could not be rebuilt"));
        break;
    }
    return p;
}
