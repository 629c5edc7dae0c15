#include "movie/MovieVerifier.h"

#include "movie/QuickTimeFile.h"
#include "movie/SampleTableCheck.h"

#include <QFile>
#include <QtEndian>

using Tern::QuickTimeFile;
using Tern::QuickTimeTrackInfo;

namespace {

// No frame of any recorder comes near this; a larger one is a damaged index, not a reason to allocate.
const quint64 s_maxFrameBytes = 256 * 1024 * 1024;
// Sound is read in pieces of at most this many bytes.
const quint64 s_soundPieceBytes = 4 * 1024 * 1024;

QString hexPosition(quint64 position)
{
    return QString("0x%1").arg(position, 0, 16);
}

class Verifier
{
public:
    Verifier(QFile& file, QuickTimeFile& movie, MovieVerification& result)
        : m_movie(movie)
        , m_result(result)
        , m_fileSize(quint64(file.size()))
    {
        FileSpan moov;
        readTopLevelAtoms(file, &moov, &m_media);
    }

    bool run()
    {
        if (m_media.isEmpty())
            return fail("the file has no 'mdat'");
        return video() && sound();
    }

private:
    bool fail(const QString& why)
    {
        m_result.failure = why;
        return false;
    }

    // What lies at [position, position + bytes) must be in the file and in the media.
    bool inside(const QString& what, quint64 position, quint64 bytes)
    {
        const QString where = QString("%1 at %2 (%3 bytes)").arg(what, hexPosition(position)).arg(bytes);
        if (position > m_fileSize || bytes > m_fileSize - position)
            return fail(QString("%1 lies past the end of the file (%2 bytes)").arg(where).arg(m_fileSize));
        for (const FileSpan& media : m_media) {
            if (position >= media.begin && position + bytes <= media.end)
                return true;
        }
        return fail(QString("%1 lies outside 'mdat'").arg(where));
    }

    bool video()
    {
        QuickTimeFile& movie = m_movie;
        const bool crossCheck = movie.writtenByRecorder && movie.videoTrack.stszEntries != 0;
        QByteArray frame;
        for (quint32 f = 0; f < movie.videoFrames(); ++f) {
            const QString what = QString("video frame %1").arg(f);
            quint64 position = 0;
            quint64 bytes = 0;
            if (!movie.gotoVideoFrame(f) || !movie.calculateLocationSeekVideo(f, &position, &bytes))
                return fail(what + " cannot be located");
            if (!inside(what, position, bytes))
                return false;
            if (crossCheck && !sameInIndex(&movie.videoTrack, f, what, position, bytes))
                return false;
            if (bytes > s_maxFrameBytes)
                return fail(QString("%1 is larger than %2 bytes").arg(what).arg(s_maxFrameBytes));
            frame.resize(int(bytes));
            int size = frame.size();
            if (!movie.getMovieVideoData(frame.data(), &size) || quint64(size) != bytes)
                return fail(what + " cannot be read");
            m_result.videoFrames = f + 1;
        }
        return true;
    }

    // The index's tables must put the sample where the frame map does.
    bool sameInIndex(
        QuickTimeTrackInfo* track, quint64 sample, const QString& what, quint64 position, quint64 bytes)
    {
        quint64 tablePosition = 0;
        quint32 tableBytes = quint32(bytes);
        if (!m_movie.seekToSampleAbsolute(track, sample)
            || !m_movie.calculateTableLocation(track, &tablePosition)
            || (track->type == Tern::quicktime_frametype_video
                && !m_movie.tableSampleSize(track, sample, &tableBytes)))
            return fail(what + " is missing from the index");
        if (!inside(what + " in the index", tablePosition, tableBytes))
            return false;
        if (tablePosition != position || tableBytes != bytes)
            return fail(QString("%1: the index puts it at %2 (%3 bytes), the frame map at %4 (%5 bytes)")
                            .arg(what, hexPosition(tablePosition))
                            .arg(tableBytes)
                            .arg(hexPosition(position))
                            .arg(bytes));
        return true;
    }

