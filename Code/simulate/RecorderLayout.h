#pragma once

// What both recording writers (the dense one and the sparse one) lay out the way the recorder does.

#include "movie/QuickTimeFile.h"
#include "movie/RecoverySettings.h"
#include "simulate/RecordingSimulator.h"

#include <QFile>
#include <QVector>

#include <functional>
#include <memory>

namespace RecorderLayout {

const qint64 kBlock = 512;
// The recorder writes 1,024 bytes of its own behind every frame; the frame map counts them.
const qint64 kFrameTrailer = 1024;

inline qint64 paddedToBlock(qint64 bytes)
{
    return (bytes + kBlock - 1) / kBlock * kBlock;
}

// Samples per track of every sound chunk, first to last: a short first chunk when asked for, full
// chunks, and whatever is left as a short last one.
QVector<quint32> soundChunkLengths(quint32 totalSamples, quint32 perChunk, quint32 firstChunk);

// Why the plan's chunking cannot be written: a count of 0, or chunking its family's recorder does not write
// (a family with fixed chunking has no room in its record for another); empty when it can.
QString chunkingError(const RecordingPlan& plan);

// How the recorder chunks a recording: the samples per track of every sound chunk, the short last chunk's
// length as the settings record keeps it, and how many rounds (a video chunk, then a sound chunk) it takes.
struct ChunkSchedule
{
    QVector<quint32> sound;
    // Per track in a short last chunk, 0 when the last chunk is full. A chunk that is both first and short
    // is described by its first-chunk count, not as a last chunk.
    quint32 lastSamples = 0;
    quint32 fullSamples = 0; // per track in a full chunk
    int rounds = 0;

    // The stride of sound chunk `round`: a short last chunk is packed at its own length, every other chunk
    // (a short first one too) keeps the full stride.
    quint32 soundStride(int round) const;
};

// The plan's chunking of `frames` video frames and `samplesPerTrack` samples on each sound track.
ChunkSchedule chunkScheduleOf(const RecordingPlan& plan, int frames, quint32 samplesPerTrack);

// Enters the chunks round by round (`enterRound` enters round r's video chunk and then its sound chunk),
// saving the frame map every plan.frameMapSaveInterval rounds and once more at the end, as the recorder does.
void enterChunkRounds(Tern::QuickTimeFile& movie, const RecordingPlan& plan, int rounds,
    const std::function<void(int round)>& enterRound);

// The settings record the recorder keeps for the plan, with this many sound tracks.
void storeSettings(Tern::RecoverySettings& s, const RecordingPlan& plan, int audioTrackCount);

// How the recorder starts: the family's movie object on the opened file (one of a family that keeps its
// frame map in the caller's storage keeps it in `frameMap`), the reserved region and the settings record
// written, the write position at the media start, and the timecode taken (a family that appends its
// timecode sample when the movie is closed only stores it; the other writes its first sample now).
std::unique_ptr<Tern::QuickTimeFile> startRecording(
    QFile& file, const RecordingPlan& plan, int audioTrackCount, QVector<quint16>* frameMap);

// A recording under way: `path` opened afresh and the recorder started on it by startRecording, with the
// frame map it may keep in the caller's storage. `movie` is null when the file could not be opened
// (file.errorString() says why). The movie is declared last so that it goes before the file and map it uses.
struct StartedRecording
{
    StartedRecording(const QString& path, const RecordingPlan& plan, int audioTrackCount);

    QFile file;
    QVector<quint16> frameMap;
    std::unique_ptr<Tern::QuickTimeFile> movie;
};

// How the recorder stops when power fails, its media written up to `end`: the settings record saved with
// the last chunk's length and (when the plan says so) the end, a torn chunk left behind it when asked
// for, and no index. Fills in the result and closes the file.
void stopRecording(QFile& file, Tern::QuickTimeFile& movie, const RecordingPlan& plan, qint64 end,
    quint32 lastChunkSamples, RecordingResult* result);

} // namespace RecorderLayout
