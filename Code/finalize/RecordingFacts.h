#pragma once

#include "audio/AudioFile.h"

#include <QJsonObject>
#include <QString>

namespace Tern {
struct MovieFamily;
struct RecoverySettings;
} // namespace Tern

// What a recording holds, read from its file without changing it: for a movie (in progress, finished or
// given up) the recorder's settings record and the frame map it saved in the reserved region, which a
// finish leaves as they were; for a WAV its format and the sound it holds.
struct RecordingFacts
{
    enum class Kind { None, Movie, Sound };
    Kind kind = Kind::None;

    // Movie.
    quint32 videoFrames = 0;
    quint32 soundTracks = 0;
    quint64 samplesPerTrack = 0;
    quint32 frameRate = 0; // hundredths of a frame per second (the field rate when interlaced)
    bool interlaced = false;
    quint32 width = 0;
    quint32 height = 0;
    QString codec;
    QString reelName;

    // Both.
    QString startTimecode; // hh:mm:ss:ff, ';' before the frames when drop-frame
    quint32 sampleRate = 0;
    quint32 bitsPerSample = 0;

    // Sound.
    quint32 channels = 0;
    quint64 samples = 0; // sample frames

    static RecordingFacts of(const QString& path);
    // A packed timecode word (hours, minutes, seconds, frames a byte each) as hh:mm:ss:ff, with ';' before
    // the frames when drop-frame.
    static QString timecodeText(quint32 tc, bool dropFrame);
    // The codec a movie of these settings holds, by the name its finish gives it; empty when unknown.
    static QString codecName(const Tern::RecoverySettings& settings, const Tern::MovieFamily& family);
    // A WAV's start timecode from its 'bext' values as the audio library reads them; empty without one.
    static QString soundTimecodeText(const AudioFile::AudioFileInfo& info);
    // Bytes of one sample frame of sound: every channel's sample, in whole bytes.
    static quint64 soundFrameBytes(quint32 channels, quint32 bitsPerSample);
    QJsonObject toJson() const;
};
