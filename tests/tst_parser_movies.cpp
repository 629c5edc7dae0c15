// Reading whole movies back: movies this program finished, movies ffmpeg wrote, and the same index
// trees cut short or damaged.

#include "finalize/Finalize.h"
#include "movie/QuickTimeAtom.h"
#include "movie/QuickTimeFile.h"
#include "simulate/RecordingSimulator.h"
#include "support/AtomBytes.h"
#include "support/AtomWalker.h"
#include "support/MediaTools.h"
#include "support/MessageCapture.h"
#include "support/TestSupport.h"

#include <QBuffer>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

using namespace AtomBytes;
using namespace AtomWalker;
using Tern::QuickTimeAtom;
using MovieFile = Tern::QuickTimeFile;
using Tern::QuickTimeTrackInfo;

namespace {

const QRegularExpression s_syncLine("^unexpected amount of data read in atom .... @ 0x[0-9a-f]+ \\(expected "
                                    "\\d+, read -?\\d+\\), sync to 0x[0-9a-f]+$",
    QRegularExpression::DotMatchesEverythingOption);

// Only the two messages of a damaged tree may appear.
bool onlyKnownMessages(const QStringList& lines, int* syncs)
{
    for (const QString& line : lines) {
        if (s_syncLine.match(line).hasMatch())
            ++*syncs;
        else if (line != "Unexpected end of file.")
            return false;
    }
    return true;
}

// Walks the top level like readFile, but with a bound, and with `budget` as the size the walk believes in.
int boundedWalk(QIODevice& device, MovieFile& file, qint64 budget, int bound)
{
    device.seek(0);
    int steps = 0;
    while (steps < bound && device.pos() < budget) {
        quint64 remaining = quint64(budget - device.pos());
        QuickTimeAtom* atom = nullptr;
        const bool more = QuickTimeAtom::readNextAtom(&file, &atom, file.stream, &remaining);
        delete atom;
        ++steps;
        if (!more)
            break;
    }
    return steps;
}

RecordingPlan smallPlan(int frames)
{
    RecordingPlan plan;
    plan.videoFramesPerChunk = 3;
    plan.audioSamplesPerChunk = 1920;
    plan.audioBytesPerSample = 3;
    plan.dropFrame = true;
    for (int i = 0; i < frames; ++i)
        plan.videoFrames << syntheticFrame(i, 3000 + 7 * i);
    for (int t = 0; t < 2; ++t)
        plan.audioTracks << syntheticPcm(t, frames * 1920, 3);
    return plan;
}

// The movie the program finishes from an interrupted recording of `plan`.
QByteArray finalizedMovie(const RecordingPlan& plan)
{
    QTemporaryDir tmp;
    const QString path = tmp.filePath("A001.zqv");
    if (!writeInterruptedRecording(path, plan).ok)
        return QByteArray();
    const MessageCapture quiet(MessageCapture::Drop);
    Finalize driver;
    if (driver.ternDoFinalize(path) != 0)
        return QByteArray();
    return TestSupport::readFile(tmp.filePath("A001.mov"));
}

// The track values the tables of `trak` hold, found by offset in the bytes.
struct TrackTables
{
    quint32 timeScale, duration, stscEntries, stszSize, stszEntries, offsetEntries;
    qint64 stscPos, stszPos, offsetPos;
    bool wide;
};
TrackTables tablesOf(const QByteArray& movie, int trak)
{
    const QString stbl = QString("moov/trak:%1/mdia/minf/stbl/").arg(trak);
    const Atom stsc = find(movie, stbl + "stsc");
    const Atom sizes = find(movie, stbl + "stsz");
    Atom offsets = find(movie, stbl + "co64");
    const bool wide = offsets.valid();
    if (!wide)
        offsets = find(movie, stbl + "stco");
    return { be32(movie, find(movie, QString("moov/trak:%1/mdia/mdhd").arg(trak)).offset + 20),
        be32(movie, find(movie, stbl + "stts").offset + 20), be32(movie, stsc.offset + 12),
        be32(movie, sizes.offset + 12), be32(movie, sizes.offset + 16), be32(movie, offsets.offset + 12),
        stsc.offset + 16, sizes.offset + 20, offsets.offset + 16, wide };
}

void compareTrack(const QuickTimeTrackInfo& track, const TrackTables& expected)
{
    QCOMPARE(track.timeScale, qint64(expected.timeScale));
    QCOMPARE(track.sampleDuration, qint64(expected.duration));
    QCOMPARE(track.stscPos, quint64(expected.stscPos));
    QCOMPARE(track.stscEntries, expected.stscEntries);
    QCOMPARE(track.stszPos, quint64(expected.stszPos));
    QCOMPARE(track.stszEntries, expected.stszEntries);
    QCOMPARE(track.stszSampleSize, expected.stszSize);
    QCOMPARE(expected.wide ? track.co64Pos : track.stcoPos, quint64(expected.offsetPos));
    QCOMPARE(expected.wide ? track.co64Entries : track.stcoEntries, expected.offsetEntries);
    QCOMPARE(expected.wide ? track.stcoPos : track.co64Pos, quint64(0));
}

// Reads a movie file whole, in import mode, the messages captured.
struct FileRead
{
    QFile device;
    MovieFile file;
    QStringList messages;
    explicit FileRead(const QString& path)
        : device(path)
        , file(device)
    {
        device.open(QIODevice::ReadOnly);
        file.importMode = true;
        file.writtenByRecorder = false;
        file.initCurrentTrackInfo();
        MessageCapture log;
        file.readFile();
        messages = log.messages();
    }
};

} // namespace

