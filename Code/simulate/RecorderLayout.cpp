#include "simulate/RecorderLayout.h"

#include "movie/HeronQuickTimeFile.h"

#include <QBuffer>
#include <QHash>

#include <cstring>

const SimulatedRecorder& recorderOf(RecordingPlan::Family family)
{
    // Tern numbers the ProRes 422 variants from 1, Heron from 0.
    static const SimulatedRecorder recorders[] = {
        {&Tern::ternFamily, 1},
        {&Tern::heronFamily, 0},
    };
    return recorders[family];
}

QByteArray recordingRegionHead(const Tern::MovieFamily& family, int bytes)
{
    static QHash<const Tern::MovieFamily*, QByteArray> regions;
    if (!regions.contains(&family)) {
        QByteArray region;
        QBuffer buffer(&region);
        buffer.open(QIODevice::ReadWrite);
        QVector<quint16> frameMap;
        if (family.mapInCallerStorage)
            frameMap.resize(int(Tern::QuickTimeFile::s_frameMapEntries));
        const std::unique_ptr<Tern::QuickTimeFile> movie(family.newMovie(buffer, frameMap.data()));
        movie->initFile(nullptr);
        regions.insert(&family, region);
    }
    return regions.value(&family).left(bytes);
}

namespace RecorderLayout {

QString chunkingError(const RecordingPlan& plan)
{
    if (plan.videoFramesPerChunk == 0 || plan.audioBytesPerSample == 0 || plan.audioSamplesPerChunk == 0)
        return "frames per chunk, bytes per sample and samples per chunk must not be 0";
    const Tern::MovieFamily& family = *recorderOf(plan.family).family;
    if (family.fixedFramesPerChunk == 0)
        return QString();
    if (plan.videoFramesPerChunk == family.fixedFramesPerChunk
        && plan.audioSamplesPerChunk == family.fixedSamplesPerChunk)
        return QString();
    return QString("%1 recordings use %2 frames and %3 samples per chunk")
        .arg(family.name)
        .arg(family.fixedFramesPerChunk)
        .arg(family.fixedSamplesPerChunk);
}

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

ChunkSchedule chunkScheduleOf(const RecordingPlan& plan, int frames, quint32 samplesPerTrack)
{
    ChunkSchedule chunks;
    chunks.sound = soundChunkLengths(samplesPerTrack, plan.audioSamplesPerChunk, plan.firstChunkSamples);
    const bool lastIsOwnChunk = chunks.sound.size() > 1 || plan.firstChunkSamples == 0;
    if (!chunks.sound.isEmpty() && lastIsOwnChunk && chunks.sound.last() != plan.audioSamplesPerChunk)
        chunks.lastSamples = chunks.sound.last();
    chunks.fullSamples = plan.audioSamplesPerChunk;
    const int G = int(plan.videoFramesPerChunk);
    const int videoChunks = (frames + G - 1) / G;
    chunks.rounds = qMax(videoChunks, chunks.sound.size());
    return chunks;
}

quint32 ChunkSchedule::soundStride(int round) const
{
    const bool shortLast = round == sound.size() - 1 && lastSamples != 0;
    return shortLast ? lastSamples : fullSamples;
}

void enterChunkRounds(Tern::QuickTimeFile& movie, const RecordingPlan& plan, int rounds,
    const std::function<void(int round)>& enterRound)
{
    int chunksSinceSave = 0;
    for (int round = 0; round < rounds; ++round) {
        enterRound(round);
        if (++chunksSinceSave >= plan.frameMapSaveInterval) {
            movie.periodicFrameMapSave();
            chunksSinceSave = 0;
        }
    }
    movie.periodicFrameMapSave();
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
    QFile& file, const RecordingPlan& plan, int audioTrackCount, QVector<quint16>* frameMap)
{
    const Tern::MovieFamily& family = *recorderOf(plan.family).family;
    if (family.mapInCallerStorage)
        frameMap->resize(int(Tern::QuickTimeFile::s_frameMapEntries));
    std::unique_ptr<Tern::QuickTimeFile> movie(family.newMovie(file, frameMap->data()));
    movie->initFile(&file);
    file.seek(family.movieDataStartOffset);
    storeSettings(movie->settings, plan, audioTrackCount);
    movie->saveRecoverySettings();
    movie->setTimecode(
        plan.timecode, plan.dropFrame, false, family.closeAppendsTimecodeSample || !plan.timecodeSample);
    return movie;
}

StartedRecording::StartedRecording(const QString& path, const RecordingPlan& plan, int audioTrackCount)
    : file(path)
{
    if (file.open(QIODevice::ReadWrite | QIODevice::Truncate))
        movie = startRecording(file, plan, audioTrackCount, &frameMap);
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
