// The reading side of the movie file: opening an existing movie and learning its tracks, the sound
// parameters derived from them, the fast sound map over the frame map, and reading sound samples.

#include "movie/QuickTimeAtom.h"
#include "movie/QuickTimeFile.h"

#include <QIODevice>
#include <QtDebug>
#include <QtEndian>

#include <cstring>

namespace Tern {

namespace {

const quint32 s_atomHeaderBytes = 8;
const quint32 s_extendedHeaderBytes = 16;

// A frame of sound (every channel's sample) larger than this is no PCM any recorder writes.
const quint64 s_maxSoundFrameBytes = 1024 * 1024;

// Size, type and header length of the atom at pos; false when no whole header lies before end.
bool atomHeaderAt(QIODevice& device, qint64 pos, qint64 end, quint64* size, quint32* type, quint32* header)
{
    if (pos < 0 || pos + qint64(s_atomHeaderBytes) > end || !device.seek(pos))
        return false;
    uchar bytes[s_extendedHeaderBytes];
    if (device.read(reinterpret_cast<char*>(bytes), s_atomHeaderBytes) != s_atomHeaderBytes)
        return false;
    *size = qFromBigEndian<quint32>(bytes);
    *type = qFromBigEndian<quint32>(bytes + 4);
    *header = s_atomHeaderBytes;
    if (*size == 1) {
        if (pos + qint64(s_extendedHeaderBytes) > end
            || device.read(reinterpret_cast<char*>(bytes + 8), 8) != 8)
            return false;
        *size = qFromBigEndian<quint64>(bytes + 8);
        *header = s_extendedHeaderBytes;
    } else if (*size == 0) {
        *size = quint64(end - pos); // the atom runs to the end
    }
    return *size >= *header && *size <= quint64(end - pos);
}

// Where the first top-level 'moov' of the device lies: its start, size and header length.
bool findMovieAtom(QIODevice& device, qint64* pos, quint64* size, quint32* header)
{
    const qint64 end = device.size();
    quint32 type = 0;
    for (*pos = 0; atomHeaderAt(device, *pos, end, size, &type, header); *pos += qint64(*size)) {
        if (type == fourCC("moov"))
            return true;
    }
    return false;
}

} // namespace

bool QuickTimeFile::initFileRead(QIODevice* readDevice)
{
    if (readDevice && readDevice != &device)
        return false; // the parser reads through the file's own stream

    resetForReading();
    readAtomTree();

    // The recorded rate counts fields when interlaced.
    setFrameRate(interlaced ? userData[UserFrameRate] / 2 : userData[UserFrameRate]);
    if (writtenByRecorder)
        learnRecordedSound();
    else
        learnImportedSound();
    InitQuickTimeFileInfo();

    for (int i = 0; i < trackCount; ++i) {
        if (tracks[i].type == quicktime_frametype_video) {
            videoTrack = tracks[i];
            break;
        }
    }
    return writtenByRecorder ? startRecordedPlay() : startImportedPlay();
}

// The movie's atoms, read into the track records (and the frame map of a movie this library wrote),
// then the fast sound map over that frame map; the device is left at the start.
void QuickTimeFile::readAtomTree()
{
    readFile();
    // A maker atom read before the tracks kept them from being committed.
    if (writtenByRecorder && trackCount == 0)
        learnRecordedTracks();
    buildFastAudioMap();
    device.seek(0);
}

// The state every reading starts from: the movie's defaults, no tracks, user data, codec or play
// position learned yet, and a cleared frame map.
void QuickTimeFile::resetForReading()
{
    resetMovieState();
    importMode = true;
    writtenByRecorder = false;
    haldenMarker = false;
    movieDataStart = 0;
    recordedEndPosition = 0;
    std::memset(userData, 0, sizeof userData);

    initCurrentTrackInfo();
    trackCount = 0;
    for (QuickTimeTrackInfo& track : tracks)
        track = QuickTimeTrackInfo();
    videoTrack = QuickTimeTrackInfo();

    videoCodecId = 0;
    videoCodecType = 0;
    proResVariant = 0;
    videoFramesPerChunk = 0;
    audioTracks = 0;
    interleavedAudio = false;
    playStart = 0;
    currentVideoFrame = 0;
    m_playPosition = QuickTimeMapPosition();

    // The map is cleared so that entries a maker atom does not list read as its end.
    if (ensureFrameMap())
        std::memset(frameMap, 0, size_t(s_frameMapBytes));
    if (!fastAudioMap)
        fastAudioMap.reset(new QuickTimeFastAudioRun[s_fastAudioRuns]);
}

// The maker atom's user data describes the recording's sound: one mono track per channel, each its
// plane of the planar chunks.
void QuickTimeFile::learnRecordedSound()
{
    audioTracks = userData[UserSoundTracks];
    audioBytesPerSample = userData[UserBitsPerSample] >> 3;
    audioSampleRate = userData[UserSampleRate];
    quint32 plane = 0;
    for (int i = 0; i < trackCount; ++i) {
        if (tracks[i].type == quicktime_frametype_sound)
            tracks[i].plane = plane++;
    }
    if (QuickTimeTrackInfo* firstSound = getAudioTrack(0))
        audioSamplesPerChunk = findSamplesPerChunk(firstSound);
}

// A movie from elsewhere: the sound as its tracks declare it (channels interleaved in one track, or one
// track each), told to the user data as the maker atom of a recording would.
void QuickTimeFile::learnImportedSound()
{
    quint32 soundTrackCount = 0;
    for (int i = 0; i < trackCount; ++i) {
        if (tracks[i].type != quicktime_frametype_sound)
            continue;
        ++soundTrackCount;
        if (tracks[i].audioChannels > 1) {
            audioTracks = tracks[i].audioChannels;
            interleavedAudio = true;
        }
    }
    if (!interleavedAudio)
        audioTracks = soundTrackCount;
    if (const QuickTimeTrackInfo* firstSound = getAudioTrack(0)) {
        if (firstSound->sampleDuration > 0)
            audioSampleRate = quint32(firstSound->timeScale / firstSound->sampleDuration);
        audioBytesPerSample = firstSound->audioBytesPerSample;
        audioLittleEndian = firstSound->audioBigEndian ? 0 : 1;
    }
    userData[UserSoundTracks] = audioTracks;
    userData[UserBitsPerSample] = 8 * audioBytesPerSample;
    userData[UserSampleRate] = audioSampleRate;
    // DNxHD is told apart by its compression id, ProRes by its variant.
    const auto codecType = quicktime_codec_type_t(videoCodecType);
    userData[UserCodecSetting]
        = getCodecSetting(codecType, codecType == quicktime_codec_dnxhd ? videoCodecId : proResVariant);
}

// Movies of this library start playing at their first video frame; one without video at its start.
bool QuickTimeFile::startRecordedPlay()
{
    QuickTimeMapPosition first;
    playStart = findMapEntry(&first, quicktime_frametype_video, 0) ? first.index : 0;
    playFrame = playStart;
    return true;
}

// A movie from elsewhere plays from its first video frame and cannot be read without a video track.
bool QuickTimeFile::startImportedPlay()
{
    if (trackCount > 0)
        dumpTrackInfo();
    if (videoTrack.type != quicktime_frametype_video) {
        qDebug("!!!!!! didn't find a video track on import file !!!!!");
        return false;
    }
    gotoVideoFrame(0);
    playStart = 0;
    return true;
}

// The maker atom comes first in the index of a movie this library wrote and makes the parser keep the
// frame map instead of committing tracks. Its tracks are learned here in a second walk over the
// 'trak' atoms alone, keeping everything the maker atom set.
bool QuickTimeFile::learnRecordedTracks()
{
    const quint32 keptVideo = videoFrameCount, keptSound = soundChunks, keptTimecode = timecodeSamples;
    const quint16 keptWidth = width, keptHeight = height;
    const quint32 keptInterlaced = interlaced, keptRate = audioSampleRate;
    const bool keptDropFrame = dropFrame, keptCounter = counter;
    quint32 keptUserData[UserDataValues];
    std::memcpy(keptUserData, userData, sizeof userData);

    qint64 moovStart = 0;
    quint64 moovSize = 0;
    quint32 moovHeader = 0;
    const bool found = findMovieAtom(device, &moovStart, &moovSize, &moovHeader);
    if (found)
        learnTrackAtoms(moovStart, moovSize, moovHeader);

    videoFrameCount = keptVideo;
    soundChunks = keptSound;
    timecodeSamples = keptTimecode;
    width = keptWidth;
    height = keptHeight;
    interlaced = keptInterlaced;
    audioSampleRate = keptRate;
    dropFrame = keptDropFrame;
    counter = keptCounter;
    std::memcpy(userData, keptUserData, sizeof userData);
    return found;
}

// Reads the 'trak' atoms of the 'moov' at moovStart as the tracks of a movie read by its tables.
void QuickTimeFile::learnTrackAtoms(qint64 moovStart, quint64 moovSize, quint32 moovHeader)
{
    const qint64 moovEnd = moovStart + qint64(moovSize);
    qint64 child = moovStart + qint64(moovHeader);
    quint64 size = 0;
    quint32 type = 0;
    quint32 header = 0;
    writtenByRecorder = false;
    learningOwnTracks = true;
    while (atomHeaderAt(device, child, moovEnd, &size, &type, &header)) {
        if (type == fourCC("trak")) {
            device.seek(child);
            quint64 remaining = quint64(moovEnd - child);
            QuickTimeAtom::readNextAtom(this, nullptr, stream, &remaining);
        }
        child += qint64(size);
    }
    writtenByRecorder = true;
    learningOwnTracks = false;
    stream.resetStatus();
}

void QuickTimeFile::dumpTrackInfo()
{
    qDebug("********** learned track info *************");
    qDebug("### %d tracks", trackCount);
    for (int i = 0; i < trackCount; ++i) {
        const QuickTimeTrackInfo& track = tracks[i];
        qDebug("   track %d (%dx%d%s)", i, int(width), int(height), interlaced ? "i" : "p");
        switch (track.type) {
        case quicktime_frametype_video:
            qDebug("      type: VIDEO (rate %d)",
                track.sampleDuration > 0 ? int(track.timeScale * 100 / track.sampleDuration) : 0);
            break;
        case quicktime_frametype_sound:
            qDebug("      type: AUDIO (%d bytes/sample, %s endian, %d channel(s)",
                int(track.audioBytesPerSample), track.audioBigEndian ? "big" : "little",
                int(track.audioChannels));
            break;
        case quicktime_frametype_timecode:
            qDebug("      type: TIMECODE");
            break;
        default:
            qDebug("      type: UNKNOWN!!!");
            break;
        }
        qDebug("      sample duration %d", int(track.sampleDuration));
        qDebug("      time scale %d", int(track.timeScale));
    }
}

QuickTimeTrackInfo* QuickTimeFile::getAudioTrack(int soundTrack)
{
    int found = 0;
    for (int i = 0; i < trackCount && soundTrack >= 0; ++i) {
        if (tracks[i].type != quicktime_frametype_sound)
            continue;
        if (found++ == soundTrack)
            return &tracks[i];
    }
    return nullptr;
}

unsigned QuickTimeFile::samplesLeftInCurrentChunk(int soundTrack)
{
    QuickTimeTrackInfo* track = getAudioTrack(soundTrack);
    if (!track || track->currentChunk >= chunkCount(track))
        return 0;
    const quint32 samples = samplesInChunk(track, track->currentChunk);
    return samples > track->sampleInChunk ? samples - track->sampleInChunk : 0;
}

unsigned QuickTimeFile::readAudioSamples(int soundTrack, unsigned char* buffer, unsigned count)
{
    if (count == 0)
        return 0;
    QuickTimeTrackInfo* track = getAudioTrack(soundTrack);
    if (!track)
        return 0;
    const quint64 frameBytes = quint64(track->audioBytesPerSample) * track->audioChannels;
    if (frameBytes == 0 || frameBytes > s_maxSoundFrameBytes)
        return 0;

    const qint64 fileSize = device.size();
    unsigned done = 0;
    // Every pass reads from one chunk or moves to the next, and there are chunkCount() chunks.
    while (done < count && track->currentChunk < chunkCount(track)) {
        const quint32 inChunk = samplesInChunk(track, track->currentChunk);
        if (track->sampleInChunk >= inChunk) {
            if (!seekNextAudioChunk(track))
                break;
            continue;
        }
        quint64 position = 0;
        if (!calculateLocationSeek(track, &position) || position >= quint64(fileSize))
            break;
        const quint64 frames = qMin<quint64>(count - done, inChunk - track->sampleInChunk);
        // Bounded by the file: no read runs past its end.
        const quint64 bytes = frames * frameBytes;
        if (bytes > quint64(fileSize) - position || !device.seek(qint64(position)))
            break;
        if (device.read(reinterpret_cast<char*>(buffer) + quint64(done) * frameBytes, qint64(bytes))
            != qint64(bytes))
            break;
        track->sampleInChunk += quint32(frames);
        track->currentSample += frames;
        done += unsigned(frames);
        if (track->sampleInChunk >= inChunk && !seekNextAudioChunk(track))
            break;
    }
    return done;
}

void QuickTimeFile::buildFastAudioMap()
{
    if (!fastAudioMap)
        fastAudioMap.reset(new QuickTimeFastAudioRun[s_fastAudioRuns]);
    fastAudioRunCount = 0;
    frameMapLength = 0;
    frameMapSoundEntries = 0;
    if (!frameMap)
        return;
    const quint32 counted = qMin(totalFrames(), s_frameMapEntries);
    while (frameMapLength < counted && frameMap[frameMapLength] != 0)
        ++frameMapLength;
    if (frameMapLength == 0)
        return;

    // Runs of equal length, so a search skips whole runs by their sound before it walks single entries.
    const quint32 step = (frameMapLength + s_fastAudioRuns - 1) / s_fastAudioRuns;
    quint64 blocks = 0;
    for (quint32 first = 0; first < frameMapLength; first += step) {
        QuickTimeFastAudioRun& run = fastAudioMap[fastAudioRunCount++];
        run.firstEntry = first;
        run.soundBlocks = 0;
        run.blocksBefore = blocks;
        for (quint32 i = first; i < qMin(frameMapLength, first + step); ++i) {
            const quint16 entry = frameMap[i];
            if ((entry >> s_frameTypeShift) == quicktime_frametype_sound) {
                run.soundBlocks += entry;
                ++frameMapSoundEntries;
            }
            blocks += entry & s_blockCountMask;
        }
    }
}

bool QuickTimeFile::getFrameTime(int track, quint32 sample, quint32* seconds, quint32* remainder) const
{
    if (track < 0 || track >= trackCount)
        return false;
    const QuickTimeTrackInfo& info = tracks[track];
    if (info.timeScale <= 0 || info.sampleDuration < 0)
        return false;
    const quint64 time = quint64(info.sampleDuration) * sample;
    if (seconds)
        *seconds = quint32(time / quint64(info.timeScale));
    if (remainder)
        *remainder = quint32(time % quint64(info.timeScale));
    return true;
}

} // namespace Tern
