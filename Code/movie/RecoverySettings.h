#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>

namespace Tern {

// The recorder's settings record of a Tern recording: 120 bytes, little-endian, stored at offset 36.
// Read and written field by field so the program is right on any host byte order.
struct RecoverySettings
{
    static constexpr int s_size = 120;
    static constexpr int s_reelNameSize = 32;

    quint32 userData1 = 0;
    quint32 timecode = 0;
    quint8 dropFrame = 0;
    quint32 userData2 = 0;
    quint32 frameRate = 0;
    quint32 userData5 = 0;
    quint32 audioTracks = 0;
    quint32 audioBytesPerSample = 0;
    quint32 audioSampleRate = 0;
    quint32 userData9 = 0;
    quint16 width = 0;
    quint16 height = 0;
    quint32 interlaced = 0;
    quint32 videoCodecId = 0;
    quint32 videoCodecType = 0;
    quint32 proResVariant = 0;
    quint32 lastChunkSamples = 0;
    quint32 firstChunkSamples = 0;
    quint64 recordedEndPosition = 0;
    quint32 audioSamplesPerChunk = 0;
    quint32 videoFramesPerChunk = 0;
    char reelName[s_reelNameSize] = {};

    // False when fewer than s_size bytes are given.
    bool fromBytes(const QByteArray& record);
    // The reserved bytes are written as zero; the reel name always ends with a zero inside its field.
    QByteArray toBytes() const;

    // The reel name as text, read no further than its 32 bytes; set from text, cut to 31 characters.
    QString reelNameText() const;
    void setReelNameText(const QString& text);
};

} // namespace Tern
