// The sample table check: every track's tables held to what the strictest readers demand, and a movie
// this library finished held to its maker atom besides. The index's bytes are read in IndexBytes.cpp.

#include "movie/SampleTableCheck.h"

#include "movie/IndexBytes.h"
#include "movie/MovieFamily.h"
#include "movie/QuickTimeFile.h"
#include "movie/SampleDescriptions.h"

#include <QByteArray>
#include <QIODevice>
#include <QVector>
#include <QtEndian>

#include <cstring>

using namespace IndexBytes;

namespace {

// The data formats this library writes, by kind of track.
bool writtenFormat(quint32 handler, quint32 format, quint32 soundSampleBytes)
{
    if (handler == code("vide"))
        return format == code("apch") || format == code("apcn") || format == code("apcs")
            || format == code("apco") || format == code("ap4h") || format == code("ap4x")
            || format == code("AVdn");
    if (handler == code("soun"))
        return format == Tern::SoundResolutionToFormat(int(soundSampleBytes))
            // the interchange form's 16- and 32-bit sound
            || (soundSampleBytes == 2 && format == code("sowt"))
            || (soundSampleBytes == 4 && format == code("lpcm"));
    return handler != code("tmcd") || format == code("tmcd");
}

class TrackCheck
{
public:
    TrackCheck(const QByteArray& moov, const Atom& trak, int number, const QVector<FileSpan>& media,
        quint64 fileSize, const OwnMovie& own, int soundTrackOrdinal)
        : m_bytes(moov)
        , m_own(own)
        , m_trak(trak)
        , m_number(number)
        , m_media(media)
        , m_fileSize(fileSize)
        , m_soundTrackOrdinal(soundTrackOrdinal)
    {
    }

    QString run()
    {
        const Atom tkhd = child(m_bytes, m_trak.payload, m_trak.end, code("tkhd"));
        const Atom mdia = child(m_bytes, m_trak.payload, m_trak.end, code("mdia"));
        const Atom mdhd = mdia.valid() ? child(m_bytes, mdia.payload, mdia.end, code("mdhd")) : Atom();
        const Atom hdlr = mdia.valid() ? child(m_bytes, mdia.payload, mdia.end, code("hdlr")) : Atom();
        if (!tkhd.valid() || !mdhd.valid() || mdhd.end - mdhd.payload < 20)
            return fail("has no track header or media header");
        m_timeScale = be32(m_bytes, mdhd.payload + 12);
        // Version 0 track header: the picture's width and height, 16.16, at 76 and 80.
        if (tkhd.end - tkhd.payload >= 84 && m_bytes.at(tkhd.payload) == 0) {
            m_trackWidth = be32(m_bytes, tkhd.payload + 76) >> 16;
            m_trackHeight = be32(m_bytes, tkhd.payload + 80) >> 16;
        }
        if (m_timeScale == 0)
            return fail("'mdhd': a time scale of 0");
        const Atom minf = mdia.valid() ? child(m_bytes, mdia.payload, mdia.end, code("minf")) : Atom();
        const Atom stbl = minf.valid() ? child(m_bytes, minf.payload, minf.end, code("stbl")) : Atom();
        if (!hdlr.valid() || hdlr.end - hdlr.payload < 12 || !stbl.valid())
            return fail("has no sample table");
        m_handler = be32(m_bytes, hdlr.payload + 8);
        const Atom stsd = child(m_bytes, stbl.payload, stbl.end, code("stsd"));
        const Atom stts = child(m_bytes, stbl.payload, stbl.end, code("stts"));
        const Atom stsc = child(m_bytes, stbl.payload, stbl.end, code("stsc"));
        const Atom stsz = child(m_bytes, stbl.payload, stbl.end, code("stsz"));
        Atom offsets = child(m_bytes, stbl.payload, stbl.end, code("co64"));
        const bool wide = offsets.valid();
        if (!wide)
            offsets = child(m_bytes, stbl.payload, stbl.end, code("stco"));
        if (!stsd.valid() || !stts.valid() || !stsc.valid() || !stsz.valid() || !offsets.valid())
            return fail("lacks one of 'stsd', 'stts', 'stsc', 'stsz' and a chunk offset table");

        QString problem;
        if (!(problem = description(stsd)).isEmpty() || !(problem = chunkOffsets(offsets, wide)).isEmpty()
            || !(problem = sampleSizes(stsz)).isEmpty() || !(problem = timeToSample(stts)).isEmpty()
            || !(problem = sampleToChunk(stsc)).isEmpty() || !(problem = chunksInMedia()).isEmpty()
            || !(problem = asItsMakerSays()).isEmpty())
            return problem;
        return QString();
    }

private:
    QString fail(const QString& what) const { return QString("track %1 %2").arg(m_number).arg(what); }

public:
    quint32 handler() const { return m_handler; }
    // The duration of the last run of samples: a frame's for the picture, the whole for the timecode.
    quint32 lastDuration() const { return m_lastDelta; }
    quint32 timecodeFrameDuration() const { return m_timecodeFrameDuration; }

private:
    // The table's entry count, when `entryBytes` entries of that count fit behind `head` bytes of the
    // atom's payload (version and flags, count, and any fields before the entries).
    bool counted(const Atom& table, int head, int entryBytes, quint32* count) const
    {
        if (table.end - table.payload < head)
            return false;
        *count = be32(m_bytes, table.payload + head - 4);
        return quint64(*count) * quint64(entryBytes) <= quint64(table.end - table.payload - head);
    }

