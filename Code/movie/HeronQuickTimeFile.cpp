#include "movie/HeronQuickTimeFile.h"

#include <QDebug>
#include <QVector>

namespace {
// Frame-map entries at or above this are not sound: their type bits are set.
const quint32 kFirstNonSoundEntry = 16384;
// A sound entry's byte length: its block count times 512, within the 14-bit length field.
const quint32 kEntryBytesMask = 0x7FFE00;
} // namespace

QuickTimeFile::QuickTimeFile(QIODevice& device, unsigned short* frameSizes)
    : Tern::QuickTimeFile(device, Tern::heronFamily, frameSizes)
{
}

void QuickTimeFile::setTimecode(unsigned int value, bool dropFrameFlag, bool counterFlag)
{
    // Heron writes its timecode sample when the movie is closed, never here.
    Tern::QuickTimeFile::setTimecode(value, dropFrameFlag, counterFlag, true);
}

quint64 QuickTimeFile::audioBytesPerVideoFrame() const
{
    // Sound bytes per second of all tracks over the recorded rate, which counts fields when interlaced.
    const quint64 perSecond = quint64(audioSampleRate) * audioBytesPerSample * audioTracks;
    const quint32 recordedRate = userData[2];
    if (recordedRate == 0)
        return 0;
    const quint64 perFrame = perSecond * (interlaced != 0 ? 200 : 100) / recordedRate;
    return perFrame & ~quint64(3);
}

// The frame map cut into at most 273 equal runs of entries, each with the sound bytes it holds, so the
// search skips whole runs before it walks single entries.
QVector<QuickTimeFile::AudioChunk> QuickTimeFile::audioChunkTable() const
{
    QVector<AudioChunk> table;
    const quint32 entries = totalFrames();
    if (!frameMap || entries == 0)
        return table;
    const quint32 step = (entries + s_audioChunkTableEntries - 1) / s_audioChunkTableEntries;
    for (quint32 first = 0; first < entries; first += step) {
        AudioChunk chunk{first, 0};
        for (quint32 i = first; i < qMin(entries, first + step); ++i) {
            if (frameMap[i] < kFirstNonSoundEntry)
                chunk.bytes += (quint32(frameMap[i]) << 9) & kEntryBytesMask;
        }
        table << chunk;
    }
    return table;
}

unsigned int QuickTimeFile::prepareAudioStartLocation(unsigned int frame)
{
    quint64 remaining = quint64(frame) * audioBytesPerVideoFrame();
    const QVector<AudioChunk> table = audioChunkTable();
    int chunk = 0;
    while (chunk < table.size() && remaining >= table[chunk].bytes)
        remaining -= table[chunk++].bytes;
    // Past the last run the walk below finds nothing and reports the failure.
    quint32 index = chunk < table.size() ? table[chunk].firstEntry : totalFrames();

    const quint32 entries = totalFrames();
    for (; frameMap && index < entries; ++index) {
        const quint32 entry = frameMap[index];
        if (entry >= kFirstNonSoundEntry)
            continue;
        const quint32 size = (entry << 9) & kEntryBytesMask;
        if (remaining < size) {
            playFrame = index;
            audioStartOffset = quint32(remaining);
            return index;
        }
        remaining -= size;
    }
    qWarning("prepareAudioStartLocation failed");
    playFrame = 0;
    audioStartOffset = 0;
    return 0;
}
