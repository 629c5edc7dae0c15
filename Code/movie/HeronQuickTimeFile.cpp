#include "movie/HeronQuickTimeFile.h"

#include <QDebug>

namespace {
// Frame-map entries at or above this are not sound: their type bits are set.
const quint32 kFirstNonSoundEntry = 16384;
// A sound entry's byte length: its block count times 512, within the 14-bit length field.
const quint32 kEntryBytesMask = 0x7FFE00;
const quint64 kBlockBytes = 512;
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
    const quint32 recordedRate = userData[UserFrameRate];
    if (recordedRate == 0)
        return 0;
    const quint64 perFrame = perSecond * (interlaced != 0 ? 200 : 100) / recordedRate;
    return perFrame & ~quint64(3);
}

unsigned int QuickTimeFile::prepareAudioStartLocation(unsigned int frame)
{
    quint64 remaining = quint64(frame) * audioBytesPerVideoFrame();
    buildFastAudioMap();
    int run = 0;
    while (run < fastAudioRunCount && remaining >= kBlockBytes * fastAudioMap[run].soundBlocks)
        remaining -= kBlockBytes * fastAudioMap[run++].soundBlocks;
    // Past the last run the walk below finds nothing and reports the failure.
    const quint32 entries = frameMapLength;
    quint32 index = run < fastAudioRunCount ? fastAudioMap[run].firstEntry : entries;

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
