#pragma once

#include <QByteArray>
#include <QString>

// A Broadcast WAV file as the recorder leaves it when power fails mid-take: every chunk in place, the
// samples written, but the 'data' size (and the RIFF size) still 0.
struct WavPlan
{
    int channels = 2;
    int bitsPerSample = 24;
    int sampleRate = 48000;
    QByteArray pcm;              // interleaved little-endian samples
    QByteArray bextDescription;  // up to 256 bytes
    quint64 timeReference = 0;   // samples since midnight
    QByteArray ixml;             // empty: no iXML chunk
    bool cutOff = true;          // false: sizes filled in, as after a normal stop
};

QByteArray buildWav(const WavPlan& plan);
bool writeWav(const QString& path, const WavPlan& plan);
