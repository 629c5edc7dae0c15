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

enum UserValue { FrameRate = 2, CodecSetting = 4, SoundTracks = 5, BitsPerSample = 6, SampleRate = 7 };

const quint16 s_readWidth = 1920;
const quint16 s_readHeight = 1080;
const quint32 s_readFrameRate = 2400;
const quint32 s_readAudioSampleRate = 48000;
const quint32 s_readAudioBytesPerSample = 4;
const quint32 s_readAudioSamplesPerChunk = 512;

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

} // namespace

bool QuickTimeFile::initFileRead(QIODevice* readDevice)
{
    if (readDevice && readDevice != &device)
        return false; // the parser reads through the file's own stream

    importMode = true;
    writtenByRecorder = false;
    haldenMarker = false;
    initCurrentTrackInfo();
    trackCount = 0;
    for (QuickTimeTrackInfo& track : tracks)
        track = QuickTimeTrackInfo();
    videoTrack = QuickTimeTrackInfo();
    width = s_readWidth;
    height = s_readHeight;
    videoCodecId = 0;
    videoCodecType = 0;
    proResVariant = 0;
    interlaced = 0;
    frameRate = s_readFrameRate;
    sampleDuration = 100;
    timeScale = s_readFrameRate;
    audioSampleRate = s_readAudioSampleRate;
    audioBytesPerSample = s_readAudioBytesPerSample;
    audioLittleEndian = 1;
    audioTracks = 0;
    audioSamplesPerChunk = s_readAudioSamplesPerChunk;
    interleavedAudio = false;
    videoFramesPerChunk = 0;
    videoFrameCount = 0;
    soundChunks = 0;
    timecodeSamples = 0;
    firstChunkSamples = 0;
    lastChunkSamples = 0;
    recordedEndPosition = 0;
    playFrame = 0;
    playStart = 0;
    currentVideoFrame = 0;
    m_playPosition = QuickTimeMapPosition();
    timecode = 0;
    dropFrame = false;
    counter = false;
    std::memset(userData, 0, sizeof userData);
    movieDataStart = 0;

    // The map is cleared so that entries a maker atom does not list read as its end.
    if (ensureFrameMap())
        std::memset(frameMap, 0, size_t(s_frameMapBytes));
    if (!fastAudioMap)
        fastAudioMap.reset(new QuickTimeFastAudioRun[s_fastAudioRuns]);

    readFile();
    // A maker atom read before the tracks kept them from being committed.
    if (writtenByRecorder && trackCount == 0)
        learnRecordedTracks();
    buildFastAudioMap();
    device.seek(0);

    // The recorded rate counts fields when interlaced.
    setFrameRate(interlaced ? userData[FrameRate] / 2 : userData[FrameRate]);

    QuickTimeTrackInfo* firstSound = getAudioTrack(0);
    if (!writtenByRecorder) {
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
        if (firstSound) {
            if (firstSound->sampleDuration > 0)
                audioSampleRate = quint32(firstSound->timeScale / firstSound->sampleDuration);
            audioBytesPerSample = firstSound->audioBytesPerSample;
            audioLittleEndian = firstSound->audioBigEndian ? 0 : 1;
        }
        userData[SoundTracks] = audioTracks;
        userData[BitsPerSample] = 8 * audioBytesPerSample;
        userData[SampleRate] = audioSampleRate;
        // DNxHD is told apart by its compression id, ProRes by its variant.
        const auto codecType = quicktime_codec_type_t(videoCodecType);
        userData[CodecSetting]
            = getCodecSetting(codecType, codecType == quicktime_codec_dnxhd ? videoCodecId : proResVariant);
    } else {
        // The maker atom's user data describes the recording's sound: one mono track per channel.
        audioTracks = userData[SoundTracks];
        audioBytesPerSample = userData[BitsPerSample] >> 3;
        audioSampleRate = userData[SampleRate];
        quint32 plane = 0;
        for (int i = 0; i < trackCount; ++i) {
            if (tracks[i].type == quicktime_frametype_sound)
                tracks[i].plane = plane++;
        }
        if (firstSound)
            audioSamplesPerChunk = findSamplesPerChunk(firstSound);
    }
    InitQuickTimeFileInfo();

    for (int i = 0; i < trackCount; ++i) {
        if (tracks[i].type == quicktime_frametype_video) {
            videoTrack = tracks[i];
            break;
        }
    }
    if (!writtenByRecorder) {
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

    // Movies of this library start playing at their first video frame; one without video at its start.
    QuickTimeMapPosition first;
    playStart = findMapEntry(&first, quicktime_frametype_video, 0) ? first.index : 0;
    playFrame = playStart;
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
    quint32 keptUserData[9];
    std::memcpy(keptUserData, userData, sizeof userData);

    const qint64 end = device.size();
    qint64 pos = 0;
    quint64 size = 0;
    quint32 type = 0;
    quint32 header = 0;
    bool found = false;
    while (atomHeaderAt(device, pos, end, &size, &type, &header)) {
        if (type == fourCC("moov")) {
            found = true;
            break;
        }
        pos += qint64(size);
    }
    if (found) {
        const qint64 moovEnd = pos + qint64(size);
        qint64 child = pos + qint64(header);
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
