#include "movie/SampleTables.h"

#include "movie/QuickTimeBufferDevice.h"
#include "movie/QuickTimeFile.h"
#include "movie/TableBatch.h"

#include <QIODevice>
#include <QtDebug>
#include <QtEndian>

#include <vector>

namespace Tern {

namespace {

const quint32 s_countFieldBytes = 4;
const quint32 s_stscEntryBytes = 12;
const quint32 s_stszFixedBytes = 8; // sample size and count
const int s_sizeEntryBytes = 4;
const int s_offsetEntryBytes = 4;
const int s_offset64EntryBytes = 8;
const quint32 s_sttsEntryBytes = 8;

// Walks the frame map in file order. In the video-only mode of a movie read from elsewhere there is no
// map: every frame is a video frame of length 0.
class FrameWalk
{
public:
    explicit FrameWalk(const QuickTimeFile& file)
        : m_map(file.frameMap)
        , m_total(file.totalFrames())
        , m_videoOnly(file.importMode && !file.writtenByRecorder)
    {
    }

    // The end of the list is looked at only between batches (see the writers); the end of the map's
    // storage stops every walk.
    bool listEnded() const { return m_index >= m_total || storageEnded(); }
    bool storageEnded() const
    {
        return !m_videoOnly && (!m_map || m_index >= QuickTimeFile::s_frameMapEntries);
    }

    // Type and byte length of the next frame; false once the storage has ended.
    bool next(quint32* frameKind, quint32* length)
    {
        if (storageEnded())
            return false;
        if (m_videoOnly) {
            ++m_index;
            *frameKind = quicktime_frametype_video;
            *length = 0;
            return true;
        }
        const quint16 entry = m_map[m_index++];
        *frameKind = entry >> QuickTimeFile::s_frameTypeShift;
        *length = quint32(entry & QuickTimeFile::s_blockCountMask) << QuickTimeFile::s_blockShift;
        return true;
    }

    // Hands the frames onward to visit(frameKind, length) until it returns false (that frame is still
    // consumed) or the storage ends. The batch writers' inner loop: one tight pass over the map.
    template <typename Visit> void visitUntil(Visit visit)
    {
        if (m_videoOnly) {
            do
                ++m_index;
            while (visit(quint32(quicktime_frametype_video), quint32(0)));
            return;
        }
        if (!m_map)
            return;
        while (m_index < QuickTimeFile::s_frameMapEntries) {
            const quint16 entry = m_map[m_index++];
            if (!visit(quint32(entry >> QuickTimeFile::s_frameTypeShift),
                       quint32(entry & QuickTimeFile::s_blockCountMask) << QuickTimeFile::s_blockShift))
                return;
        }
    }

private:
    const quint16* m_map;
    quint32 m_index = 0;
    quint32 m_total;
    bool m_videoOnly;
};

// Position of the next byte the stream writes, unflushed bytes of the buffered device included.
qint64 streamPosition(QDataStream& stream)
{
    return stream.device() ? stream.device()->pos() : -1;
}

// The lines a family that logs its chunk offset tables writes for each: where its entries start, and how
// many it wrote.
void logTableStart(quint32 entries, qint64 at)
{
    qDebug("stream %d entries (%llx)", int(entries), static_cast<unsigned long long>(at));
}

void logTableDone(quint32 entries)
{
    qDebug("done streaming %d entries", int(entries));
}

// The head of a table the parser reads: version and flags, then the entry count, with room left in the
// budget for the count's entries of `entryBytes` each. True with the stream at the first entry.
bool readTableHead(QuickTimeVersionFlagsAtom& atom, QDataStream& stream, quint64* remaining,
                   quint32 entryBytes, quint32* entryCount, quint64* tableBytes)
{
    if (!atom.QuickTimeVersionFlagsAtom::read(stream, remaining)
        || !QuickTimeAtom::consume(remaining, s_countFieldBytes))
        return false;
    stream >> *entryCount;
    *tableBytes = quint64(entryBytes) * *entryCount;
    return stream.status() == QDataStream::Ok && QuickTimeAtom::consume(remaining, *tableBytes);
}

// The tables a group's first table serves: each batch that table's walk builds is written again into
// each of them, further on in the file, with the table's own biases.
class ServedTables
{
public:
    ServedTables(const QList<QuickTimeChunkOffset64Atom*>& tables, int capacity)
        : m_tables(tables)
        , m_chunkStarts(tables.isEmpty() ? 0 : size_t(capacity))
        , m_batch(tables.isEmpty() ? 0 : capacity * s_offset64EntryBytes, '\0')
    {
    }

