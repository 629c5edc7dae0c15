#pragma once

#include "movie/MovieFamily.h"

#include <QByteArray>
#include <QString>
#include <QtGlobal>

namespace Tern {

class QuickTimeFile;

// Where the tail fields of a family's settings record lie; the head (offsets 0-67) is common.
struct RecoveryRecordLayout
{
    int size;
    int recordedEndPosition;
    int reelName;
    bool hasChunkCounts; // audioSamplesPerChunk at 80 and videoFramesPerChunk at 84
};

// The recorder's settings record: little-endian, read and written field by field so the program is
// right on any host byte order. The Tern record is 120 bytes at offset 36.
struct RecoverySettings
{
    static constexpr int s_size = 120;
    static constexpr int s_reelNameSize = 32;
    static const RecoveryRecordLayout s_ternLayout;
    static const RecoveryRecordLayout s_heronLayout;

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

    // False when fewer than the layout's size bytes are given.
    bool fromBytes(const QByteArray& record, const RecoveryRecordLayout& layout = s_ternLayout);
    // The reserved bytes are written as zero; the reel name always ends with a zero inside its field.
    QByteArray toBytes(const RecoveryRecordLayout& layout = s_ternLayout) const;

    // Copies the settings into `movie` before it is recovered, its InitQuickTimeFileInfo last: the timecode
    // is stored, never appended as media; a field rate of interlaced video becomes the movie's frame rate;
    // the chunking is the movie family's fixed one where its record keeps none.
    void copyInto(QuickTimeFile& movie) const;

    // The reel name as text, read no further than its 32 bytes; set from text, cut to 31 characters.
    QString reelNameText() const;
    void setReelNameText(const QString& text);
};

// Why no index can be built without harm from a record's chunking, sound and recorded end, in the order
// QuickTimeFile::settingsAllowIndex checks them; empty when one can. The recorded end must not lie inside
// the reserved region of `family`.
QString indexRefusal(quint32 framesPerChunk, quint32 soundTracks, quint32 bytesPerSample, quint64 endPosition,
    const MovieFamily& family);

} // namespace Tern
