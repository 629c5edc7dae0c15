#include "movie/SampleDescriptions.h"

#include "movie/MovieFamily.h"
#include "movie/QuickTimeFile.h"

#include <QIODevice>

#include <cstring>

namespace Tern {

namespace {
// Frame size assumed when a description is built without a movie.
const quint16 s_defaultWidth = 1920;
const quint16 s_defaultHeight = 1080;

// ProRes extensions: 'colr' 18, 'fiel' 10, 'pasp' 16 and the closing zero word; 'clap' 40 when written.
const quint32 s_colourAtomSize = 18;
const quint32 s_fieldAtomSize = 10;
const quint32 s_aspectAtomSize = 16;
const quint32 s_cleanApertureAtomSize = 40;
const quint32 s_terminatorSize = 4;
const quint32 s_proResVendor = fourCC("appl");
const quint32 s_proResSpatialQuality = 1023;

// Avid extensions: 'ACLR' 24, 'APRG' 24, 'ARES' 120 and the closing zero word.
const quint32 s_avidTagAtomSize = 24;
const quint32 s_avidResolutionAtomSize = 120;
const quint32 s_avidVersion = fourCC("0001");
const quint32 s_avidVendor = fourCC("hldn");
const quint32 s_avidQuality = 512;
const int s_avidReservedWords = 10;
const quint32 s_avidFormatInterlaced = 4;
const quint32 s_avidFormat1080 = 5;
const quint32 s_avidFormatOther = 6;
const char s_avidCompressorName[] = "DNxHD Codec";

const quint32 s_soundEntrySize = 82;
const quint32 s_waveAtomSize = 30;
const quint32 s_formatAtomSize = 12;
const quint32 s_endianAtomSize = 10;
const quint32 s_defaultBytesPerSample = 4;
const quint8 s_defaultLittleEndian = 1;

const quint32 s_timecodeEntrySize = 34;

const quint32 s_proRes4444Family = 2;
const quint32 s_fieldOrderingBottomFirst = 9; // bottom field displayed first, top field stored first

// 'stsd' payload before the entries: the 32-bit entry count.
const quint32 s_entryCountSize = 4;

// Read side: the fields behind the common part of each kind of entry.
const quint32 s_soundFields = 20; // version 0
const quint32 s_soundVersion1Fields = 16; // samples per packet, bytes per packet, frame and sample
const quint32 s_timecodeFields = 18;
const quint32 s_atomHeaderSize = 8;
const quint32 s_endianAtomMinimum = 10; // header and the 16-bit flag
const quint16 s_recordedHeight = 486;
const quint16 s_storedHeight = 480; // 486-line video is handled as 480 lines

bool readRaw(QDataStream& stream, quint8* bytes, int n)
{
    return stream.readRawData(reinterpret_cast<char*>(bytes), n) == n;
}

// Where an entry that starts at `start` ends: its declared size, held within the caller's budget.
qint64 entryEnd(qint64 start, quint32 size, quint64 budget)
{
    return start + qint64(qMin<quint64>(size, budget));
}

// What reading from `start` used of the budget, once the device is at the entry's end or before it.
void settleBudget(QIODevice* device, qint64 start, quint64 budget, quint64* remaining)
{
    const quint64 used = quint64(qMax<qint64>(0, device->pos() - start));
    *remaining = used < budget ? budget - used : 0;
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
// Common part

QuickTimeSampleDescription::QuickTimeSampleDescription(quint32 payloadSize, quint32 format)
    : dataFormat(format)
    , size(payloadSize + s_commonSize)
{
}

QuickTimeSampleDescription::~QuickTimeSampleDescription() = default;

void QuickTimeSampleDescription::write(QDataStream& stream)
{
    stream << size << dataFormat;
    stream.writeRawData(reinterpret_cast<const char*>(reserved), sizeof reserved);
    stream << dataReferenceIndex;
}

bool QuickTimeSampleDescription::read(QDataStream& stream, quint64* remaining)
{
    if (!QuickTimeAtom::consume(remaining, s_commonSize))
        return false;
    stream >> size >> dataFormat;
    readRaw(stream, reserved, sizeof reserved);
    stream >> dataReferenceIndex;
    return stream.status() == QDataStream::Ok;
}

// ---------------------------------------------------------------------------------------------------------
// Video

QuickTimeVideoSampleDescription::QuickTimeVideoSampleDescription(QuickTimeFile* movie, quint32 extensionsSize,
                                                                 quint32 format)
    : QuickTimeSampleDescription(s_videoSize - s_commonSize + extensionsSize, format)
    , movieFile(movie)
    , width(movie ? movie->width : s_defaultWidth)
    , height(movie ? movie->height : s_defaultHeight)
{
}

void QuickTimeVideoSampleDescription::setCompressorName(const char* name)
{
    std::memset(compressorName, 0, sizeof compressorName);
    const size_t length = qMin<size_t>(std::strlen(name), s_compressorNameSize - 1);
    compressorName[0] = quint8(length);
    std::memcpy(compressorName + 1, name, length);
}

void QuickTimeVideoSampleDescription::write(QDataStream& stream)
{
    QuickTimeSampleDescription::write(stream);
    stream << version << revisionLevel << vendor << temporalQuality << spatialQuality << width << height
           << horizontalResolution << verticalResolution << dataSize << frameCount;
    stream.writeRawData(reinterpret_cast<const char*>(compressorName), s_compressorNameSize);
    stream << depth << colorTableId;
}

bool QuickTimeVideoSampleDescription::read(QDataStream& stream, quint64* remaining)
{
    QIODevice* device = stream.device();
    const qint64 start = device->pos();
    const quint64 budget = *remaining;
    if (!QuickTimeSampleDescription::read(stream, remaining)
        || !QuickTimeAtom::consume(remaining, s_videoSize - s_commonSize))
        return false;
    stream >> version >> revisionLevel >> vendor >> temporalQuality >> spatialQuality >> width >> height
        >> horizontalResolution >> verticalResolution >> dataSize >> frameCount;
    readRaw(stream, compressorName, s_compressorNameSize);
    stream >> depth >> colorTableId;
    if (stream.status() != QDataStream::Ok)
        return false;
    if (movieFile) {
        movieFile->width = width;
        movieFile->height = height == s_recordedHeight ? s_storedHeight : height;
    }

    // 'fiel' and 'ARES' among the extensions give the interlace flag; the closing zero word ends the walk.
    const qint64 end = entryEnd(start, size, budget);
    for (;;) {
        const qint64 pos = device->pos();
        if (pos + qint64(s_atomHeaderSize) > end)
            break;
        quint64 left = quint64(end - pos);
        if (!QuickTimeAtom::readNextAtom(movieFile, nullptr, stream, &left) || device->pos() <= pos)
            break;
    }
    settleBudget(device, start, budget, remaining);
    return true;
}

// ---------------------------------------------------------------------------------------------------------
// ProRes

// clang-format off
// width, height, spacing h:v, clean width, clean height, horizontal offset, vertical offset (n, d each)
const QuickTimeImageInfo QuickTimeProResVideoSampleDescription::m_imageInfoTable[s_imageInfoRows] = {
    {720, 480, 10, 11, 704, 1, 480, 1, 0, 1, 0, 1},
    {720, 486, 10, 11, 704, 1, 480, 1, 0, 1, 0, 1},
    {720, 576, 59, 54, 41472, 59, 576, 1, 0, 1, 0, 1},
    {960, 720, 1, 1, 936, 1, 702, 1, 0, 1, 0, 1},
    {1280, 720, 1, 1, 1248, 1, 702, 1, 0, 1, 0, 1},
    {1296, 720, 1, 1, 1248, 1, 702, 1, 0, 1, 0, 1},
    {1280, 1080, 1, 1, 3776, 3, 1062, 1, 0, 1, 0, 1},
    {1440, 1080, 1, 1, 1416, 1, 1062, 1, 0, 1, 0, 1},
    {1920, 1080, 1, 1, 1888, 1, 1062, 1, 0, 1, 0, 1},
    {3840, 2160, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0},
    {4096, 2160, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0},
};
// clang-format on

namespace {
const MovieFamily& familyOf(const QuickTimeFile* movie)
{
    return movie ? movie->family() : ternFamily;
}

quint32 proResExtensionsSize(const QuickTimeFile* movie)
{
    quint32 extensions = s_colourAtomSize + s_fieldAtomSize + s_aspectAtomSize + s_terminatorSize;
    if (familyOf(movie).proResCleanAperture)
        extensions += s_cleanApertureAtomSize;
    return extensions;
}
} // namespace

QuickTimeProResVideoSampleDescription::QuickTimeProResVideoSampleDescription(QuickTimeFile* movie)
    : QuickTimeVideoSampleDescription(movie, proResExtensionsSize(movie), 0)
    , cleanAperture(familyOf(movie).proResCleanAperture)
{
    const quint32 codecType = movie ? movie->videoCodecType : quint32(quicktime_codec_prores422);
    const quint32 variant = movie ? movie->proResVariant : 0;
    const ProResName name = familyOf(movie).proResName(codecType, variant);
    dataFormat = name.dataFormat;
    setCompressorName(name.compressorName);
    vendor = s_proResVendor;
    spatialQuality = s_proResSpatialQuality;

    // Standard-definition sizes carry SMPTE 170M (480 lines) or EBU (576 lines) colour primaries.
    if (height == 480 || height == 486) {
        colorPrimaries = 6;
        transferFunction = 1;
        colorMatrix = 6;
    } else if (height == 576) {
        colorPrimaries = 5;
        transferFunction = 1;
        colorMatrix = 6;
    } else {
        colorPrimaries = 1;
        transferFunction = 1;
        colorMatrix = 1;
    }

    // An interlaced recording is described as two fields only while its ninth user-data value is 0.
    const bool twoFields = movie && movie->interlaced != 0 && movie->userData[8] == 0;
    fieldCount = twoFields ? 2 : 1;
    fieldOrdering = twoFields ? s_fieldOrderingBottomFirst : 0;

    for (const QuickTimeImageInfo& row : m_imageInfoTable) {
        if (row.width != width || row.height != height)
            continue;
        horizontalSpacing = row.horizontalSpacing;
        verticalSpacing = row.verticalSpacing;
        cleanWidthN = row.cleanWidthN;
        cleanWidthD = row.cleanWidthD;
        cleanHeightN = row.cleanHeightN;
        cleanHeightD = row.cleanHeightD;
        horizontalOffsetN = row.horizontalOffsetN;
        horizontalOffsetD = row.horizontalOffsetD;
        verticalOffsetN = row.verticalOffsetN;
        verticalOffsetD = row.verticalOffsetD;
        break;
    }
}

void QuickTimeProResVideoSampleDescription::write(QDataStream& stream)
{
    QuickTimeVideoSampleDescription::write(stream);
    stream << s_colourAtomSize << fourCC("colr") << fourCC("nclc") << colorPrimaries << transferFunction
           << colorMatrix;
    stream << s_fieldAtomSize << fourCC("fiel") << fieldCount << fieldOrdering;
    stream << s_aspectAtomSize << fourCC("pasp") << horizontalSpacing << verticalSpacing;
    if (cleanAperture) {
        stream << s_cleanApertureAtomSize << fourCC("clap") << cleanWidthN << cleanWidthD << cleanHeightN
               << cleanHeightD << horizontalOffsetN << horizontalOffsetD << verticalOffsetN
               << verticalOffsetD;
    }
    stream << quint32(0);
}

// ---------------------------------------------------------------------------------------------------------
// DNxHD

QuickTimeAvidVideoSampleDescription::QuickTimeAvidVideoSampleDescription(QuickTimeFile* movie)
    : QuickTimeVideoSampleDescription(
        movie, 2 * s_avidTagAtomSize + s_avidResolutionAtomSize + s_terminatorSize, fourCC("AVdn"))
{
    vendor = s_avidVendor;
    temporalQuality = s_avidQuality;
    spatialQuality = s_avidQuality;
    setCompressorName(s_avidCompressorName);

    const bool interlaced = movie && movie->interlaced != 0;
    if (movie)
        compressionId = movie->videoCodecId;
    resolutionWidth = width;
    resolutionHeight = interlaced ? height / 2 : height;
    resolutionFieldCount = interlaced ? 2 : 1;
    if (interlaced)
        formatCode = s_avidFormatInterlaced;
    else
        formatCode = height == 1080 ? s_avidFormat1080 : s_avidFormatOther;
}

void QuickTimeAvidVideoSampleDescription::write(QDataStream& stream)
{
    QuickTimeVideoSampleDescription::write(stream);
    stream << s_avidTagAtomSize << fourCC("ACLR") << fourCC("ACLR") << s_avidVersion << quint32(1)
           << quint32(0);
    stream << s_avidTagAtomSize << fourCC("APRG") << fourCC("APRG") << s_avidVersion << quint32(1)
           << quint32(0);
    stream << s_avidResolutionAtomSize << fourCC("ARES") << fourCC("ARES") << s_avidVersion << compressionId
           << resolutionWidth << resolutionHeight << resolutionFieldCount << quint32(0) << formatCode;
    for (int i = 0; i < s_avidReservedWords; ++i)
        stream << quint64(0);
    stream << quint32(0);
}

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
        s_soundEntrySize - s_commonSize,
        SoundResolutionToFormat(int(movie ? movie->audioBytesPerSample : s_defaultBytesPerSample)))
    , movieFile(movie)
    , vendor(soundVendor)
    , sampleRate(rate << 16)
    , bytesPerPacket(movie ? movie->audioBytesPerSample : s_defaultBytesPerSample)
    , bytesPerFrame(bytesPerPacket)
    , littleEndian(movie ? movie->audioLittleEndian : s_defaultLittleEndian)
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

QuickTimeTextSampleDescription::QuickTimeTextSampleDescription()
    : QuickTimeSampleDescription(s_entrySize - s_commonSize, fourCC("tx3g"))
{
}

void QuickTimeTextSampleDescription::write(QDataStream& stream)
{
    QuickTimeSampleDescription::write(stream);
    const quint16 fontId = 1;
    const QByteArray fontName("Serif");
    // Display flags, centred at the bottom, a clear background and an empty default text box.
    stream << quint32(0) << qint8(1) << qint8(-1) << quint32(0) << quint64(0);
    // The default style: characters 0 to 0, the font, plain, 18 point, opaque white.
    stream << quint16(0) << quint16(0) << fontId << quint8(0) << quint8(18) << quint32(0xFFFFFFFF);
    stream << quint32(18) << fourCC("ftab") << quint16(1) << fontId << quint8(fontName.size());
    stream.writeRawData(fontName.constData(), fontName.size());
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

// ---------------------------------------------------------------------------------------------------------
// Timecode

QuickTimeTimecodeSampleDescription::QuickTimeTimecodeSampleDescription(QuickTimeFile* movie)
    : QuickTimeSampleDescription(s_timecodeEntrySize - s_commonSize, fourCC("tmcd"))
    , movieFile(movie)
{
    if (!movie)
        return;
    flags = (movie->dropFrame ? s_dropFrameFlag : 0) | (movie->counter ? s_counterFlag : 0);
    timeScale = movie->timeScale;
    frameDuration = movie->sampleDuration;
    // Whole frames per second, rounded up (29.97 counts as 30); one byte wide.
    if (frameDuration != 0)
        numberOfFrames = quint8(movie->timecodeFramesPerSecond());
}

void QuickTimeTimecodeSampleDescription::write(QDataStream& stream)
{
    QuickTimeSampleDescription::write(stream);
    stream << reserved1 << flags << timeScale << frameDuration << numberOfFrames << reserved2;
}

bool QuickTimeTimecodeSampleDescription::read(QDataStream& stream, quint64* remaining)
{
    if (!QuickTimeSampleDescription::read(stream, remaining)
        || !QuickTimeAtom::consume(remaining, s_timecodeFields))
        return false;
    stream >> reserved1 >> flags >> timeScale >> frameDuration >> numberOfFrames >> reserved2;
    if (stream.status() != QDataStream::Ok)
        return false;
    if (movieFile) {
        movieFile->dropFrame = (flags & s_dropFrameFlag) != 0;
        movieFile->counter = (flags & s_counterFlag) != 0;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------------------
// 'stsd'

QuickTimeSampleDescriptionAtom::QuickTimeSampleDescriptionAtom(QuickTimeFile* movie)
    : QuickTimeVersionFlagsAtom(fourCC("stsd"), s_entryCountSize, 0, 0, 0)
    , movieFile(movie)
{
    file = movie;
}

QuickTimeSampleDescriptionAtom::~QuickTimeSampleDescriptionAtom()
{
    qDeleteAll(descriptions);
    descriptions.clear();
}

void QuickTimeSampleDescriptionAtom::addDescription(QuickTimeSampleDescription* description)
{
    addSize(description->size);
    descriptions.append(description);
    ++entryCount;
}

void QuickTimeSampleDescriptionAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::writeHeader(stream);
    stream << entryCount;
    for (QuickTimeSampleDescription* description : descriptions)
        description->write(stream);
    writeChildren(stream);
}

namespace {
// The reading class of a data format; null for formats the family does not know.
QuickTimeSampleDescription* descriptionOfFormat(QuickTimeFile* movie, quint32 format)
{
    const bool extendedFormats = familyOf(movie).readsExtendedFormats;
    switch (format) {
    case fourCC("ap4x"):
        if (!extendedFormats)
            return nullptr;
        Q_FALLTHROUGH();
    case fourCC("apch"):
    case fourCC("apcn"):
    case fourCC("apcs"):
    case fourCC("apco"):
    case fourCC("ap4h"):
        return new QuickTimeProResVideoSampleDescription(movie);
    case fourCC("AVdn"):
        return new QuickTimeAvidVideoSampleDescription(movie);
    case fourCC("sowt"):
        // The 16-bit sound of this library's interchange form; of other movies it stays unknown.
        if (!movie || !movie->learningOwnTracks)
            return nullptr;
        return new QuickTimeSoundSampleDescription(movie, 0, 0);
    case fourCC("lpcm"):
        // The 32-bit sound of the interchange form; likewise.
        if (!movie || !movie->learningOwnTracks)
            return nullptr;
        return new QuickTimeLinearPcmSampleDescription(movie, 0, 0);
    case fourCC("in31"):
        if (!extendedFormats)
            return nullptr;
        Q_FALLTHROUGH();
    case fourCC("twos"):
    case fourCC("in24"):
    case fourCC("in32"):
        return new QuickTimeSoundSampleDescription(movie, 0, 0);
    case fourCC("tmcd"):
        return new QuickTimeTimecodeSampleDescription(movie);
    default:
        return nullptr;
    }
}
} // namespace

bool QuickTimeSampleDescriptionAtom::read(QDataStream& stream, quint64* remaining)
{
    if (!QuickTimeVersionFlagsAtom::read(stream, remaining) || !consume(remaining, s_entryCountSize))
        return false;
    quint32 count = 0;
    stream >> count;
    if (stream.status() != QDataStream::Ok)
        return false;
    qDeleteAll(descriptions);
    descriptions.clear();
    entryCount = count;

    // Every entry takes at least its 16-byte common part from the budget, so the count cannot run away.
    QIODevice* device = stream.device();
    for (quint32 i = 0; i < count; ++i) {
        const qint64 start = device->pos();
        quint32 entrySize = 0;
        quint32 format = 0;
        stream >> entrySize >> format;
        if (stream.status() != QDataStream::Ok || entrySize < QuickTimeSampleDescription::s_commonSize
            || entrySize > *remaining)
            return false;
        device->seek(start);
        if (QuickTimeSampleDescription* description = descriptionOfFormat(file, format)) {
            quint64 entryLeft = entrySize;
            description->read(stream, &entryLeft);
            descriptions.append(description);
        }
        // Whatever the description read, the next entry starts where this one says it ends.
        *remaining -= entrySize;
        if (!seekWithin(device, start + entrySize) || device->pos() != start + entrySize)
            return false;
    }
    return true;
}

} // namespace Tern