    // The batch of `entries` in `sink`, whose entries carry `bias`, `batchStart` bytes into each table.
    // The last batch ends on the last chunk, which starts at `lastChunkStart`.
    void writeBatch(const TableBatch& sink, int entries, quint64 bias, qint64 batchStart, bool lastBatch,
                    quint64 lastChunkStart)
    {
        if (m_tables.isEmpty())
            return;
        // The batch's chunk starts without bias, and one table's batch at a time.
        for (int i = 0; i < entries; ++i)
            m_chunkStarts[size_t(i)] = sink.get64(i) - bias;
        for (const QuickTimeChunkOffset64Atom* table : m_tables) {
            char* out = m_batch.data();
            const quint64 tableBias = table->offsetBias;
            for (int i = 0; i < entries; ++i)
                qToBigEndian<quint64>(m_chunkStarts[size_t(i)] + tableBias, out + i * s_offset64EntryBytes);
            if (lastBatch && entries > 0 && table->lastOffsetBias != 0)
                qToBigEndian<quint64>(lastChunkStart + table->lastOffsetBias,
                                      out + (entries - 1) * s_offset64EntryBytes);
            sink.bufferDevice()->writeAhead(table->tablePosition() + batchStart, out,
                                            entries * s_offset64EntryBytes);
        }
    }

private:
    const QList<QuickTimeChunkOffset64Atom*> m_tables;
    std::vector<quint64> m_chunkStarts;
    QByteArray m_batch;
};

} // namespace

// ---------------------------------------------------------------------------------------------------------
// 'stts'

QuickTimeTimeToSampleAtom::QuickTimeTimeToSampleAtom(QuickTimeFile* movieFile, quint32 samples,
                                                     quint32 duration)
    : QuickTimeVersionFlagsAtom(fourCC("stts"), 3 * s_countFieldBytes, 0, 0, 0)
    , sampleCount(samples)
    , sampleDuration(duration)
{
    file = movieFile;
}

void QuickTimeTimeToSampleAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << entryCount << sampleCount << sampleDuration;
}

bool QuickTimeTimeToSampleAtom::read(QDataStream& stream, quint64* remaining)
{
    if (!QuickTimeVersionFlagsAtom::read(stream, remaining) || !consume(remaining, s_countFieldBytes))
        return false;
    stream >> entryCount;
    if (stream.status() != QDataStream::Ok)
        return false;
    // Only the first run is looked at: the recorder's tracks have one duration for every sample.
    if (entryCount == 0)
        return true;
    if (!consume(remaining, s_sttsEntryBytes))
        return false;
    stream >> sampleCount >> sampleDuration;
    if (stream.status() != QDataStream::Ok)
        return false;
    if (file)
        file->setCurrentSampleDuration(sampleDuration);
    return true;
}

// ---------------------------------------------------------------------------------------------------------
// 'stsc'

QuickTimeSampleToChunkAtom::QuickTimeSampleToChunkAtom(QuickTimeFile* movieFile, quint32 chunkSamples,
                                                       quint32 lastChunkIndex, quint32 lastSamples,
                                                       quint32 firstSamples)
    : QuickTimeVersionFlagsAtom(fourCC("stsc"), s_countFieldBytes, 0, 0, 0)
    , entryCount(1 + (lastSamples != 0 ? 1 : 0) + (firstSamples != 0 ? 1 : 0))
    , samplesPerChunk(chunkSamples)
    , lastChunk(lastChunkIndex)
    , lastChunkSamples(lastSamples)
    , firstChunkSamples(firstSamples)
{
    file = movieFile;
    size += s_stscEntryBytes * entryCount;
}

void QuickTimeSampleToChunkAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << entryCount;
    if (firstChunkSamples != 0) {
        stream << firstChunk << firstChunkSamples << descriptionId;
        ++firstChunk;
    }
    stream << firstChunk << samplesPerChunk << descriptionId;
    if (lastChunkSamples != 0)
        stream << lastChunk << lastChunkSamples << descriptionId;
}

