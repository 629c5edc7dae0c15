// Play-mode navigation: serving a movie's media piece by piece in file order, as a player reads it.
// Each call returns the next file location to read and moves the positions past it: the play position
// (playFrame, currentVideoFrame) for video and frame-map entries, a sound track's reading position for
// the sound chunks of a movie read by its tables.

#include "movie/QuickTimeFile.h"

namespace Tern {

namespace {

const quint64 s_blockBytes = 512;

bool wanted(quicktime_playmode_t mode, quint32 type)
{
    switch (mode) {
    case quicktime_playmode_video:
        return type == quicktime_frametype_video;
    case quicktime_playmode_sound:
        return type == quicktime_frametype_sound;
    case quicktime_playmode_all:
        return type == quicktime_frametype_video || type == quicktime_frametype_sound;
    }
    return false;
}

} // namespace

// Starts playing: at the first video frame (the first sound chunk in sound mode) and returns the first
// piece as getNextDataLocation does.
bool QuickTimeFile::getStartDataLocation(quicktime_playmode_t mode, QuickTimePlayRegion* region)
{
    if (!writtenByRecorder)
        return getStartDataLocationImport(mode, region);
    playFrame = mode == quicktime_playmode_sound ? 0 : playStart;
    return getNextDataLocation(mode, region);
}

// The next frame-map entry at or after playFrame that the mode plays (timecode samples are never
// played); playFrame moves past it. False at the end of the map, playFrame then at the end.
bool QuickTimeFile::getNextDataLocation(quicktime_playmode_t mode, QuickTimePlayRegion* region)
{
    if (!writtenByRecorder)
        return getNextDataLocationImport(mode, region);
    QuickTimeMapPosition at = m_playPosition;
    if (!moveMapPosition(&at, playFrame)) {
        playFrame = frameMapLength;
        return false;
    }
    for (;;) {
        const quint16 entry = frameMap[at.index];
        const quint32 type = entry >> s_frameTypeShift;
        if (wanted(mode, type)) {
            region->type = quicktime_frametype_t(type);
            region->position = mapLocation(at);
            region->bytes = s_blockBytes * (entry & s_blockCountMask);
            region->index = at.index;
            region->soundTrack = -1;
            if (type == quicktime_frametype_video)
                currentVideoFrame = at.videoBefore;
            m_playPosition = at;
            playFrame = at.index + 1;
            return true;
        }
        if (!moveMapPosition(&at, at.index + 1))
            break;
    }
    playFrame = frameMapLength;
    return false;
}

// Starts playing a movie read by its tables: video at frame 0, every sound track at its first chunk.
bool QuickTimeFile::getStartDataLocationImport(quicktime_playmode_t mode, QuickTimePlayRegion* region)
{
    gotoVideoFrame(0);
    for (int n = 0; QuickTimeTrackInfo* track = getAudioTrack(n); ++n)
        seekToAudioChunk(track, 0);
    return getNextDataLocationImport(mode, region);
}

// Of the next video frame (playFrame) and the rest of every sound track's current chunk, the one the
// mode plays that lies first in the file (video first on a tie); its position moves past it.
bool QuickTimeFile::getNextDataLocationImport(quicktime_playmode_t mode, QuickTimePlayRegion* region)
{
    QuickTimePlayRegion best;
    bool found = false;
    if (mode != quicktime_playmode_sound && playFrame < videoFrameCount) {
        quint64 position = 0;
        quint64 bytes = 0;
        if (calculateLocationSeekVideo(playFrame, &position, &bytes)) {
            best.type = quicktime_frametype_video;
            best.position = position;
            best.bytes = bytes;
            best.index = playFrame;
            found = true;
        }
    }
    QuickTimeTrackInfo* bestTrack = nullptr;
    for (int n = 0; mode != quicktime_playmode_video; ++n) {
        QuickTimeTrackInfo* track = getAudioTrack(n);
        if (!track)
            break;
        quint64 position = 0;
        const quint32 left = samplesLeftInCurrentChunk(n);
        if (left == 0 || !calculateLocationSeek(track, &position) || (found && position >= best.position))
            continue;
        best.type = quicktime_frametype_sound;
        best.position = position;
        best.bytes = quint64(left) * track->audioBytesPerSample * track->audioChannels;
        best.index = track->currentChunk;
        best.soundTrack = n;
        bestTrack = track;
        found = true;
    }
    if (!found)
        return false;
    *region = best;
    if (bestTrack) {
        seekNextAudioChunk(bestTrack);
    } else {
        currentVideoFrame = playFrame;
        ++playFrame;
    }
    return true;
}

} // namespace Tern
