// The Heron finalize procedure: movies and audio files of the older recorder, and their renaming.

#include "finalize/Finalize.h"
#include "simulate/RecordingSimulator.h"
#include "simulate/WavSimulator.h"
#include "support/AtomWalker.h"
#include "support/MediaTools.h"
#include "support/MessageCapture.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

using namespace TestSupport;

namespace {

WavPlan stereoWav(int samples)
{
    WavPlan plan;
    plan.channels = 2;
    plan.bitsPerSample = 24;
    plan.pcm = interleavePcm({syntheticPcm(0, samples, 3), syntheticPcm(1, samples, 3)}, 3);
    return plan;
}

RecordingPlan heronPlan(int frames)
{
    RecordingPlan plan;
    plan.family = RecordingPlan::Heron;
    plan.videoFramesPerChunk = 3;
    plan.audioSamplesPerChunk = 3072;
    plan.width = 1280;
    plan.height = 720;
    for (int i = 0; i < frames; ++i)
        plan.videoFrames << syntheticFrame(i, 2500);
    plan.audioTracks << syntheticPcm(0, frames * 1920, 3) << syntheticPcm(1, frames * 1920, 3);
    return plan;
}

} // namespace

class TestHeronFinalize : public QObject
{
    Q_OBJECT

private slots:
    void cutOffWavBecomesWavAndPlays();
    void brokenWavBecomesNraWithItsCode();
    void upperCaseAudioNameIsNotRenamed();
    void heronMovieBecomesMov();
    void heronMovieWithoutRecoveryDataBecomesNrv();
    void existingNrvIsNotReplaced();
    void unopenableMovieIsNotRenamed();
    void otherNamesAreLeftAlone();
    void upperCaseGivenUpNameCountsAsFinalized();
    void workBufferIsTheFrameMapStorage();
    void vanishedFilesAreNotCreated();
    void hostileTrackCountGivesTheMovieUp();
    void finishCutShortBeforeTheRenameIsRenamed();
};

void TestHeronFinalize::cutOffWavBecomesWavAndPlays()
{
    QTemporaryDir tmp;
    const QString zqa = tmp.filePath("B001.zqa");
    const WavPlan plan = stereoWav(48000 / 2);
    QVERIFY(writeWav(zqa, plan));
    const QByteArray before = readFile(zqa);

    const DriverRun run = runDriver({tmp.path()});
    const QString wav = tmp.filePath("B001.wav");
    QCOMPARE(run.lines, oneFileRunLines(tmp.path(), "Heron", {}, wav, "Finalized"));
    QCOMPARE(run.good, 1);
    QVERIFY(!QFile::exists(zqa));

    // Only the two size fields changed: they now say what the file holds.
    WavPlan sized = plan;
    sized.cutOff = false;
    const QByteArray after = readFile(wav);
    QCOMPARE(after, buildWav(sized));
    QCOMPARE(after.size(), before.size());

    if (!MediaTools::available())
        QSKIP("ffprobe is needed for the playback check");
    bool ok = false;
    const QByteArray probe = MediaTools::run(
        "ffprobe", {"-v", "error", "-show_entries", "format=duration:stream=channels,sample_rate", "-of",
                    "compact=p=0", wav},
        &ok);
    QVERIFY(ok);
    QCOMPARE(QString::fromLatin1(probe).split('\n', Qt::SkipEmptyParts),
             QStringList({"sample_rate=48000|channels=2", "duration=0.500000"}));
}

