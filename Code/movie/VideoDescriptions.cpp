// Video sample descriptions: the 86 bytes every video entry starts with, and the ProRes and DNxHD
// entries with their extensions.

#include "movie/SampleDescriptions.h"

#include "movie/DescriptionSupport.h"
#include "movie/MovieFamily.h"
#include "movie/QuickTimeFile.h"

#include <QIODevice>

#include <cstring>

namespace Tern {

using namespace DescriptionSupport;

namespace {

// ProRes extensions: 'colr' 18, 'fiel' 10, 'pasp' 16 and the closing zero word; 'clap' 40 when written.
const quint32 s_colourAtomSize = 18;
const quint32 s_fieldAtomSize = 10;
const quint32 s_aspectAtomSize = 16;
const quint32 s_cleanApertureAtomSize = 40;
const quint32 s_terminatorSize = 4;
const quint32 s_proResVendor = fourCC("appl");
const quint32 s_proResSpatialQuality = 1023;
const quint32 s_fieldOrderingBottomFirst = 9; // bottom field displayed first, top field stored first

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

// Read side: 486-line video is handled as 480 lines.
const quint16 s_recordedHeight = 486;
const quint16 s_storedHeight = 480;

quint32 proResExtensionsSize(const QuickTimeFile* movie)
{
    quint32 extensions = s_colourAtomSize + s_fieldAtomSize + s_aspectAtomSize + s_terminatorSize;
    if (familyOf(movie).proResCleanAperture)
        extensions += s_cleanApertureAtomSize;
    return extensions;
}

} // namespace

// ---------------------------------------------------------------------------------------------------------
// Video

QuickTimeVideoSampleDescription::QuickTimeVideoSampleDescription(QuickTimeFile* movie, quint32 extensionsSize,
                                                                 quint32 format)
    : QuickTimeSampleDescription(s_videoSize - s_commonSize + extensionsSize, format)
    , movieFile(movie)
    , width(movie ? movie->width : QuickTimeFile::s_defaultWidth)
    , height(movie ? movie->height : QuickTimeFile::s_defaultHeight)
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

    describeColour();
    // An interlaced recording is described as two fields only while its ninth user-data value is 0.
    const bool twoFields
        = movie && movie->interlaced != 0 && movie->userData[QuickTimeFile::UserValue9] == 0;
    fieldCount = twoFields ? 2 : 1;
    fieldOrdering = twoFields ? s_fieldOrderingBottomFirst : 0;
    describeImage();
}

void QuickTimeProResVideoSampleDescription::describeColour()
{
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
}

void QuickTimeProResVideoSampleDescription::describeImage()
{
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

} // namespace Tern