bool QuickTimeSampleToChunkAtom::read(QDataStream& stream, quint64* remaining)
{
    quint64 tableBytes = 0;
    if (!readTableHead(*this, stream, remaining, s_stscEntryBytes, &entryCount, &tableBytes))
        return false;
    if (file) {
        file->setSTSCPos(quint64(stream.device()->pos()));
        file->setSTSCEntries(entryCount);
    }
    return skipBytes(stream, tableBytes);
}

// ---------------------------------------------------------------------------------------------------------
// 'stsz'

QuickTimeSampleSizeAtom::QuickTimeSampleSizeAtom(QuickTimeFile* movieFile, quint32 tableFrameType,
                                                 quint32 samples, quint32 constantSize)
    : QuickTimeVersionFlagsAtom(fourCC("stsz"), s_stszFixedBytes, 0, 0, 0)
    , frameType(tableFrameType)
    , sampleCount(samples)
    , sampleSize(constantSize)
{
    file = movieFile;
    if (sampleSize == 0)
        size += s_sizeEntryBytes * sampleCount;
}

void QuickTimeSampleSizeAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << sampleSize << sampleCount;
    if (sampleSize != 0 || !file)
        return;

    FrameWalk walk(*file);
    TableBatch sink(stream, s_sizeEntryBytes);
    quint32 written = 0;
    // The end of the list is checked between batches only: the caller's count never exceeds the frames
    // of this type, so within a batch the count is the bound.
    const int capacity = sink.capacity();
    const quint32 type = frameType; // locals, as in the 'co64' writer
    const quint32 samplesWanted = sampleCount;
    while (written < samplesWanted && !walk.listEnded()) {
        int entries = 0;
        walk.visitUntil([&](quint32 frameKind, quint32 length) {
            if (frameKind != type)
                return true;
            sink.put32(entries++, length);
            ++written;
            return entries < capacity && written < samplesWanted;
        });
        sink.endBatch(entries);
    }
}

bool QuickTimeSampleSizeAtom::read(QDataStream& stream, quint64* remaining)
{
    if (!QuickTimeVersionFlagsAtom::read(stream, remaining) || !consume(remaining, s_stszFixedBytes))
        return false;
    stream >> sampleSize >> sampleCount;
    const quint64 tableBytes = sampleSize == 0 ? quint64(s_sizeEntryBytes) * sampleCount : 0;
    if (stream.status() != QDataStream::Ok || !consume(remaining, tableBytes))
        return false;
    if (file) {
        // The size goes in first: a track that the count completes is committed with it.
        file->setSTSZSampleSize(sampleSize);
        file->setSTSZPos(quint64(stream.device()->pos()));
        file->setSTSZEntries(sampleCount);
        // The maker atom's counts are those of the frame map (sound in chunks, not samples): they win.
        if (!file->writtenByRecorder) {
            if (file->getCurrentTrackType() == quicktime_frametype_video)
                file->videoFrameCount = sampleCount;
            else if (file->getCurrentTrackType() == quicktime_frametype_sound)
                file->soundChunks = sampleCount;
        }
    }
    return skipBytes(stream, tableBytes);
}

// ---------------------------------------------------------------------------------------------------------
// 'stco'

QuickTimeChunkOffsetAtom::QuickTimeChunkOffsetAtom(QuickTimeFile* movieFile, quint32 tableFrameType,
                                                   quint32 entries, quint32 bias)
    : QuickTimeVersionFlagsAtom(fourCC("stco"), s_countFieldBytes, 0, 0, 0)
    , frameType(tableFrameType)
    , entryCount(entries)
    , offsetBias(bias)
{
    file = movieFile;
    size += s_offsetEntryBytes * entryCount;
}

void QuickTimeChunkOffsetAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << entryCount;
    qDebug("stream %d entries", int(entryCount));
    if (!file)
        return;

    // Offsets wrap at 4 GiB. In the video-only mode frames have no known length, so the running offset
    // does not advance there: every entry is the start of the movie data plus the bias.
    FrameWalk walk(*file);
    quint32 offset = quint32(file->family().movieDataStartOffset);
    quint32 written = 0;
    quint32 frameKind = 0;
    quint32 length = 0;
    const quint32 frames = file->totalFrames();
    for (quint32 frame = 0; frame < frames && written < entryCount; ++frame) {
        if (!walk.next(&frameKind, &length))
            break;
        if (frameKind == frameType) {
            stream << quint32(offsetBias + offset);
            ++written;
        }
        offset += length;
    }
}