class TestParserMovies : public QObject
{
    Q_OBJECT

private slots:
    void finalizedMovieReadsBack();
    void finalizedMovieWithoutMakerAtomLearnsEveryTrack_data();
    void finalizedMovieWithoutMakerAtomLearnsEveryTrack();
    void ffmpegMovieIsLearned_data();
    void ffmpegMovieIsLearned();
    void truncatedTreesEndQuietlyOrResync();
    void corruptedTreesNeverHang();
};

void TestParserMovies::finalizedMovieReadsBack()
{
    const QByteArray movie = finalizedMovie(smallPlan(31));
    QVERIFY(!movie.isEmpty());
    QTemporaryDir tmp;
    QVERIFY(TestSupport::writeFile(tmp.filePath("A001.mov"), movie));
    FileRead read(tmp.filePath("A001.mov"));
    MovieFile& file = read.file;
    QCOMPARE(read.messages, QStringList());

    const Atom maker = find(movie, "moov/udta/hldn");
    QCOMPARE(file.movieDataStart, quint64(find(movie, "mdat").offset + 16));
    QCOMPARE(file.movieDataStart, quint64(Tern::ternFamily.movieDataStartOffset));
    QVERIFY(file.writtenByRecorder);
    QVERIFY(file.haldenMarker);
    QCOMPARE(file.videoFrames(), be32(movie, maker.offset + 24));
    QCOMPARE(file.videoFrames(), 31u);
    QCOMPARE(file.audioFrames(), be32(movie, maker.offset + 28));
    QCOMPARE(file.timecodeSamples, be32(movie, maker.offset + 32));
    const quint32 frames = be32(movie, maker.offset + 20);
    QCOMPARE(file.totalFrames(), frames);
    for (quint32 i = 0; i < frames; ++i)
        QCOMPARE(file.frameMap[i], be16(movie, maker.offset + 148 + 2 * i));
    for (int i = 0; i < 9; ++i)
        QCOMPARE(file.userData[i], be32(movie, maker.offset + 36 + 4 * i));
    QCOMPARE(file.width, quint16(1920));
    QCOMPARE(file.height, quint16(1080));
    QVERIFY(file.dropFrame);
    QCOMPARE(file.audioSampleRate, 48000u);

    // The maker atom comes first in 'moov', so the tracks are not committed; the record being learned
    // holds the last track, the second sound track.
    QCOMPARE(file.trackCount, 0);
    const QuickTimeTrackInfo& track = file.currentTrack;
    QCOMPARE(track.type, Tern::quicktime_frametype_sound);
    compareTrack(track, tablesOf(movie, 4));
    QCOMPARE(track.audioBytesPerSample, 3u);
    QCOMPARE(track.audioChannels, 1u);
    QCOMPARE(track.audioBigEndian, false);
    QVERIFY(file.closeFileRead());
}

void TestParserMovies::finalizedMovieWithoutMakerAtomLearnsEveryTrack_data()
{
    QTest::addColumn<quint32>("codecType");
    QTest::addColumn<quint32>("frameRate");
    QTest::addColumn<quint32>("interlaced");
    QTest::addColumn<quint32>("rate"); // user value 3 learned from the video track
    QTest::newRow("ProRes 25p") << 1u << 2500u << 0u << 2500u;
    QTest::newRow("ProRes 50i ('fiel')") << 1u << 5000u << 1u << 5000u;
    QTest::newRow("DNxHD 59.94i ('ARES')") << 0u << 5994u << 1u << 5994u;
    QTest::newRow("ProRes 23.976") << 1u << 2398u << 0u << 2398u;
}