    QString description(const Atom& stsd)
    {
        quint32 count = 0;
        if (!counted(stsd, 8, 16, &count) || count < 1)
            return fail("'stsd': no sample description fits the atom");
        if (m_own.present && count != 1)
            return fail(QString("'stsd': %1 sample descriptions, this movie's tracks have one").arg(count));
        int entry = stsd.payload + 8;
        for (quint32 i = 0; i < count; ++i) {
            const quint32 entrySize = entry + 8 <= stsd.end ? be32(m_bytes, entry) : 0;
            if (entrySize < 16 || entrySize > quint32(stsd.end - entry))
                return fail(QString("'stsd': description %1 overruns the atom").arg(i + 1));
            entry += int(entrySize);
        }
        const int first = stsd.payload + 8;
        m_format = be32(m_bytes, first + 4);
        QString problem;
        if (m_handler == code("soun"))
            problem = soundDescription(first);
        else if (m_handler == code("vide") && m_own.present)
            problem = pictureSize(first);
        else if (m_handler == code("tmcd") && m_own.present)
            problem = timecodeDescription(first);
        if (!problem.isEmpty())
            return problem;
        if (m_own.present && !writtenFormat(m_handler, m_format, m_soundSampleBytes))
            return fail(QString("'stsd': a data format this movie's tracks do not have (%1)")
                            .arg(QString::fromLatin1(m_bytes.mid(first + 4, 4))));
        return QString();
    }

    // Sound: a version 1 description states the bytes of one frame (at 44 of the entry); version 0
    // gives channels and bits per sample (at 24 and 26). The rate is 16.16 at 32.
    QString soundDescription(int entry)
    {
        if (be32(m_bytes, entry) < 36)
            return fail("'stsd': the sound description is too short");
        const quint16 version = be16(m_bytes, entry + 16);
        quint32 channels = be16(m_bytes, entry + 24);
        m_soundRate = be32(m_bytes, entry + 32) >> 16;
        // Version 2 ('lpcm'): the rate as a 64-bit float at 40, channels at 48, a packet's bytes at 64.
        if (version == 2 && be32(m_bytes, entry) >= 72) {
            channels = be32(m_bytes, entry + 48);
            m_soundFrameBytes = be32(m_bytes, entry + 64);
            const quint64 rateBits = qFromBigEndian<quint64>(m_bytes.constData() + entry + 40);
            double rate = 0;
            std::memcpy(&rate, &rateBits, sizeof rate);
            m_soundRate = rate > 0 && rate < 4e9 ? quint32(rate) : 0;
        } else if (version == 1 && be32(m_bytes, entry) >= 48)
            m_soundFrameBytes = be32(m_bytes, entry + 44);
        else if (version == 0)
            m_soundFrameBytes = quint32(channels) * (be16(m_bytes, entry + 26) / 8);
        else
            return fail(QString("'stsd': sound description version %1").arg(version));
        if (channels == 0)
            return fail("'stsd': sound of 0 channels");
        m_soundSampleBytes = m_soundFrameBytes / channels;
        if (m_soundRate != m_timeScale)
            return fail(QString("'mdhd': a time scale of %1, the sound description's rate is %2")
                            .arg(m_timeScale)
                            .arg(m_soundRate));
        return QString();
    }

