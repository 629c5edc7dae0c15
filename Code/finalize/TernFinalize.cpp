// Finishing one interrupted Tern movie: check the in-progress layout, load the recorder's settings,
// configure the movie object from them, rebuild the index, and rename the file.

#include "finalize/CardFile.h"
#include "finalize/EarlierFinish.h"
#include "finalize/Finalize.h"
#include "finalize/TernSettings.h"
#include "movie/QuickTimeFile.h"
#include "movie/StableStorage.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>

namespace {

const unsigned int kFinalized = 0;
const unsigned int kUnrecoverable = 31;

} // namespace

bool TernSettings::usable(const Tern::RecoverySettings& s)
{
    // Tested in this order; the first zero stops the checks. Then what no index can be built from:
    // more sound tracks than a movie holds, sound without a sample size, an end inside the reserved region
    // or beyond any file offset.
    return s.videoFramesPerChunk != 0 && s.frameRate != 0 && s.width != 0 && s.height != 0
        && Tern::QuickTimeFile::settingsAllowIndex(s.videoFramesPerChunk, s.audioTracks, s.audioBytesPerSample,
                                                   s.recordedEndPosition);
}

void TernSettings::configure(Tern::QuickTimeFile& movie, const Tern::RecoverySettings& s)
{
    movie.setTimecode(s.timecode, s.dropFrame, false, true); // store only: recovery never appends media
    movie.setUserData(s.userData1, s.userData2, s.frameRate, s.dropFrame, s.userData5, s.audioTracks,
                      s.audioBytesPerSample * 8, s.audioSampleRate, s.userData9);
    movie.width = s.width;
    movie.height = s.height;
    movie.interlaced = s.interlaced;
    movie.videoCodecId = s.videoCodecId;
    // The record holds the field rate of interlaced video; the movie runs at the frame rate.
    movie.setFrameRate(s.interlaced != 0 ? s.frameRate >> 1 : s.frameRate);
    movie.videoCodecType = s.videoCodecType;
    movie.proResVariant = s.proResVariant;
    movie.audioTracks = s.audioTracks;
    movie.setAudioSamplesPerFrame(int(s.audioSamplesPerChunk));
    movie.setAudioBytesPerSample(s.audioBytesPerSample);
    movie.setAudioSampleRate(s.audioSampleRate);
    movie.videoFramesPerChunk = s.videoFramesPerChunk;
    movie.reelName = s.reelNameText();
    movie.lastChunkSamples = s.lastChunkSamples;
    movie.firstChunkSamples = s.firstChunkSamples;
    movie.recordedEndPosition = s.recordedEndPosition;
    movie.InitQuickTimeFileInfo();
}

const char* Finalize::ternStepText(TernStep step)
{
    switch (step) {
    case TernStep::Finalized:
        break;
    case TernStep::FinishedEarlier:
        return "was finished by an earlier run cut short, verified!";
    case TernStep::Corrupted:
        return "recovery failed, corrupted file!";
    case TernStep::NoSettings:
        return "recovery failed, couldn't get any recovery settings!";
    case TernStep::InvalidSettings:
        return "recovery failed, invalid recovery settings!";
    case TernStep::RebuildFailed:
        return "recovery failed, no frame map or finalization failed!";
    }
    return nullptr;
}

// The line logged for a step's end: "********************* PATH WORDS" and a newline.
static QByteArray stepLine(Finalize::TernStep step)
{
    return QByteArray("********************* %s ") + Finalize::ternStepText(step) + '\n';
}

Finalize::TernStep Finalize::finishTernMovie(Tern::QuickTimeFile& movie, const QString& path,
                                             Tern::FinishStyle style)
{
    const QByteArray name = path.toLocal8Bit();
    const bool unfinished = movie.verifyHeader();
    if (!unfinished && EarlierFinish::completes(movie, path)) {
        qDebug(stepLine(TernStep::FinishedEarlier).constData(), name.constData());
        return TernStep::FinishedEarlier;
    }
    if (!unfinished)
        return TernStep::Corrupted;
    qDebug("********************* %s needs to be restored!\n", name.constData());
    movie.initFile(nullptr);
    Tern::RecoverySettings* settings = movie.loadSavedSettings();
    if (!settings)
        return TernStep::NoSettings;
    if (!TernSettings::usable(*settings))
        return TernStep::InvalidSettings;
    TernSettings::configure(movie, *settings);
    movie.finishStyle = style;
    return movie.recover() ? TernStep::Finalized : TernStep::RebuildFailed;
}

unsigned int Finalize::ternDoFinalize(QString path)
{
    CardFile file(path);
    isTern = 1;
    qDebug("doing tern finalize");

    if (!path.toLower().endsWith(".zqv"))
        return kFinalized;

    const QByteArray name = path.toLocal8Bit();
    // A failure the card caused (a refused read or write) is told by the driver's line instead: the
    // recording itself may be whole.
    const auto logFailure = [&file, &name](const char* format) {
        if (file.mediumFailure().isEmpty())
            qDebug(format, name.constData());
    };
    unsigned int result = kUnrecoverable;
    bool rebuildFailed = false;
    Tern::QuickTimeFile* movie = nullptr;

    // Unbuffered: the index writer buffers itself, and a write that fails must fail where it happens,
    // not in a hidden buffer flushed later. A file that vanished since the walk is not created anew.
    if (!file.open(QIODevice::ReadWrite | QIODevice::Unbuffered | QIODevice::ExistingOnly)) {
        logFailure("********************* %s recovery failed, can't open the file!\n");
    } else {
        movie = new Tern::QuickTimeFile(file);
        const TernStep step = finishTernMovie(*movie, path, finishStyle);
        if (step == TernStep::Finalized || step == TernStep::FinishedEarlier) {
            result = kFinalized;
            if (step == TernStep::Finalized)
                file.flush();
        } else {
            rebuildFailed = step == TernStep::RebuildFailed;
            if (rebuildFailed)
                file.noteFailedClose(*movie);
            logFailure(stepLine(step).constData());
        }
    }
    delete movie;
    if (file.isOpen())
        file.close();
    if (leftForTheCard(file, result == kFinalized))
        return result;

    // Only a failed rebuild gives the file up; a file that could not even be read is named finished,
    // unchanged. An old ".nrv" is replaced, an old ".mov" is not.
    outputFileName = "Invalid output file.";
    if (!QFile::exists(path) || !path.endsWith(".zqv"))
        return result;
    QString newName = path;
    if (rebuildFailed) {
        newName.replace(".zqv", ".nrv");
        if (QFile::exists(newName))
            QFile::remove(newName);
    } else {
        newName.replace(".zqv", ".mov");
    }
    if (QFile::rename(path, newName)) {
        StableStorage::syncFolder(QFileInfo(newName).absolutePath());
    } else {
        // Through the logging stream itself: each item followed by a blank, the paths quoted and escaped.
        qDebug() << "Failed to rename file: " << path << " -> " << newName;
    }
    outputFileName = newName;
    return result;
}
