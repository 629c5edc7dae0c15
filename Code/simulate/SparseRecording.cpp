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
    const QString chunking = chunkingError(sparse.recording);
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

// Enters every chunk as the add operations enter it (a frame gets its padding and trailer, a sound chunk is
// planar with a full stride except a short last one) while the media itself is skipped. Returns where the
// recorder's writes, begun at `start`, would have ended.
qint64 enterChunksWithoutMedia(
    Tern::QuickTimeFile& movie, const SparseRecordingPlan& sparse, const ChunkSchedule& chunks, qint64 start)
{
    const RecordingPlan& plan = sparse.recording;
    const quint32 G = plan.videoFramesPerChunk;
    const qint64 bps = plan.audioBytesPerSample;
    const qint64 tracks = sparse.audioTrackCount;
    const int frames = sparse.videoFrameBytes.size();
    qint64 end = start;
    int frame = 0;
    enterChunkRounds(movie, plan, chunks.rounds, [&](int round) {
        for (quint32 g = 0; g < G && frame < frames; ++g, ++frame) {
            const qint64 bytes = paddedToBlock(sparse.videoFrameBytes[frame]) + kFrameTrailer;
            movie.setFrameSize(movie.totalFrames(), Tern::quicktime_frametype_video, unsigned(bytes));
            ++movie.videoFrameCount;
            end += bytes;
        }
        if (round < chunks.sound.size()) {
            const qint64 stride = chunks.soundStride(round);
            const qint64 bytes = paddedToBlock(tracks * stride * bps);
            movie.setFrameSize(movie.totalFrames(), Tern::quicktime_frametype_sound, unsigned(bytes));
            ++movie.soundChunks;
            end += bytes;
        }
    });
    return end;
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

    StartedRecording recording(path, plan, sparse.audioTrackCount);
    QFile& file = recording.file;
    if (!recording.movie) {
        result.error = file.errorString();
        return result;
    }
    const quint32 samplesPerTrack = sparse.audioTrackCount > 0 ? sparse.audioSamplesPerTrack : 0;
    const ChunkSchedule chunks = chunkScheduleOf(plan, sparse.videoFrameBytes.size(), samplesPerTrack);
    const qint64 end = enterChunksWithoutMedia(*recording.movie, sparse, chunks, file.pos());

    // The media becomes a hole: the file is lengthened to where the recorder's writes would have ended.
    if (!file.resize(end) || !file.seek(end)) {
        result.error = file.errorString();
        return result;
    }
    stopRecording(file, *recording.movie, plan, end, chunks.lastSamples, &result);
    return result;
}
