// clipward-cli --verify: finished movies read end to end through the reader, one line per file, and the
// exit status that tells whether every file verified.

#include "movie/MovieVerifier.h"
#include "simulate/RecordingSimulator.h"
#include "support/AtomBytes.h"
#include "support/AtomWalker.h"
#include "support/MediaTools.h"
#include "support/MessageCapture.h"
#include "support/MixedCard.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>

using namespace TestSupport;

namespace {

// The last line of a file's report: its summary.
QString summaryOf(const QStringList& lines, const QString& path)
{
    for (const QString& line : lines) {
        if (line.startsWith("     " + path + ": "))
            return line;
    }
    return QString();
}

} // namespace

class TestVerify : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void everyFinishedMovieVerifies();
    void chunkOffsetPastTheEndFails();
    void importedMovieDamagedFails();
    void filesThatAreNoFinishedMovieFail();
    void damagedIndexesEndWithinBounds();
    void argumentsOfVerify();
    void namesAreReportedVerbatim();
    void chunksOfUnknownTypeRaiseNoFalseAlarm();

private:
    QString finishedMovie(const QString& name, const RecordingPlan& recording);
    QTemporaryDir m_dir;
};

void TestVerify::initTestCase()
{
    QVERIFY(m_dir.isValid());
}

// Writes the recording, finalizes it with clipward-cli and returns the finished movie's path.
QString TestVerify::finishedMovie(const QString& name, const RecordingPlan& recording)
{
    const QString folder = m_dir.filePath(name);
    QDir().mkpath(folder);
    if (!writeInterruptedRecording(folder + "/" + name + ".zqv", recording).ok)
        return QString();
    QStringList out;
    if (runCli({ folder }, &out) != 0)
        return QString();
    const QString movie = folder + "/" + name + ".mov";
    return QFileInfo::exists(movie) ? movie : QString();
}

void TestVerify::everyFinishedMovieVerifies()
{
    const auto tern = RecordingPlan::Tern;
    const auto heron = RecordingPlan::Heron;
    RecordingPlan shortChunks = syntheticPlan(tern, 31, 2, 1920, 31 * 1920 + 500);
    shortChunks.firstChunkSamples = 1000;
    const QList<QPair<QString, RecordingPlan>> recordings {
        { "A001", syntheticPlan(tern, 31, 2, 1920, 31 * 1920) },
        { "A002", syntheticPlan(tern, 31, 0, 1920, 0) },
        { "A003", syntheticPlan(tern, 0, 2, 1920, 40 * 1920) }, { "A004", shortChunks },
        { "H001", syntheticPlan(heron, 30, 2, 3072, 30 * 1920) },
        { "H002", syntheticPlan(heron, 0, 1, 3072, 30820) }, { "H003", syntheticPlan(heron, 12, 0, 3072, 0) }
    };
    const QStringList expected { "4 tracks, 31 video frames, samples per sound track 59520 59520, verified",
        "2 tracks, 31 video frames, samples per sound track none, verified",
        "3 tracks, 0 video frames, samples per sound track 76800 76800, verified",
        "4 tracks, 31 video frames, samples per sound track 60020 60020, verified",
        "4 tracks, 30 video frames, samples per sound track 57600 57600, verified",
        "2 tracks, 0 video frames, samples per sound track 30820, verified",
        "2 tracks, 12 video frames, samples per sound track none, verified" };
    QStringList movies;
    for (const auto& recording : recordings) {
        movies << finishedMovie(recording.first, recording.second);
        QVERIFY2(!movies.last().isEmpty(), qPrintable(recording.first));
    }

    QStringList out;
    QCOMPARE(runCli(QStringList { "--verify" } + movies, &out), 0);
    for (int i = 0; i < movies.size(); ++i)
        QCOMPARE(summaryOf(out, movies[i]), "     " + movies[i] + ": " + expected[i]);
    // Each file's tracks are shown before its summary.
    QCOMPARE(out.value(0), QString("********** learned track info *************"));
    QCOMPARE(out.value(1), QString("### 4 tracks"));
    QCOMPARE(out.value(2), QString("   track 0 (1920x1080p)"));
    QCOMPARE(out.value(3), QString("      type: TIMECODE"));
    QCOMPARE(out.count("********** learned track info *************"), movies.size());
}

