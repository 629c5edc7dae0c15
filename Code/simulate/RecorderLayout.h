#pragma once

// What both recording writers (the dense one and the sparse one) lay out the way the recorder does.

#include "movie/QuickTimeFile.h"
#include "movie/RecoverySettings.h"
#include "simulate/RecordingSimulator.h"

#include <QFile>
#include <QVector>

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

// Why the plan's chunking is not one its family's recorder writes (a family with fixed chunking has no
// room in its record for another); empty when it is.
QString chunkingError(const RecordingPlan& plan);

// The settings record the recorder keeps for the plan, with this many sound tracks.
void storeSettings(Tern::RecoverySettings& s, const RecordingPlan& plan, int audioTrackCount);

// How the recorder starts: the family's movie object on the opened file (one of a family that keeps its
// frame map in the caller's storage keeps it in `frameMap`), the reserved region and the settings record
// written, the write position at the media start, and the timecode taken (a family that appends its
// timecode sample when the movie is closed only stores it; the other writes its first sample now).
std::unique_ptr<Tern::QuickTimeFile> startRecording(
    QFile& file, const RecordingPlan& plan, int audioTrackCount, QVector<quint16>* frameMap);

// How the recorder stops when power fails, its media written up to `end`: the settings record saved with
// the last chunk's length and (when the plan says so) the end, a torn chunk left behind it when asked
// for, and no index. Fills in the result and closes the file.
void stopRecording(QFile& file, Tern::QuickTimeFile& movie, const RecordingPlan& plan, qint64 end,
    quint32 lastChunkSamples, RecordingResult* result);

} // namespace RecorderLayout