    bool sound()
    {
        QuickTimeFile& movie = m_movie;
        QByteArray piece;
        for (int n = 0; QuickTimeTrackInfo* track = movie.getAudioTrack(n); ++n) {
            m_result.soundSamples << 0;
            const quint64 frameBytes = quint64(track->audioBytesPerSample) * track->audioChannels;
            if (frameBytes == 0)
                return fail(QString("sound track %1 has samples of 0 bytes: its sample format is unknown to "
                                    "the reader")
                                .arg(n));
            if (frameBytes > s_soundPieceBytes)
                return fail(QString("sound track %1 has samples of %2 bytes").arg(n).arg(frameBytes));
            const quint64 maxFrames = s_soundPieceBytes / frameBytes;
            quint64& total = m_result.soundSamples.last();
            movie.seekToAudioChunk(track, 0);
            while (track->currentChunk < movie.chunkCount(track)) {
                const unsigned left = movie.samplesLeftInCurrentChunk(n);
                if (left == 0) {
                    movie.seekNextAudioChunk(track);
                    continue;
                }
                const quint64 sample = track->currentSample;
                const QString what = QString("sound sample %1 of track %2").arg(sample).arg(n);
                const unsigned frames = unsigned(qMin<quint64>(left, maxFrames));
                const quint64 bytes = frames * frameBytes;
                quint64 position = 0;
                if (!movie.calculateLocationSeek(track, &position))
                    return fail(what + " cannot be located");
                if (!inside(what, position, bytes))
                    return false;
                if (movie.writtenByRecorder && !sameInIndex(track, sample, what, position, bytes))
                    return false;
                piece.resize(int(bytes));
                if (movie.readAudioSamples(n, reinterpret_cast<unsigned char*>(piece.data()), frames)
                    != frames)
                    return fail(what + " cannot be read");
                total += frames;
            }
            if (total != track->stszEntries)
                return fail(QString("sound track %1: %2 samples read, its 'stsz' counts %3")
                                .arg(n)
                                .arg(total)
                                .arg(track->stszEntries));
        }
        return true;
    }

    QuickTimeFile& m_movie;
    MovieVerification& m_result;
    quint64 m_fileSize;
    QVector<FileSpan> m_media;
};

// The maker atom lists as many entries of the frame map as the movie counts frames, sound chunks and
// timecode samples. Chunks of unknown type are not counted but take their place in the map, so a list
// holding any ends before the movie's last chunks, which the reader, following the list, cannot reach.
bool frameListEndsEarly(const QuickTimeFile& movie)
{
    if (!movie.writtenByRecorder || !movie.frameMap)
        return false;
    for (quint32 i = 0; i < movie.frameMapLength; ++i) {
        if ((movie.frameMap[i] >> QuickTimeFile::s_frameTypeShift) == Tern::quicktime_frametype_unknown)
            return true;
    }
    return false;
}

} // namespace

MovieVerification verifyMovie(const QString& path)
{
    MovieVerification result;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        result.failure = QString("cannot be opened: %1").arg(file.errorString());
        return result;
    }
    QuickTimeFile movie(file);
    if (!movie.initFileRead(&file)) {
        result.failure = "no video track: not a movie the reader can open";
        return result;
    }
    // Movies read by their tables have shown their tracks already.
    if (movie.writtenByRecorder)
        movie.dumpTrackInfo();
    result.tracks = movie.trackCount;
    // The tables as the strictest readers take them first; then every sample through the reader.
    const QString tableProblem = checkSampleTables(file);
    if (!tableProblem.isEmpty()) {
        result.failure = tableProblem;
        movie.closeFileRead();
        return result;
    }
    if (frameListEndsEarly(movie)) {
        // The tables, checked whole above, stand for the movie; the counts are theirs.
        result.videoFrames = movie.videoTrack.stszEntries;
        for (int n = 0; QuickTimeTrackInfo* track = movie.getAudioTrack(n); ++n)
            result.soundSamples << track->stszEntries;
        result.verified = true;
        movie.closeFileRead();
        return result;
    }
    Verifier verifier(file, movie, result);
    result.verified = verifier.run();
    movie.closeFileRead();
    return result;
}

QString verificationSummary(const QString& path, const MovieVerification& result)
{
    QStringList samples;
    for (quint64 count : result.soundSamples)
        samples << QString::number(count);
    // One substitution pass: a '%' in the name or the failure text is printed as it stands.
    return QString("     %1: %2 tracks, %3 video frames, samples per sound track %4, %5")
        .arg(path, QString::number(result.tracks), QString::number(result.videoFrames),
             samples.isEmpty() ? QString("none") : samples.join(' '),
             result.verified ? QString("verified") : "FAILED: " + result.failure);
}