void TestVerify::chunkOffsetPastTheEndFails()
{
    const QString good = finishedMovie("B001", syntheticPlan(RecordingPlan::Tern, 31, 2, 1920, 31 * 1920));
    const QString damaged = finishedMovie("B002", syntheticPlan(RecordingPlan::Tern, 31, 2, 1920, 31 * 1920));
    QVERIFY(!good.isEmpty() && !damaged.isEmpty());
    // The video track's first chunk is moved far past the end of the file in the index.
    QByteArray bytes = readFile(damaged);
    const AtomWalker::Atom co64 = AtomWalker::find(bytes, "moov/trak:2/mdia/minf/stbl/co64");
    QVERIFY(co64.valid());
    bytes.replace(int(co64.offset + 16), 8, AtomBytes::u64(0x7FFFFFFF00ull));
    QVERIFY(writeFile(damaged, bytes));

    QStringList out;
    QCOMPARE(runCli({ "--verify", good, damaged }, &out), 1);
    QCOMPARE(summaryOf(out, good),
        "     " + good + ": 4 tracks, 31 video frames, samples per sound track 59520 59520, verified");
    // The first chunk holds 3 frames of 8 blocks of 512 bytes each (3,000 bytes and the recorder's 1,024).
    QCOMPARE(summaryOf(out, damaged),
        QString("     %1: 4 tracks, 0 video frames, samples per sound track none, FAILED: track 1 chunk 0 at "
                "0x7fffffff00 (12288 bytes) lies past the end of the file (%2 bytes)")
            .arg(damaged)
            .arg(bytes.size()));
}

void TestVerify::importedMovieDamagedFails()
{
    if (!MediaTools::available())
        QSKIP("ffmpeg is not installed");
    const QString path = m_dir.filePath("ffmpeg.mov");
    bool ok = false;
    MediaTools::run("ffmpeg",
        { "-v", "error", "-y", "-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25", "-f", "lavfi", "-i",
            "sine=frequency=440:sample_rate=48000", "-t", "1", "-c:v", "prores_ks", "-c:a", "pcm_s24le", "-f",
            "mov", path },
        &ok);
    QVERIFY(ok);
    QStringList out;
    QCOMPARE(runCli({ "--verify", path }, &out), 0);
    QCOMPARE(summaryOf(out, path),
        "     " + path + ": 2 tracks, 25 video frames, samples per sound track 48000, verified");

    const QByteArray movie = readFile(path);
    const AtomWalker::Atom stco = AtomWalker::find(movie, "moov/trak:1/mdia/minf/stbl/stco");
    QVERIFY(stco.valid());
    const quint32 frame0
        = AtomWalker::be32(movie, AtomWalker::find(movie, "moov/trak:1/mdia/minf/stbl/stsz").offset + 20);

    // The first frame's chunk moved to the file's start: inside the file, outside 'mdat'.
    QByteArray outside = movie;
    outside.replace(int(stco.offset + 16), 4, QByteArray("\0\0\0\0", 4));
    const QString outsidePath = m_dir.filePath("outside.mov");
    QVERIFY(writeFile(outsidePath, outside));
    QCOMPARE(runCli({ "--verify", outsidePath }, &out), 1);
    QCOMPARE(summaryOf(out, outsidePath),
        QString(
            "     %1: 2 tracks, 0 video frames, samples per sound track none, FAILED: track 0 chunk 0 at 0x0 "
            "(%2 bytes) lies outside 'mdat'")
            .arg(outsidePath)
            .arg(frame0));

    // The offsets rewritten as 'co64', the sound track's last one past the end of the file.
    QByteArray wide = AtomBytes::withChunkOffsets64(movie);
    const AtomWalker::Atom soundOffsets = AtomWalker::find(wide, "moov/trak:2/mdia/minf/stbl/co64");
    QVERIFY(soundOffsets.valid());
    const quint32 count = AtomWalker::be32(wide, soundOffsets.offset + 12);
    wide.replace(int(soundOffsets.offset + 16 + 8 * (count - 1)), 8, AtomBytes::u64(0x10000000000ull));
    const QString widePath = m_dir.filePath("wide.mov");
    QVERIFY(writeFile(widePath, wide));
    QCOMPARE(runCli({ "--verify", widePath }, &out), 1);
    const QString summary = summaryOf(out, widePath);
    QCOMPARE(summary,
        QString("     %1: 2 tracks, 0 video frames, samples per sound track none, FAILED: track 1 chunk %2 "
                "at 0x10000000000 (5760 bytes) lies past the end of the file (%3 bytes)")
            .arg(widePath)
            .arg(count - 1)
            .arg(wide.size()));
}

void TestVerify::filesThatAreNoFinishedMovieFail()
{
    const QString unfinished = m_dir.filePath("C001.zqv");
    QVERIFY(
        writeInterruptedRecording(unfinished, syntheticPlan(RecordingPlan::Tern, 31, 1, 1920, 31 * 1920)).ok);
    const QString missing = m_dir.filePath("missing.mov");
    QStringList out;
    QCOMPARE(runCli({ "--verify", unfinished, missing }, &out), 1);
    QCOMPARE(out.value(0), QString("!!!!!! didn't find a video track on import file !!!!!"));
    QCOMPARE(out.value(1),
        "     " + unfinished
            + ": 0 tracks, 0 video frames, samples per sound track none, FAILED: no video "
              "track: not a movie the reader can open");
    QVERIFY2(out.value(2).startsWith("     " + missing
                 + ": 0 tracks, 0 video frames, samples per sound track none, FAILED: cannot "
                   "be opened: "),
        qPrintable(out.value(2)));
    QCOMPARE(out.size(), 3);
}

