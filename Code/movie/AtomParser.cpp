// The reading side of the atom tree: one atom at a time is read from the stream, asked to read its payload
// (which pushes what the reader needs into the movie's current track record) and, when it read more or
// less than it declared, skipped to its declared end so that the walk goes on behind it.

#include "movie/HeaderAtoms.h"
#include "movie/InformationAtoms.h"
#include "movie/QuickTimeAtom.h"
#include "movie/QuickTimeFile.h"
#include "movie/SampleDescriptions.h"
#include "movie/SampleTables.h"

#include <QIODevice>
#include <QtDebug>

namespace Tern {

namespace {

const quint32 s_headerSize = 8;
const quint32 s_extendedHeaderSize = 16;
const quint32 s_extendedSizeMarker = 1;

// Far deeper than any real movie nests; a crafted chain of containers stops here instead of exhausting
// the stack. Atoms below it are skipped unread.
const int s_maxNesting = 32;

// The reader of an atom of the movie's and its tracks' structure, down to the sample table; null for
// any other type.
QuickTimeAtom* createStructureAtom(QuickTimeFile* file, quint32 type)
{
    switch (type) {
    case fourCC("moov"):
        return new QuickTimeMovieAtom();
    case fourCC("mvhd"):
        return new QuickTimeMovieHeaderAtom(file);
    case fourCC("trak"):
        return new QuickTimeTrackAtom();
    case fourCC("tkhd"):
        return new QuickTimeTrackHeaderAtom(file);
    case fourCC("mdia"):
        return new QuickTimeMediaAtom();
    case fourCC("mdhd"):
        return new QuickTimeMediaHeaderAtom(file, 0, 0);
    case fourCC("hdlr"):
        return new QuickTimeHandlerReferenceAtom(fourCC("dhlr"), 0);
    case fourCC("minf"):
    case fourCC("gmhd"): // the timecode track's header holds nothing but children: read like 'minf'
        return new QuickTimeMediaInformationAtom();
    case fourCC("vmhd"):
        return new QuickTimeVideoInformationAtom();
    case fourCC("smhd"):
        return new QuickTimeSoundInformationAtom();
    case fourCC("dinf"):
        return new QuickTimeDataInformationAtom();
    case fourCC("dref"):
        return new QuickTimeDataReferenceAtom();
    case fourCC("stbl"):
        return new QuickTimeSampleTableAtom();
    default:
        return nullptr;
    }
}

// The reader of a sample table, of the user data, or of an extension of a video description; null for
// any other type.
QuickTimeAtom* createTableOrDataAtom(QuickTimeFile* file, quint32 type)
{
    switch (type) {
    case fourCC("stsd"):
        return new QuickTimeSampleDescriptionAtom(file);
    case fourCC("stts"):
        return new QuickTimeTimeToSampleAtom(file, 0, 0);
    case fourCC("stsc"):
        return new QuickTimeSampleToChunkAtom(file, 0, 0, 0, 0);
    case fourCC("stsz"):
        return new QuickTimeSampleSizeAtom(file, quicktime_frametype_unknown, 0, 0);
    case fourCC("stco"):
        return new QuickTimeChunkOffsetAtom(file, quicktime_frametype_unknown, 0, 0);
    case fourCC("co64"):
        return new QuickTimeChunkOffset64Atom(file, quicktime_frametype_unknown, 0, 0, 1, 0, 0);
    case fourCC("udta"):
        return new QuickTimeUserDataAtom();
    case fourCC("hldn"):
        return new QuickTimeHaldenAtom(file);
    case fourCC("fiel"):
        return new QuickTimeFieldAtom(file);
    case fourCC("ARES"):
        return new QuickTimeAvidResolutionAtom(file);
    case fourCC("wide"):
        return new QuickTimeWideAtom();
    default:
        return nullptr;
    }
}

// The object that reads an atom of this type; anything unknown is only skipped.
QuickTimeAtom* createAtom(QuickTimeFile* file, quint32 type, quint32 size)
{
    if (QuickTimeAtom* atom = createStructureAtom(file, type))
        return atom;
    if (QuickTimeAtom* atom = createTableOrDataAtom(file, type))
        return atom;
    return new QuickTimeUnrecognizedAtom(type, size);
}

// An atom's header as read from the stream.
struct AtomHeader
{
    qint64 start = 0; // where the header begins
    quint32 type = 0;
    quint64 size = 0; // header included: the 64-bit size behind the type when the 32-bit one is 1
    bool extended = false;
    qint64 end() const { return start + qint64(size); }
};

// Reads the header at the stream's position; false at the stream's end, when a field cannot be read, and
// for a size of 0.
bool readAtomHeader(QDataStream& stream, AtomHeader* header)
{
    header->start = stream.device()->pos();
    stream.resetStatus();
    if (stream.atEnd())
        return false;
    quint32 size32 = 0;
    stream >> size32;
    if (size32 == 0 || stream.status() != QDataStream::Ok)
        return false;
    stream >> header->type;
    header->extended = size32 == s_extendedSizeMarker;
    header->size = size32;
    if (header->extended)
        stream >> header->size;
    // A 64-bit size of 0 would never move the walk on: it ends the walk like a 32-bit size of 0.
    return stream.status() == QDataStream::Ok && header->size != 0;
}

// Has `atom` read its payload, one level deeper; when it read more or less than its header declares,
// the stream is moved to the declared end so that the walk goes on behind it.
void readPayload(QuickTimeAtom* atom, const AtomHeader& header, QDataStream& stream, quint64* remaining)
{
    ++QuickTimeAtom::nestingLevel;
    atom->read(stream, remaining);
    --QuickTimeAtom::nestingLevel;
    QIODevice* device = stream.device();
    const qint64 pos = device->pos();
    const qint64 end = header.end();
    if (pos == end)
        return;
    QuickTimeAtom::seekWithin(device, end);
    const quint32 type = header.type;
    qDebug("unexpected amount of data read in atom %c%c%c%c @ 0x%llx (expected %lld, read %lld), "
           "sync to 0x%llx",
        char(type >> 24), char(type >> 16), char(type >> 8), char(type),
        static_cast<unsigned long long>(header.start), static_cast<long long>(header.size),
        static_cast<long long>(pos - header.start), static_cast<unsigned long long>(end));
}

} // namespace

int QuickTimeAtom::nestingLevel = 0;

bool QuickTimeAtom::consume(quint64* remaining, quint64 n)
{
    if (*remaining < n)
        return false;
    *remaining -= n;
    return true;
}

bool QuickTimeAtom::seekWithin(QIODevice* device, qint64 pos)
{
    // A read-only buffer refuses a seek past its end, a file grants it; both end up at the end here.
    return device->seek(qBound(qint64(0), pos, device->size()));
}

bool QuickTimeAtom::skipBytes(QDataStream& stream, quint64 n)
{
    QIODevice* device = stream.device();
    const quint64 pos = quint64(device->pos());
    const quint64 size = quint64(device->size());
    if (pos > size || n > size - pos) {
        device->seek(device->size());
        return false;
    }
    return device->seek(qint64(pos + n));
}

bool QuickTimeAtom::readNextAtom(
    QuickTimeFile* file, QuickTimeAtom** out, QDataStream& stream, quint64* remaining)
{
    if (!stream.device())
        return false;
    AtomHeader header;
    if (!readAtomHeader(stream, &header) || *remaining < header.size)
        return false;

    QuickTimeAtom* atom = createAtom(file, header.type, quint32(header.size));
    atom->file = file;
    atom->size64 = header.size;
    atom->startPos = quint64(header.start);
    if (out)
        *out = atom;

    // Only 'mdat' is ever this large; its payload is the media and is never parsed.
    if (header.extended && header.type == fourCC("mdat") && file)
        file->movieDataStart = quint64(header.start) + s_extendedHeaderSize;
    if (header.extended || nestingLevel >= s_maxNesting) {
        seekWithin(stream.device(), header.end());
        *remaining -= header.size;
    } else {
        readPayload(atom, header, stream, remaining);
    }
    if (!out)
        delete atom;
    return true;
}

bool QuickTimeAtom::readChildren(QDataStream& stream, quint64* remaining)
{
    QIODevice* device = stream.device();
    const qint64 end = qint64(startPos + size64);
    qint64 pos = device->pos();
    if (pos - qint64(startPos) > qint64(size64))
        return false;
    qint64 left = end - pos;
    while (left > 0) {
        QuickTimeAtom* child = nullptr;
        quint64 childLeft = quint64(left);
        const bool more = readNextAtom(file, &child, stream, &childLeft);
        delete child;
        if (!more)
            return false;
        // What is still unread in this atom is taken from the caller's budget, not the child's size;
        // callers go by the position, not by this budget. Held at 0 rather than wrapping.
        *remaining = *remaining > childLeft ? *remaining - childLeft : 0;
        pos = device->pos();
        left = end - pos;
    }
    return left == 0;
}

// ---------------------------------------------------------------------------------------------------------
// Containers

bool QuickTimeContainerAtom::read(QDataStream& stream, quint64* remaining)
{
    if (!readHeaderCount(remaining))
        return false;
    return readChildren(stream, remaining);
}

bool QuickTimeTrackAtom::read(QDataStream& stream, quint64* remaining)
{
    // Everything learned from here on belongs to this track.
    if (file)
        file->initCurrentTrackInfo();
    return QuickTimeContainerAtom::read(stream, remaining);
}

bool QuickTimeUserDataAtom::read(QDataStream& stream, quint64* remaining)
{
    if (!readHeaderCount(remaining))
        return false;
    // Only the maker's own user data is read: anything else (the recorder's reserved region among it) is
    // passed over whole when the first child is not the maker atom.
    if (size64 >= s_headerSize + s_headerSize) {
        QIODevice* device = stream.device();
        const qint64 pos = device->pos();
        quint32 childSize = 0;
        quint32 childType = 0;
        stream >> childSize >> childType;
        device->seek(pos);
        const quint64 payload = size64 - s_headerSize;
        if (childType != fourCC("hldn") && *remaining >= payload) {
            skipBytes(stream, payload);
            *remaining -= payload;
        }
    }
    return readChildren(stream, remaining);
}

} // namespace Tern
