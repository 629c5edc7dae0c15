#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>

namespace Tern {
class QuickTimeAtom;
class QuickTimeSampleDescription;
}

// Movie bytes written out by hand, field by field, big-endian, independent of the library under test:
// every atom is its size, its four letters and its payload.
namespace AtomBytes {

QByteArray u8(quint8 v);
QByteArray u16(quint16 v);
QByteArray u32(quint32 v);
QByteArray u64(quint64 v);
QByteArray fcc(const char* letters); // the four letters of a type or format
QByteArray zeros(int n);
QByteArray box(const char* type, const QByteArray& payload);
QByteArray fullBox(const char* type, const QByteArray& payload); // version and flags 0, then the payload

QByteArray mdhd(quint32 scale);
QByteArray hdlr(const char* kind, const char* subtype);
QByteArray stsd(const QByteArray& entry); // a description table of one entry
QByteArray stts(quint32 count, quint32 duration);
// Entries of first chunk (from 1) and samples per chunk.
QByteArray stsc(const QList<QPair<quint32, quint32>>& entries);
QByteArray stsz(quint32 constant, quint32 count, const QList<quint32>& sizes = {});
QByteArray stco(const QList<quint32>& offsets);

// A video description: the 86 bytes of the common layout, then `extensions`.
QByteArray videoEntry(const char* format, quint16 width, quint16 height, const QByteArray& extensions = {});
// A sound description of version 0 (36 bytes) or 1 (52 bytes), then `extensions`.
QByteArray soundEntry(const char* format, quint16 version, quint16 channels, quint16 bits, quint32 rate,
    quint32 bytesPerPacket, const QByteArray& extensions = {});
// A track of handler `handler` ("vide" or "soun") at time scale `scale`: its one description `entry`,
// then the sample tables `tables`.
QByteArray trak(const char* handler, quint32 scale, const QByteArray& entry, const QByteArray& tables);

// ffmpeg writes 'co64' only past 4 GiB: the small movie's 'stco' tables are rewritten as 'co64' here,
// growing the atoms that hold them (the index lies behind the media, so no media offset moves).
QByteArray withChunkOffsets64(QByteArray movie);

// The bytes the library writes for an atom or a sample description.
QByteArray written(Tern::QuickTimeAtom& atom);
QByteArray written(Tern::QuickTimeSampleDescription& description);

} // namespace AtomBytes
