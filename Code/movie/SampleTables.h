#pragma once

#include "movie/QuickTimeAtom.h"

#include <QList>

#include <memory>

namespace Tern {

// The sample tables of a track. The tables with an entry per sample or per chunk are never held in
// memory: 'stsz', 'stco' and 'co64' compute their entries from the file's frame map while they are
// written, so these objects keep only counts and parameters. Read, they note where their entries start
// and how many there are, and pass over the entries.

// 'stts': every sample of the track has the same duration (one run).
class QuickTimeTimeToSampleAtom : public QuickTimeVersionFlagsAtom
{
public:
    QuickTimeTimeToSampleAtom(QuickTimeFile* movieFile, quint32 samples, quint32 duration);
    void write(QDataStream& stream) override;
    bool read(QDataStream& stream, quint64* remaining) override;

    quint32 entryCount = 1;
    quint32 sampleCount;
    quint32 sampleDuration;
};

// 'stsc': one run of full chunks, optionally preceded by a short first chunk and followed by a short
// last chunk.
class QuickTimeSampleToChunkAtom : public QuickTimeVersionFlagsAtom
{
public:
    QuickTimeSampleToChunkAtom(QuickTimeFile* movieFile, quint32 chunkSamples, quint32 lastChunkIndex,
                               quint32 lastSamples, quint32 firstSamples);
    // Written once: a short first chunk moves firstChunk on to 2 for the run behind it.
    void write(QDataStream& stream) override;
    bool read(QDataStream& stream, quint64* remaining) override;

    quint32 entryCount;
    quint32 firstChunk = 1;
    quint32 samplesPerChunk;
    quint32 descriptionId = 1;
    quint32 lastChunk;
    quint32 lastChunkSamples;
    quint32 firstChunkSamples;
};

// 'stsz': one size for every sample, or (size 0) the byte length of each frame of frameType.
class QuickTimeSampleSizeAtom : public QuickTimeVersionFlagsAtom
{
public:
    QuickTimeSampleSizeAtom(QuickTimeFile* movieFile, quint32 tableFrameType, quint32 samples,
                            quint32 constantSize);
    void write(QDataStream& stream) override;
    bool read(QDataStream& stream, quint64* remaining) override;

    quint32 frameType;
    quint32 sampleCount;
    quint32 sampleSize;
};

// 'stco': a 32-bit offset for every frame of frameType (each sample its own chunk).
class QuickTimeChunkOffsetAtom : public QuickTimeVersionFlagsAtom
{
public:
    QuickTimeChunkOffsetAtom(QuickTimeFile* movieFile, quint32 tableFrameType, quint32 entries, quint32 bias);
    void write(QDataStream& stream) override;
    bool read(QDataStream& stream, quint64* remaining) override;

    quint32 frameType;
    quint32 entryCount;
    quint32 offsetBias;
};

class QuickTimeChunkOffset64Atom;

// Tables that address the same chunks and differ only in their biases, like the sound tracks of one
// recording. The first of them to be written walks the frame map once for the group: it writes its own
// entries in order and each later table's entries straight to where that table lies further on in the
// file; the later tables then only step over theirs. Only tables whose positions are final when they
// are built belong in a group.
struct QuickTimeChunkOffsetGroup
{
    QList<QuickTimeChunkOffset64Atom*> tables; // in file order
    QList<const QuickTimeChunkOffset64Atom*> served; // written by another table's walk
    quint32 servedEntries = 0;
};

// 'co64': a 64-bit offset for every samplesPerChunk frames of frameType, each chunk addressed by its
// first sample plus offsetBias; the last chunk takes lastOffsetBias instead when that is not 0.
class QuickTimeChunkOffset64Atom : public QuickTimeVersionFlagsAtom
{
public:
    // chunkSamples must not be 0; a table built with 0 has no entries.
    QuickTimeChunkOffset64Atom(QuickTimeFile* movieFile, quint32 tableFrameType, quint32 samples,
                               quint64 bias, quint32 chunkSamples, quint64 lastBias, quint64 firstBias);
    void write(QDataStream& stream) override;
    bool read(QDataStream& stream, quint64* remaining) override;

    quint32 frameType;
    quint32 sampleCount;
    quint64 offsetBias;
    quint32 samplesPerChunk;
    quint64 lastOffsetBias;
    quint64 firstOffsetBias; // kept for the caller; the first chunk is addressed like a full one
    quint32 entryCount;
    std::shared_ptr<QuickTimeChunkOffsetGroup> group; // none: the table is written on its own

    // Where the first entry lies in the file, by the atom's placement.
    qint64 tablePosition() const { return position + s_headBytes; }
    static constexpr qint64 s_headBytes = 16; // header, version and flags, entry count

private:
    // Writing: a table that an earlier one of its group has written steps over its entries; any other
    // walks the frame map for them (and for the tables it serves) and returns how many it wrote.
    bool servedByEarlierTable(QDataStream& stream) const;
    void stepOverServedEntries(QDataStream& stream) const;
    quint32 writeEntries(QDataStream& stream);
    QList<QuickTimeChunkOffset64Atom*> tablesToServe(QDataStream& stream) const;
    bool walkReachesEveryEntry() const;
};

// 'co64' of a single chunk at a place known when the index is built: the timecode sample an
// interchange finish appends behind the media.
class QuickTimeSingleChunkOffset64Atom : public QuickTimeVersionFlagsAtom
{
public:
    QuickTimeSingleChunkOffset64Atom(QuickTimeFile* movieFile, quint64 chunkOffset);
    void write(QDataStream& stream) override;

    quint64 offset;
};

} // namespace Tern
