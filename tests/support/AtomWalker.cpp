#include "support/AtomWalker.h"

#include <QStringList>

namespace AtomWalker {

quint16 be16(const QByteArray& b, qint64 o)
{
    return quint16((quint8(b[int(o)]) << 8) | quint8(b[int(o + 1)]));
}

quint32 be32(const QByteArray& b, qint64 o)
{
    return (quint32(be16(b, o)) << 16) | be16(b, o + 2);
}

quint64 be64(const QByteArray& b, qint64 o)
{
    return (quint64(be32(b, o)) << 32) | be32(b, o + 4);
}

quint32 code(const char* f)
{
    return (quint32(quint8(f[0])) << 24) | (quint32(quint8(f[1])) << 16) | (quint32(quint8(f[2])) << 8)
         | quint8(f[3]);
}

QList<Atom> children(const QByteArray& bytes, qint64 start, qint64 end)
{
    QList<Atom> atoms;
    qint64 at = start;
    while (at + 8 <= end) {
        Atom atom;
        atom.offset = at;
        atom.size = be32(bytes, at);
        atom.type = be32(bytes, at + 4);
        if (atom.size == 1 && at + 16 <= end) {
            atom.size = qint64(be64(bytes, at + 8));
            atom.headerSize = 16;
        }
        if (atom.size < 8 || at + atom.size > end)
            break;
        atoms << atom;
        at += atom.size;
    }
    return atoms;
}

QList<Atom> topLevel(const QByteArray& file)
{
    return children(file, 0, file.size());
}

Atom find(const QByteArray& file, const QString& path)
{
    QList<Atom> level = topLevel(file);
    Atom found;
    for (const QString& step : path.split('/')) {
        const QString name = step.section(':', 0, 0);
        const int wanted = step.contains(':') ? step.section(':', 1).toInt() : 1;
        const quint32 type = code(name.toLatin1().constData());
        int seen = 0;
        found = Atom();
        for (const Atom& atom : level) {
            if (atom.type == type && ++seen == wanted) {
                found = atom;
                break;
            }
        }
        if (!found.valid())
            return found;
        level = children(file, found.payload(), found.end());
    }
    return found;
}

} // namespace AtomWalker
