// The movie file object: creation and reset, the recorder-side operations that append media and keep the
// frame map, the recording parameters and their derived values, and the top-level atom list.

#include "movie/QuickTimeFile.h"

#include "movie/HeaderAtoms.h"
#include "movie/QuickTimeBufferDevice.h"

#include <QIODevice>
#include <QtEndian>

namespace Tern {

namespace {

// 23.976 frame/s is counted in a time scale of 23976 with frames of 1000; every other rate in hundredths.
const quint32 s_ntscFilmRates[] = {2397, 2398};
const quint32 s_ntscFilmTimeScale = 23976;
const quint32 s_ntscFilmSampleDuration = 1000;

// Frame-map entry values: the block count shifted into bytes with the type bits dropped, and type bits.
const quint32 s_blockBytesMask = 0x7FFE00;
const quint16 s_videoEntryType = 0x4000;
const quint16 s_timecodeEntryType = 0x8000;

// spaceLeft keeps this many entries in reserve below the map's capacity.
const quint32 s_frameMapReserve = 20;

// The region is zero-filled in pieces of this size.
const int s_zeroFillPiece = 65536;

// DNxHD compression ids 1235 ... 1253 and the description setting each one takes.
const quint32 s_firstDnxhdId = 1235;
const quint32 s_dnxhdSettings[] = {0, 0, 2, 1, 0, 0, 0, 2, 1, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3};
// ProRes 422 variants 1 ... 4 and their settings; anything else is the plain 422 setting.
const quint32 s_proRes422Settings[] = {4, 5, 6, 7};
const quint32 s_proRes422DefaultSetting = 5;
const quint32 s_proRes4444Setting = 8;
const quint32 s_proRes4444XqSetting = 9;

} // namespace

QuickTimeFile::QuickTimeFile(QIODevice& file)
    : QuickTimeFile(file, ternFamily, nullptr)
{
}

QuickTimeFile::QuickTimeFile(QIODevice& file, const MovieFamily& movieFamily, quint16* callerFrameMap)
    : device(file)
    , stream(&file)
    , frameMap(movieFamily.mapInCallerStorage ? callerFrameMap : nullptr)
    , m_family(&movieFamily)
    , m_ownsFrameMap(!movieFamily.mapInCallerStorage)
{
}

QuickTimeFile::~QuickTimeFile()
{
    removeAllAtoms();
    delete movieData;
    if (m_ownsFrameMap)
        delete[] frameMap;
}

void QuickTimeFile::resetMovieState()
{
    width = s_defaultWidth;
    height = s_defaultHeight;
    interlaced = 0;
    frameRate = s_defaultFrameRate;
    sampleDuration = s_defaultSampleDuration;
    timeScale = s_defaultTimeScale;
    audioSampleRate = s_defaultAudioSampleRate;
    audioBytesPerSample = s_defaultAudioBytesPerSample;
    audioLittleEndian = s_defaultAudioLittleEndian;
    audioSamplesPerChunk = s_defaultAudioSamplesPerChunk;
    videoFrameCount = 0;
    soundChunks = 0;
    timecodeSamples = 0;
    firstChunkSamples = 0;
    lastChunkSamples = 0;
    playFrame = 0;
    timecode = 0;
    dropFrame = false;
    counter = false;
}

bool QuickTimeFile::initFile(QIODevice* newDevice)
{
    // A family that keeps its map in the caller's storage cannot work without it.
    if (!m_ownsFrameMap && !frameMap)
        return false;
    QIODevice* target = newDevice ? newDevice : &device;

    resetMovieState();
    // A recording's own: written by the recorder, the default codec id and sound track, reel "1".
    writtenByRecorder = true;
    importMode = false;
    videoCodecId = s_defaultVideoCodecId;
    audioTracks = s_defaultAudioTracks;
    reelName = QStringLiteral("1");
    savedFrameMapEntries = 0;
    removeAllAtoms();

    const qint64 mediaStart = family().movieDataStartOffset;
    if (target->size() < mediaStart)
        writeReservedRegion(target);

    delete movieData;
    movieData = new QuickTimeMovieDataAtom(0);

    // Not cleared: the entries below the counts are the only ones ever read.
    if (!frameMap)
        frameMap = new quint16[s_frameMapEntries];

    if (target->size() < mediaStart) {
        target->seek(family().movieDataHeaderPos);
        QDataStream out(target);
        movieData->write(out);
    }
    return true;
}

void QuickTimeFile::writeReservedRegion(QIODevice* target)
{
    target->seek(0);
    QDataStream out(target);
    QuickTimeFileAtom fileType;
    const qint64 headerPos = family().movieDataHeaderPos;
    if (family().regionInUserData) {
        // 'ftyp', then a 'udta' spanning the rest of the region behind an empty 'urec': readers walking
        // the top-level atoms skip the recovery data without knowing it.
        fileType.write(out);
        QuickTimeUserDataAtom userDataAtom;
        userDataAtom.size = quint32(headerPos - fileType.size);
        userDataAtom.writeHeader(out);
        QuickTimeRecoveryDataAtom recoveryData;
        recoveryData.writeHeader(out);
    } else {
        // One oversized 'ftyp' whose size covers the whole region.
        fileType.size = quint32(headerPos);
        fileType.write(out);
    }
    qint64 zeros = headerPos - target->pos();
    const QByteArray piece(s_zeroFillPiece, '\0');
    while (zeros > 0) {
        const int n = int(qMin(zeros, qint64(s_zeroFillPiece)));
        if (out.writeRawData(piece.constData(), n) != n)
            break;
        zeros -= n;
    }
}

void QuickTimeFile::removeAllAtoms()
{
    root.removeAllChildren();
}

// ---------------------------------------------------------------------------------------------------------
// Parameters

void QuickTimeFile::setFrameRate(unsigned int rate)
{
    frameRate = rate;
    calculateVideoInfoFromFrameRate(rate, &sampleDuration, &timeScale);
}

quint32 QuickTimeFile::calculateVideoInfoFromFrameRate(unsigned int rate, quint32* duration, quint32* scale)
{
    // The rate counts hundredths: its frames last the default 100 units of a time scale of the rate.
    quint32 frameDuration = s_defaultSampleDuration;
    quint32 frameScale = rate;
    for (quint32 ntscFilmRate : s_ntscFilmRates) {
        if (rate == ntscFilmRate) {
            frameDuration = s_ntscFilmSampleDuration;
            frameScale = s_ntscFilmTimeScale;
        }
    }
    if (duration)
        *duration = frameDuration;
    if (scale)
        *scale = frameScale;
    return frameScale;
}

void QuickTimeFile::setTimecode(quint32 value, bool dropFrameFlag, bool counterFlag, bool noWrite)
{
    timecode = value;
    dropFrame = dropFrameFlag;
    counter = counterFlag;
    // A recording starts its timecode track at once; the finalizer passes noWrite and appends nothing.
    if (timecodeSamples == 0 && !noWrite)
        addMovieTimecodeData(value);
}

void QuickTimeFile::getTimecode(quint32* value, bool* dropFrameFlag, bool* counterFlag) const
{
    if (value)
        *value = timecode;
    if (dropFrameFlag)
        *dropFrameFlag = dropFrame;
    if (counterFlag)
        *counterFlag = counter;
}

void QuickTimeFile::setUserData(quint32 v1, quint32 v2, quint32 v3, quint32 v4, quint32 v5, quint32 v6,
                                quint32 v7, quint32 v8, quint32 v9)
{
    const quint32 values[UserDataValues] = {v1, v2, v3, v4, v5, v6, v7, v8, v9};
    for (int i = 0; i < UserDataValues; ++i)
        userData[i] = values[i];
}

void QuickTimeFile::getUserData(quint32* v1, quint32* v2, quint32* v3, quint32* v4, quint32* v5, quint32* v6,
                                quint32* v7, quint32* v8, quint32* v9) const
{
    quint32* const out[UserDataValues] = {v1, v2, v3, v4, v5, v6, v7, v8, v9};
    for (int i = 0; i < UserDataValues; ++i) {
        if (out[i])
            *out[i] = userData[i];
    }
}

void QuickTimeFile::setFrameSize(unsigned int index, quicktime_frametype_t frameType, unsigned int bytes)
{
    if (!frameMap || index >= s_frameMapEntries)
        return;
    const quint32 blocks = (bytes >> s_blockShift) & s_blockCountMask;
    frameMap[index] = quint16(blocks | (quint32(frameType) << s_frameTypeShift));
}

void QuickTimeFile::InitQuickTimeFileInfo()
{
    fileInfo.width = width;
    fileInfo.height = height;
    fileInfo.progressive = interlaced == 0;
    fileInfo.frameRate = userData[UserFrameRate];
    fileInfo.userValue5 = userData[UserCodecSetting];
    fileInfo.sampleRate = userData[UserSampleRate];
    fileInfo.bytesPerSample = userData[UserBitsPerSample] >> 3;
    fileInfo.channels = userData[UserSoundTracks];
    fileInfo.userValue1 = userData[UserValue1];
    fileInfo.userValue2 = userData[UserValue2];
    fileInfo.dropFrame = userData[UserDropFrame];
    fileInfo.framesPerSecond = float(userData[UserFrameRate]) / 100.0f;

    // Rates above 30 frame/s are field rates: the code names the frame rate.
    quint32 rate = userData[UserFrameRate];
    if (rate > 3000)
        rate /= 2;
    if (rate == 2400)
        fileInfo.frameRateCode = 1;
    else if (rate == 2500)
        fileInfo.frameRateCode = 2;
    else if (rate == 2997)
        fileInfo.frameRateCode = fileInfo.dropFrame ? 4 : 3;
    else if (rate == 3000)
        fileInfo.frameRateCode = fileInfo.dropFrame ? 6 : 5;
    else if (rate != 0 && rate < 2400)
        fileInfo.frameRateCode = 0; // 23.976 in its several spellings
    else
        fileInfo.frameRateCode = 255;

    const float framesPerSecond = interlaced ? fileInfo.framesPerSecond / 2 : fileInfo.framesPerSecond;
    fileInfo.durationSeconds = framesPerSecond != 0 ? float(videoFrameCount) / framesPerSecond : 0;
    fileInfo.userValue9 = userData[UserValue9];
}

// ---------------------------------------------------------------------------------------------------------
// Media and frame map

quint32 QuickTimeFile::totalFrames() const
{
    // A movie read from elsewhere has no frame map: only its video frames are counted.
    if (importMode && !writtenByRecorder)
        return videoFrameCount;
    return videoFrameCount + soundChunks + timecodeSamples;
}

void QuickTimeFile::storeFrameMapEntry(quint16 entry)
{
    // The block count is not masked here: the recorder never writes a chunk long enough to reach the type.
    const quint32 index = totalFrames();
    if (frameMap && index < s_frameMapEntries)
        frameMap[index] = entry;
}

int QuickTimeFile::addMovieVideoData(QByteArray& frame, QByteArray& extra)
{
    if (!movieData)
        return 0;
    // A video frame is entered only once it is on disk, and with two blocks more than it needs.
    if (movieData->addData(frame, device)) {
        storeFrameMapEntry(quint16(((quint32(frame.size()) + 1535) >> s_blockShift) | s_videoEntryType));
        ++videoFrameCount;
    }
    // The recorder's second buffer follows the frame in 'mdat' without an entry of its own.
    movieData->addData(extra, device);
    return 0;
}

int QuickTimeFile::addMovieSoundData(QByteArray& chunk)
{
    if (!movieData)
        return 0;
    // Entered before the write: a failed write still leaves its entry and count behind.
    storeFrameMapEntry(quint16((quint32(chunk.size()) + 511) >> s_blockShift));
    ++soundChunks;
    movieData->addData(chunk, device);
    return 0;
}

int QuickTimeFile::addMovieTimecodeData(QByteArray& sample)
{
    if (!movieData)
        return 0;
    storeFrameMapEntry(quint16(((quint32(sample.size()) + 511) >> s_blockShift) | s_timecodeEntryType));
    ++timecodeSamples;
    movieData->addData(sample, device);
    return 0;
}

int QuickTimeFile::addMovieTimecodeData(unsigned int tc)
{
    if (!movieData)
        return 0;
    const QByteArray sample = timecodeSampleBytes(tc);
    listTimecodeSample();
    movieData->addData(sample, device);
    return 0;
}

int QuickTimeFile::addBogusMovieVideoData(QByteArray&)
{
    ++videoFrameCount;
    return 0;
}

bool QuickTimeFile::frameSize(unsigned int index, quicktime_frametype_t* frameType, unsigned int* bytes) const
{
    if (index >= totalFrames())
        return false;
    if (importMode && !writtenByRecorder) {
        // Without a frame map every frame is a video frame of unknown length.
        if (frameType)
            *frameType = quicktime_frametype_video;
        if (bytes)
            *bytes = 0;
        return true;
    }
    if (!frameMap || index >= s_frameMapEntries)
        return false;
    const quint16 entry = frameMap[index];
    if (frameType)
        *frameType = quicktime_frametype_t(entry >> s_frameTypeShift);
    if (bytes)
        *bytes = (quint32(entry) << s_blockShift) & s_blockBytesMask;
    return true;
}

bool QuickTimeFile::spaceLeft() const
{
    return totalFrames() + s_frameMapReserve < s_frameMapEntries;
}

quint64 QuickTimeFile::calculateAVDuration(quint64* soundSamples, quint64* videoInSamples) const
{
    // A short first chunk replaces one full chunk.
    quint64 sound = quint64(audioSamplesPerChunk) * soundChunks;
    if (firstChunkSamples != 0)
        sound = soundChunks != 0 ? quint64(audioSamplesPerChunk) * (soundChunks - 1) + firstChunkSamples : 0;
    const quint64 videoInAudioRate = quint64(audioSampleRate) * videoFrameCount;
    const quint64 video = timeScale != 0 ? quint64(sampleDuration) * videoInAudioRate / timeScale : 0;
    if (soundSamples)
        *soundSamples = sound;
    if (videoInSamples)
        *videoInSamples = video;
    return video;
}

quint32 QuickTimeFile::getCodecSetting(quicktime_codec_type_t codecType, unsigned int value)
{
    switch (codecType) {
    case quicktime_codec_prores4444:
        return value != 0 ? s_proRes4444Setting : s_proRes4444XqSetting;
    case quicktime_codec_prores422:
        if (value >= 1 && value <= 4)
            return s_proRes422Settings[value - 1];
        return s_proRes422DefaultSetting;
    case quicktime_codec_dnxhd: {
        const quint32 count = sizeof s_dnxhdSettings / sizeof s_dnxhdSettings[0];
        if (value >= s_firstDnxhdId && value - s_firstDnxhdId < count)
            return s_dnxhdSettings[value - s_firstDnxhdId];
        return 0;
    }
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------------------
// Atom list

QuickTimeAtom* QuickTimeFile::addAtom(QuickTimeAtom* atom)
{
    return root.addAtom(atom);
}

void QuickTimeFile::alignNextAtom(QuickTimeAtom* parent, qint64 extra)
{
    auto* skip = new QuickTimeSkipAtom;
    parent->addAtom(skip);
    skip->alignNext(skip->position + extra);
}

void QuickTimeFile::listTimecodeSample()
{
    storeFrameMapEntry(s_timecodeSampleEntry);
    ++timecodeSamples;
}

QByteArray QuickTimeFile::timecodeSampleBytes(quint32 tc)
{
    QByteArray sample(s_timecodeSampleBytes, '\0');
    qToBigEndian<quint32>(tc, reinterpret_cast<uchar*>(sample.data()));
    return sample;
}

quint32 QuickTimeFile::timecodeFrameNumber(quint32 tc, quint32 framesPerSecond, bool dropFrame)
{
    const quint64 hours = tc >> 24;
    const quint64 minutes = (tc >> 16) & 0xFF;
    const quint64 seconds = (tc >> 8) & 0xFF;
    const quint64 frames = tc & 0xFF;
    const quint64 totalMinutes = hours * 60 + minutes;
    quint64 number = (totalMinutes * 60 + seconds) * framesPerSecond + frames;
    if (dropFrame) {
        // Drop-frame counting skips the first 2 numbers of every minute (4 at 60 a second), except in
        // every tenth minute.
        const quint64 droppedPerMinute = (framesPerSecond + 7) / 15;
        number -= qMin(number, droppedPerMinute * (totalMinutes - totalMinutes / 10));
    }
    return quint32(number);
}

quint32 QuickTimeFile::timecodeFramesPerSecond() const
{
    if (sampleDuration == 0)
        return 0;
    return (timeScale + sampleDuration - 1) / sampleDuration;
}

bool QuickTimeFile::closeAppendsTimecodeSample() const
{
    return interchange() || family().closeAppendsTimecodeSample;
}

QByteArray QuickTimeFile::closingTimecodeSample() const
{
    // The recorder's form holds the packed timecode word; readers take a timecode sample for a frame
    // number, so the interchange form holds that.
    if (!interchange())
        return timecodeSampleBytes(timecode);
    return timecodeSampleBytes(timecodeFrameNumber(timecode, timecodeFramesPerSecond(), dropFrame));
}

bool QuickTimeFile::writeAtomList(const QByteArray& leadIn)
{
    QuickTimeBufferDevice buffered(stream.device());
    buffered.open(QIODevice::ReadWrite | QIODevice::Unbuffered);
    if (!root.children.isEmpty()) {
        const QuickTimeAtom* last = root.children.last();
        buffered.setFinalLength(last->position + qint64(last->size));
    }
    {
        QDataStream out(&buffered);
        out.writeRawData(leadIn.constData(), leadIn.size());
        root.writeHeader(out);
        for (QuickTimeAtom* atom : qAsConst(root.children))
            atom->write(out);
    }
    buffered.flushBuffer();
    return !buffered.errorLatched();
}

} // namespace Tern
