#pragma once

// A finished movie's index as the sample table check reads it: straight from the file's bytes, not
// through the reader. Atoms inside the bytes of the 'moov', big-endian fields, and what a movie this
// library finished tells about itself in its maker atom and movie header.

#include "movie/SampleTableCheck.h"

#include <QByteArray>
#include <QString>
#include <QVector>
#include <QtEndian>

class QIODevice;

namespace Tern {
struct MovieFamily;
}

namespace IndexBytes {

// The bytes of the file's 'moov' and the payload of every 'mdat'; a problem in words when the index
// cannot be read.
QString readIndex(QIODevice& file, QByteArray* moov, QVector<FileSpan>* media);

inline quint32 code(const char* letters)
{
    return qFromBigEndian<quint32>(reinterpret_cast<const uchar*>(letters));
}

// One atom inside a byte array: where its payload lies.
struct Atom
{
    quint32 type = 0;
    int payload = 0; // offset of the first byte after the header
    int end = 0;
    bool valid() const { return type != 0; }
};

inline quint16 be16(const QByteArray& bytes, int at)
{
    return qFromBigEndian<quint16>(reinterpret_cast<const uchar*>(bytes.constData()) + at);
}

inline quint32 be32(const QByteArray& bytes, int at)
{
    return qFromBigEndian<quint32>(reinterpret_cast<const uchar*>(bytes.constData()) + at);
}

inline quint64 be64(const QByteArray& bytes, int at)
{
    return qFromBigEndian<quint64>(reinterpret_cast<const uchar*>(bytes.constData()) + at);
}

// The first child of `type` in [from, to), or the nth after it; an invalid Atom when there is none or the
// children overrun.
Atom child(const QByteArray& bytes, int from, int to, quint32 type, int nth = 0);

// What a movie this library finished tells about itself in its maker atom and movie header, against
// which its tracks are held besides the rules every movie must keep.
struct OwnMovie
{
    bool present = false; // a maker atom was found
    quint32 movieTimeScale = 0;
    quint32 movieDuration = 0;
    quint32 videoFrames = 0;
    bool dropFrame = false;
    quint32 frameDuration = 0; // of the picture and the timecode, in units of the movie's time scale
    quint32 frameTimeScale = 0;
    // Where the frame list puts each video frame, sound chunk and timecode sample, and their lengths.
    QVector<quint64> videoOffsets;
    QVector<quint32> videoBytes;
    QVector<quint64> soundChunkOffsets;
    QVector<quint64> timecodeOffsets;
    QVector<quint32> timecodeBytes;
    bool listComplete = false; // the list reaches every timecode sample it counts
    bool listDiffersFromMap = false; // the list is not the start of the recorder's map
};

// The frame map the recorder left in the reserved region of the file, up to its terminator, for a family
// whose table check reads it (checkReadsRegionMap); else empty. `family` is the file's
// (Tern::familyOfRecording), null when unknown.
QVector<quint16> recorderFrameMap(QIODevice& file, const Tern::MovieFamily* family);

// What the 'moov' bytes tell of a movie this library finished; `recorderMap` is the file's
// recorderFrameMap, `mediaStart` the first media byte of its family. Not present for any other movie.
OwnMovie ownMovie(const QByteArray& moov, const QVector<quint16>& recorderMap, qint64 mediaStart);

} // namespace IndexBytes