bool QuickTimeChunkOffsetAtom::read(QDataStream& stream, quint64* remaining)
{
    quint64 tableBytes = 0;
    if (!readTableHead(*this, stream, remaining, s_offsetEntryBytes, &entryCount, &tableBytes))
        return false;
    if (file) {
        file->setSTCOPos(quint64(stream.device()->pos()));
        file->setSTCOEntries(entryCount);
    }
    return skipBytes(stream, tableBytes);
}

// ---------------------------------------------------------------------------------------------------------
// 'co64'

QuickTimeChunkOffset64Atom::QuickTimeChunkOffset64Atom(QuickTimeFile* movieFile, quint32 tableFrameType,
                                                       quint32 samples, quint64 bias, quint32 chunkSamples,
                                                       quint64 lastBias, quint64 firstBias)
    : QuickTimeVersionFlagsAtom(fourCC("co64"), s_countFieldBytes, 0, 0, 0)
    , frameType(tableFrameType)
    , sampleCount(samples)
    , offsetBias(bias)
    , samplesPerChunk(chunkSamples)
    , lastOffsetBias(lastBias)
    , firstOffsetBias(firstBias)
    , entryCount(chunkSamples != 0 ? quint32((quint64(samples) + chunkSamples - 1) / chunkSamples) : 0)
{
    file = movieFile;
    size += s_offset64EntryBytes * entryCount;
}

void QuickTimeChunkOffset64Atom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << entryCount;
    if (!file)
        return;

    const bool logs = file->family().logsChunkOffsetProgress;
    if (logs && entryCount != 0 && !FrameWalk(*file).listEnded())
        logTableStart(entryCount, streamPosition(stream));
    if (servedByEarlierTable(stream)) {
        stepOverServedEntries(stream);
        if (logs)
            logTableDone(group->servedEntries);
        return;
    }
    const quint32 written = writeEntries(stream);
    if (logs)
        logTableDone(written);
}

// Entries an earlier table of the group already wrote here, where this table stands.
bool QuickTimeChunkOffset64Atom::servedByEarlierTable(QDataStream& stream) const
{
    return group && group->served.contains(this) && streamPosition(stream) == tablePosition();
}

void QuickTimeChunkOffset64Atom::stepOverServedEntries(QDataStream& stream) const
{
    if (auto* device = qobject_cast<QuickTimeBufferDevice*>(stream.device()))
        device->skipWritten(qint64(s_offset64EntryBytes) * group->servedEntries);
}

// One walk of the frame map in batches, each written here and to the tables this one serves.
quint32 QuickTimeChunkOffset64Atom::writeEntries(QDataStream& stream)
{
    FrameWalk walk(*file);
    TableBatch sink(stream, s_offset64EntryBytes);
    ServedTables served(tablesToServe(stream), sink.capacity());
    quint64 offset = quint64(file->family().movieDataStartOffset);
    quint64 lastChunkStart = 0;
    quint32 countdown = 1; // samples of this type until the next chunk begins
    quint32 written = 0;
    // The table's parameters as locals: the batch is written through a char pointer, which the compiler
    // must otherwise assume changes them after every entry.
    const int capacity = sink.capacity();
    const quint32 type = frameType;
    const quint32 chunkSamples = samplesPerChunk;
    const quint32 entriesWanted = entryCount;
    const quint64 bias = offsetBias;
    while (written < entriesWanted && !walk.listEnded()) {
        int entries = 0;
        walk.visitUntil([&](quint32 frameKind, quint32 length) {
            const quint64 start = offset;
            offset += length;
            if (frameKind != type || --countdown != 0)
                return true;
            sink.put64(entries++, bias + start);
            lastChunkStart = start;
            ++written;
            countdown = chunkSamples;
            return entries < capacity && written < entriesWanted;
        });
        // The final chunk of the table takes lastOffsetBias in place of offsetBias.
        const bool lastBatch = written == entryCount || walk.listEnded();
        const qint64 batchStart = qint64(written - quint32(entries)) * s_offset64EntryBytes;
        served.writeBatch(sink, entries, bias, batchStart, lastBatch, lastChunkStart);
        if (lastBatch && entries > 0 && lastOffsetBias != 0)
            sink.put64(entries - 1, lastChunkStart + lastOffsetBias);
        sink.endBatch(entries);
    }
    return written;
}

