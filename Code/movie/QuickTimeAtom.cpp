#include "movie/QuickTimeAtom.h"

#include <QIODevice>
#include <QtDebug>

#include <cstring>

namespace Tern {

namespace {
const quint32 s_headerSize = 8;
const quint32 s_versionFlagsSize = 4;
const quint32 s_extendedHeaderSize = 16;
const quint32 s_extendedSizeMarker = 1;
} // namespace

// ---------------------------------------------------------------------------------------------------------
// QuickTimeAtom

QuickTimeAtom::QuickTimeAtom()
    : constructed(true)
{
}

QuickTimeAtom::QuickTimeAtom(quint32 atomType, quint32 payloadSize, int fields)
    : type(atomType)
    , size(payloadSize + s_headerSize)
    , constructed(true)
    , fieldCount(fields)
{
}

QuickTimeAtom::~QuickTimeAtom()
{
    qDeleteAll(children);
    children.clear();
}

QuickTimeAtom* QuickTimeAtom::addAtom(QuickTimeAtom* child)
{
    // The child lands directly behind everything this atom holds so far.
    child->position = position + qint64(size);
    children.append(child);
    addSize(child->size);
    child->parent = this;
    return child;
}

void QuickTimeAtom::addSize(quint32 n)
{
    for (QuickTimeAtom* atom = this; atom; atom = atom->parent)
        atom->size += n;
}

void QuickTimeAtom::removeAllChildren()
{
    qDeleteAll(children);
    children.clear();
}

QString QuickTimeAtom::fourByteString(quint32 code)
{
    // Zero-terminated on purpose: a code holding a zero byte yields a shorter string.
    const char letters[5] = {char(code >> 24), char(code >> 16), char(code >> 8), char(code), 0};
    return QString::fromLatin1(letters);
}

QString QuickTimeAtom::typeName() const
{
    return type != 0 ? fourByteString(type) : QStringLiteral("Root");
}

QString QuickTimeAtom::fieldName(int index) const
{
    QString name;
    getFieldName(index, name);
    return name;
}

QString QuickTimeAtom::fieldValue(int index) const
{
    QString value;
    getFieldValue(index, value);
    return value;
}

int QuickTimeAtom::getFieldName(int index, QString&) const
{
    return index;
}

int QuickTimeAtom::getFieldValue(int index, QString&) const
{
    return index;
}

void QuickTimeAtom::writeHeader(QDataStream& stream)
{
    if (type != 0)
        stream << size << type;
}

void QuickTimeAtom::writeChildren(QDataStream& stream)
{
    // The list size is re-read on every step, so a child added while writing is written too.
    for (int i = 0; i < children.size(); ++i)
        children.at(i)->write(stream);
}

void QuickTimeAtom::write(QDataStream& stream)
{
    QuickTimeAtom::writeHeader(stream);
    QuickTimeAtom::writeChildren(stream);
}

bool QuickTimeAtom::readHeaderCount(quint64* remaining)
{
    if (*remaining < s_headerSize)
        return false;
    *remaining -= s_headerSize;
    removeAllChildren();
    return true;
}

bool QuickTimeAtom::read(QDataStream&, quint64* remaining)
{
    return readHeaderCount(remaining);
}

// ---------------------------------------------------------------------------------------------------------
// QuickTimeVersionFlagsAtom

QuickTimeVersionFlagsAtom::QuickTimeVersionFlagsAtom(quint32 atomType, quint32 payloadSize, int fields,
                                                     quint8 atomVersion, quint32 atomFlags)
    : QuickTimeAtom(atomType, payloadSize + s_versionFlagsSize, fields + 2)
    , version(atomVersion)
{
    // Bits 15-8 are dropped: the atoms of this library only use flags whose middle byte is zero.
    flags[0] = quint8(atomFlags >> 24);
    flags[1] = quint8(atomFlags >> 16);
    flags[2] = quint8(atomFlags);
}

void QuickTimeVersionFlagsAtom::writeVersionFlags(QDataStream& stream)
{
    stream << version << flags[0] << flags[1] << flags[2];
}

void QuickTimeVersionFlagsAtom::writeHeader(QDataStream& stream)
{
    QuickTimeAtom::writeHeader(stream);
    writeVersionFlags(stream);
}

void QuickTimeVersionFlagsAtom::write(QDataStream& stream)
{
    QuickTimeAtom::writeHeader(stream);
    writeChildren(stream);
    writeVersionFlags(stream);
}

bool QuickTimeVersionFlagsAtom::read(QDataStream& stream, quint64* remaining)
{
    if (!QuickTimeAtom::read(stream, remaining))
        return false;
    if (*remaining < s_versionFlagsSize)
        return false;
    *remaining -= s_versionFlagsSize;
    stream >> version >> flags[0] >> flags[1] >> flags[2];
    return true;
}

int QuickTimeVersionFlagsAtom::getFieldName(int index, QString& name) const
{
    index = QuickTimeAtom::getFieldName(index, name);
    if (index == 0)
        name = QStringLiteral("Version");
    else if (index == 1)
        name = QStringLiteral("Flags");
    return index - 2;
}

int QuickTimeVersionFlagsAtom::getFieldValue(int index, QString& value) const
{
    index = QuickTimeAtom::getFieldValue(index, value);
    if (index == 0) {
        value = QString::number(version);
    } else if (index == 1) {
        // The dump has always shown the first flag byte twice and never the third; kept as it is.
        const quint32 shown = (quint32(flags[0]) << 16) | (quint32(flags[1]) << 8) | quint32(flags[0]);
        value = QString::number(shown, 16);
    }
    return index - 2;
}

// ---------------------------------------------------------------------------------------------------------
// 'mdat'

QuickTimeMovieDataAtom::QuickTimeMovieDataAtom(quint64 payloadBytes)
    : QuickTimeAtom64(fourCC("mdat"), 0, 0)
    , dataSize(payloadBytes + s_extendedHeaderSize)
{
}

bool QuickTimeMovieDataAtom::addData(const QByteArray& bytes, QIODevice& device)
{
    if (device.write(bytes) == -1)
        return false;
    dataSize += quint64(bytes.size());
    return true;
}

void QuickTimeMovieDataAtom::write(QDataStream& stream)
{
    stream << s_extendedSizeMarker << type << dataSize;
}

// ---------------------------------------------------------------------------------------------------------
// 'skip'

QuickTimeSkipAtom::QuickTimeSkipAtom()
    : QuickTimeAtom(fourCC("skip"), 0, 0)
{
    std::memset(zeroFill, 0, sizeof zeroFill);
}

void QuickTimeSkipAtom::write(QDataStream& stream)
{
    QuickTimeAtom::write(stream);
    // alignNext keeps the padding below 512 bytes; the loop only guards a size grown some other way.
    quint32 left = size - s_headerSize;
    while (left > 0) {
        const quint32 piece = qMin(left, quint32(s_zeroFillSize));
        stream.writeRawData(zeroFill, int(piece));
        left -= piece;
    }
}

quint32 QuickTimeSkipAtom::alignNext(qint64 pos)
{
    // 32-bit arithmetic on purpose: the next atom starts at the first 512 multiple at least pos + 8.
    const quint32 low = quint32(pos);
    const quint32 pad = ((low + 519) & 0xFFFFFE00u) - s_headerSize - low;
    addSize(pad);
    return pad;
}

// ---------------------------------------------------------------------------------------------------------
// 'wide' and atoms the parser does not know

QuickTimeWideAtom::QuickTimeWideAtom()
    : QuickTimeAtom(fourCC("wide"), 0, 0)
{
}

QuickTimeUnrecognizedAtom::QuickTimeUnrecognizedAtom(quint32 atomType, quint32 atomSize)
    : QuickTimeAtom(atomType, 0, 0)
{
    size = atomSize;
}

void QuickTimeUnrecognizedAtom::write(QDataStream& stream)
{
    QuickTimeAtom::write(stream);
}

bool QuickTimeUnrecognizedAtom::read(QDataStream& stream, quint64* remaining)
{
    const quint64 before = *remaining;
    if (!QuickTimeAtom::read(stream, remaining))
        return false;
    // The whole atom counts as consumed, header included, whether or not the payload was all there.
    *remaining = before >= size ? before - size : 0;
    // Skipped in pieces: a 32-bit size can exceed what one skipRawData call takes.
    quint32 left = size > s_headerSize ? size - s_headerSize : 0;
    while (left > 0) {
        const int piece = int(qMin(left, quint32(1) << 30));
        if (stream.skipRawData(piece) < piece) {
            qWarning("Unexpected end of file.");
            return false;
        }
        left -= quint32(piece);
    }
    return true;
}

} // namespace Tern