// Bytes flipped anywhere in the index of a finished movie: every check ends, quickly, with a verdict.
void TestVerify::damagedIndexesEndWithinBounds()
{
    RecordingPlan recording = syntheticPlan(RecordingPlan::Tern, 31, 2, 1920, 31 * 1920 + 500);
    recording.firstChunkSamples = 1000;
    const QString finished = finishedMovie("D001", recording);
    QVERIFY(!finished.isEmpty());
    const QByteArray movie = readFile(finished);
    const AtomWalker::Atom moov = AtomWalker::find(movie, "moov");
    QVERIFY(moov.valid());
    const QString path = m_dir.filePath("damaged.mov");
    QRandomGenerator random(20240612);
    int verified = 0;
    QElapsedTimer timer;
    timer.start();
    const MessageCapture quiet(MessageCapture::Drop);
    for (int variant = 0; variant < 200; ++variant) {
        QByteArray damaged = movie;
        const int flips = 1 + int(random.bounded(6));
        for (int i = 0; i < flips; ++i) {
            const int at = int(moov.offset) + int(random.bounded(int(moov.size)));
            damaged[at] = char(damaged[at] ^ char(1 + random.bounded(255)));
        }
        if (!writeFile(path, damaged))
            break;
        const MovieVerification result = verifyMovie(path);
        QVERIFY(result.verified || !result.failure.isEmpty());
        verified += result.verified ? 1 : 0;
    }
    QVERIFY(verified < 200); // some damage is found
    QVERIFY2(timer.elapsed() < 60000, qPrintable(QString::number(timer.elapsed())));
}

void TestVerify::argumentsOfVerify()
{
    QStringList out;
    QString err;
    QCOMPARE(runCli({ "--verify" }, &out, &err), 2);
    QVERIFY(err.startsWith("clipward-cli: no FILE given\n"));
    QCOMPARE(runCli({ "--verify", "--scan-only", "x.mov" }, &out, &err), 2);
    QVERIFY(err.startsWith("clipward-cli: --verify and --scan-only cannot be combined\n"));
    QCOMPARE(runCli({ "--help" }, &out), 0);
    QVERIFY(out.contains("       clipward-cli --verify FILE..."));
}

void TestVerify::namesAreReportedVerbatim()
{
    // A '%' and a digit in the name are the name, not a place for the counts.
    const QString movie = finishedMovie("E001", syntheticPlan(RecordingPlan::Tern, 31, 1, 1920, 31 * 1920));
    QVERIFY(!movie.isEmpty());
    const QString odd = m_dir.filePath("x %5 %1.mov");
    QVERIFY(QFile::copy(movie, odd));
    QStringList out;
    QCOMPARE(runCli({ "--verify", odd }, &out), 0);
    QCOMPARE(out.last(),
        "     " + odd + ": 3 tracks, 31 video frames, samples per sound track 59520, verified");
}

void TestVerify::chunksOfUnknownTypeRaiseNoFalseAlarm()
{
    // A sound chunk of unknown type is not counted; the maker atom's list then ends one chunk before the
    // movie does, and the reader following it cannot reach the last one. The tables hold every chunk, and
    // verify goes by them.
    const QString folder = m_dir.filePath("U001");
    QVERIFY(QDir().mkpath(folder));
    const QString zqv = folder + "/U001.zqv";
    QVERIFY(writeInterruptedRecording(zqv, syntheticPlan(RecordingPlan::Tern, 31, 1, 1920, 31 * 1920)).ok);
    QVERIFY(markSoundChunkUnknown(zqv, 1));
    QStringList out;
    QCOMPARE(runCli({ folder }, &out), 0);
    const QString movie = folder + "/U001.mov";
    QCOMPARE(runCli({ "--verify", movie }, &out), 0);
    QCOMPARE(out.last(),
        "     " + movie + ": 3 tracks, 31 video frames, samples per sound track 57600, verified");
    if (MediaTools::available()) {
        bool ok = false;
        MediaTools::run(
            "ffmpeg", { "-v", "error", "-i", movie, "-map", "0", "-c", "copy", "-f", "null", "-" }, &ok);
        QVERIFY(ok);
    }
}

QTEST_GUILESS_MAIN(TestVerify)
#include "tst_verify.moc"
