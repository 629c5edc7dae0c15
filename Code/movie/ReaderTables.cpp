// The reader's view of a track's sample tables. The tables stay in the file: each track keeps a window of
// 64 entries per table, reloaded around the index in use, and every lookup is bounded by the entry count
// the parser noted.

#include "movie/QuickTimeFile.h"

#include <QIODevice>
#include <QtEndian>

namespace Tern {

namespace {

const quint32 s_window = QuickTimeTrackInfo::s_tableCacheEntries;
const int s_stscEntryBytes = 4 * QuickTimeTrackInfo::s_stscEntryValues;

// Moves a cache window [start, start + count) so that it covers k, and reads the entries there.
// Beyond the window it starts at k; before it, it ends at k (starting at 0 when k is below 64).
bool reloadWindow(QIODevice& device, quint64 tablePos, quint32 entries, int entryBytes, quint32 k, bool force,
    quint32* start, quint32* count, void* cache)
{
    if (!force) {
        if (*count != 0 && k >= *start && k - *start < *count)
            return false;
        if (quint64(k) >= quint64(*start) + *count)
            *start = k;
        else
            *start = k < s_window ? 0 : k - (s_window - 1);
    }
    *count = 0;
    if (tablePos == 0 || *start >= entries)
        return true;
    const quint32 wanted = qMin(s_window, entries - *start);
    if (!device.seek(qint64(tablePos + quint64(*start) * quint64(entryBytes))))
        return true;
    const qint64 bytes = device.read(static_cast<char*>(cache), qint64(wanted) * entryBytes);
    // A table cut short by the end of the file holds only the entries that are there.
    *count = bytes > 0 ? quint32(bytes / entryBytes) : 0;
    return true;
}

} // namespace

bool QuickTimeFile::checkSTCOCache(QuickTimeTrackInfo* track, bool force)
{
    return reloadWindow(device, track->stcoPos, track->stcoEntries, 4, track->currentChunk, force,
        &track->stcoCacheStart, &track->stcoCacheCount, track->stcoCache);
}

bool QuickTimeFile::checkCO64Cache(QuickTimeTrackInfo* track, bool force)
{
    return reloadWindow(device, track->co64Pos, track->co64Entries, 8, track->currentChunk, force,
        &track->co64CacheStart, &track->co64CacheCount, track->co64Cache);
}

bool QuickTimeFile::checkSTSZCache(QuickTimeTrackInfo* track, bool force)
{
    // Sample indices beyond 32 bits lie past every table.
    const quint32 k = track->currentSample > 0xFFFFFFFFu ? 0xFFFFFFFFu : quint32(track->currentSample);
    return reloadWindow(device, track->stszPos, track->stszEntries, 4, k, force, &track->stszCacheStart,
        &track->stszCacheCount, track->stszCache);
}

bool QuickTimeFile::checkSTSCCache(QuickTimeTrackInfo* track, bool force)
{
    return reloadWindow(device, track->stscPos, track->stscEntries, s_stscEntryBytes, track->stscEntry, force,
        &track->stscCacheStart, &track->stscCacheCount, track->stscCache);
}

quint32 QuickTimeFile::chunkCount(const QuickTimeTrackInfo* track) const
{
    // The maker atom's count, as far as the frame map holds the chunks.
    if (writtenByRecorder && track->type == quicktime_frametype_sound)
        return qMin(soundChunks, frameMapSoundEntries);
    return track->co64Pos != 0 ? track->co64Entries : track->stcoEntries;
}

bool QuickTimeFile::tableChunkOffset(QuickTimeTrackInfo* track, quint32 chunk, quint64* offset)
{
    const quint32 kept = track->currentChunk;
    track->currentChunk = chunk;
    bool found = false;
    if (track->co64Pos != 0) {
        checkCO64Cache(track, false);
        found = chunk < track->co64Entries && chunk >= track->co64CacheStart
            && chunk - track->co64CacheStart < track->co64CacheCount;
        if (found)
            *offset = qFromBigEndian(track->co64Cache[chunk - track->co64CacheStart]);
    } else if (track->stcoPos != 0) {
        checkSTCOCache(track, false);
        found = chunk < track->stcoEntries && chunk >= track->stcoCacheStart
            && chunk - track->stcoCacheStart < track->stcoCacheCount;
        if (found)
            *offset = qFromBigEndian(track->stcoCache[chunk - track->stcoCacheStart]);
    }
    track->currentChunk = kept;
    return found;
}

bool QuickTimeFile::tableSampleSize(QuickTimeTrackInfo* track, quint64 sample, quint32* bytes)
{
    if (sample >= track->stszEntries)
        return false;
    if (track->stszSampleSize != 0) {
        *bytes = track->stszSampleSize;
        return true;
    }
    const quint64 kept = track->currentSample;
    track->currentSample = sample;
    checkSTSZCache(track, false);
    track->currentSample = kept;
    const quint32 k = quint32(sample);
    if (k < track->stszCacheStart || k - track->stszCacheStart >= track->stszCacheCount)
        return false;
    *bytes = qFromBigEndian(track->stszCache[k - track->stszCacheStart]);
    return true;
}

quint32 QuickTimeFile::samplesInChunk(QuickTimeTrackInfo* track, quint32 chunk)
{
    const quint32 entries = track->stscEntries;
    if (entries == 0 || track->stscPos == 0)
        return 0;
    // First chunk (from 0) and samples per chunk of entry e, read through the cache.
    auto entryAt = [this, track](quint32 e, qint64* first, quint32* samples) {
        track->stscEntry = e;
        checkSTSCCache(track, false);
        if (e < track->stscCacheStart || e - track->stscCacheStart >= track->stscCacheCount)
            return false;
        const quint32* values = track->stscCache[e - track->stscCacheStart];
        *first = qint64(qFromBigEndian(values[0])) - 1;
        *samples = qFromBigEndian(values[1]);
        return true;
    };

    // Entry e covers the chunks from its first chunk up to the next entry's first chunk; the walk starts
    // at the entry last used, or again at 0 for a chunk before it.
    quint32 e = track->stscEntry < entries ? track->stscEntry : 0;
    qint64 first = 0;
    quint32 samples = 0;
    if (!entryAt(e, &first, &samples))
        return 0;
    if (qint64(chunk) < first && e != 0) {
        e = 0;
        if (!entryAt(e, &first, &samples))
            return 0;
    }
    while (e + 1 < entries) {
        qint64 nextFirst = 0;
        quint32 nextSamples = 0;
        if (!entryAt(e + 1, &nextFirst, &nextSamples))
            break;
        if (qint64(chunk) < nextFirst)
            break;
        ++e;
        first = nextFirst;
        samples = nextSamples;
    }
    track->stscEntry = e;
    checkSTSCCache(track, false);
    return samples;
}

quint32 QuickTimeFile::findSamplesPerChunk(QuickTimeTrackInfo* track)
{
    quint32 largest = 0;
    for (quint32 e = 0; e < track->stscEntries; ++e) {
        track->stscEntry = e;
        checkSTSCCache(track, false);
        if (e < track->stscCacheStart || e - track->stscCacheStart >= track->stscCacheCount)
            break;
        largest = qMax(largest, qFromBigEndian(track->stscCache[e - track->stscCacheStart][1]));
    }
    track->stscEntry = 0;
    return largest;
}

} // namespace Tern
