#pragma once

#include "simulate/RecordingSimulator.h"

#include <QString>
#include <QVector>

// The same unfinished recording that writeInterruptedRecording leaves, chunk for chunk, but without its
// media: the reserved region, the settings record, the frame map and the 'mdat' header are written by the
// movie library's recorder half exactly as the recorder writes them, while the media is left as a hole of
// the right length in a sparse file. Finalizing never reads the media, so a recording of a full frame map
// (2.7 million chunks, terabytes long) costs only its frame map to make and almost no disk.
struct SparseRecordingPlan
{
    // Family, settings, chunking and save schedule; its frames and sound buffers are not used.
    RecordingPlan recording;
    // Byte size of every encoded video frame, in order; the recorder pads each as it writes it.
    QVector<int> videoFrameBytes;
    // Sound: this many mono tracks of this many samples each, chunked as the recorder chunks them.
    int audioTrackCount = 0;
    quint32 audioSamplesPerTrack = 0;
};

// The frame sizes and sound length of a dense plan, so both writers can describe the same recording.
SparseRecordingPlan sparsePlanOf(const RecordingPlan& plan);

RecordingResult writeSparseRecording(const QString& path, const SparseRecordingPlan& plan);