// The later tables of this one's group that its walk can write as well: only through the buffered
// device, only when this table stands where its placement says (so the later ones do too), only when
// the walk is sure to reach every entry (a table cut short would move everything behind it), and only
// tables of the same chunks.
QList<QuickTimeChunkOffset64Atom*> QuickTimeChunkOffset64Atom::tablesToServe(QDataStream& stream) const
{
    QList<QuickTimeChunkOffset64Atom*> partners;
    if (!group || entryCount == 0 || !qobject_cast<QuickTimeBufferDevice*>(stream.device())
        || streamPosition(stream) != tablePosition() || !walkReachesEveryEntry())
        return partners;
    qint64 nextFree = tablePosition() + qint64(s_offset64EntryBytes) * entryCount;
    for (QuickTimeChunkOffset64Atom* table : qAsConst(group->tables)) {
        if (table == this || group->served.contains(table) || table->file != file
            || table->frameType != frameType || table->samplesPerChunk != samplesPerChunk
            || table->entryCount != entryCount || table->tablePosition() < nextFree)
            continue;
        partners << table;
        nextFree = table->tablePosition() + qint64(s_offset64EntryBytes) * entryCount;
    }
    for (const QuickTimeChunkOffset64Atom* table : qAsConst(partners))
        group->served << table;
    if (!partners.isEmpty())
        group->servedEntries = entryCount;
    return partners;
}

// True when the frame map holds this table's last chunk before the list ends: the walk then writes every
// entry, whatever the batches, and the table is exactly as long as its size says.
bool QuickTimeChunkOffset64Atom::walkReachesEveryEntry() const
{
    if (!file->frameMap || (file->importMode && !file->writtenByRecorder) || samplesPerChunk == 0)
        return false;
    const quint64 needed = quint64(entryCount - 1) * samplesPerChunk + 1;
    const quint32 listed = qMin(file->totalFrames(), QuickTimeFile::s_frameMapEntries);
    const quint16* map = file->frameMap;
    // Counted a stretch at a time: a plain loop without an exit of its own is cheap to run.
    const quint32 kStretch = 4096;
    quint64 matching = 0;
    for (quint32 i = 0; i < listed && matching < needed;) {
        const quint32 end = qMin(listed, i + kStretch);
        quint32 inStretch = 0;
        for (; i < end; ++i)
            inStretch += quint32(map[i] >> QuickTimeFile::s_frameTypeShift) == frameType;
        matching += inStretch;
    }
    return matching >= needed;
}

bool QuickTimeChunkOffset64Atom::read(QDataStream& stream, quint64* remaining)
{
    quint64 tableBytes = 0;
    if (!readTableHead(*this, stream, remaining, s_offset64EntryBytes, &entryCount, &tableBytes))
        return false;
    if (file) {
        file->setCO64Pos(quint64(stream.device()->pos()));
        file->setCO64Entries(entryCount);
    }
    return skipBytes(stream, tableBytes);
}

QuickTimeSingleChunkOffset64Atom::QuickTimeSingleChunkOffset64Atom(QuickTimeFile* movieFile,
                                                                   quint64 chunkOffset)
    : QuickTimeVersionFlagsAtom(fourCC("co64"), s_countFieldBytes + s_offset64EntryBytes, 0, 0, 0)
    , offset(chunkOffset)
{
    file = movieFile;
}

void QuickTimeSingleChunkOffset64Atom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    const quint32 entries = 1;
    // Logged as the family logs every chunk offset table, so the report has the same lines.
    const bool logs = file && file->family().logsChunkOffsetProgress;
    stream << entries;
    if (logs)
        logTableStart(entries, streamPosition(stream));
    stream << offset;
    if (logs)
        logTableDone(entries);
}

} // namespace Tern