    // This library's video description: pictures of the size its track header gives.
    QString pictureSize(int entry) const
    {
        if (be32(m_bytes, entry) < 36 || m_trackWidth == 0)
            return QString();
        const quint32 width = be16(m_bytes, entry + 32);
        const quint32 height = be16(m_bytes, entry + 34);
        if (width != m_trackWidth || height != m_trackHeight)
            return fail(QString("'stsd': pictures of %1x%2, the track header's are %3x%4")
                            .arg(width)
                            .arg(height)
                            .arg(m_trackWidth)
                            .arg(m_trackHeight));
        return QString();
    }

    // This library's timecode description: reserved 0, the drop-frame flag as recorded, the movie's time
    // scale, and the whole frames a second its frame duration gives.
    QString timecodeDescription(int entry)
    {
        if (be32(m_bytes, entry) < 33)
            return fail("'stsd': the timecode description is too short");
        const quint32 reserved = be32(m_bytes, entry + 16);
        const quint32 flags = be32(m_bytes, entry + 20);
        const quint32 timeScale = be32(m_bytes, entry + 24);
        m_timecodeFrameDuration = be32(m_bytes, entry + 28);
        const quint32 framesPerSecond = quint8(m_bytes.at(entry + 32));
        if (reserved != 0 || ((flags & 1) != 0) != m_own.dropFrame || timeScale != m_own.movieTimeScale
            || m_timecodeFrameDuration != m_own.frameDuration || m_timecodeFrameDuration == 0
            || framesPerSecond != (timeScale + m_timecodeFrameDuration / 2) / m_timecodeFrameDuration)
            return fail(QString("'stsd': the timecode description (flags %1, %2/%3 units, %4 frames) is not "
                                "this movie's")
                            .arg(flags)
                            .arg(timeScale)
                            .arg(m_timecodeFrameDuration)
                            .arg(framesPerSecond));
        return QString();
    }

    QString chunkOffsets(const Atom& table, bool wide)
    {
        const char* name = wide ? "'co64'" : "'stco'";
        quint32 count = 0;
        if (!counted(table, 8, wide ? 8 : 4, &count))
            return fail(QString("%1: its count of %2 entries does not fit the atom").arg(name).arg(count));
        m_chunkOffsets.resize(int(count));
        for (quint32 i = 0; i < count; ++i)
            m_chunkOffsets[int(i)] = wide ? be64(m_bytes, table.payload + 8 + 8 * int(i))
                                          : be32(m_bytes, table.payload + 8 + 4 * int(i));
        return QString();
    }

    QString sampleSizes(const Atom& stsz)
    {
        if (stsz.end - stsz.payload < 12)
            return fail("'stsz': the atom is too short");
        m_constantSize = be32(m_bytes, stsz.payload + 4);
        m_sampleCount = be32(m_bytes, stsz.payload + 8);
        if (m_constantSize == 0) {
            quint32 count = 0;
            if (!counted(stsz, 12, 4, &count))
                return fail(QString("'stsz': its count of %1 sizes does not fit the atom").arg(count));
            m_sizes.resize(int(count));
            for (quint32 i = 0; i < count; ++i)
                m_sizes[int(i)] = be32(m_bytes, stsz.payload + 12 + 4 * int(i));
        } else if (m_handler == code("soun") && m_soundFrameBytes != 0 && m_constantSize != 1
            && m_constantSize != m_soundFrameBytes) {
            return fail(QString("'stsz': samples of %1 bytes, the sound description's are %2")
                            .arg(m_constantSize)
                            .arg(m_soundFrameBytes));
        }
        return QString();
    }

    QString timeToSample(const Atom& stts)
    {
        quint32 count = 0;
        if (!counted(stts, 8, 8, &count))
            return fail(QString("'stts': its count of %1 entries does not fit the atom").arg(count));
        quint64 samples = 0;
        for (quint32 i = 0; i < count; ++i) {
            const quint32 delta = be32(m_bytes, stts.payload + 12 + 8 * int(i));
            samples += be32(m_bytes, stts.payload + 8 + 8 * int(i));
            // A timecode sample of this library's audio-only movies lasts 0: there is no picture to span.
            if (delta == 0 && m_handler != code("tmcd"))
                return fail(QString("'stts': entry %1 gives its samples no duration").arg(i));
            if (m_own.present && m_handler == code("soun") && delta != 1)
                return fail(QString("'stts': entry %1 gives a sound sample %2 units").arg(i).arg(delta));
            m_lastDelta = delta;
        }
        if (samples != m_sampleCount)
            return fail(QString("'stts' counts %1 samples, 'stsz' %2").arg(samples).arg(m_sampleCount));
        m_sttsEntries = count;
        return QString();
    }

