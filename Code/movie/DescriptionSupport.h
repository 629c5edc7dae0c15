#pragma once

// What the sample description classes share in reading an entry: raw bytes, where the entry ends within
// the caller's budget and what reading it used of that budget; and the family a description follows.

#include "movie/MovieFamily.h"
#include "movie/QuickTimeFile.h"

#include <QDataStream>
#include <QIODevice>

namespace Tern {
namespace DescriptionSupport {

const quint32 s_atomHeaderSize = 8;

inline bool readRaw(QDataStream& stream, quint8* bytes, int n)
{
    return stream.readRawData(reinterpret_cast<char*>(bytes), n) == n;
}

// Where an entry that starts at `start` ends: its declared size, held within the caller's budget.
inline qint64 entryEnd(qint64 start, quint32 size, quint64 budget)
{
    return start + qint64(qMin<quint64>(size, budget));
}

// What reading from `start` used of the budget, once the device is at the entry's end or before it.
inline void settleBudget(QIODevice* device, qint64 start, quint64 budget, quint64* remaining)
{
    const quint64 used = quint64(qMax<qint64>(0, device->pos() - start));
    *remaining = used < budget ? budget - used : 0;
}

// The family of the movie a description belongs to; Tern's for a description built without one.
inline const MovieFamily& familyOf(const QuickTimeFile* movie)
{
    return movie ? movie->family() : ternFamily;
}

} // namespace DescriptionSupport
} // namespace Tern