void TestHeronFinalize::brokenWavBecomesNraWithItsCode()
{
    QTemporaryDir tmp;
    const QString zqa = tmp.filePath("B001.zqa");
    QByteArray bytes = buildWav(stereoWav(1000));
    bytes.replace(0, 4, "RIFX");
    QVERIFY(writeFile(zqa, bytes));
    Finalize driver;
    QCOMPARE(driver.heronDoFinalize(zqa), 148u);
    QCOMPARE(driver.outputFileName, tmp.filePath("B001.nra"));
    QCOMPARE(readFile(tmp.filePath("B001.nra")), bytes);

    // Through the driver the code counts as a failure.
    QVERIFY(QFile::rename(tmp.filePath("B001.nra"), zqa));
    const DriverRun run = runDriver({tmp.path()});
    QCOMPARE(run.lines.last(), "     " + tmp.filePath("B001.nra") + " (Heron) Unrecoverable");
    QCOMPARE(run.bad, 1);
}

void TestHeronFinalize::upperCaseAudioNameIsNotRenamed()
{
    QTemporaryDir tmp;
    const QString path = tmp.filePath("B001.ZQA");
    QVERIFY(writeWav(path, stereoWav(1000)));
    const DriverRun run = runDriver({tmp.path()});
    QCOMPARE(run.lines.last(), "     " + path + " (Heron) Finalized");
    QVERIFY(QFile::exists(path));
    // Repaired in place all the same.
    WavPlan sized = stereoWav(1000);
    sized.cutOff = false;
    QCOMPARE(readFile(path), buildWav(sized));
}

void TestHeronFinalize::heronMovieBecomesMov()
{
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("B001.zqv");
    QVERIFY(writeInterruptedRecording(zqv, heronPlan(9)).ok);
    const DriverRun run = runDriver({tmp.path()});
    const QString mov = tmp.filePath("B001.mov");
    const QByteArray movie = readFile(mov);
    const AtomWalker::Atom moov = AtomWalker::find(movie, "moov");
    QVERIFY(moov.valid());
    // No per-table messages for Heron; the closing line names where the index went.
    QCOMPARE(run.lines, oneFileRunLines(tmp.path(), "Heron",
                                        {QString("Recorded FILE Last Position Start:%1 End:%2 Size:%3")
                                             .arg(moov.offset)
                                             .arg(moov.end())
                                             .arg(moov.size)},
                                        mov, "Finalized"));
    // The first atom still spans the whole reserved region; Heron tracks carry no edit lists.
    QCOMPARE(AtomWalker::be32(movie, 0), 5472240u);
    QVERIFY(!AtomWalker::find(movie, "moov/trak:2/edts").valid());
    QVERIFY(AtomWalker::find(movie, "moov/trak:2/mdia").valid());
}

void TestHeronFinalize::heronMovieWithoutRecoveryDataBecomesNrv()
{
    QTemporaryDir tmp;
    // A Heron start without the unfinished 'mdat' header: nothing to finish from.
    const QByteArray bytes = hex("00537ff0 66747970") + QByteArray(6000000, 'x');
    checkLeftUnrecoverable(tmp.filePath("B001.zqv"), bytes, "Heron", {}, tmp.filePath("B001.nrv"));
}

void TestHeronFinalize::existingNrvIsNotReplaced()
{
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("B001.zqv");
    const QString nrv = tmp.filePath("B001.nrv");
    QVERIFY(writeFile(zqv, hex("00537ff0 66747970") + QByteArray(100, 'x')));
    QVERIFY(writeFile(nrv, "older"));
    Finalize driver;
    QCOMPARE(driver.heronDoFinalize(zqv), 31u);
    QCOMPARE(driver.outputFileName, nrv);
    QCOMPARE(readFile(nrv), QByteArray("older"));
    QVERIFY(QFile::exists(zqv));
}

void TestHeronFinalize::unopenableMovieIsNotRenamed()
{
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("B001.zqv");
    QVERIFY(QDir().mkpath(zqv));
    Finalize driver;
    driver.outputFileName = "previous";
    QCOMPARE(driver.heronDoFinalize(zqv), 31u);
    QCOMPARE(driver.outputFileName, QString("previous"));
    QCOMPARE(driver.isTern, 0);
    QVERIFY(QFileInfo(zqv).isDir());
}

