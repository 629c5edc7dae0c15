// Moving through an existing movie and finding where its media lies. A movie this library wrote is
// located by its frame map: the chunk of entry i starts at the movie data start plus 512 bytes for every
// block of the entries before it. Any other movie is located by its tables: 'stsc' groups the samples
// into chunks, 'stco'/'co64' give each chunk's offset, 'stsz' each sample's size.
//
// Positions that move:
// - a track's reading position (currentSample, currentChunk, sampleInChunk, chunkFirstSample);
// - the play position: playFrame, the next frame-map entry to read (or, in a movie read by its tables,
//   the next video frame), and currentVideoFrame, the video frame it is at.

#include "movie/QuickTimeFile.h"

#include <QIODevice>

#include <climits>

namespace Tern {

namespace {

const quint64 s_blockBytes = 512;

quint32 typeOf(quint16 entry)
{
    return entry >> QuickTimeFile::s_frameTypeShift;
}

quint32 blocksOf(quint16 entry)
{
    return entry & QuickTimeFile::s_blockCountMask;
}

// The position one entry further on.
void stepOver(QuickTimeMapPosition* position, quint16 entry)
{
    if (typeOf(entry) == quicktime_frametype_video)
        ++position->videoBefore;
    else if (typeOf(entry) == quicktime_frametype_sound)
        ++position->soundBefore;
    position->blocksBefore += blocksOf(entry);
    ++position->index;
}

// a * b / c without overflow for every value a recorder's rates give; 0 for c = 0.
quint64 scaled(quint64 a, quint64 b, quint64 c)
{
    if (c == 0)
        return 0;
    if (b == 0 || a <= ~quint64(0) / b)
        return a * b / c;
    const long double exact
        = static_cast<long double>(a) * static_cast<long double>(b) / static_cast<long double>(c);
    return exact >= static_cast<long double>(~quint64(0)) ? ~quint64(0) : static_cast<quint64>(exact);
}

} // namespace

// ---------------------------------------------------------------------------------------------------------
// The frame map

quint64 QuickTimeFile::mapLocation(const QuickTimeMapPosition& position) const
{
    return quint64(family().movieDataStartOffset) + s_blockBytes * position.blocksBefore;
}

// Moves *position to entry `index`, on from where it is or again from the start; false past the map.
bool QuickTimeFile::moveMapPosition(QuickTimeMapPosition* position, quint32 index) const
{
    if (index >= frameMapLength)
        return false;
    if (index < position->index)
        *position = QuickTimeMapPosition();
    while (position->index < index)
        stepOver(position, frameMap[position->index]);
    return true;
}

// Moves *position to the entry that is video (or sound) entry number `ordinal`, from 0; false past the map.
bool QuickTimeFile::findMapEntry(
    QuickTimeMapPosition* position, quicktime_frametype_t type, quint32 ordinal) const
{
    if (type != quicktime_frametype_video && type != quicktime_frametype_sound)
        return false;
    auto before = [type](const QuickTimeMapPosition& p) {
        return type == quicktime_frametype_video ? p.videoBefore : p.soundBefore;
    };
    if (ordinal < before(*position) || position->index > frameMapLength)
        *position = QuickTimeMapPosition();
    while (position->index < frameMapLength) {
        const quint16 entry = frameMap[position->index];
        if (typeOf(entry) == quint32(type) && before(*position) == ordinal)
            return true;
        stepOver(position, entry);
    }
    return false;
}

// Points the track's map position at the entry of its current chunk (sound) or frame (video).
bool QuickTimeFile::locateRecordedChunk(QuickTimeTrackInfo* track)
{
    const bool video = track->type == quicktime_frametype_video;
    if (!video && track->type != quicktime_frametype_sound)
        return false;
    if (video && track->currentSample >= videoFrameCount)
        return false;
    const quint32 ordinal = video ? quint32(track->currentSample) : track->currentChunk;
    return findMapEntry(&track->mapPosition, track->type, ordinal);
}

// ---------------------------------------------------------------------------------------------------------
// Track positions

// Moves the track to the first sample of chunk `chunk` (from 0). False, and nothing moved, when the track
// has no such chunk.
bool QuickTimeFile::seekToAudioChunk(QuickTimeTrackInfo* track, quint32 chunk)
{
    const quint32 chunks = chunkCount(track);
    if (chunk >= chunks)
        return false;
    if (chunk < track->currentChunk || track->currentChunk >= chunks) {
        track->currentChunk = 0;
        track->chunkFirstSample = 0;
    }
    while (track->currentChunk < chunk) {
        track->chunkFirstSample += samplesInChunk(track, track->currentChunk);
        ++track->currentChunk;
    }
    track->sampleInChunk = 0;
    track->currentSample = track->chunkFirstSample;
    return true;
}

// Moves the track to the first sample of its next chunk. False when the current chunk was its last: the
// track then stands at its end (currentChunk = chunkCount()).
bool QuickTimeFile::seekNextAudioChunk(QuickTimeTrackInfo* track)
{
    const quint32 chunks = chunkCount(track);
    if (track->currentChunk >= chunks)
        return false;
    track->chunkFirstSample += samplesInChunk(track, track->currentChunk);
    ++track->currentChunk;
    track->sampleInChunk = 0;
    track->currentSample = track->chunkFirstSample;
    return track->currentChunk < chunks;
}

// Moves the track to the first of its chunks that starts at or after file position `position`, so
// that its sound is picked up where a seek elsewhere left the file. False when no chunk does; the
// track then stands at its end.
bool QuickTimeFile::seekToChunkJustBeyond(QuickTimeTrackInfo* track, quint64 position)
{
    const quint32 chunks = chunkCount(track);
    quint64 start = 0;
    if (track->currentChunk >= chunks || !seekToAudioChunk(track, track->currentChunk)
        || !calculateLocationSeek(track, &start) || start > position) {
        if (!seekToAudioChunk(track, 0))
            return false;
    }
    for (;;) {
        if (!calculateLocationSeek(track, &start))
            return false;
        if (start >= position)
            return true;
        if (!seekNextAudioChunk(track))
            return false;
    }
}

// Moves the track to sample `sample` (from 0): on from its position, or again from the start for a sample
// before its current chunk. False past the track's last sample; the track then stands at its end.
bool QuickTimeFile::seekToSampleAbsolute(QuickTimeTrackInfo* track, quint64 sample)
{
    const quint32 chunks = chunkCount(track);
    if (sample < track->chunkFirstSample) {
        track->currentChunk = 0;
        track->chunkFirstSample = 0;
    }
    while (track->currentChunk < chunks) {
        const quint32 samples = samplesInChunk(track, track->currentChunk);
        if (sample - track->chunkFirstSample < samples) {
            track->sampleInChunk = quint32(sample - track->chunkFirstSample);
            track->currentSample = sample;
            return true;
        }
        track->chunkFirstSample += samples;
        ++track->currentChunk;
    }
    track->sampleInChunk = 0;
    track->currentSample = track->chunkFirstSample;
    return false;
}

// The sound sample of `soundTrack` that plays at the start of video frame `frame`, rounded down.
quint64 QuickTimeFile::calculateCorrespondingSample(quint32 frame, const QuickTimeTrackInfo* soundTrack) const
{
    if (!soundTrack || soundTrack->timeScale <= 0 || soundTrack->sampleDuration <= 0)
        return 0;
    quint64 frameDuration = sampleDuration;
    quint64 frameScale = timeScale;
    if (!writtenByRecorder && videoTrack.sampleDuration > 0 && videoTrack.timeScale > 0) {
        frameDuration = quint64(videoTrack.sampleDuration);
        frameScale = quint64(videoTrack.timeScale);
    }
    // Time of the frame in the sound track's samples: frame x frame duration / frame scale seconds.
    const quint64 ticks = scaled(quint64(frame) * frameDuration, quint64(soundTrack->timeScale), frameScale);
    return ticks / quint64(soundTrack->sampleDuration);
}

// Moves every sound track to the sample that plays with video frame `frame`. False when a sound track
// ends before it (that track stands at its end); true without sound tracks.
bool QuickTimeFile::seekAudioToVideoFrameAbsolute(quint32 frame)
{
    bool all = true;
    for (int n = 0; QuickTimeTrackInfo* track = getAudioTrack(n); ++n)
        all = seekToSampleAbsolute(track, calculateCorrespondingSample(frame, track)) && all;
    return all;
}

// Moves the play position to video frame `frame`; the sound tracks are not moved.
bool QuickTimeFile::seekVideoToVideoFrameAbsolute(quint32 frame)
{
    return gotoVideoFrame(frame);
}

// Moves the play position to video frame `frame` and every sound track to the sound that plays with it.
// Returns whether the frame exists; sound tracks that end earlier stand at their end.
bool QuickTimeFile::seekToVideoFrameAbsolute(quint32 frame)
{
    if (!seekVideoToVideoFrameAbsolute(frame))
        return false;
    seekAudioToVideoFrameAbsolute(frame);
    return true;
}

// As seekToVideoFrameAbsolute, `frames` frames on from (or, negative, back from) the current video frame.
// Nothing moves when the target lies outside the movie.
bool QuickTimeFile::seekToVideoFrameRelative(qint64 frames)
{
    const qint64 target = qint64(currentVideoFrame) + frames;
    if (target < 0 || target >= qint64(videoFrameCount))
        return false;
    return seekToVideoFrameAbsolute(quint32(target));
}

// The play position at video frame `frame`: playFrame becomes the frame's entry in the frame map (movies
// this library wrote) or the frame itself (movies read by their tables, whose video track is moved to
// it). False, and nothing moved, when the movie has no such frame.
bool QuickTimeFile::gotoVideoFrame(quint32 frame)
{
    if (frame >= videoFrameCount)
        return false;
    if (writtenByRecorder) {
        QuickTimeMapPosition position = m_playPosition;
        if (!findMapEntry(&position, quicktime_frametype_video, frame))
            return false;
        m_playPosition = position;
        playFrame = position.index;
    } else {
        if (!seekToSampleAbsolute(&videoTrack, frame))
            return false;
        playFrame = frame;
    }
    currentVideoFrame = frame;
    return true;
}

// ---------------------------------------------------------------------------------------------------------
// Locations

// File position of the track's current sample, by its own tables whatever the kind of movie. Sound
// samples follow each other at bytes per sample x channels; other samples by their 'stsz' sizes.
bool QuickTimeFile::calculateTableLocation(QuickTimeTrackInfo* track, quint64* position)
{
    quint64 offset = 0;
    if (track->currentChunk >= chunkCount(track) || !tableChunkOffset(track, track->currentChunk, &offset))
        return false;
    if (track->type == quicktime_frametype_sound) {
        offset += quint64(track->sampleInChunk) * track->audioBytesPerSample * track->audioChannels;
    } else if (track->stszSampleSize != 0) {
        offset += quint64(track->sampleInChunk) * track->stszSampleSize;
    } else {
        // On from the sum kept for this chunk when it reaches no further than the current sample.
        if (track->summedChunk != track->currentChunk || track->summedSample > track->currentSample
            || track->summedSample < track->chunkFirstSample) {
            track->summedChunk = track->currentChunk;
            track->summedSample = track->chunkFirstSample;
            track->summedBytes = 0;
        }
        while (track->summedSample < track->currentSample) {
            quint32 bytes = 0;
            if (!tableSampleSize(track, track->summedSample, &bytes))
                return false;
            track->summedBytes += bytes;
            ++track->summedSample;
        }
        offset += track->summedBytes;
    }
    *position = offset;
    return true;
}

// File position of the track's current sample. In a movie this library wrote, video and sound come from
// the frame map; a sound chunk holds one plane per track, each `full chunk` samples long except in a
// short last chunk, which is packed at its own length.
bool QuickTimeFile::calculateLocationSeek(QuickTimeTrackInfo* track, quint64* position)
{
    const bool mapped = track->type == quicktime_frametype_video || track->type == quicktime_frametype_sound;
    if (!writtenByRecorder || !mapped)
        return calculateTableLocation(track, position);
    if (!locateRecordedChunk(track))
        return false;
    quint64 location = mapLocation(track->mapPosition);
    if (track->type == quicktime_frametype_sound) {
        const quint32 chunks = chunkCount(track);
        const bool shortLast = chunks > 1 && track->currentChunk == chunks - 1;
        const quint64 planeSamples
            = shortLast ? samplesInChunk(track, track->currentChunk) : audioSamplesPerChunk;
        const quint64 frameBytes = quint64(track->audioBytesPerSample) * track->audioChannels;
        location += (planeSamples * track->plane + track->sampleInChunk) * frameBytes;
    }
    *position = location;
    return true;
}

// Position and length of video frame `frame`, without moving the play position. A movie read by its
// tables moves its video track to the frame.
bool QuickTimeFile::calculateLocationSeekVideo(quint32 frame, quint64* position, quint64* bytes)
{
    if (frame >= videoFrameCount)
        return false;
    if (writtenByRecorder) {
        QuickTimeMapPosition at = m_playPosition;
        if (!findMapEntry(&at, quicktime_frametype_video, frame))
            return false;
        *position = mapLocation(at);
        *bytes = s_blockBytes * blocksOf(frameMap[at.index]);
        return true;
    }
    quint32 size = 0;
    if (!seekToSampleAbsolute(&videoTrack, frame) || !calculateTableLocation(&videoTrack, position)
        || !tableSampleSize(&videoTrack, frame, &size))
        return false;
    *bytes = size;
    return true;
}

// ---------------------------------------------------------------------------------------------------------
// Reading at the play position. *size holds the buffer's capacity on entry and the bytes stored on return;
// a chunk larger than the buffer is not read, *size then tells its length.

namespace {

bool readAt(QIODevice& device, quint64 position, quint64 bytes, char* buffer)
{
    const quint64 fileSize = quint64(device.size());
    if (position > fileSize || bytes > fileSize - position || !device.seek(qint64(position)))
        return false;
    return device.read(buffer, qint64(bytes)) == qint64(bytes);
}

} // namespace

// Reads the video frame at playFrame (its whole frame-map entry, or its 'stsz' size) and moves playFrame
// one on. False when the entry there is not video.
bool QuickTimeFile::getMovieVideoData(char* buffer, int* size)
{
    quint64 position = 0;
    quint64 bytes = 0;
    quint32 frame = playFrame;
    QuickTimeMapPosition at = m_playPosition;
    if (writtenByRecorder) {
        if (!moveMapPosition(&at, playFrame) || typeOf(frameMap[at.index]) != quicktime_frametype_video)
            return false;
        position = mapLocation(at);
        bytes = s_blockBytes * blocksOf(frameMap[at.index]);
        frame = at.videoBefore;
    } else if (!calculateLocationSeekVideo(playFrame, &position, &bytes)) {
        return false;
    }
    if (bytes > quint64(qMax(*size, 0))) {
        *size = bytes > quint64(INT_MAX) ? INT_MAX : int(bytes);
        return false;
    }
    if (!readAt(device, position, bytes, buffer))
        return false;
    *size = int(bytes);
    m_playPosition = at;
    currentVideoFrame = frame;
    ++playFrame;
    return true;
}

// Reads the sound chunk at playFrame of a movie this library wrote (every track's plane of it) and moves
// playFrame one on; *samples tells the samples per track it holds. False when the entry there is not
// sound, and always for other movies, whose sound is read by readAudioSamples.
bool QuickTimeFile::getMovieSoundData(char* buffer, unsigned* size, unsigned* samples)
{
    QuickTimeMapPosition at = m_playPosition;
    if (!writtenByRecorder || !moveMapPosition(&at, playFrame))
        return false;
    const quint16 entry = frameMap[at.index];
    if (entry > s_blockCountMask)
        return false;
    const quint64 bytes = s_blockBytes * entry;
    if (bytes > *size) {
        *size = unsigned(bytes);
        return false;
    }
    if (!readAt(device, mapLocation(at), bytes, buffer))
        return false;
    *size = unsigned(bytes);
    if (samples) {
        QuickTimeTrackInfo* track = getAudioTrack(0);
        *samples = track ? samplesInChunk(track, at.soundBefore) : 0;
    }
    m_playPosition = at;
    ++playFrame;
    return true;
}

} // namespace Tern
