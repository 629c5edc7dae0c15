// Learning the tracks of an existing movie: the parser pushes what it finds into the current track record,
// and a record that has everything the reader needs is committed to the track list.

#include "movie/QuickTimeAtom.h"
#include "movie/QuickTimeFile.h"

#include <QIODevice>

namespace Tern {

namespace {

// Rates are kept in hundredths of a frame per second; 23.976 is always spelled 2398.
const quint64 s_rateHundredths = 100;
const quint32 s_ntscFilmRateLow = 2397;
const quint32 s_ntscFilmRate = 2398;

} // namespace

bool QuickTimeFile::readFile()
{
    removeAllAtoms();
    device.seek(0);
    for (;;) {
        const qint64 size = device.size();
        const qint64 pos = device.pos();
        if (pos >= size)
            break;
        quint64 remaining = quint64(size - pos);
        QuickTimeAtom* atom = nullptr;
        const bool more = QuickTimeAtom::readNextAtom(this, &atom, stream, &remaining);
        // The parser keeps no tree: what it learned is in the track records already.
        delete atom;
        if (!more || device.pos() <= pos)
            break;
    }
    // A walk that ran into the end leaves the stream's read status set; later reads start clean.
    stream.resetStatus();
    return true;
}

bool QuickTimeFile::closeFileRead()
{
    removeAllAtoms();
    return true;
}

void QuickTimeFile::initCurrentTrackInfo()
{
    // A fresh record: unknown type, duration and time scale unset, no tables, nothing committed.
    currentTrack = QuickTimeTrackInfo();
}

void QuickTimeFile::checkCurrentTrackInfo()
{
    // Recording and movies whose maker atom has been read keep their frame map instead of track tables.
    if (writtenByRecorder)
        return;
    const QuickTimeTrackInfo& track = currentTrack;
    const bool hasOffsets
        = (track.stcoPos != 0 && track.stcoEntries != 0) || (track.co64Pos != 0 && track.co64Entries != 0);
    const bool hasSizes = track.stszPos != 0 && track.stszEntries != 0;
    const bool complete = track.type != quicktime_frametype_unknown && track.sampleDuration != -1
        && track.timeScale != -1 && track.stscPos != 0 && track.stscEntries != 0 && hasOffsets
        && (track.type != quicktime_frametype_video || hasSizes);
    if (!complete || track.committed || trackCount >= s_maxTracks)
        return;

    currentTrack.committed = true;
    tracks[trackCount++] = currentTrack;

    // A video track gives the recording's rate; a duration of 0 gives none rather than a division by 0.
    if (track.type == quicktime_frametype_video && track.sampleDuration > 0) {
        quint32 rate = quint32(quint64(track.timeScale) * s_rateHundredths / quint64(track.sampleDuration));
        if (rate == s_ntscFilmRateLow)
            rate = s_ntscFilmRate;
        if (interlaced)
            rate *= 2; // the recorder counts fields
        userData[UserFrameRate] = rate;
        userData[UserValue9] = 0;
    }
}

bool QuickTimeFile::ensureFrameMap()
{
    if (!frameMap && m_ownsFrameMap)
        frameMap = new quint16[s_frameMapEntries];
    return frameMap != nullptr;
}

void QuickTimeFile::setCurrentTrackType(quicktime_frametype_t trackType)
{
    currentTrack.type = trackType;
    checkCurrentTrackInfo();
}

void QuickTimeFile::setCurrentTimeScale(quint32 scale)
{
    currentTrack.timeScale = scale;
    checkCurrentTrackInfo();
}

void QuickTimeFile::setCurrentSampleDuration(quint32 duration)
{
    currentTrack.sampleDuration = duration;
    checkCurrentTrackInfo();
}

void QuickTimeFile::setCurrentAudioBytesPerSample(quint32 bytes)
{
    currentTrack.audioBytesPerSample = bytes;
    checkCurrentTrackInfo();
}

void QuickTimeFile::setCurrentAudioIsBigEndian(bool bigEndian)
{
    currentTrack.audioBigEndian = bigEndian;
    checkCurrentTrackInfo();
}

void QuickTimeFile::setCurrentAudioChannels(quint32 channels)
{
    currentTrack.audioChannels = channels;
    checkCurrentTrackInfo();
}

void QuickTimeFile::setSTSCPos(quint64 pos)
{
    currentTrack.stscPos = pos;
    checkCurrentTrackInfo();
}

void QuickTimeFile::setSTSCEntries(quint32 entries)
{
    currentTrack.stscEntries = entries;
    checkCurrentTrackInfo();
}

void QuickTimeFile::setSTSZPos(quint64 pos)
{
    currentTrack.stszPos = pos;
    checkCurrentTrackInfo();
}

void QuickTimeFile::setSTSZEntries(quint32 entries)
{
    currentTrack.stszEntries = entries;
    checkCurrentTrackInfo();
}

void QuickTimeFile::setSTSZSampleSize(quint32 sampleSize)
{
    currentTrack.stszSampleSize = sampleSize;
    checkCurrentTrackInfo();
}

void QuickTimeFile::setSTCOPos(quint64 pos)
{
    currentTrack.stcoPos = pos;
    checkCurrentTrackInfo();
}

void QuickTimeFile::setSTCOEntries(quint32 entries)
{
    currentTrack.stcoEntries = entries;
    checkCurrentTrackInfo();
}

void QuickTimeFile::setCO64Pos(quint64 pos)
{
    currentTrack.co64Pos = pos;
    checkCurrentTrackInfo();
}

void QuickTimeFile::setCO64Entries(quint32 entries)
{
    currentTrack.co64Entries = entries;
    checkCurrentTrackInfo();
}

} // namespace Tern