void TestParserMovies::finalizedMovieWithoutMakerAtomLearnsEveryTrack()
{
    QFETCH(quint32, codecType);
    QFETCH(quint32, frameRate);
    QFETCH(quint32, interlaced);
    QFETCH(quint32, rate);
    RecordingPlan plan = smallPlan(31);
    plan.videoCodecType = codecType;
    plan.frameRate = frameRate;
    plan.interlaced = interlaced;
    QByteArray movie = finalizedMovie(plan);
    QVERIFY(!movie.isEmpty());
    const Atom maker = find(movie, "moov/udta/hldn");
    movie.replace(int(maker.offset + 4), 4, QByteArray("hldx", 4)); // a 'udta' like any other movie's
    QTemporaryDir tmp;
    QVERIFY(TestSupport::writeFile(tmp.filePath("A001.mov"), movie));
    FileRead read(tmp.filePath("A001.mov"));
    MovieFile& file = read.file;
    QCOMPARE(read.messages, QStringList());

    QVERIFY(!file.writtenByRecorder);
    QVERIFY(!file.frameMap);
    QCOMPARE(file.trackCount, 4);
    const Tern::quicktime_frametype_t types[] = { Tern::quicktime_frametype_timecode,
        Tern::quicktime_frametype_video, Tern::quicktime_frametype_sound, Tern::quicktime_frametype_sound };
    for (int t = 0; t < 4; ++t) {
        QCOMPARE(file.tracks[t].type, types[t]);
        QVERIFY(file.tracks[t].committed);
        compareTrack(file.tracks[t], tablesOf(movie, t + 1));
    }
    QCOMPARE(file.tracks[2].audioBytesPerSample, 3u);
    QCOMPARE(file.tracks[3].audioChannels, 1u);
    QCOMPARE(file.interlaced, interlaced);
    QCOMPARE(file.userData[2], rate);
    QCOMPARE(file.userData[8], 0u);
    QCOMPARE(file.videoFrames(), 31u);
    QCOMPARE(file.audioFrames(), tablesOf(movie, 4).stszEntries);
    QCOMPARE(file.totalFrames(), 31u);
}

void TestParserMovies::ffmpegMovieIsLearned_data()
{
    QTest::addColumn<QStringList>("flags");
    QTest::addColumn<bool>("chunkOffsets64");
    QTest::newRow("index behind media ('stco')") << QStringList() << false;
    QTest::newRow("index before media") << QStringList({ "-movflags", "+faststart" }) << false;
    QTest::newRow("'stco' rewritten as 'co64'") << QStringList() << true;
}

void TestParserMovies::ffmpegMovieIsLearned()
{
    QFETCH(QStringList, flags);
    QFETCH(bool, chunkOffsets64);
    if (!MediaTools::available())
        QSKIP("ffmpeg is not installed");
    QTemporaryDir tmp;
    const QString path = tmp.filePath("ffmpeg.mov");
    bool ok = false;
    MediaTools::run("ffmpeg",
        QStringList(
            { "-v", "error", "-y", "-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25", "-f", "lavfi", "-i",
                "sine=frequency=440:sample_rate=48000", "-t", "1", "-c:v", "prores_ks", "-c:a", "pcm_s24le" })
            + flags + QStringList({ "-f", "mov", path }),
        &ok);
    QVERIFY(ok);
    QByteArray movie = TestSupport::readFile(path);
    if (chunkOffsets64) {
        movie = withChunkOffsets64(movie);
        QVERIFY(find(movie, "moov/trak:2/mdia/minf/stbl/co64").valid());
        QVERIFY(TestSupport::writeFile(path, movie));
    }
    // The time bases and frame counts as ffprobe reports them.
    const QStringList probe = QString::fromUtf8(
        MediaTools::run("ffprobe",
            { "-v", "error", "-show_entries", "stream=time_base,nb_frames", "-of", "csv=p=0", path }, &ok))
                                  .split('\n', Qt::SkipEmptyParts);
    QVERIFY(ok);
    QCOMPARE(probe, QStringList({ "1/12800,25", "1/48000,48000" }));

    FileRead read(path);
    MovieFile& file = read.file;
    QCOMPARE(read.messages, QStringList());
    QCOMPARE(file.trackCount, 2);
    QCOMPARE(file.tracks[0].type, Tern::quicktime_frametype_video);
    QCOMPARE(file.tracks[1].type, Tern::quicktime_frametype_sound);
    compareTrack(file.tracks[0], tablesOf(movie, 1));
    compareTrack(file.tracks[1], tablesOf(movie, 2));
    QCOMPARE(file.tracks[0].timeScale, qint64(12800));
    QCOMPARE(file.tracks[0].sampleDuration, qint64(512));
    QCOMPARE(file.tracks[0].stszEntries, 25u);
    QCOMPARE(file.tracks[1].timeScale, qint64(48000));
    QCOMPARE(file.tracks[1].audioBytesPerSample, 3u);
    QCOMPARE(file.tracks[1].audioChannels, 1u);
    QCOMPARE(file.tracks[1].audioBigEndian, false);
    QCOMPARE(file.audioSampleRate, 48000u);
    QCOMPARE(file.width, quint16(320));
    QCOMPARE(file.height, quint16(240));
    QCOMPARE(file.userData[2], 2500u);
    QCOMPARE(file.videoFrames(), 25u);
    QCOMPARE(file.totalFrames(), 25u);
}

