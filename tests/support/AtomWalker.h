#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

// A small reader of a finished movie's atom tree, independent of the library under test, so that
// tests can find atoms and read their fields by offset.
namespace AtomWalker {

struct Atom
{
    qint64 offset = -1; // of the size field
    qint64 size = 0;    // whole atom, header included
    quint32 type = 0;
    int headerSize = 8;
    bool valid() const { return offset >= 0; }
    qint64 payload() const { return offset + headerSize; }
    qint64 end() const { return offset + size; }
};

quint16 be16(const QByteArray& bytes, qint64 offset);
quint32 be32(const QByteArray& bytes, qint64 offset);
quint64 be64(const QByteArray& bytes, qint64 offset);
quint32 code(const char* fourLetters);

// The atoms lying back to back in [start, end); stops at a size of 0 or one that overruns.
QList<Atom> children(const QByteArray& bytes, qint64 start, qint64 end);
QList<Atom> topLevel(const QByteArray& file);

// Finds an atom by a path of types below the top level, e.g. "moov/trak:2/mdia/minf/stbl/stsz", where
// ":n" picks the n-th atom of that type (1-based). Returns an invalid atom when absent.
Atom find(const QByteArray& file, const QString& path);

} // namespace AtomWalker
