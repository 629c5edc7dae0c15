// Finishing one in-progress file of the older Heron recorder: a movie is rebuilt with the shared movie
// library run as the Heron family, an audio file has its WAV sizes repaired. Only the result and the new
// name tell the outcome; nothing is logged beyond the first line.

#include "audio/AudioFile.h"
#include "finalize/CardFile.h"
#include "finalize/EarlierFinish.h"
#include "finalize/Finalize.h"
#include "movie/StableStorage.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>

namespace {

const unsigned int kFinalized = 0;
const unsigned int kUnrecoverable = 31;
// Read-write and unbuffered (a failing write fails where it happens, not in a hidden buffer flushed
// later); a file that vanished since the walk listed it is not created anew.
const QIODevice::OpenMode kOpenExisting = QIODevice::ReadWrite | QIODevice::Unbuffered | QIODevice::ExistingOnly;

// Renames the closed file and makes the new name durable.
void renameDurably(QFile& file, const QString& newName)
{
    if (file.rename(newName))
        StableStorage::syncFolder(QFileInfo(newName).absolutePath());
}

} // namespace

void Finalize::setQuickTimeFileInfo(QuickTimeFile::RecoverySettings* s, QuickTimeFile* movie)
{
    movie->setTimecode(s->timecode, s->dropFrame, false);
    movie->setUserData(s->userData1, s->userData2, s->frameRate, s->dropFrame, s->userData5, s->audioTracks,
                       s->audioBytesPerSample * 8, s->audioSampleRate, s->userData9);
    movie->width = s->width;
    movie->height = s->height;
    movie->interlaced = s->interlaced;
    movie->videoCodecId = s->videoCodecId;
    movie->setFrameRate(s->interlaced != 0 ? s->frameRate >> 1 : s->frameRate);
    movie->videoCodecType = s->videoCodecType;
    movie->proResVariant = s->proResVariant;
    movie->audioTracks = s->audioTracks;
    movie->setAudioSamplesPerFrame(int(movie->family().fixedSamplesPerChunk));
    movie->setAudioBytesPerSample(s->audioBytesPerSample);
    movie->setAudioSampleRate(s->audioSampleRate);
    movie->videoFramesPerChunk = movie->family().fixedFramesPerChunk;
    movie->reelName = s->reelNameText();
    movie->lastChunkSamples = s->lastChunkSamples;
    movie->firstChunkSamples = s->firstChunkSamples;
    movie->recordedEndPosition = s->recordedEndPosition;
    movie->InitQuickTimeFileInfo();
}

Finalize::HeronStep Finalize::finishHeronMovie(QuickTimeFile& movie, const QString& path)
{
    if (!movie.verifyHeader())
        return EarlierFinish::completes(movie, path) ? HeronStep::FinishedEarlier : HeronStep::NotInProgress;
    movie.initFile(nullptr);
    QuickTimeFile::RecoverySettings* settings = movie.loadSavedSettings();
    if (!settings)
        return HeronStep::NoSettings;
    setQuickTimeFileInfo(settings, &movie);
    movie.finishStyle = finishStyle;
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
    CardFile file(path);
    isTern = 0;
    qDebug("doing heron finalize");
    const QString lower = path.toLower();

    if (lower.endsWith(".zqv")) {
        if (!file.open(kOpenExisting))
            return kUnrecoverable;
        auto* movie = new QuickTimeFile(file, workBuffer);
        const HeronStep step = finishHeronMovie(*movie, path);
        // A movie finished before is renamed now.
        const unsigned int result =
            step == HeronStep::Finalized || step == HeronStep::FinishedEarlier ? kFinalized : kUnrecoverable;
        if (step == HeronStep::RebuildFailed)
            file.noteFailedClose(*movie);
        delete movie;
        file.close();
        if (leftForTheCard(file, result == kFinalized))
            return result;
        // Unlike Tern, every failure gives the movie up; an existing file of the new name is kept.
        const QString newName = QString(path).replace(".zqv", result == kFinalized ? ".mov" : ".nrv");
        renameDurably(file, newName);
        outputFileName = newName;
        return result;
    }

    if (lower.endsWith(".zqa")) {
        if (!file.open(kOpenExisting))
            return kUnrecoverable;
        AudioFile audio(file);
        const unsigned int result = finishHeronSound(audio, finishStyle);
        StableStorage::sync(file); // the repaired sizes reach the disk before the finished name does
        file.close();
        if (leftForTheCard(file, result == 0))
            return result;
        const QString newName = QString(path).replace(".zqa", result == 0 ? ".wav" : ".nra");
        renameDurably(file, newName);
        outputFileName = newName;
        return result;
    }
    return kFinalized;
}
