#include "movie/RecoverySettings.h"

#include "movie/QuickTimeFile.h"

#include <QtEndian>

#include <cstring>

namespace Tern {

namespace {

// Byte offsets of the fields in the recorder's record. Bytes 9-11 and 68-71 are reserved.
enum Offset {
    UserData1 = 0,
    Timecode = 4,
    DropFrame = 8,
    UserData2 = 12,
    FrameRate = 16,
    UserData5 = 20,
    AudioTracks = 24,
    AudioBytesPerSample = 28,
    AudioSampleRate = 32,
    UserData9 = 36,
    Width = 40,
    Height = 42,
    Interlaced = 44,
    VideoCodecId = 48,
    VideoCodecType = 52,
    ProResVariant = 56,
    LastChunkSamples = 60,
    FirstChunkSamples = 64,
    AudioSamplesPerChunk = 80,
    VideoFramesPerChunk = 84,
};

template <typename T>
T field(const uchar* record, int offset)
{
    return qFromLittleEndian<T>(record + offset);
}

template <typename T>
void setField(uchar* record, int offset, T value)
{
    qToLittleEndian<T>(value, record + offset);
}

} // namespace

void RecoverySettings::copyInto(QuickTimeFile& movie) const
{
    movie.setTimecode(timecode, dropFrame, false, true);
    movie.setUserData(userData1, userData2, frameRate, dropFrame, userData5, audioTracks,
                      audioBytesPerSample * 8, audioSampleRate, userData9);
    movie.width = width;
    movie.height = height;
    movie.interlaced = interlaced;
    movie.videoCodecId = videoCodecId;
    movie.setFrameRate(interlaced != 0 ? frameRate >> 1 : frameRate);
    movie.videoCodecType = videoCodecType;
    movie.proResVariant = proResVariant;
    movie.audioTracks = audioTracks;
    movie.setAudioSamplesPerFrame(int(movie.family().samplesPerChunk(*this)));
    movie.setAudioBytesPerSample(audioBytesPerSample);
    movie.setAudioSampleRate(audioSampleRate);
    movie.videoFramesPerChunk = movie.family().framesPerChunk(*this);
    movie.reelName = reelNameText();
    movie.lastChunkSamples = lastChunkSamples;
    movie.firstChunkSamples = firstChunkSamples;
    movie.recordedEndPosition = recordedEndPosition;
    movie.InitQuickTimeFileInfo();
}

// Tern: end position at 72 (after 4 reserved bytes), chunk counts, reel name at 88.
const RecoveryRecordLayout RecoverySettings::s_ternLayout = {s_size, 72, 88, true};
// Heron: the end position follows at 68 unaligned, then the reel name; no chunk counts.
const RecoveryRecordLayout RecoverySettings::s_heronLayout = {108, 68, 76, false};

bool RecoverySettings::fromBytes(const QByteArray& record, const RecoveryRecordLayout& layout)
{
    if (record.size() < layout.size)
        return false;
    const uchar* in = reinterpret_cast<const uchar*>(record.constData());
    userData1 = field<quint32>(in, UserData1);
    timecode = field<quint32>(in, Timecode);
    dropFrame = in[DropFrame];
    userData2 = field<quint32>(in, UserData2);
    frameRate = field<quint32>(in, FrameRate);
    userData5 = field<quint32>(in, UserData5);
    audioTracks = field<quint32>(in, AudioTracks);
    audioBytesPerSample = field<quint32>(in, AudioBytesPerSample);
    audioSampleRate = field<quint32>(in, AudioSampleRate);
    userData9 = field<quint32>(in, UserData9);
    width = field<quint16>(in, Width);
    height = field<quint16>(in, Height);
    interlaced = field<quint32>(in, Interlaced);
    videoCodecId = field<quint32>(in, VideoCodecId);
    videoCodecType = field<quint32>(in, VideoCodecType);
    proResVariant = field<quint32>(in, ProResVariant);
    lastChunkSamples = field<quint32>(in, LastChunkSamples);
    firstChunkSamples = field<quint32>(in, FirstChunkSamples);
    recordedEndPosition = field<quint64>(in, layout.recordedEndPosition);
    if (layout.hasChunkCounts) {
        audioSamplesPerChunk = field<quint32>(in, AudioSamplesPerChunk);
        videoFramesPerChunk = field<quint32>(in, VideoFramesPerChunk);
    }
    // Kept as stored; reelNameText() bounds the text to the field.
    std::memcpy(reelName, in + layout.reelName, s_reelNameSize);
    return true;
}

QByteArray RecoverySettings::toBytes(const RecoveryRecordLayout& layout) const
{
    QByteArray record(layout.size, '\0');
    uchar* out = reinterpret_cast<uchar*>(record.data());
    setField<quint32>(out, UserData1, userData1);
    setField<quint32>(out, Timecode, timecode);
    out[DropFrame] = dropFrame;
    setField<quint32>(out, UserData2, userData2);
    setField<quint32>(out, FrameRate, frameRate);
    setField<quint32>(out, UserData5, userData5);
    setField<quint32>(out, AudioTracks, audioTracks);
    setField<quint32>(out, AudioBytesPerSample, audioBytesPerSample);
    setField<quint32>(out, AudioSampleRate, audioSampleRate);
    setField<quint32>(out, UserData9, userData9);
    setField<quint16>(out, Width, width);
    setField<quint16>(out, Height, height);
    setField<quint32>(out, Interlaced, interlaced);
    setField<quint32>(out, VideoCodecId, videoCodecId);
    setField<quint32>(out, VideoCodecType, videoCodecType);
    setField<quint32>(out, ProResVariant, proResVariant);
    setField<quint32>(out, LastChunkSamples, lastChunkSamples);
    setField<quint32>(out, FirstChunkSamples, firstChunkSamples);
    setField<quint64>(out, layout.recordedEndPosition, recordedEndPosition);
    if (layout.hasChunkCounts) {
        setField<quint32>(out, AudioSamplesPerChunk, audioSamplesPerChunk);
        setField<quint32>(out, VideoFramesPerChunk, videoFramesPerChunk);
    }
    // At most 31 characters, so a reader that runs to the first zero stays inside the field.
    std::memcpy(out + layout.reelName, reelName, qstrnlen(reelName, s_reelNameSize - 1));
    return record;
}

QString RecoverySettings::reelNameText() const
{
    return QString::fromLatin1(reelName, int(qstrnlen(reelName, s_reelNameSize)));
}

void RecoverySettings::setReelNameText(const QString& text)
{
    std::memset(reelName, 0, s_reelNameSize);
    const QByteArray latin1 = text.toLatin1().left(s_reelNameSize - 1);
    std::memcpy(reelName, latin1.constData(), size_t(latin1.size()));
}

} // namespace Tern
