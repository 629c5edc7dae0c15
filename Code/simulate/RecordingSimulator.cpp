#include "simulate/RecordingSimulator.h"

#include "movie/HeronQuickTimeFile.h"
#include "simulate/RecorderLayout.h"

#include <QFile>
#include <QtEndian>

#include <cstring>
#include <memory>

namespace {

using namespace RecorderLayout;

// One sound chunk, planar: track i's samples start i strides in. A short first chunk keeps the full
// stride (players address it like a full one); a short last chunk is packed at its own length.
QByteArray soundChunk(const RecordingPlan& plan, quint32 firstSample, quint32 samples, quint32 stride)
{
    const int bps = int(plan.audioBytesPerSample);
    QByteArray chunk(paddedToBlock(plan.audioTracks.size() * int(stride) * bps), '\0');
    for (int t = 0; t < plan.audioTracks.size(); ++t) {
        std::memcpy(chunk.data() + t * int(stride) * bps, plan.audioTracks[t].constData() + firstSample * bps,
            size_t(samples) * size_t(bps));
    }
    return chunk;
}

// Why the plan cannot be written (its chunking, or sound tracks of unequal or broken lengths); empty when
// it can.
QString planError(const RecordingPlan& plan)
{
    const QString chunking = chunkingError(plan);
    if (!chunking.isEmpty())
        return chunking;
    const int trackBytes = plan.audioTracks.isEmpty() ? 0 : plan.audioTracks.first().size();
    for (const QByteArray& track : plan.audioTracks) {
        if (track.size() != trackBytes || track.size() % int(plan.audioBytesPerSample) != 0)
            return "every sound track must hold the same whole number of samples";
    }
    return QString();
}

// Samples on each sound track of a plan planError accepts (0 without sound).
quint32 samplesPerTrack(const RecordingPlan& plan)
{
    if (plan.audioTracks.isEmpty())
        return 0;
    return quint32(plan.audioTracks.first().size()) / plan.audioBytesPerSample;
}

// Writes the plan's frames and sound chunk by chunk through the recorder's add operations: each frame
// followed by its padding and the recorder's trailer, each sound chunk planar.
void writeChunks(Tern::QuickTimeFile& movie, const RecordingPlan& plan, const ChunkSchedule& chunks)
{
    const quint32 G = plan.videoFramesPerChunk;
    int frame = 0;
    quint32 soundSample = 0;
    enterChunkRounds(movie, plan, chunks.rounds, [&](int round) {
        for (quint32 g = 0; g < G && frame < plan.videoFrames.size(); ++g, ++frame) {
            QByteArray bytes = plan.videoFrames[frame];
            QByteArray trailer(paddedToBlock(bytes.size()) - bytes.size() + kFrameTrailer, '\0');
            movie.addMovieVideoData(bytes, trailer);
        }
        if (round < chunks.sound.size()) {
            QByteArray chunk = soundChunk(plan, soundSample, chunks.sound[round], chunks.soundStride(round));
            movie.addMovieSoundData(chunk);
            soundSample += chunks.sound[round];
        }
    });
}

} // namespace

QByteArray syntheticFrame(int index, int bytes)
{
    QByteArray frame(bytes, '\0');
    quint32 state = 0x9E3779B9u * quint32(index + 1);
    for (int i = 0; i < bytes; ++i) {
        state = state * 1664525u + 1013904223u;
        frame[i] = char(state >> 24);
    }
    return frame;
}

QByteArray syntheticPcm(int track, int samples, int bytesPerSample)
{
    QByteArray pcm(samples * bytesPerSample, '\0');
    for (int i = 0; i < samples; ++i) {
        const quint32 value = quint32(i * 37 + track * 100003);
        for (int b = 0; b < bytesPerSample; ++b)
            pcm[i * bytesPerSample + b] = char(value >> (8 * b));
    }
    return pcm;
}

RecordingResult writeInterruptedRecording(const QString& path, const RecordingPlan& plan)
{
    RecordingResult result;
    result.error = planError(plan);
    if (!result.error.isEmpty())
        return result;

    StartedRecording recording(path, plan, plan.audioTracks.size());
    if (!recording.movie) {
        result.error = recording.file.errorString();
        return result;
    }
    const ChunkSchedule chunks = chunkScheduleOf(plan, plan.videoFrames.size(), samplesPerTrack(plan));
    writeChunks(*recording.movie, plan, chunks);
    stopRecording(recording.file, *recording.movie, plan, recording.file.pos(), chunks.lastSamples, &result);
    return result;
}
