#include "support/AtomBytes.h"

#include "movie/QuickTimeAtom.h"
#include "movie/SampleDescriptions.h"
#include "support/AtomWalker.h"

#include <QBuffer>
#include <QDataStream>
#include <QString>

namespace AtomBytes {

namespace {

// What `item` (an atom or a sample description) writes to a stream.
template <typename Item>
QByteArray writtenBy(Item& item)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    QDataStream stream(&buffer);
    item.write(stream);
    return bytes;
}

} // namespace

QByteArray u8(quint8 v)
{
    return QByteArray(1, char(v));
}

QByteArray u16(quint16 v)
{
    return u8(quint8(v >> 8)) + u8(quint8(v));
}

QByteArray u32(quint32 v)
{
    return u16(quint16(v >> 16)) + u16(quint16(v));
}

QByteArray u64(quint64 v)
{
    return u32(quint32(v >> 32)) + u32(quint32(v));
}

QByteArray fcc(const char* letters)
{
    return QByteArray(letters, 4);
}

QByteArray zeros(int n)
{
    return QByteArray(n, '\0');
}

QByteArray box(const char* type, const QByteArray& payload)
{
    return u32(8 + payload.size()) + fcc(type) + payload;
}

QByteArray fullBox(const char* type, const QByteArray& payload)
{
    return box(type, u32(0) + payload);
}

QByteArray mdhd(quint32 scale)
{
    return fullBox("mdhd", u32(0) + u32(0) + u32(scale) + u32(0) + u16(0) + u16(0));
}

QByteArray hdlr(const char* kind, const char* subtype)
{
    return fullBox("hdlr", fcc(kind) + fcc(subtype) + zeros(12) + u8(4) + "Name");
}

QByteArray stsd(const QByteArray& entry)
{
    return fullBox("stsd", u32(1) + entry);
}

QByteArray stts(quint32 count, quint32 duration)
{
    return fullBox("stts", u32(1) + u32(count) + u32(duration));
}

QByteArray stsc(const QList<QPair<quint32, quint32>>& entries)
{
    QByteArray payload = u32(quint32(entries.size()));
    for (const auto& entry : entries)
        payload += u32(entry.first) + u32(entry.second) + u32(1);
    return fullBox("stsc", payload);
}

QByteArray stsz(quint32 constant, quint32 count, const QList<quint32>& sizes)
{
    QByteArray payload = u32(constant) + u32(count);
    for (quint32 size : sizes)
        payload += u32(size);
    return fullBox("stsz", payload);
}

QByteArray stco(const QList<quint32>& offsets)
{
    QByteArray payload = u32(quint32(offsets.size()));
    for (quint32 offset : offsets)
        payload += u32(offset);
    return fullBox("stco", payload);
}

QByteArray videoEntry(const char* format, quint16 width, quint16 height, const QByteArray& extensions)
{
    return u32(86 + extensions.size()) + fcc(format) + zeros(6) + u16(1) + u16(0) + u16(0) + fcc("appl")
        + u32(0) + u32(1023) + u16(width) + u16(height) + u32(0x480000) + u32(0x480000) + u32(0) + u16(1)
        + zeros(32) + u16(24) + u16(0xFFFF) + extensions;
}

QByteArray soundEntry(const char* format, quint16 version, quint16 channels, quint16 bits, quint32 rate,
    quint32 bytesPerPacket, const QByteArray& extensions)
{
    QByteArray fields
        = u16(version) + u16(0) + u32(0) + u16(channels) + u16(bits) + u16(0) + u16(0) + u32(rate << 16);
    if (version == 1)
        fields += u32(1) + u32(bytesPerPacket) + u32(bytesPerPacket * channels) + u32(2);
    return u32(16 + fields.size() + extensions.size()) + fcc(format) + zeros(6) + u16(1) + fields
        + extensions;
}

QByteArray trak(const char* handler, quint32 scale, const QByteArray& entry, const QByteArray& tables)
{
    const bool video = QByteArray(handler) == "vide";
    const QByteArray header = video ? fullBox("vmhd", zeros(8)) : fullBox("smhd", zeros(4));
    const QByteArray stbl = box("stbl", stsd(entry) + tables);
    const QByteArray minf = box("minf", header + hdlr("dhlr", "alis") + stbl);
    return box("trak", fullBox("tkhd", zeros(80)) + box("mdia", mdhd(scale) + hdlr("mhlr", handler) + minf));
}

QByteArray withChunkOffsets64(QByteArray movie)
{
    using namespace AtomWalker;
    for (int trak = 1; find(movie, QString("moov/trak:%1").arg(trak)).valid(); ++trak) {
        const QString path = QString("moov/trak:%1/mdia/minf/stbl").arg(trak);
        const Atom stco = find(movie, path + "/stco");
        const quint32 count = be32(movie, stco.offset + 12);
        QByteArray entries;
        for (quint32 i = 0; i < count; ++i)
            entries += u64(be32(movie, stco.offset + 16 + 4 * i));
        const QByteArray co64 = fullBox("co64", u32(count) + entries);
        const int growth = co64.size() - int(stco.size);
        QList<Atom> holders;
        for (const QString& holder : { QString("moov"), QString("moov/trak:%1").arg(trak),
                 QString("moov/trak:%1/mdia").arg(trak), QString("moov/trak:%1/mdia/minf").arg(trak), path })
            holders << find(movie, holder);
        for (const Atom& atom : holders)
            movie.replace(int(atom.offset), 4, u32(quint32(atom.size + growth)));
        movie.replace(int(stco.offset), int(stco.size), co64);
    }
    return movie;
}

QByteArray written(Tern::QuickTimeAtom& atom)
{
    return writtenBy(atom);
}

QByteArray written(Tern::QuickTimeSampleDescription& description)
{
    return writtenBy(description);
}

} // namespace AtomBytes
