// The recovery half of the movie file: recognising an unfinished recording, reading back the settings
// record and frame map the recorder kept in the reserved region, and finishing the file from them.
// Every access here is a raw seek and block transfer; the atom parser is not involved.

#include "movie/QuickTimeFile.h"

#include <QFileDevice>
#include <QIODevice>
#include <QSysInfo>
#include <QtEndian>

#include <algorithm>
#include <limits>

namespace Tern {

namespace {
// The 'mdat' header of an unfinished recording: extended-size marker, type, and a size of header only.
const quint32 kExtendedSizeMarker = 1;
} // namespace

qint64 QuickTimeFile::movieDataSizeAtHeader()
{
    if (device.size() <= family().movieDataStartOffset || !device.seek(family().movieDataHeaderPos))
        return -1;
    stream.resetStatus();
    quint32 sizeMarker = 0;
    quint32 atomType = 0;
    qint64 movieDataSize = 0;
    stream >> sizeMarker >> atomType >> movieDataSize;
    const bool read = stream.status() == QDataStream::Ok && sizeMarker == kExtendedSizeMarker
                   && atomType == fourCC("mdat") && movieDataSize >= s_unclosedMovieDataSize;
    stream.resetStatus();
    return read ? movieDataSize : -1;
}

bool QuickTimeFile::verifyHeader()
{
    return movieDataSizeAtHeader() == s_unclosedMovieDataSize;
}

bool QuickTimeFile::looksFinished()
{
    const qint64 end = finishedEnd();
    return end >= 0 && end == device.size();
}

qint64 QuickTimeFile::finishedEnd()
{
    const qint64 fileSize = device.size();
    const qint64 movieDataSize = movieDataSizeAtHeader();
    const qint64 headerPos = family().movieDataHeaderPos;
    if (movieDataSize <= s_unclosedMovieDataSize || movieDataSize >= fileSize - headerPos)
        return -1;

    const qint64 moovPos = headerPos + movieDataSize;
    quint32 moovSize = 0;
    quint32 moovType = 0;
    if (!device.seek(moovPos))
        return -1;
    stream >> moovSize >> moovType;
    const bool moovBehind = stream.status() == QDataStream::Ok && moovType == fourCC("moov") && moovSize >= 8;
    stream.resetStatus();
    const qint64 end = moovPos + qint64(moovSize) + s_closingZeroBytes;
    if (!moovBehind || end > fileSize || !device.seek(moovPos + moovSize))
        return -1;
    return device.read(s_closingZeroBytes) == QByteArray(s_closingZeroBytes, '\0') ? end : -1;
}

QuickTimeFile::RecoverySettings* QuickTimeFile::loadSavedSettings()
{
    const RecoveryRecordLayout& layout = *family().recoveryRecord;
    if (!device.seek(family().recoverySettingsPos))
        return nullptr;
    if (!settings.fromBytes(device.read(layout.size), layout))
        return nullptr;
    return &settings;
}

void QuickTimeFile::saveRecoverySettings()
{
    const qint64 resumeAt = device.pos();
    if (device.seek(family().recoverySettingsPos))
        device.write(settings.toBytes(*family().recoveryRecord));
    device.seek(resumeAt);
}

void QuickTimeFile::periodicFrameMapSave()
{
    if (!movieData || !frameMap)
        return;
    const quint32 entries = videoFrameCount + soundChunks + timecodeSamples;
    if (entries <= savedFrameMapEntries || entries >= s_frameMapEntries)
        return;
    frameMap[entries] = 0; // keeps the copy on disk terminated

    // The new entries and the terminator, in the recorder's little-endian order.
    const quint32 count = entries - savedFrameMapEntries + 1;
    QByteArray bytes(int(2 * count), '\0');
    uchar* out = reinterpret_cast<uchar*>(bytes.data());
    for (quint32 i = 0; i < count; ++i)
        qToLittleEndian<quint16>(frameMap[savedFrameMapEntries + i], out + 2 * i);

    const qint64 resumeAt = device.pos();
    if (device.seek(family().recoveryFrameMapPos + 2 * qint64(savedFrameMapEntries)))
        device.write(bytes);
    device.seek(resumeAt);
    savedFrameMapEntries = entries;
}

QString indexRefusal(quint32 framesPerChunk, quint32 soundTracks, quint32 bytesPerSample, quint64 endPosition,
                     const MovieFamily& family)
{
    if (framesPerChunk == 0)
        return QStringLiteral("0 video frames a chunk");
    // The track count is taken as signed, as the index builder does: "no sound track" below 1.
    if (qint32(soundTracks) > qint32(QuickTimeFile::s_maxSoundTracks))
        return QString("%1 sound tracks, more than the %2 a movie holds")
            .arg(soundTracks)
            .arg(QuickTimeFile::s_maxSoundTracks);
    if (qint32(soundTracks) > 0 && bytesPerSample == 0)
        return QStringLiteral("sound without a sample size");
    // A device position is a signed 64-bit offset: an end the index cannot follow within one is no place
    // in any file.
    if (endPosition > quint64(QuickTimeFile::s_furthestRecordedEnd))
        return QString("a recorded end (%1) beyond any file offset").arg(endPosition);
    if (endPosition != 0 && endPosition < quint64(family.movieDataStartOffset))
        return QString("a recorded end (%1) inside the reserved region").arg(endPosition);
    return QString();
}

bool QuickTimeFile::settingsAllowIndex(quint32 framesPerChunk, quint32 soundTracks, quint32 bytesPerSample,
                                       quint64 endPosition, const MovieFamily& family)
{
    return indexRefusal(framesPerChunk, soundTracks, bytesPerSample, endPosition, family).isEmpty();
}

bool QuickTimeFile::settingsAllowIndex() const
{
    return settingsAllowIndex(
        videoFramesPerChunk, audioTracks, audioBytesPerSample, recordedEndPosition, family());
}

quint32 QuickTimeFile::indexSizeAt(qint64 position)
{
    // As closeFile builds it: after the family's timecode sample, when it appends one.
    const bool appends = closeAppendsTimecodeSample();
    const quint32 entry = totalFrames();
    const quint16 savedEntry = frameMap && entry < s_frameMapEntries ? frameMap[entry] : 0;
    if (appends) {
        listTimecodeSample();
    }
    QuickTimeAtom* moov = buildIndex(position);
    const quint32 size = moov->size;
    removeAllAtoms();
    if (appends) {
        --timecodeSamples;
        if (frameMap && entry < s_frameMapEntries)
            frameMap[entry] = savedEntry;
    }
    return size;
}

qint64 QuickTimeFile::interruptedIndexStart(qint64 mapEnd)
{
    const qint64 fileEnd = device.size();
    // What the finish writes first at the end of the media: the timecode sample (when the family appends
    // one), then the 'moov' header.
    const qint64 sampleBytes = closeAppendsTimecodeSample() ? s_timecodeSampleBytes : 0;
    const QByteArray sample = sampleBytes != 0 ? closingTimecodeSample() : QByteArray();
    const qint64 overlap = sampleBytes + 8;
    if (fileEnd - family().movieDataStartOffset < overlap)
        return -1;
    // A partial index is at most the whole one: only the end of the file that long (and a margin for the
    // tables' alignment, which depends on where the index begins) is searched, not a card's worth of media.
    const qint64 kAlignmentMargin = 64 * 1024;
    const qint64 longest = sampleBytes + qint64(indexSizeAt(fileEnd)) + s_closingZeroBytes + kAlignmentMargin;
    const qint64 searchFrom = qMax(family().movieDataStartOffset, fileEnd - longest);

    // The first index start in [first, last), read a piece at a time; a piece overlaps the next by the
    // bytes a candidate needs in one view.
    const qint64 kPiece = 1 << 20;
    const auto indexStartWithin = [&](qint64 first, qint64 last) -> qint64 {
        for (qint64 from = first; from < last && from + overlap <= fileEnd; from += kPiece) {
            if (!device.seek(from))
                return -1;
            const QByteArray bytes = device.read(qMin(kPiece + overlap, fileEnd - from));
            for (int at = bytes.indexOf("moov"); at >= 0; at = bytes.indexOf("moov", at + 1)) {
                // Where the finish's first byte would be, within this piece; one that begins before or
                // after it is judged with the piece it begins in.
                const int local = at - 4 - int(sampleBytes);
                if (local < 0 || local >= kPiece || from + local >= last)
                    continue;
                if (sampleBytes != 0 && bytes.mid(local, int(sampleBytes)) != sample)
                    continue;
                const qint64 moovPos = from + at - 4;
                const auto* sizeField = reinterpret_cast<const uchar*>(bytes.constData()) + at - 4;
                if (qFromBigEndian<quint32>(sizeField) == indexSizeAt(moovPos))
                    return from + local;
            }
        }
        return -1;
    };
    // The finish began where the media end: at or after the end of the media the map lists, unless the
    // card had lost the end of the file, and then before it. Past the map's end first, so media the map
    // lists is never taken for an index when one follows it.
    const qint64 listedEnd = qBound(searchFrom, mapEnd, fileEnd);
    const qint64 found = indexStartWithin(listedEnd, fileEnd);
    return found >= 0 ? found : indexStartWithin(searchFrom, listedEnd);
}

bool QuickTimeFile::readSavedFrameMap()
{
    if (!device.seek(family().recoveryFrameMapPos))
        return false;
    char* mapBytes = reinterpret_cast<char*>(frameMap);
    if (device.read(mapBytes, s_frameMapBytes) != s_frameMapBytes)
        return false;
    // The map is stored little-endian: on such a host the bytes read are the entries already.
    if (QSysInfo::ByteOrder != QSysInfo::LittleEndian) {
        for (quint32 i = 0; i < s_frameMapEntries; ++i)
            frameMap[i] = qFromLittleEndian<quint16>(reinterpret_cast<const uchar*>(mapBytes) + 2 * i);
    }
    return true;
}

qint64 QuickTimeFile::countFrameMapEntries()
{
    // Counted by type up to the first 0 entry; unknown chunks (type 3) are not counted but still occupy
    // their blocks. A stretch without a 0 in it is counted in plain loops that need no exit of their own.
    const quint32 kStretch = 4096;
    quint32 byType[4] = {};
    qint64 mappedBlocks = 0; // every chunk the map lists, whatever its type
    for (quint32 i = 0; i < s_frameMapEntries;) {
        const quint16* stretch = frameMap + i;
        quint32 length = qMin(kStretch, s_frameMapEntries - i);
        quint32 zeros = 0;
        for (quint32 k = 0; k < length; ++k)
            zeros += stretch[k] == 0;
        if (zeros != 0)
            length = quint32(std::find(stretch, stretch + length, quint16(0)) - stretch);
        quint32 sound = 0, video = 0, timecode = 0;
        for (quint32 k = 0; k < length; ++k) {
            const quint32 type = stretch[k] >> s_frameTypeShift;
            sound += type == quicktime_frametype_sound;
            video += type == quicktime_frametype_video;
            timecode += type == quicktime_frametype_timecode;
            mappedBlocks += stretch[k] & s_blockCountMask;
        }
        byType[quicktime_frametype_sound] += sound;
        byType[quicktime_frametype_video] += video;
        byType[quicktime_frametype_timecode] += timecode;
        if (zeros != 0)
            break;
        i += length;
    }
    soundChunks += byType[quicktime_frametype_sound];
    videoFrameCount += byType[quicktime_frametype_video];
    timecodeSamples += byType[quicktime_frametype_timecode];
    return mappedBlocks;
}

qint64 QuickTimeFile::recoveredMediaEnd(qint64 mappedBlocks)
{
    // Media past the recorded end (a chunk begun but not committed) stays outside 'mdat'. Without a recorded
    // end the file's end is the media's, unless a finish killed mid-way left part of its index there: that
    // is cut off first, so the index is rebuilt where the undisturbed finish puts it.
    if (recordedEndPosition != 0)
        return qint64(recordedEndPosition);
    const qint64 fileEnd = device.size();
    const qint64 mapEnd = family().movieDataStartOffset + (mappedBlocks << s_blockShift);
    const qint64 interrupted = interruptedIndexStart(mapEnd);
    if (interrupted < 0)
        return fileEnd;
    auto* file = qobject_cast<QFileDevice*>(&device);
    if (!file || !file->resize(interrupted))
        return -1;
    return interrupted;
}

bool QuickTimeFile::recover()
{
    if (!frameMap || !movieData || !readSavedFrameMap())
        return false;
    const qint64 mappedBlocks = countFrameMapEntries();
    if (videoFrameCount + soundChunks + timecodeSamples < family().minimumChunks)
        return false;

    InitQuickTimeFileInfo();
    if (!settingsAllowIndex())
        return false;

    const qint64 end = recoveredMediaEnd(mappedBlocks);
    if (end < 0)
        return false;
    movieData->dataSize += quint64(end - family().movieDataStartOffset);
    if (!device.seek(end))
        return false;
    return closeFile();
}

} // namespace Tern
