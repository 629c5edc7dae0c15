#include "movie/HeaderAtoms.h"

#include "movie/QuickTimeFile.h"

#include <algorithm>
#include <cstring>

namespace Tern {

namespace {
const quint32 s_atomHeaderSize = 8;
const quint32 s_versionedHeaderSize = 12; // header, version byte, three flag bytes

// Total sizes of the fixed-layout atoms.
const quint32 s_fileTypeSize = 20;
const quint32 s_movieHeaderSize = 108;
const quint32 s_trackHeaderSize = 92;
const quint32 s_mediaHeaderSize = 32;
const quint32 s_handlerReferenceSize = 32; // before the counted name
const quint32 s_editListSize = 28;
const quint32 s_sourceReferenceSize = 44;
const quint32 s_trackReferenceSize = 20;

const int s_movieHeaderFields = 15; // every field of its layout, besides version and flags
const int s_fileTypeFields = 3;

const quint32 s_trackHeaderFlags = 0x00000F; // enabled, in movie, in preview, in poster
const quint32 s_minorVersion = 0x20070400;
const int s_sourceNameMaximum = 31;

void copyMatrix(quint32* matrix)
{
    std::copy(std::begin(s_identityMatrix), std::end(s_identityMatrix), matrix);
}

void writeMatrix(QDataStream& stream, const quint32* matrix)
{
    for (int i = 0; i < 9; ++i)
        stream << matrix[i];
}

void readMatrix(QDataStream& stream, quint32* matrix)
{
    for (int i = 0; i < 9; ++i)
        stream >> matrix[i];
}

bool readRaw(QDataStream& stream, quint8* bytes, int n)
{
    return stream.readRawData(reinterpret_cast<char*>(bytes), n) == n;
}

// Handler subtypes of the media handler and the tracks they make.
quicktime_frametype_t trackTypeOfHandler(quint32 subtype)
{
    switch (subtype) {
    case fourCC("vide"):
        return quicktime_frametype_video;
    case fourCC("soun"):
        return quicktime_frametype_sound;
    case fourCC("tmcd"):
        return quicktime_frametype_timecode;
    default:
        return quicktime_frametype_unknown;
    }
}
} // namespace

// ---------------------------------------------------------------------------------------------------------
// 'ftyp'

QuickTimeFileAtom::QuickTimeFileAtom()
    : QuickTimeAtom(fourCC("ftyp"), s_fileTypeSize - s_atomHeaderSize, s_fileTypeFields)
    , majorBrand(fourCC("qt  "))
    , minorVersion(s_minorVersion)
    , compatibleBrand(fourCC("qt  "))
{
}

void QuickTimeFileAtom::write(QDataStream& stream)
{
    QuickTimeAtom::write(stream);
    stream << majorBrand << minorVersion << compatibleBrand;
}

int QuickTimeFileAtom::getFieldName(int index, QString& name) const
{
    index = QuickTimeAtom::getFieldName(index, name);
    switch (index) {
    case 0:
        name = QStringLiteral("Major Brand");
        break;
    case 1:
        name = QStringLiteral("Minor Version");
        break;
    case 2:
        name = QStringLiteral("Compatible Brand");
        break;
    default:
        break;
    }
    return index - s_fileTypeFields;
}

int QuickTimeFileAtom::getFieldValue(int index, QString& value) const
{
    index = QuickTimeAtom::getFieldValue(index, value);
    switch (index) {
    case 0:
        value = fourByteString(majorBrand);
        break;
    case 1:
        value = QString::number(minorVersion, 16);
        break;
    case 2:
        value = fourByteString(compatibleBrand);
        break;
    default:
        break;
    }
    return index - s_fileTypeFields;
}

// ---------------------------------------------------------------------------------------------------------
// 'mvhd'

QuickTimeMovieHeaderAtom::QuickTimeMovieHeaderAtom(QuickTimeFile* movie)
    : QuickTimeVersionFlagsAtom(fourCC("mvhd"), s_movieHeaderSize - s_versionedHeaderSize,
                                s_movieHeaderFields, 0, 0)
    , movieFile(movie)
{
    file = movie;
    copyMatrix(matrix);
    if (movie) {
        timeScale = movie->timeScale;
        duration = movie->sampleDuration * movie->videoFrames(); // 32-bit product: wraps on long movies
    }
}

void QuickTimeMovieHeaderAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << creationTime << modificationTime << timeScale << duration << preferredRate << preferredVolume;
    stream.writeRawData(reinterpret_cast<const char*>(reserved), sizeof reserved);
    writeMatrix(stream, matrix);
    stream << previewTime << previewDuration << posterTime << selectionTime << selectionDuration
           << currentTime << nextTrackId;
}