void TestParserMovies::truncatedTreesEndQuietlyOrResync()
{
    const QByteArray movie = finalizedMovie(smallPlan(30));
    QVERIFY(!movie.isEmpty());
    const Atom moov = find(movie, "moov");
    const QByteArray tree = movie.mid(int(moov.offset), int(moov.size));
    QVERIFY(tree.size() > 300);
    int syncs = 0;
    for (int cut = 0; cut < tree.size(); ++cut) {
        // The movie cut inside its index: the index no longer fits and the walk ends before it.
        {
            QByteArray cutMovie = QByteArray::fromRawData(movie.constData(), int(moov.offset) + cut);
            QBuffer device(&cutMovie);
            device.open(QIODevice::ReadOnly);
            MovieFile file(device);
            MessageCapture log;
            QVERIFY(file.readFile());
            QCOMPARE(log.messages(), QStringList());
            QVERIFY(!file.writtenByRecorder);
        }
        // The index alone, its size made to fit the cut: the children overrun and are synced past.
        if (cut >= 8) {
            QByteArray fitted = tree.left(cut);
            fitted.replace(0, 4, u32(quint32(cut)));
            QBuffer device(&fitted);
            device.open(QIODevice::ReadOnly);
            MovieFile file(device);
            file.importMode = true;
            MessageCapture log;
            QVERIFY(file.readFile());
            QVERIFY2(onlyKnownMessages(log.messages(), &syncs), qPrintable(log.messages().join('\n')));
            QCOMPARE(QuickTimeAtom::nestingLevel, 0);
            QVERIFY(file.trackCount <= 4);
        }
        // The index cut while the walk still believes in its full size.
        {
            QByteArray cutTree = QByteArray::fromRawData(tree.constData(), cut);
            QBuffer device(&cutTree);
            device.open(QIODevice::ReadOnly);
            MovieFile file(device);
            MessageCapture log;
            QVERIFY(boundedWalk(device, file, tree.size(), 1000) < 1000);
            QVERIFY2(onlyKnownMessages(log.messages(), &syncs), qPrintable(log.messages().join('\n')));
            QCOMPARE(QuickTimeAtom::nestingLevel, 0);
        }
    }
    QVERIFY(syncs > 0);
}

void TestParserMovies::corruptedTreesNeverHang()
{
    const QByteArray movie = finalizedMovie(smallPlan(30));
    QVERIFY(!movie.isEmpty());
    const Atom moov = find(movie, "moov");
    const QByteArray tree = movie.mid(int(moov.offset), int(moov.size));
    QRandomGenerator random(20240611);
    int syncs = 0;
    for (int variant = 0; variant < 3000; ++variant) {
        QByteArray damaged = tree;
        const int flips = 1 + int(random.bounded(8));
        for (int i = 0; i < flips; ++i) {
            const int at = int(random.bounded(damaged.size()));
            damaged[at] = char(damaged[at] ^ char(1 + random.bounded(255)));
        }
        QBuffer device(&damaged);
        device.open(QIODevice::ReadOnly);
        MovieFile file(device);
        file.importMode = true;
        MessageCapture log;
        QVERIFY(boundedWalk(device, file, damaged.size(), 1000) < 1000);
        QVERIFY(file.readFile());
        QVERIFY2(onlyKnownMessages(log.messages(), &syncs), qPrintable(log.messages().join('\n')));
        QCOMPARE(QuickTimeAtom::nestingLevel, 0);
        QVERIFY(file.trackCount <= MovieFile::s_maxTracks);
        QVERIFY(device.pos() <= damaged.size());
    }
    QVERIFY(syncs > 0);
}

QTEST_GUILESS_MAIN(TestParserMovies)
#include "tst_parser_movies.moc"
