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
    const quint32 G = plan.videoFramesPerChunk;
    const quint32 bps = plan.audioBytesPerSample;
    if (G == 0 || bps == 0 || plan.audioSamplesPerChunk == 0) {
        result.error = "frames per chunk, bytes per sample and samples per chunk must not be 0";
        return result;
    }
    result.error = chunkingError(plan);
    if (!result.error.isEmpty())
        return result;
    const int trackBytes = plan.audioTracks.isEmpty() ? 0 : plan.audioTracks.first().size();
    for (const QByteArray& track : plan.audioTracks) {
        if (track.size() != trackBytes || track.size() % int(bps) != 0) {
            result.error = "every sound track must hold the same whole number of samples";
            return result;
        }
    }

    QFile file(path);
    if (!file.open(QIODevice::ReadWrite | QIODevice::Truncate)) {
        result.error = file.errorString();
        return result;
    }
    QVector<quint16> frameMap;
    const std::unique_ptr<Tern::QuickTimeFile> owner
        = startRecording(file, plan, plan.audioTracks.size(), &frameMap);
    Tern::QuickTimeFile& movie = *owner;

    const QVector<quint32> sound
        = soundChunkLengths(quint32(trackBytes) / bps, plan.audioSamplesPerChunk, plan.firstChunkSamples);
    // A chunk that is both first and short is described by its first-chunk count, not as a last chunk.
    const bool lastIsOwnChunk = sound.size() > 1 || plan.firstChunkSamples == 0;
    const quint32 lastSamples
        = !sound.isEmpty() && lastIsOwnChunk && sound.last() != plan.audioSamplesPerChunk ? sound.last() : 0;
    const int videoChunks = (plan.videoFrames.size() + int(G) - 1) / int(G);
    const int chunkRounds = qMax(videoChunks, sound.size());

    int frame = 0;
    quint32 soundSample = 0;
    int chunksSinceSave = 0;
    for (int round = 0; round < chunkRounds; ++round) {
        for (quint32 g = 0; g < G && frame < plan.videoFrames.size(); ++g, ++frame) {
            QByteArray bytes = plan.videoFrames[frame];
            QByteArray trailer(paddedToBlock(bytes.size()) - bytes.size() + kFrameTrailer, '\0');
            movie.addMovieVideoData(bytes, trailer);
        }
        if (round < sound.size()) {
            const bool shortLast = round == sound.size() - 1 && lastSamples != 0;
            QByteArray chunk = soundChunk(
                plan, soundSample, sound[round], shortLast ? lastSamples : plan.audioSamplesPerChunk);
            movie.addMovieSoundData(chunk);
            soundSample += sound[round];
        }
        if (++chunksSinceSave >= plan.frameMapSaveInterval) {
            movie.periodicFrameMapSave();
            chunksSinceSave = 0;
        }
    }
    movie.periodicFrameMapSave();

    stopRecording(file, movie, plan, file.pos(), lastSamples, &result);
    return result;
}
