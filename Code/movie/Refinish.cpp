// Taking a finish back, so that a movie this library finished can be finished again in another form: the
// timecode sample and index the finish appended are cut off and the 'mdat' header is opened again, which
// leaves the file exactly as the recorder left it. The reserved region and the media are never touched.

#include "movie/QuickTimeFile.h"
#include "movie/StableStorage.h"

#include <QFileDevice>
#include <QIODevice>
#include <QtEndian>

namespace Tern {

QuickTimeFile::SavedFrameMapCounts QuickTimeFile::countSavedFrameMap(QIODevice& device,
                                                                     const MovieFamily& family)
{
    SavedFrameMapCounts counts;
    if (!device.seek(family.recoveryFrameMapPos))
        return counts;
    const QByteArray map = device.read(s_frameMapBytes);
    const auto* bytes = reinterpret_cast<const uchar*>(map.constData());
    counts.readable = quint32(map.size() / 2);
    for (; counts.entries < counts.readable; ++counts.entries) {
        const quint16 entry = qFromLittleEndian<quint16>(bytes + 2 * counts.entries);
        if (entry == 0)
            break;
        const quint32 type = entry >> s_frameTypeShift;
        counts.video += type == quicktime_frametype_video;
        counts.sound += type == quicktime_frametype_sound;
        counts.timecode += type == quicktime_frametype_timecode;
        counts.unknown += type == quicktime_frametype_unknown;
        counts.lastBlocksBefore = counts.blocks;
        counts.lastBlocks = entry & s_blockCountMask;
        counts.blocks += counts.lastBlocks;
    }
    return counts;
}

quint32 QuickTimeFile::savedFrameMapLength()
{
    return countSavedFrameMap(device, family()).entries;
}

qint64 QuickTimeFile::finishedMediaEnd(quint32 appendedSamples)
{
    if (appendedSamples > 1 || !looksFinished())
        return -1;
    const qint64 movieDataEnd = family().movieDataHeaderPos + movieDataSizeAtHeader();
    const qint64 mediaEnd = movieDataEnd - qint64(appendedSamples) * s_timecodeSampleBytes;
    if (mediaEnd < family().movieDataStartOffset)
        return -1;
    // A recorded end is where the finish put the end of the media.
    if (recordedEndPosition != 0 && quint64(mediaEnd) != recordedEndPosition)
        return -1;
    return mediaEnd;
}

qint64 QuickTimeFile::reopenedMediaEnd()
{
    const qint64 movieDataSize = movieDataSizeAtHeader();
    if (movieDataSize <= s_unclosedMovieDataSize)
        return -1;
    const qint64 movieDataEnd = family().movieDataHeaderPos + movieDataSize;
    const qint64 fileEnd = device.size();
    // The file ends where the media did: at the closed 'mdat' end, or one timecode sample short of it.
    if (fileEnd != movieDataEnd && fileEnd != movieDataEnd - s_timecodeSampleBytes)
        return -1;
    if (recordedEndPosition != 0 && quint64(fileEnd) != recordedEndPosition)
        return -1;
    return fileEnd;
}

bool QuickTimeFile::reopenMovieData(qint64 mediaEnd)
{
    auto* file = qobject_cast<QFileDevice*>(&device);
    if (!file || mediaEnd < family().movieDataStartOffset)
        return false;
    // First the index goes, while the header still reads as closed: a kill here leaves a file that
    // reopenedMediaEnd recognises. Then the header opens in one write; from there on the file is an
    // in-progress recording that any finish completes.
    if (device.size() != mediaEnd
        && (!file->resize(mediaEnd) || !StableStorage::sync(device, &m_syncFailure)))
        return false;
    QByteArray header;
    QDataStream headerStream(&header, QIODevice::WriteOnly);
    QuickTimeMovieDataAtom(0).write(headerStream); // the header of a recording's empty 'mdat'
    if (!device.seek(family().movieDataHeaderPos) || device.write(header) != header.size())
        return false;
    return StableStorage::sync(device, &m_syncFailure);
}

} // namespace Tern
