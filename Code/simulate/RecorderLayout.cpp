#include "simulate/RecorderLayout.h"

#include "movie/HeronQuickTimeFile.h"

#include <cstring>

namespace RecorderLayout {

QVector<quint32> soundChunkLengths(quint32 totalSamples, quint32 perChunk, quint32 firstChunk)
{
    QVector<quint32> lengths;
    quint32 left = totalSamples;
    if (firstChunk != 0 && left > 0) {
        lengths << qMin(firstChunk, left);
        left -= lengths.last();
    }
    while (left > 0) {
        lengths << qMin(perChunk, left);
        left -= lengths.last();
    }
    return lengths;
}

void storeSettings(Tern::RecoverySettings& s, const RecordingPlan& plan, int audioTrackCount)
{
    s.userData1 = plan.userData1;
    s.timecode = plan.timecode;
    s.dropFrame = plan.dropFrame ? 1 : 0;
    s.userData2 = plan.userData2;
    s.frameRate = plan.frameRate;
    s.userData5 = plan.userData5;
    s.audioTracks = quint32(audioTrackCount);
    s.audioBytesPerSample = plan.audioBytesPerSample;
    s.audioSampleRate = plan.audioSampleRate;
    s.userData9 = plan.userData9;
    s.width = plan.width;
    s.height = plan.height;
    s.interlaced = plan.interlaced;
    s.videoCodecId = plan.videoCodecId;
    s.videoCodecType = plan.videoCodecType;
    s.proResVariant = plan.proResVariant;
    s.firstChunkSamples = plan.firstChunkSamples;
    s.audioSamplesPerChunk = plan.audioSamplesPerChunk;
    s.videoFramesPerChunk = plan.videoFramesPerChunk;
    const QByteArray reel = plan.reelName.toLatin1().left(Tern::RecoverySettings::s_reelNameSize - 1);
    std::memset(s.reelName, 0, sizeof s.reelName);
    std::memcpy(s.reelName, reel.constData(), size_t(reel.size()));
}

std::unique_ptr<Tern::QuickTimeFile> startRecording(
    QFile& file, const RecordingPlan& plan, int audioTrackCount, QVector<quint16>* heronFrameMap)
{
    const bool heron = plan.family == RecordingPlan::Heron;
    std::unique_ptr<Tern::QuickTimeFile> movie;
    if (heron) {
        heronFrameMap->resize(int(Tern::QuickTimeFile::s_frameMapEntries));
        movie.reset(new QuickTimeFile(file, heronFrameMap->data()));
    } else {
        movie.reset(new Tern::QuickTimeFile(file));
    }
    movie->initFile(&file);
    file.seek(Tern::QuickTimeFile::s_movieDataStartOffset);
    storeSettings(movie->settings, plan, audioTrackCount);
    movie->saveRecoverySettings();
    movie->setTimecode(plan.timecode, plan.dropFrame, false, heron || !plan.timecodeSample);
    return movie;
}

void stopRecording(QFile& file, Tern::QuickTimeFile& movie, const RecordingPlan& plan, qint64 end,
    quint32 lastChunkSamples, RecordingResult* result)
{
    result->recordedEndPosition = end;
    movie.settings.lastChunkSamples = lastChunkSamples;
    movie.settings.recordedEndPosition = plan.storeRecordedEndPosition ? quint64(end) : 0;
    movie.saveRecoverySettings();
    if (plan.tornTailBytes > 0)
        file.write(syntheticFrame(-1, plan.tornTailBytes));

    result->videoFrames = movie.videoFrames();
    result->soundChunks = movie.audioFrames();
    result->timecodeSamples = movie.timecodeSamples;
    result->lastChunkSamples = lastChunkSamples;
    result->fileSize = file.size();
    result->ok = file.error() == QFileDevice::NoError;
    if (!result->ok)
        result->error = file.errorString();
    file.close(); // stopped without closing the movie: no index, 'mdat' still unsized
}

} // namespace RecorderLayout
