#pragma once

// Movie objects and devices for tests that read or write movies in memory.

#include "movie/MovieFamily.h"
#include "movie/QuickTimeFile.h"

#include <QBuffer>

// A movie of the older family, run through the shared library, which keeps its frame map in the storage
// the caller gives it (or in none). Made without storage, it keeps four entries of its own: room enough
// for a movie whose frame map is never filled.
class HeronMovie : public Tern::QuickTimeFile
{
public:
    HeronMovie(QIODevice& device, quint16* storage)
        : Tern::QuickTimeFile(device, Tern::heronFamily, storage)
    {
    }
    explicit HeronMovie(QIODevice& device)
        : HeronMovie(device, m_map)
    {
    }

private:
    quint16 m_map[4] = {};
};

// A buffer that counts the seeks asked of it and the bytes read from it.
class CountingBuffer : public QBuffer
{
public:
    bool seek(qint64 pos) override
    {
        ++seeks;
        return QBuffer::seek(pos);
    }
    int seeks = 0;
    qint64 bytesRead = 0;

protected:
    qint64 readData(char* data, qint64 n) override
    {
        const qint64 got = QBuffer::readData(data, n);
        bytesRead += qMax<qint64>(got, 0);
        return got;
    }
};