bool QuickTimeMovieHeaderAtom::read(QDataStream& stream, quint64* remaining)
{
    if (!QuickTimeVersionFlagsAtom::read(stream, remaining)
        || !consume(remaining, s_movieHeaderSize - s_versionedHeaderSize))
        return false;
    stream >> creationTime >> modificationTime >> timeScale >> duration >> preferredRate >> preferredVolume;
    readRaw(stream, reserved, sizeof reserved);
    readMatrix(stream, matrix);
    stream >> previewTime >> previewDuration >> posterTime >> selectionTime >> selectionDuration
        >> currentTime >> nextTrackId;
    return stream.status() == QDataStream::Ok;
}

// ---------------------------------------------------------------------------------------------------------
// 'tkhd'

QuickTimeTrackHeaderAtom::QuickTimeTrackHeaderAtom(QuickTimeFile* movie, quint32 track, quint32 trackDuration,
                                                   quint32 trackWidth, quint32 trackHeight,
                                                   quint16 trackVolume)
    : QuickTimeVersionFlagsAtom(fourCC("tkhd"), s_trackHeaderSize - s_versionedHeaderSize, 0, 0,
                                s_trackHeaderFlags)
    , trackId(track)
    , duration(trackDuration)
    , volume(trackVolume)
    , width(trackWidth)
    , height(trackHeight)
{
    file = movie;
    copyMatrix(matrix);
}

QuickTimeTrackHeaderAtom::QuickTimeTrackHeaderAtom(QuickTimeFile* movie)
    : QuickTimeTrackHeaderAtom(movie, 1, movie ? movie->videoFrames() : 0, movie ? movie->width : 0,
                               movie ? movie->height : 0, 0)
{
}

void QuickTimeTrackHeaderAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << creationTime << modificationTime << trackId << reserved1 << duration;
    stream.writeRawData(reinterpret_cast<const char*>(reserved2), sizeof reserved2);
    stream << layer << alternateGroup << volume << reserved3;
    writeMatrix(stream, matrix);
    stream << (width << 16) << (height << 16);
}

bool QuickTimeTrackHeaderAtom::read(QDataStream& stream, quint64* remaining)
{
    if (!QuickTimeVersionFlagsAtom::read(stream, remaining)
        || !consume(remaining, s_trackHeaderSize - s_versionedHeaderSize))
        return false;
    stream >> creationTime >> modificationTime >> trackId >> reserved1 >> duration;
    readRaw(stream, reserved2, sizeof reserved2);
    stream >> layer >> alternateGroup >> volume >> reserved3;
    readMatrix(stream, matrix);
    stream >> width >> height;
    width >>= 16; // 16.16 on disk, whole pixels here
    height >>= 16;
    return stream.status() == QDataStream::Ok;
}

// ---------------------------------------------------------------------------------------------------------
// 'mdhd'

QuickTimeMediaHeaderAtom::QuickTimeMediaHeaderAtom(QuickTimeFile* movie, quint32 mediaTimeScale,
                                                   quint32 mediaDuration)
    : QuickTimeVersionFlagsAtom(fourCC("mdhd"), s_mediaHeaderSize - s_versionedHeaderSize, 0, 0, 0)
    , movieFile(movie)
    , timeScale(mediaTimeScale)
    , duration(mediaDuration)
{
    file = movie;
}

void QuickTimeMediaHeaderAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << creationTime << modificationTime << timeScale << duration << language << quality;
}

bool QuickTimeMediaHeaderAtom::read(QDataStream& stream, quint64* remaining)
{
    if (!QuickTimeVersionFlagsAtom::read(stream, remaining)
        || !consume(remaining, s_mediaHeaderSize - s_versionedHeaderSize))
        return false;
    stream >> creationTime >> modificationTime >> timeScale >> duration >> language >> quality;
    if (stream.status() != QDataStream::Ok)
        return false;
    if (file)
        file->setCurrentTimeScale(timeScale);
    return true;
}