    QString sampleToChunk(const Atom& stsc)
    {
        quint32 count = 0;
        if (!counted(stsc, 8, 12, &count))
            return fail(QString("'stsc': its count of %1 entries does not fit the atom").arg(count));
        const quint64 chunks = quint64(m_chunkOffsets.size());
        m_chunkSamples.fill(0, m_chunkOffsets.size());
        quint64 samples = 0;
        for (quint32 i = 0; i < count; ++i) {
            const int at = stsc.payload + 8 + 12 * int(i);
            const quint32 first = be32(m_bytes, at);
            const quint32 perChunk = be32(m_bytes, at + 4);
            const quint32 descriptionId = be32(m_bytes, at + 8);
            const quint32 next = i + 1 < count ? be32(m_bytes, at + 12) : quint32(chunks + 1);
            if ((i == 0 && first != 1) || first < 1 || first > chunks || next <= first || next > chunks + 1)
                return fail(QString("'stsc': entry %1 starts at chunk %2 of %3, out of order")
                                .arg(i)
                                .arg(first)
                                .arg(chunks));
            if (perChunk == 0)
                return fail(QString("'stsc': entry %1 gives its chunks no samples").arg(i));
            if (descriptionId != 1)
                return fail(
                    QString("'stsc': entry %1 names sample description %2").arg(i).arg(descriptionId));
            for (quint32 c = first; c < next; ++c)
                m_chunkSamples[int(c - 1)] = perChunk;
            samples += quint64(next - first) * perChunk;
        }
        if (chunks != 0 && count == 0)
            return fail("'stsc' is empty, yet there are chunks");
        if (samples != m_sampleCount)
            return fail(QString("'stsc' puts %1 samples in the chunks, 'stsz' counts %2")
                            .arg(samples)
                            .arg(m_sampleCount));
        return QString();
    }

    QString chunksInMedia() const
    {
        quint64 sample = 0;
        for (int c = 0; c < m_chunkOffsets.size(); ++c) {
            // A constant size needs no walk: a damaged count of billions of samples costs nothing here.
            quint64 bytes = quint64(m_chunkSamples[c]) * m_constantSize;
            if (m_constantSize == 0) {
                for (quint32 s = 0; s < m_chunkSamples[c]; ++s, ++sample)
                    bytes += m_sizes.value(int(sample));
            }
            const quint64 at = m_chunkOffsets[c];
            const QString where = QString("chunk %1 at 0x%2 (%3 bytes)").arg(c).arg(at, 0, 16).arg(bytes);
            if (at > m_fileSize || bytes > m_fileSize - at)
                return fail(
                    QString("%1 lies past the end of the file (%2 bytes)").arg(where).arg(m_fileSize));
            bool inside = false;
            for (const FileSpan& media : m_media)
                inside = inside || (at >= media.begin && at <= media.end && bytes <= media.end - at);
            if (!inside)
                return fail(where + " lies outside 'mdat'");
        }
        return QString();
    }

    // A movie of this library: its picture and timecode run on the movie's time scale, the timecode sample
    // lasts as long as the picture, and the timecode samples are where the maker atom's list puts them.
    QString asItsMakerSays() const
    {
        if (!m_own.present)
            return QString();
        if (m_handler == code("soun"))
            return soundAsListed();
        if (m_timeScale != m_own.movieTimeScale)
            return fail(QString("'mdhd': a time scale of %1, the movie's is %2")
                            .arg(m_timeScale)
                            .arg(m_own.movieTimeScale));
        if (m_handler == code("vide")) {
            if (m_sttsEntries != 1 || m_sampleCount != m_own.videoFrames)
                return fail(QString("'stts': %1 frames in %2 runs, the maker atom counts %3 in one")
                                .arg(m_sampleCount)
                                .arg(m_sttsEntries)
                                .arg(m_own.videoFrames));
            return videoAsListed();
        }
        if (m_handler != code("tmcd"))
            return QString();
        if (m_sttsEntries != 1)
            return fail(QString("'stts': %1 runs for the timecode, this movie has one").arg(m_sttsEntries));
        return timecodeAsListed();
    }

