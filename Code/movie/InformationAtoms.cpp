#include "movie/InformationAtoms.h"

#include "movie/QuickTimeFile.h"
#include "movie/TableBatch.h"

#include <QtEndian>

#include <cstring>

namespace Tern {

namespace {
const quint32 s_versionedHeaderSize = 12; // header, version byte, three flag bytes

// Total sizes of the fixed-layout atoms.
const quint32 s_videoInformationSize = 20;
const quint32 s_soundInformationSize = 16;
const quint32 s_baseMediaInformationSize = 24;
const quint32 s_timecodeInformationSize = 64;
const quint32 s_dataReferenceSize = 28;

const quint32 s_mediaInformationFlags = 0x000001; // "no lean ahead" on 'vmhd', 'smhd' and 'tcmi'
const char s_timecodeFontName[] = "System";
const int s_timecodeFontNameMaximum = 30;

// Payloads the parser reads behind version and flags (or behind the header for 'fiel' and 'ARES').
const quint32 s_videoInformationFields = 8;
const quint32 s_soundInformationFields = 4;
const quint32 s_dataReferenceFields = 16;
const quint32 s_fieldAtomFields = 2;
const quint32 s_avidResolutionFields = 32;
const quint32 s_atomHeaderSize = 8;
} // namespace

// ---------------------------------------------------------------------------------------------------------
// 'vmhd', 'smhd', 'gmin'

QuickTimeVideoInformationAtom::QuickTimeVideoInformationAtom()
    : QuickTimeVersionFlagsAtom(fourCC("vmhd"), s_videoInformationSize - s_versionedHeaderSize, 0, 0,
                                s_mediaInformationFlags)
{
}

void QuickTimeVideoInformationAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << graphicsMode << opcolor[0] << opcolor[1] << opcolor[2];
}

bool QuickTimeVideoInformationAtom::read(QDataStream& stream, quint64* remaining)
{
    if (!QuickTimeVersionFlagsAtom::read(stream, remaining) || !consume(remaining, s_videoInformationFields))
        return false;
    stream >> graphicsMode >> opcolor[0] >> opcolor[1] >> opcolor[2];
    return stream.status() == QDataStream::Ok;
}

QuickTimeSoundInformationAtom::QuickTimeSoundInformationAtom()
    : QuickTimeVersionFlagsAtom(fourCC("smhd"), s_soundInformationSize - s_versionedHeaderSize, 0, 0,
                                s_mediaInformationFlags)
{
}

void QuickTimeSoundInformationAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << balance << reserved;
}

bool QuickTimeSoundInformationAtom::read(QDataStream& stream, quint64* remaining)
{
    if (!QuickTimeVersionFlagsAtom::read(stream, remaining) || !consume(remaining, s_soundInformationFields))
        return false;
    stream >> balance >> reserved;
    return stream.status() == QDataStream::Ok;
}

QuickTimeBaseMediaInformationAtom::QuickTimeBaseMediaInformationAtom()
    : QuickTimeVersionFlagsAtom(fourCC("gmin"), s_baseMediaInformationSize - s_versionedHeaderSize, 0, 0, 0)
{
}

void QuickTimeBaseMediaInformationAtom::write(QDataStream& stream)
{
    // Payload before children, unlike the other versioned leaves.
    QuickTimeVersionFlagsAtom::writeHeader(stream);
    stream << graphicsMode << opcolor[0] << opcolor[1] << opcolor[2] << balance << reserved;
    writeChildren(stream);
}

// ---------------------------------------------------------------------------------------------------------
// 'tcmi'

QuickTimeTimecodeInformationAtom::QuickTimeTimecodeInformationAtom()
    : QuickTimeVersionFlagsAtom(fourCC("tcmi"), s_timecodeInformationSize - s_versionedHeaderSize, 0, 0,
                                s_mediaInformationFlags)
{
    const size_t length = qMin<size_t>(std::strlen(s_timecodeFontName), s_timecodeFontNameMaximum);
    fontName[0] = quint8(length);
    std::memcpy(fontName + 1, s_timecodeFontName, length);
}

void QuickTimeTimecodeInformationAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << textFont << textFace << textSize << reserved;
    stream << textColor[0] << textColor[1] << textColor[2];
    stream << backgroundColor[0] << backgroundColor[1] << backgroundColor[2];
    stream.writeRawData(reinterpret_cast<const char*>(fontName), s_fontNameSize);
}

// ---------------------------------------------------------------------------------------------------------
// 'dref'

QuickTimeDataReferenceAtom::QuickTimeDataReferenceAtom()
    : QuickTimeVersionFlagsAtom(fourCC("dref"), s_dataReferenceSize - s_versionedHeaderSize, 0, 0, 0)
    , entryType(fourCC("alis"))
{
}

void QuickTimeDataReferenceAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << entryCount << entrySize << entryType << entryVersion << entryFlags[0] << entryFlags[1]
           << entryFlags[2];
}

bool QuickTimeDataReferenceAtom::read(QDataStream& stream, quint64* remaining)
{
    if (!QuickTimeVersionFlagsAtom::read(stream, remaining) || !consume(remaining, s_dataReferenceFields))
        return false;
    stream >> entryCount >> entrySize >> entryType >> entryVersion >> entryFlags[0] >> entryFlags[1]
        >> entryFlags[2];
    return stream.status() == QDataStream::Ok;
}

// ---------------------------------------------------------------------------------------------------------
// 'hldn'

QuickTimeHaldenAtom::QuickTimeHaldenAtom(QuickTimeFile* movie)
    : QuickTimeVersionFlagsAtom(fourCC("hldn"), s_fixedPayloadSize, 0, 0, 0)
    , movieFile(movie)
{
    file = movie;
    if (!movie)
        return;
    interlaced = movie->interlaced;
    frameCount = movie->totalFrames();
    videoFrames = movie->videoFrames();
    audioFrames = movie->audioFrames();
    timecodeFrames = movie->timecodeSamples;
    std::memcpy(userData, movie->userData, sizeof userData);
    addSize(2 * frameCount);
}

void QuickTimeHaldenAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << constant << interlaced << frameCount << videoFrames << audioFrames << timecodeFrames;
    for (quint32 value : userData)
        stream << value;
    stream << marker;
    const char reservedBytes[s_reservedSize] = {};
    stream.writeRawData(reservedBytes, s_reservedSize);

    // The whole 16-bit entries (type and block count): a reader rebuilds the frame map from them. A count
    // beyond the map's capacity (a chunk counted without room for its entry) is listed as 0 there.
    const quint16* map = movieFile ? movieFile->frameMap : nullptr;
    const quint32 mapped = map ? qMin(frameCount, QuickTimeFile::s_frameMapEntries) : 0;
    TableBatch sink(stream, s_frameListEntryBytes);
    for (quint32 i = 0; i < frameCount;) {
        const int entries = int(qMin(quint32(sink.capacity()), frameCount - i));
        const int fromMap = i < mapped ? int(qMin(quint32(entries), mapped - i)) : 0;
        sink.put16Run(0, map + i, fromMap);
        for (int slot = fromMap; slot < entries; ++slot)
            sink.put16(slot, 0);
        i += quint32(entries);
        sink.endBatch(entries);
    }
}