void TestHeronFinalize::otherNamesAreLeftAlone()
{
    QTemporaryDir tmp;
    const QString path = tmp.filePath("notes.txt");
    QVERIFY(writeFile(path, "x"));
    Finalize driver;
    QCOMPARE(driver.heronDoFinalize(path), 0u);
    QVERIFY(driver.outputFileName.isEmpty());
}

void TestHeronFinalize::upperCaseGivenUpNameCountsAsFinalized()
{
    // "clip.NRV" is not a given-up name to the case-sensitive check; the Heron procedure does nothing
    // with it and reports success, and the line shows the driver's previous name (here, none).
    QTemporaryDir tmp;
    QVERIFY(writeFile(tmp.filePath("clip.NRV"), "x"));
    const DriverRun run = runDriver({tmp.path()});
    QCOMPARE(run.lines, oneFileRunLines(tmp.path(), "Heron", {}, tmp.path(), "Finalized"));
    QCOMPARE(run.good, 1);
    QCOMPARE(readFile(tmp.filePath("clip.NRV")), QByteArray("x"));
}

void TestHeronFinalize::workBufferIsTheFrameMapStorage()
{
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("B001.zqv");
    QVERIFY(writeInterruptedRecording(zqv, heronPlan(6)).ok);
    Finalize driver;
    QCOMPARE(driver.heronDoFinalize(zqv), 0u);
    // The map was read into the driver's buffer: frames of 2,500 bytes (5 blocks + 2 trailer blocks),
    // full sound chunks of 3,072 samples x 2 tracks x 3 bytes (36 blocks), and last of the 11 entries
    // the timecode sample appended at close (0x8001).
    QCOMPARE(driver.workBuffer[0], quint16(0x4007));
    QCOMPARE(driver.workBuffer[3], quint16(0x0024));
    QCOMPARE(driver.workBuffer[10], quint16(0x8001));
}

void TestHeronFinalize::vanishedFilesAreNotCreated()
{
    QTemporaryDir tmp;
    Finalize driver;
    QCOMPARE(driver.heronDoFinalize(tmp.filePath("B001.zqv")), 31u);
    QCOMPARE(driver.heronDoFinalize(tmp.filePath("B001.zqa")), 31u);
    QCOMPARE(driver.getFileType(tmp.filePath("A001.zqv")), 2);
    QCOMPARE(QDir(tmp.path()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries), QStringList());
}

void TestHeronFinalize::hostileTrackCountGivesTheMovieUp()
{
    // Heron does not check its settings, but no index is built for two billion sound tracks.
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("B001.zqv");
    QVERIFY(writeInterruptedRecording(zqv, heronPlan(9)).ok);
    QByteArray bytes = readFile(zqv);
    qToLittleEndian<quint32>(0x7FFFFFF0u, reinterpret_cast<uchar*>(bytes.data()) + 20 + 24);
    QVERIFY(writeFile(zqv, bytes));
    Finalize driver;
    QCOMPARE(driver.heronDoFinalize(zqv), 31u);
    QCOMPARE(readFile(tmp.filePath("B001.nrv")), bytes);
}

void TestHeronFinalize::finishCutShortBeforeTheRenameIsRenamed()
{
    // The finished movie under its in-progress name, as a finish killed before the rename leaves it, is
    // renamed after the reader has checked it, not given up.
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("B001.zqv");
    const QString mov = tmp.filePath("B001.mov");
    QVERIFY(writeInterruptedRecording(zqv, heronPlan(9)).ok);
    runDriver({tmp.path()});
    const QByteArray finished = readFile(mov);
    QVERIFY(QFile::rename(mov, zqv));

    const DriverRun run = runDriver({tmp.path()});
    QCOMPARE(run.lines, oneFileRunLines(tmp.path(), "Heron", {}, mov, "Finalized"));
    QCOMPARE(run.good, 1);
    QCOMPARE(readFile(mov), finished);
}

QTEST_GUILESS_MAIN(TestHeronFinalize)
#include "tst_heron_finalize.moc"
