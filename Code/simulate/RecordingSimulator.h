#pragma once

#include "movie/MovieFamily.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QVector>

// Writes recordings the way the recorder does, through the movie library's recorder half, and stops
// without closing them: the unfinished files Clipward exists to finish. Used by the tests, the demo and
// the benchmarks.
struct RecordingPlan
{
    // The recorder, by its family (recorderOf gives its description): Tern writes its first timecode
    // sample at the start; Heron keeps no chunk counts and appends its timecode sample when closing.
    enum Family { Tern, Heron };
    Family family = Tern;

    // Video: encoded frames, written G to a chunk, each followed by the recorder's own padding.
    QList<QByteArray> videoFrames;
    quint32 videoFramesPerChunk = 3;
    quint32 videoCodecType = 1; // 0 DNxHD, 1 ProRes 422, 2 ProRes 4444
    quint32 proResVariant = 1;
    quint32 videoCodecId = 1238;
    quint16 width = 1920;
    quint16 height = 1080;
    quint32 interlaced = 0;
    quint32 frameRate = 2500; // hundredths; the field rate when interlaced
    quint32 timecode = 0x01000000; // 01:00:00:00
    bool dropFrame = false;
    bool timecodeSample = true; // Tern: false for a recording whose recorder wrote no timecode sample
    QString reelName = "A001";

    // Sound: one buffer of little-endian PCM per track, all of the same length. One sound chunk follows
    // each video chunk (or stands alone when there is no video), laid out planar, track after track.
    QVector<QByteArray> audioTracks;
    quint32 audioBytesPerSample = 3;
    quint32 audioSampleRate = 48000;
    quint32 audioSamplesPerChunk = 6000; // per track, in a full chunk
    quint32 firstChunkSamples = 0;       // per track in a short first chunk (0: the first chunk is full)

    // The recorder's commit point: stored in the settings, or left 0 (finalize then uses the file size).
    bool storeRecordedEndPosition = true;
    // Bytes of a chunk begun after the last commit, left past the recorded end position.
    int tornTailBytes = 0;
    // How often (in chunks) the recorder saves its frame map; the last save always happens.
    int frameMapSaveInterval = 8;

    quint32 userData1 = 0x11;
    quint32 userData2 = 0x22;
    quint32 userData5 = 0x55;
    quint32 userData9 = 0;
};

// The simulator's table of recorders: for each family a plan can name, its description in the movie
// library (layout, settings record, chunking, timecode rule) and what the simulator needs beyond it.
struct SimulatedRecorder
{
    const Tern::MovieFamily* family;
    quint32 proResHqVariant; // how the recorder numbers ProRes 422 HQ in its settings record
};
const SimulatedRecorder& recorderOf(RecordingPlan::Family family);

// The start of the family's reserved region as its recorder writes it, `bytes` long at most: made once by
// the movie library's recorder half, in memory.
QByteArray recordingRegionHead(const Tern::MovieFamily& family, int bytes);

struct RecordingResult
{
    bool ok = false;
    QString error;
    quint32 videoFrames = 0;
    quint32 soundChunks = 0;
    quint32 timecodeSamples = 0;
    quint32 lastChunkSamples = 0; // per track in the short last chunk, 0 when full
    qint64 recordedEndPosition = 0;
    qint64 fileSize = 0;
};

RecordingResult writeInterruptedRecording(const QString& path, const RecordingPlan& plan);

// A deterministic stand-in for an encoded frame (for demos and benchmarks where nothing decodes it).
QByteArray syntheticFrame(int index, int bytes);
// `samples` little-endian PCM samples of `bytesPerSample` bytes, a ramp distinct per track.
QByteArray syntheticPcm(int track, int samples, int bytesPerSample);
