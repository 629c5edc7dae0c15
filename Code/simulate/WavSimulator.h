#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

// A Broadcast WAV file as the recorder leaves it when power fails mid-take: every chunk in place, the
// samples written, but the 'data' size (and the RIFF size) still 0.
// A small iXML document with free room (trailing spaces) for later edits; an even number of bytes.
QByteArray defaultIXml();

struct WavPlan
{
    int channels = 2;
    int bitsPerSample = 24;
    int sampleRate = 48000;
    QByteArray pcm;              // interleaved little-endian samples
    QByteArray bextDescription;  // up to 256 bytes
    quint64 timeReference = 0;   // samples since midnight
    // The recorder always writes its iXML before 'data'; a cut-off file is only readable with all of
    // 'fmt ', 'bext' and 'iXML' ahead of the samples. Empty: no iXML chunk.
    QByteArray ixml = defaultIXml();
    bool cutOff = true;          // false: sizes filled in, as after a normal stop
};

QByteArray buildWav(const WavPlan& plan);
// Sample frames from per-channel PCM buffers of equal length.
QByteArray interleavePcm(const QVector<QByteArray>& channels, int bytesPerSample);
bool writeWav(const QString& path, const WavPlan& plan);
