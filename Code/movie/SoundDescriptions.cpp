// Sound sample descriptions: uncompressed PCM in the version 1 form with its 'wave' extension, and the
// version 2 'lpcm' form of the interchange finish's 32-bit sound.

#include "movie/SampleDescriptions.h"

#include "movie/DescriptionSupport.h"
#include "movie/QuickTimeFile.h"

#include <QIODevice>

namespace Tern {

using namespace DescriptionSupport;

namespace {

const quint32 s_soundEntrySize = 82;
const quint32 s_waveAtomSize = 30;
const quint32 s_formatAtomSize = 12;
const quint32 s_endianAtomSize = 10;

// Read side: the fields behind the common part of a sound entry, and the smallest 'enda' atom.
const quint32 s_soundFields = 20; // version 0
const quint32 s_soundVersion1Fields = 16; // samples per packet, bytes per packet, frame and sample
const quint32 s_endianAtomMinimum = 10; // header and the 16-bit flag

// The bytes of a sample of the movie's sound; the default's for a description built without a movie.
quint32 bytesOf(const QuickTimeFile* movie)
{
    return movie ? movie->audioBytesPerSample : QuickTimeFile::s_defaultAudioBytesPerSample;
}

// Looks through the atoms in [position, end) for 'enda', also inside a 'wave' atom; true with the flag
// when found. Every other atom, the 'wave' terminator and 'frma' among them, is passed over.
bool findEndianFlag(QDataStream& stream, qint64 end, quint16* littleEndian, bool insideWave)
{
    QIODevice* device = stream.device();
    while (device->pos() + qint64(s_atomHeaderSize) <= end) {
        const qint64 start = device->pos();
        quint32 atomSize = 0;
        quint32 atomType = 0;
        stream >> atomSize >> atomType;
        if (stream.status() != QDataStream::Ok || atomSize < s_atomHeaderSize || start + atomSize > end)
            return false;
        if (atomType == fourCC("enda") && atomSize >= s_endianAtomMinimum) {
            stream >> *littleEndian;
            return stream.status() == QDataStream::Ok;
        }
        if (atomType == fourCC("wave") && !insideWave
            && findEndianFlag(stream, start + atomSize, littleEndian, true))
            return true;
        if (!QuickTimeAtom::seekWithin(device, start + atomSize))
            return false;
    }
    return false;
}

} // namespace

// ---------------------------------------------------------------------------------------------------------
// Sound

quint32 SoundResolutionToFormat(int bytesPerSample)
{
    switch (bytesPerSample) {
    case 2:
        return fourCC("twos");
    case 3:
        return fourCC("in24");
    default:
        return fourCC("in32");
    }
}

QuickTimeSoundSampleDescription::QuickTimeSoundSampleDescription(QuickTimeFile* movie, quint32 soundVendor,
                                                                 quint32 rate)
    : QuickTimeSampleDescription(
        s_soundEntrySize - s_commonSize, SoundResolutionToFormat(int(bytesOf(movie))))
    , movieFile(movie)
    , vendor(soundVendor)
    , sampleRate(rate << 16)
    , bytesPerPacket(bytesOf(movie))
    , bytesPerFrame(bytesPerPacket)
    , littleEndian(movie ? movie->audioLittleEndian : QuickTimeFile::s_defaultAudioLittleEndian)
{
}

void QuickTimeSoundSampleDescription::write(QDataStream& stream)
{
    QuickTimeSampleDescription::write(stream);
    stream << version << revisionLevel << vendor << channels << sampleSize << compressionId << packetSize
           << sampleRate << samplesPerPacket << bytesPerPacket << bytesPerFrame << bytesPerSample;
    stream << s_waveAtomSize << fourCC("wave");
    stream << s_formatAtomSize << fourCC("frma") << dataFormat;
    stream << s_endianAtomSize << fourCC("enda") << littleEndian;
}

bool QuickTimeSoundSampleDescription::read(QDataStream& stream, quint64* remaining)
{
    QIODevice* device = stream.device();
    const qint64 start = device->pos();
    const quint64 budget = *remaining;
    if (!QuickTimeSampleDescription::read(stream, remaining)
        || !QuickTimeAtom::consume(remaining, s_soundFields))
        return false;
    stream >> version >> revisionLevel >> vendor >> channels >> sampleSize >> compressionId >> packetSize
        >> sampleRate;
    const bool version1 = version == 1;
    if (version1) {
        if (!QuickTimeAtom::consume(remaining, s_soundVersion1Fields))
            return false;
        stream >> samplesPerPacket >> bytesPerPacket >> bytesPerFrame >> bytesPerSample;
    }
    if (stream.status() != QDataStream::Ok)
        return false;

    // Without an 'enda' atom the samples are in QuickTime's own order, big-endian.
    quint16 little = 0;
    const bool endianKnown = findEndianFlag(stream, entryEnd(start, size, budget), &little, false);
    littleEndian = endianKnown ? little : 0;
    QuickTimeAtom::seekWithin(device, entryEnd(start, size, budget));
    settleBudget(device, start, budget, remaining);

    if (movieFile) {
        // Version 1 states the bytes of one channel's sample; version 0 only its bits.
        const quint32 bytes = version1 && bytesPerPacket != 0 ? bytesPerPacket : sampleSize / 8u;
        movieFile->setCurrentAudioBytesPerSample(bytes);
        movieFile->setCurrentAudioIsBigEndian(littleEndian == 0);
        movieFile->setCurrentAudioChannels(channels);
        movieFile->audioSampleRate = sampleRate >> 16; // 16.16
    }
    return true;
}

QuickTimeLinearPcmSampleDescription::QuickTimeLinearPcmSampleDescription(QuickTimeFile* movie, quint32 bytes,
                                                                         quint32 rate)
    : QuickTimeSampleDescription(s_entrySize - s_commonSize, fourCC("lpcm"))
    , movieFile(movie)
    , sampleRate(rate)
    , bitsPerChannel(8 * bytes)
    , bytesPerPacket(bytes)
{
}

void QuickTimeLinearPcmSampleDescription::write(QDataStream& stream)
{
    QuickTimeSampleDescription::write(stream);
    const quint16 version = 2;
    // The fixed values a version 2 description carries where version 0 and 1 keep theirs.
    stream << version << quint16(0) << quint32(0) << quint16(3) << quint16(16) << quint16(0xFFFE)
           << quint16(0) << quint32(0x00010000) << quint32(s_entrySize);
    stream.setFloatingPointPrecision(QDataStream::DoublePrecision);
    stream << sampleRate << channels << quint32(0x7F000000) << bitsPerChannel << flags << bytesPerPacket
           << quint32(1);
}

bool QuickTimeLinearPcmSampleDescription::read(QDataStream& stream, quint64* remaining)
{
    const quint32 kFields = s_entrySize - s_commonSize;
    if (!QuickTimeSampleDescription::read(stream, remaining) || !QuickTimeAtom::consume(remaining, kFields))
        return false;
    quint16 version = 0;
    stream >> version;
    if (!QuickTimeAtom::skipBytes(stream, 22))
        return false;
    stream.setFloatingPointPrecision(QDataStream::DoublePrecision);
    quint32 always7F = 0, framesPerPacket = 0;
    stream >> sampleRate >> channels >> always7F >> bitsPerChannel >> flags >> bytesPerPacket
        >> framesPerPacket;
    if (stream.status() != QDataStream::Ok || version != 2)
        return false;
    QuickTimeAtom::seekWithin(stream.device(), stream.device()->pos() + qint64(size - s_entrySize));
    if (movieFile) {
        movieFile->setCurrentAudioBytesPerSample(bitsPerChannel / 8);
        movieFile->setCurrentAudioIsBigEndian((flags & s_bigEndian) != 0);
        movieFile->setCurrentAudioChannels(channels);
        movieFile->audioSampleRate = sampleRate > 0 && sampleRate < 4e9 ? quint32(sampleRate) : 0;
    }
    return true;
}

} // namespace Tern