// ---------------------------------------------------------------------------------------------------------
// 'hdlr'

QuickTimeHandlerReferenceAtom::QuickTimeHandlerReferenceAtom(quint32 handlerType, quint32 subtype)
    : QuickTimeVersionFlagsAtom(fourCC("hdlr"), s_handlerReferenceSize - s_versionedHeaderSize, 0, 0, 0)
    , componentType(handlerType)
    , componentSubtype(subtype)
{
    const char* name = "";
    if (handlerType != fourCC("mhlr"))
        name = "DataHandler";
    else if (subtype == fourCC("vide"))
        name = "VideoHandler";
    else if (subtype == fourCC("soun"))
        name = "SoundHandler";
    else if (subtype == fourCC("tmcd"))
        name = "TimecodeHandler";

    const quint8 length = quint8(qMin<size_t>(std::strlen(name), s_nameBufferSize - 1));
    componentName[0] = length;
    std::memcpy(componentName + 1, name, length);
    addSize(1 + quint32(length));
}

void QuickTimeHandlerReferenceAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << componentType << componentSubtype << componentManufacturer << componentFlags
           << componentFlagsMask;
    stream.writeRawData(reinterpret_cast<const char*>(componentName), 1 + componentName[0]);
}

bool QuickTimeHandlerReferenceAtom::read(QDataStream& stream, quint64* remaining)
{
    const quint32 fixedBytes = s_handlerReferenceSize - s_versionedHeaderSize + 1; // fields and length byte
    if (!QuickTimeVersionFlagsAtom::read(stream, remaining) || !consume(remaining, fixedBytes))
        return false;
    quint8 nameLength = 0;
    stream >> componentType >> componentSubtype >> componentManufacturer >> componentFlags
        >> componentFlagsMask >> nameLength;
    if (stream.status() != QDataStream::Ok || !consume(remaining, nameLength))
        return false;
    // The name is kept as far as the buffer holds it and otherwise passed over.
    const quint8 kept = quint8(qMin<int>(nameLength, s_nameBufferSize - 1));
    componentName[0] = kept;
    if (!readRaw(stream, componentName + 1, kept) || !skipBytes(stream, nameLength - kept))
        return false;

    // The track's kind is learned from its media handler (the data handler inside 'minf' says nothing).
    if (file && componentType == fourCC("mhlr"))
        file->setCurrentTrackType(trackTypeOfHandler(componentSubtype));
    return true;
}

// ---------------------------------------------------------------------------------------------------------
// 'elst'

QuickTimeEditListAtom::QuickTimeEditListAtom(QuickTimeFile* movie, quint32 duration, quint32 time,
                                             quint32 rate)
    : QuickTimeVersionFlagsAtom(fourCC("elst"), s_editListSize - s_versionedHeaderSize, 0, 0, 0)
    , trackDuration(duration)
    , mediaTime(time)
    , mediaRate(rate)
{
    file = movie;
}

void QuickTimeEditListAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << entryCount << trackDuration << mediaTime << mediaRate;
}

// ---------------------------------------------------------------------------------------------------------
// 'name'

QuickTimeSourceReferenceAtom::QuickTimeSourceReferenceAtom(const char* sourceName)
    : QuickTimeAtom(fourCC("name"), s_sourceReferenceSize - s_atomHeaderSize, 0)
{
    if (sourceName)
        std::strncpy(name, sourceName, s_sourceNameMaximum); // the last byte stays zero
    nameLength = quint16(std::strlen(name));
}

void QuickTimeSourceReferenceAtom::write(QDataStream& stream)
{
    QuickTimeAtom::write(stream);
    stream << nameLength << language;
    stream.writeRawData(name, s_nameBufferSize);
}

// ---------------------------------------------------------------------------------------------------------
// 'tref'

QuickTimeTrackReferenceAtom::QuickTimeTrackReferenceAtom(quint32 reference, quint32 track)
    : QuickTimeAtom(fourCC("tref"), s_trackReferenceSize - s_atomHeaderSize, 0)
    , referenceType(reference)
    , trackId(track)
{
}

void QuickTimeTrackReferenceAtom::write(QDataStream& stream)
{
    QuickTimeAtom::write(stream);
    stream << entrySize << referenceType << trackId;
}

} // namespace Tern
