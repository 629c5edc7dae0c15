#include "simulate/SparseRecording.h"

#include "movie/HeronQuickTimeFile.h"
#include "simulate/RecorderLayout.h"

#include <QFile>

#include <cstring>
#include <memory>

namespace {

using namespace RecorderLayout;

QString planError(const SparseRecordingPlan& sparse)
{
    const RecordingPlan& plan = sparse.recording;
    if (plan.videoFramesPerChunk == 0 || plan.audioBytesPerSample == 0 || plan.audioSamplesPerChunk == 0)
        return "frames per chunk, bytes per sample and samples per chunk must not be 0";
    const QString chunking = chunkingError(plan);
    if (!chunking.isEmpty())
        return chunking;
    if (sparse.audioTrackCount < 0)
        return "the number of sound tracks must not be negative";
    for (int bytes : sparse.videoFrameBytes) {
        // The frame map holds a chunk of at most 16,383 blocks, padding and trailer included.
        if (bytes < 0
            || paddedToBlock(bytes) + kFrameTrailer > Tern::QuickTimeFile::s_blockCountMask * kBlock)
            return "a video frame must be between 0 and 8,387,072 bytes";
    }
    return QString();
}

} // namespace

SparseRecordingPlan sparsePlanOf(const RecordingPlan& plan)
{
    SparseRecordingPlan sparse;
    sparse.recording = plan;
    sparse.recording.videoFrames.clear();
    sparse.recording.audioTracks.clear();
    for (const QByteArray& frame : plan.videoFrames)
        sparse.videoFrameBytes << frame.size();
    sparse.audioTrackCount = plan.audioTracks.size();
    if (!plan.audioTracks.isEmpty() && plan.audioBytesPerSample != 0)
        sparse.audioSamplesPerTrack = quint32(plan.audioTracks.first().size()) / plan.audioBytesPerSample;
    return sparse;
}

RecordingResult writeSparseRecording(const QString& path, const SparseRecordingPlan& sparse)
{
    RecordingResult result;
    result.error = planError(sparse);
    if (!result.error.isEmpty())
        return result;
    const RecordingPlan& plan = sparse.recording;

    QFile file(path);
    if (!file.open(QIODevice::ReadWrite | QIODevice::Truncate)) {
        result.error = file.errorString();
        return result;
    }
    QVector<quint16> frameMap;
    const std::unique_ptr<Tern::QuickTimeFile> owner
        = startRecording(file, plan, sparse.audioTrackCount, &frameMap);
    Tern::QuickTimeFile& movie = *owner;

    const quint32 G = plan.videoFramesPerChunk;
    const qint64 bps = plan.audioBytesPerSample;
    const qint64 tracks = sparse.audioTrackCount;
    const QVector<quint32> sound = soundChunkLengths(
        tracks > 0 ? sparse.audioSamplesPerTrack : 0, plan.audioSamplesPerChunk, plan.firstChunkSamples);
    // A chunk that is both first and short is described by its first-chunk count, not as a last chunk.
    const bool lastIsOwnChunk = sound.size() > 1 || plan.firstChunkSamples == 0;
    const quint32 lastSamples
        = !sound.isEmpty() && lastIsOwnChunk && sound.last() != plan.audioSamplesPerChunk ? sound.last() : 0;
    const int frames = sparse.videoFrameBytes.size();
    const int videoChunks = (frames + int(G) - 1) / int(G);
    const int chunkRounds = qMax(videoChunks, sound.size());

    // Each chunk is entered as the add operations enter it (a frame gets its padding and trailer, a
    // sound chunk is planar with a full stride except a short last one) while the media itself is skipped.
    qint64 end = file.pos();
    int frame = 0;
    int chunksSinceSave = 0;
    for (int round = 0; round < chunkRounds; ++round) {
        for (quint32 g = 0; g < G && frame < frames; ++g, ++frame) {
            const qint64 bytes = paddedToBlock(sparse.videoFrameBytes[frame]) + kFrameTrailer;
            movie.setFrameSize(movie.totalFrames(), Tern::quicktime_frametype_video, unsigned(bytes));
            ++movie.videoFrameCount;
            end += bytes;
        }
        if (round < sound.size()) {
            const bool shortLast = round == sound.size() - 1 && lastSamples != 0;
            const qint64 stride = shortLast ? lastSamples : plan.audioSamplesPerChunk;
            const qint64 bytes = paddedToBlock(tracks * stride * bps);
            movie.setFrameSize(movie.totalFrames(), Tern::quicktime_frametype_sound, unsigned(bytes));
            ++movie.soundChunks;
            end += bytes;
        }
        if (++chunksSinceSave >= plan.frameMapSaveInterval) {
            movie.periodicFrameMapSave();
            chunksSinceSave = 0;
        }
    }
    movie.periodicFrameMapSave();

    // The media becomes a hole: the file is lengthened to where the recorder's writes would have ended.
    if (!file.resize(end) || !file.seek(end)) {
        result.error = file.errorString();
        return result;
    }
    stopRecording(file, movie, plan, end, lastSamples, &result);
    return result;
}