    // The timecode samples are where the maker atom's list puts them, as long as it says.
    QString timecodeAsListed() const
    {
        if (!m_own.listComplete)
            return QString(); // the list ends before the samples: nothing to hold them to
        // The interchange form lists only the sample its finish appended, a frame number, which closes
        // the media (where the list would put it when the media end on a block boundary).
        if (m_chunkOffsets.size() == 1 && !m_own.timecodeOffsets.isEmpty() && m_constantSize == 4
            && !m_media.isEmpty()
            && m_chunkOffsets[0] + Tern::QuickTimeFile::s_timecodeSampleBytes == m_media.last().end)
            return QString();
        if (m_chunkOffsets.size() != m_own.timecodeOffsets.size())
            return fail(QString("%1 timecode chunks, the maker atom's list %2")
                            .arg(m_chunkOffsets.size())
                            .arg(m_own.timecodeOffsets.size()));
        for (int i = 0; i < m_chunkOffsets.size(); ++i) {
            const quint32 bytes = m_constantSize != 0 ? m_constantSize : m_sizes.value(i);
            if (m_chunkOffsets[i] != m_own.timecodeOffsets[i] || bytes != m_own.timecodeBytes[i])
                return fail(
                    QString("timecode sample %1: the index puts it at 0x%2 (%3 bytes), the maker atom's "
                            "list at 0x%4 (%5 bytes)")
                        .arg(i)
                        .arg(m_chunkOffsets[i], 0, 16)
                        .arg(bytes)
                        .arg(m_own.timecodeOffsets[i], 0, 16)
                        .arg(m_own.timecodeBytes[i]));
        }
        return QString();
    }

    // Every frame the maker atom's list reaches has the list's length, and every chunk starts at the
    // list's place of its first frame.
    QString videoAsListed() const
    {
        const int listed = m_own.videoOffsets.size();
        for (int f = 0; f < listed && f < int(m_sampleCount); ++f) {
            const quint32 bytes = m_constantSize != 0 ? m_constantSize : m_sizes.value(f);
            if (bytes != m_own.videoBytes[f])
                return fail(QString("'stsz': frame %1 of %2 bytes, the maker atom's list has %3")
                                .arg(f)
                                .arg(bytes)
                                .arg(m_own.videoBytes[f]));
        }
        quint64 firstFrame = 0;
        for (int c = 0; c < m_chunkOffsets.size() && firstFrame < quint64(listed); ++c) {
            if (m_chunkOffsets[c] != m_own.videoOffsets[int(firstFrame)])
                return fail(QString("chunk %1 at 0x%2, the maker atom's list puts its first frame at 0x%3")
                                .arg(c)
                                .arg(m_chunkOffsets[c], 0, 16)
                                .arg(m_own.videoOffsets[int(firstFrame)], 0, 16));
            firstFrame += m_chunkSamples[c];
        }
        return QString();
    }

    // Each sound chunk of the list holds the tracks one after another: this track's part starts as many
    // track-parts in as tracks come before it. A short first chunk is addressed like a full one.
    QString soundAsListed() const
    {
        if (m_constantSize == 0 || m_chunkOffsets.isEmpty())
            return QString();
        const int chunks = m_chunkOffsets.size();
        const quint64 full = m_chunkSamples[qMin(1, chunks - 1)];
        for (int k = 0; k < chunks && k < m_own.soundChunkOffsets.size(); ++k) {
            const quint64 samples = k == 0 && chunks > 1 ? full : m_chunkSamples[k];
            const quint64 expected
                = m_own.soundChunkOffsets[k] + quint64(m_soundTrackOrdinal) * samples * m_constantSize;
            if (m_chunkOffsets[k] != expected)
                return fail(QString("chunk %1 at 0x%2, the maker atom's list puts it at 0x%3")
                                .arg(k)
                                .arg(m_chunkOffsets[k], 0, 16)
                                .arg(expected, 0, 16));
        }
        return QString();
    }