bool QuickTimeHaldenAtom::read(QDataStream& stream, quint64* remaining)
{
    if (!QuickTimeVersionFlagsAtom::read(stream, remaining) || *remaining < s_fixedPayloadSize)
        return false;
    stream >> constant >> interlaced >> frameCount >> videoFrames >> audioFrames >> timecodeFrames;
    for (quint32& value : userData)
        stream >> value;
    stream >> marker;
    if (!skipBytes(stream, s_reservedSize) || stream.status() != QDataStream::Ok)
        return false;
    const quint64 listBytes = 2 * quint64(frameCount);
    if (*remaining - s_fixedPayloadSize < listBytes)
        return false;
    *remaining -= s_fixedPayloadSize + listBytes;

    QuickTimeFile* movie = file;
    if (!movie || !movie->ensureFrameMap())
        return skipBytes(stream, listBytes);
    // The list goes straight into the frame map, as far as the map reaches; the rest is passed over.
    const quint32 kept = qMin(frameCount, QuickTimeFile::s_frameMapEntries);
    char* target = reinterpret_cast<char*>(movie->frameMap);
    const qint64 keptBytes = 2 * qint64(kept);
    if (stream.readRawData(target, int(keptBytes)) != keptBytes || !skipBytes(stream, listBytes - keptBytes))
        return false;
    for (quint32 i = 0; i < kept; ++i)
        movie->frameMap[i] = qFromBigEndian(movie->frameMap[i]);

    movie->interlaced = interlaced;
    movie->videoFrameCount = videoFrames;
    movie->soundChunks = audioFrames;
    movie->timecodeSamples = timecodeFrames;
    std::memcpy(movie->userData, userData, sizeof userData);
    movie->writtenByRecorder = true;
    movie->haldenMarker = marker != 0;
    return true;
}

// ---------------------------------------------------------------------------------------------------------
// 'uset'

QuickTimeUserSettingsAtom::QuickTimeUserSettingsAtom(QuickTimeFile* movie)
    : QuickTimeVersionFlagsAtom(fourCC("uset"), 0, 0, 0, 0)
    , movieFile(movie)
{
    file = movie;
    if (movie)
        text = movie->userSettings;
    addSize(quint32(text.size()));
}

void QuickTimeUserSettingsAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    // A null string would go out as the stream's null marker (0xFFFFFFFF) instead of a count of 0.
    stream << (text.isNull() ? QString(QLatin1String("")) : text);
}

// ---------------------------------------------------------------------------------------------------------
// 'fiel', 'ARES'

QuickTimeFieldAtom::QuickTimeFieldAtom(QuickTimeFile* movie)
    : QuickTimeAtom(fourCC("fiel"), 0, 0)
    , movieFile(movie)
{
    file = movie;
}

bool QuickTimeFieldAtom::read(QDataStream& stream, quint64* remaining)
{
    if (!QuickTimeAtom::read(stream, remaining) || !consume(remaining, s_fieldAtomFields))
        return false;
    stream >> fields >> ordering;
    if (stream.status() != QDataStream::Ok)
        return false;
    // Once the maker atom has given the interlace flag, the description's field atom does not change it.
    if (file && !file->writtenByRecorder)
        file->interlaced = fields > 1 ? 1 : 0;
    return true;
}

QuickTimeAvidResolutionAtom::QuickTimeAvidResolutionAtom(QuickTimeFile* movie)
    : QuickTimeAtom(fourCC("ARES"), 0, 0)
    , movieFile(movie)
{
    file = movie;
}

bool QuickTimeAvidResolutionAtom::read(QDataStream& stream, quint64* remaining)
{
    if (!QuickTimeAtom::read(stream, remaining) || !consume(remaining, s_avidResolutionFields))
        return false;
    stream >> repeatedType >> resolutionVersion >> compressionId >> width >> height >> fields >> value
        >> formatCode;
    if (stream.status() != QDataStream::Ok)
        return false;
    if (file)
        file->interlaced = fields > 1 ? 1 : 0;
    // The reserved words behind the fields, up to the atom's declared end.
    const quint64 fieldsEnd = s_atomHeaderSize + s_avidResolutionFields;
    const quint64 reserved = size64 > fieldsEnd ? size64 - fieldsEnd : 0;
    if (!consume(remaining, reserved))
        return false;
    return skipBytes(stream, reserved);
}

} // namespace Tern
