#include "finalize/RecordingFacts.h"

#include "audio/AudioFile.h"
#include "movie/MovieFamily.h"
#include "movie/QuickTimeFile.h"
#include "movie/RecoverySettings.h"
#include "timecode/Timecode.h"

#include <QFile>

QString RecordingFacts::timecodeText(quint32 tc, bool dropFrame)
{
    return QString("%1:%2:%3%4%5")
        .arg(tc >> 24, 2, 10, QChar('0'))
        .arg((tc >> 16) & 0xFF, 2, 10, QChar('0'))
        .arg((tc >> 8) & 0xFF, 2, 10, QChar('0'))
        .arg(dropFrame ? ';' : ':')
        .arg(tc & 0xFF, 2, 10, QChar('0'));
}

QString RecordingFacts::codecName(const Tern::RecoverySettings& s, const Tern::MovieFamily& family)
{
    if (s.videoCodecType == Tern::quicktime_codec_prores422
        || s.videoCodecType == Tern::quicktime_codec_prores4444)
        return QString::fromLatin1(family.proResName(s.videoCodecType, s.proResVariant).compressorName);
    if (s.videoCodecType == Tern::quicktime_codec_dnxhd)
        return QStringLiteral("DNxHD");
    return QString();
}

QString RecordingFacts::soundTimecodeText(const AudioFile::AudioFileInfo& info)
{
    if (info.startTimecode == AudioFile::s_noTimecode)
        return QString();
    const bool dropFrame
        = info.frameRate == Timecode::FrameRate2997Df || info.frameRate == Timecode::FrameRate30Df;
    return timecodeText(info.startTimecode, dropFrame);
}

quint64 RecordingFacts::soundFrameBytes(quint32 channels, quint32 bitsPerSample)
{
    return quint64(channels) * ((bitsPerSample + 7u) / 8u);
}

namespace {

bool readMovie(QFile& file, RecordingFacts* facts)
{
    const Tern::MovieFamily* found = Tern::familyOfRecording(file);
    if (!found)
        return false;
    const Tern::MovieFamily& family = *found;
    Tern::RecoverySettings s;
    if (!file.seek(family.recoverySettingsPos)
        || !s.fromBytes(file.read(family.recoveryRecord->size), *family.recoveryRecord))
        return false;
    const Tern::QuickTimeFile::SavedFrameMapCounts map
        = Tern::QuickTimeFile::countSavedFrameMap(file, family);
    facts->kind = RecordingFacts::Kind::Movie;
    facts->videoFrames = map.video;
    facts->soundTracks = qint32(s.audioTracks) > 0 ? s.audioTracks : 0;
    const quint32 perChunk = family.samplesPerChunk(s);
    if (map.sound != 0 && facts->soundTracks != 0)
        facts->samplesPerTrack = Tern::QuickTimeFile::soundSamplesPerTrack(
            map.sound, perChunk, s.firstChunkSamples, s.lastChunkSamples);
    facts->frameRate = s.frameRate;
    facts->interlaced = s.interlaced != 0;
    facts->width = s.width;
    facts->height = s.height;
    facts->codec = RecordingFacts::codecName(s, family);
    facts->reelName = s.reelNameText();
    facts->startTimecode = RecordingFacts::timecodeText(s.timecode, s.dropFrame != 0);
    facts->sampleRate = s.audioSampleRate;
    facts->bitsPerSample = 8 * s.audioBytesPerSample;
    return true;
}

bool readSound(QFile& file, RecordingFacts* facts)
{
    AudioFile audio(file);
    if (audio.ReadAudioFileInfo() != 0)
        return false;
    AudioFile::AudioFileInfo info = {};
    audio.GetFileInfo(&info);
    facts->kind = RecordingFacts::Kind::Sound;
    facts->channels = info.channels;
    facts->sampleRate = info.sampleRate;
    facts->bitsPerSample = info.bitsPerSample;
    const quint64 frameBytes = RecordingFacts::soundFrameBytes(info.channels, info.bitsPerSample);
    const quint64 soundBytes = quint64(qMax<qint64>(0, file.size() - qint64(audio.dataStart())));
    facts->samples = frameBytes != 0 ? soundBytes / frameBytes : 0;
    facts->startTimecode = RecordingFacts::soundTimecodeText(info);
    return true;
}

} // namespace

RecordingFacts RecordingFacts::of(const QString& path)
{
    RecordingFacts facts;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return facts;
    const QString lower = path.toLower();
    const bool sound = lower.endsWith(".zqa") || lower.endsWith(".wav") || lower.endsWith(".nra");
    if (!(sound ? readSound(file, &facts) : readMovie(file, &facts)))
        facts = RecordingFacts();
    return facts;
}

QJsonObject RecordingFacts::toJson() const
{
    QJsonObject object;
    const QJsonValue timecode = startTimecode.isEmpty() ? QJsonValue() : QJsonValue(startTimecode);
    if (kind == Kind::Movie) {
        object.insert("video_frames", qint64(videoFrames));
        object.insert("sound_tracks", qint64(soundTracks));
        object.insert("samples_per_track", qint64(samplesPerTrack));
        object.insert("frame_rate", frameRate / 100.0);
        object.insert("interlaced", interlaced);
        object.insert("width", qint64(width));
        object.insert("height", qint64(height));
        object.insert("codec", codec.isEmpty() ? QJsonValue() : QJsonValue(codec));
        object.insert("start_timecode", timecode);
        object.insert("reel_name", reelName);
        object.insert("sample_rate", qint64(sampleRate));
        object.insert("bits_per_sample", qint64(bitsPerSample));
    } else if (kind == Kind::Sound) {
        object.insert("channels", qint64(channels));
        object.insert("sample_rate", qint64(sampleRate));
        object.insert("bits_per_sample", qint64(bitsPerSample));
        object.insert("samples", qint64(samples));
        object.insert("start_timecode", timecode);
    }
    return object;
}
