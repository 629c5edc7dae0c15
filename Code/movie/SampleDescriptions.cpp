// Sample descriptions: the common part of every entry, the timecode and caption entries, and the 'stsd'
// atom that holds them and reads each entry by the class of its data format. The video entries are in
// VideoDescriptions.cpp, the sound entries in SoundDescriptions.cpp.

#include "movie/SampleDescriptions.h"

#include "movie/DescriptionSupport.h"
#include "movie/MovieFamily.h"
#include "movie/QuickTimeFile.h"

#include <QIODevice>

namespace Tern {

using namespace DescriptionSupport;

namespace {

const quint32 s_timecodeEntrySize = 34;

// 'stsd' payload before the entries: the 32-bit entry count.
const quint32 s_entryCountSize = 4;

// Read side: the fields behind the common part of a timecode entry.
const quint32 s_timecodeFields = 18;

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