    const QByteArray& m_bytes;
    const OwnMovie& m_own;
    Atom m_trak;
    int m_number;
    const QVector<FileSpan>& m_media;
    quint64 m_fileSize;
    int m_soundTrackOrdinal; // sound tracks before this one
    quint32 m_handler = 0;
    quint32 m_timeScale = 0;
    quint32 m_format = 0;
    quint32 m_soundSampleBytes = 0;
    quint32 m_soundRate = 0;
    quint32 m_lastDelta = 0;
    quint32 m_sttsEntries = 0;
    quint32 m_timecodeFrameDuration = 0;
    quint32 m_trackWidth = 0;
    quint32 m_trackHeight = 0;

    quint32 m_soundFrameBytes = 0;
    quint32 m_constantSize = 0;
    quint32 m_sampleCount = 0;
    QVector<quint32> m_sizes;
    QVector<quint64> m_chunkOffsets;
    QVector<quint32> m_chunkSamples;
};

// What the tracks' checks found of the picture and the timecode, to hold the two to each other.
struct PictureAndTimecode
{
    quint64 pictureDuration = 0;
    quint32 frameDuration = 0;
    int timecodeTrack = -1;
    quint32 timecodeDuration = 0;
    quint32 timecodeFrameDuration = 0;
};

// Checks every track in turn; the first problem found, or an empty text.
QString checkTracks(QIODevice& file, const QByteArray& moov, const QVector<FileSpan>& media,
                    const OwnMovie& own, PictureAndTimecode* found)
{
    int soundTracks = 0;
    for (int n = 0;; ++n) {
        const Atom trak = child(moov, 8, moov.size(), code("trak"), n);
        if (!trak.valid())
            break;
        TrackCheck track(moov, trak, n, media, quint64(file.size()), own, soundTracks);
        const QString problem = track.run();
        if (!problem.isEmpty())
            return problem;
        soundTracks += track.handler() == code("soun");
        if (track.handler() == code("vide")) {
            found->frameDuration = track.lastDuration();
            found->pictureDuration = quint64(found->frameDuration) * own.videoFrames;
        }
        if (track.handler() == code("tmcd")) {
            found->timecodeTrack = n;
            found->timecodeDuration = track.lastDuration();
            found->timecodeFrameDuration = track.timecodeFrameDuration();
        }
    }
    return QString();
}

// In this library's movies the timecode sample lasts as long as the picture, counting its frames; in
// the interchange form as long as the movie.
QString timecodeAsPicture(const OwnMovie& own, const PictureAndTimecode& found)
{
    if (!own.present || found.timecodeTrack < 0)
        return QString();
    if (found.timecodeDuration != found.pictureDuration && found.timecodeDuration != own.movieDuration)
        return QString("track %1 'stts': the timecode sample lasts %2, the picture %3")
            .arg(found.timecodeTrack)
            .arg(found.timecodeDuration)
            .arg(found.pictureDuration);
    if (found.frameDuration != 0 && found.timecodeFrameDuration != found.frameDuration)
        return QString("track %1 'stsd': timecode frames of %2 units, the picture's last %3")
            .arg(found.timecodeTrack)
            .arg(found.timecodeFrameDuration)
            .arg(found.frameDuration);
    return QString();
}

} // namespace

QString checkSampleTables(QIODevice& file)
{
    QByteArray moov;
    QVector<FileSpan> media;
    QString problem = readIndex(file, &moov, &media);
    if (!problem.isEmpty())
        return problem;
    // The family whose reserved region the file starts with; the first one when its first atom cannot be
    // read.
    const Tern::MovieFamily* family = Tern::familyOfRecording(file);
    const qint64 mediaStart = (family ? family : Tern::movieFamilies().front())->movieDataStartOffset;
    const OwnMovie own = ownMovie(moov, recorderFrameMap(file, family), mediaStart);
    if (own.listDiffersFromMap)
        return QStringLiteral("the maker atom's frame list is not the start of the recorder's frame map");
    if (own.present && own.movieTimeScale != own.frameTimeScale)
        return QString("'mvhd': a time scale of %1, the recorded frame rate gives %2")
            .arg(own.movieTimeScale)
            .arg(own.frameTimeScale);
    PictureAndTimecode found;
    problem = checkTracks(file, moov, media, own, &found);
    if (!problem.isEmpty())
        return problem;
    return timecodeAsPicture(own, found);
}
