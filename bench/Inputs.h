#pragma once

#include "simulate/RecordingSimulator.h"

#include <QByteArray>
#include <QList>
#include <QString>

// The benchmark's inputs, written with the recording simulator.
namespace Inputs {

// A 1080p25 ProRes recording with 8 mono 24-bit tracks, 3 frames a chunk and one sound chunk per video
// chunk (Tern 5,760 samples a chunk, Heron 3,072), holding about `entries` frame-map entries: a quarter
// are sound chunks, the rest frames of 880-940 KB. Sparse: the media is a hole.
RecordingResult writeProResRecording(const QString& path, RecordingPlan::Family family, quint32 entries);

// `count` distinct 1080p ProRes 422 HQ frames of a noisy test picture, encoded by ffmpeg in `folder`.
QList<QByteArray> encodeProResFrames(const QString& folder, int count, QString* error);

// A dense Tern recording of real frames (the given ones, repeated) and 8 tracks of sound, about
// `targetBytes` long.
RecordingResult writeDenseRecording(const QString& path, const QList<QByteArray>& frames, qint64 targetBytes);

// A card of `folders` folders (40 top-level ones, the rest below them) with `filesPerFolder` files each,
// one in ten of them with an in-progress name (.zqv of both families, .zqa, .nrv) and the rest finished
// clips and sidecar files. Returns the number of in-progress files, -1 on failure.
int writeCard(const QString& root, int folders, int filesPerFolder);

// An unfinished recording that is finalized again and again: after each run the finished file is put
// back as it was (the appended index cut off, the 'mdat' header restored, the in-progress name back).
class ReusableRecording
{
public:
    bool capture(const QString& zqvPath);
    // Bytes the last finalize appended (its index, closing block and any timecode sample).
    qint64 appendedBytes() const;
    QString finishedPath() const;
    bool restore();

private:
    QString m_path;
    qint64 m_size = 0;
    qint64 m_headerPos = 0; // where the recording's family puts the 'mdat' header
    QByteArray m_header;
};

} // namespace Inputs
