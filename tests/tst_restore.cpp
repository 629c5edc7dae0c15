// clipward-cli --restore: a movie Clipward finished (in either form) goes back to the exact file its
// recorder left, under its in-progress name, and finishes again to the same bytes; a file Clipward gave up
// only gets its name back; everything else is refused and left as it is.

#include "finalize/RecordingLock.h"
#include "simulate/WavSimulator.h"
#include "support/MixedCard.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

using namespace TestSupport;

namespace {

RecordingPlan restorePlan(int family, bool storeEnd, int tornBytes)
{
    RecordingPlan plan = moviePlan(RecordingPlan::Family(family), 36, 2);
    plan.storeRecordedEndPosition = storeEnd;
    plan.tornTailBytes = tornBytes;
    return plan;
}

// The folder's file names, sorted.
QStringList namesIn(const QString& folder)
{
    return QDir(folder).entryList(QDir::Files, QDir::Name);
}

} // namespace

class TestRestore : public QObject
{
    Q_OBJECT

private slots:
    void finishedMovieComesBackByteForByte_data();
    void finishedMovieComesBackByteForByte();
    void restoreCutShortIsCompleted_data();
    void restoreCutShortIsCompleted();
    void tornChunkPastTheRecordedEndIsNotBroughtBack();
    void tornChunkLongerThanTheIndexIsRefused();
    void givenUpFilesGetTheirNamesBack();
    void mixedCardAfterItsFinish();
    void refusalsLeaveEveryFileAsItIs();
    void fileHeldByAnotherRunIsLeft();
    void fileThatCannotBeWrittenIsLeft();
};

void TestRestore::finishedMovieComesBackByteForByte_data()
{
    QTest::addColumn<int>("family");
    QTest::addColumn<bool>("storeEnd");
    QTest::addColumn<int>("tornBytes");
    QTest::addColumn<bool>("interchange");
    for (const int family : {int(RecordingPlan::Tern), int(RecordingPlan::Heron)}) {
        const QString name = family == RecordingPlan::Tern ? "Tern" : "Heron";
        for (const bool interchange : {false, true}) {
            const QString form = interchange ? "interchange" : "recorder's form";
            QTest::addRow("%s, recorded end, %s", qPrintable(name), qPrintable(form))
                << family << true << 0 << interchange;
            QTest::addRow("%s, end from the file size, %s", qPrintable(name), qPrintable(form))
                << family << false << 0 << interchange;
            QTest::addRow("%s, torn chunk inside the media, %s", qPrintable(name), qPrintable(form))
                << family << false << 4321 << interchange;
        }
    }
}

void TestRestore::finishedMovieComesBackByteForByte()
{
    QFETCH(int, family);
    QFETCH(bool, storeEnd);
    QFETCH(int, tornBytes);
    QFETCH(bool, interchange);
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A001.zqv");
    const QString mov = tmp.filePath("A001.mov");
    QVERIFY(writeInterruptedRecording(zqv, restorePlan(family, storeEnd, tornBytes)).ok);
    const QByteArray original = readFile(zqv);
    const QStringList finishArgs =
        interchange ? QStringList{"--interchange", tmp.path()} : QStringList{tmp.path()};
    QStringList out;
    QCOMPARE(runCli(finishArgs, &out), 0);
    const QByteArray finished = readFile(mov);
    QVERIFY(finished.size() > original.size());

    QCOMPARE(runCli({"--restore", mov}, &out), 0);
    QCOMPARE(out, QStringList({"     " + mov + " restored as " + zqv + ".", " ", "1 file(s) restored."}));
    QCOMPARE(namesIn(tmp.path()), QStringList{"A001.zqv"});
    QVERIFY(readFile(zqv) == original);

    // Finished again, in the same form, it is the same movie.
    QCOMPARE(runCli(finishArgs, &out), 0);
    QVERIFY(readFile(mov) == finished);
}

void TestRestore::restoreCutShortIsCompleted_data()
{
    QTest::addColumn<int>("family");
    QTest::addColumn<int>("step");
    const auto tern = int(RecordingPlan::Tern);
    const auto heron = int(RecordingPlan::Heron);
    QTest::newRow("Tern, index cut off") << tern << 1;
    QTest::newRow("Tern, header opened") << tern << 2;
    QTest::newRow("Heron, timecode sample and index cut off") << heron << 1;
    QTest::newRow("Heron, header opened") << heron << 2;
}

void TestRestore::restoreCutShortIsCompleted()
{
    // What a restore killed between its steps leaves under the finished name: the file cut back to the
    // media in one truncation (Heron's appended timecode sample goes with the index) with the header still
    // closed, or the recorder's file whole. The next restore finishes the job.
    QFETCH(int, family);
    QFETCH(int, step);
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A001.zqv");
    const QString mov = tmp.filePath("A001.mov");
    const RecordingResult recording = writeInterruptedRecording(zqv, restorePlan(family, true, 0));
    QVERIFY(recording.ok);
    const QByteArray original = readFile(zqv);
    QStringList out;
    QCOMPARE(runCli({tmp.path()}, &out), 0);
    const QByteArray finished = readFile(mov);

    const qint64 mediaEnd = qint64(recording.recordedEndPosition);
    const QByteArray left = step == 2 ? original : finished.left(int(mediaEnd));
    QVERIFY(left.left(int(mediaEnd)) != original.left(int(mediaEnd)) || step == 2);
    QVERIFY(writeFile(mov, left));
    QVERIFY(QFile::remove(zqv) || !QFile::exists(zqv));

    QCOMPARE(runCli({"--restore", mov}, &out), 0);
    QCOMPARE(out.first(), "     " + mov + " restored as " + zqv + ".");
    QCOMPARE(namesIn(tmp.path()), QStringList{"A001.zqv"});
    QVERIFY(readFile(zqv) == original);
}

void TestRestore::tornChunkPastTheRecordedEndIsNotBroughtBack()
{
    // With a recorded end the finish writes its index where the media end, over the chunk the recorder had
    // begun past it. Nothing in the finished movie tells of those bytes: the restore gives back the
    // recording as the finish took it, which finishes again to the same movie.
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A001.zqv");
    const QString mov = tmp.filePath("A001.mov");
    for (const int family : {int(RecordingPlan::Tern), int(RecordingPlan::Heron)}) {
        QVERIFY(writeInterruptedRecording(zqv, restorePlan(family, true, 0)).ok);
        const QByteArray withoutTornChunk = readFile(zqv);
        QVERIFY(writeInterruptedRecording(zqv, restorePlan(family, true, 3000)).ok);
        QCOMPARE(readFile(zqv).size(), withoutTornChunk.size() + 3000);
        QStringList out;
        QCOMPARE(runCli({tmp.path()}, &out), 0);
        const QByteArray finished = readFile(mov);
        QCOMPARE(runCli({"--restore", mov}, &out), 0);
        QVERIFY(readFile(zqv) == withoutTornChunk);
        QCOMPARE(runCli({tmp.path()}, &out), 0);
        QVERIFY(readFile(mov) == finished);
        QVERIFY(QFile::remove(mov));
    }
}

void TestRestore::tornChunkLongerThanTheIndexIsRefused()
{
    // Part of the torn chunk is still there behind the finish's zero block: the movie cannot be the
    // recorder's file again, nor finish again to the same bytes without it.
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A001.zqv");
    const QString mov = tmp.filePath("A001.mov");
    for (const int family : {int(RecordingPlan::Tern), int(RecordingPlan::Heron)}) {
        const RecordingResult recording = writeInterruptedRecording(zqv, restorePlan(family, true, 2000000));
        QVERIFY(recording.ok);
        const QByteArray original = readFile(zqv);
        QStringList out;
        QCOMPARE(runCli({tmp.path()}, &out), 0);
        const QByteArray finished = readFile(mov);
        QCOMPARE(finished.size(), original.size());
        QVERIFY(finished.right(1000000) == original.right(1000000));

        QCOMPARE(runCli({"--restore", mov}, &out), 1);
        QCOMPARE(out, QStringList({"     " + mov
                                       + " not restored: its finish wrote the index over bytes the recorder "
                                         "left past the recording's end, and those cannot be put back.",
                                   " ", "1 file(s) not restored.", "0 file(s) restored."}));
        QCOMPARE(namesIn(tmp.path()), QStringList{"A001.mov"});
        QVERIFY(readFile(mov) == finished);
        QVERIFY(QFile::remove(mov));
    }
}

void TestRestore::givenUpFilesGetTheirNamesBack()
{
    // Clipward writes nothing into a file it gives up: the name is all there is to take back, and the next
    // run gives the file up again, byte for byte the same.
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A001.zqv");
    RecordingPlan tooShort = moviePlan(RecordingPlan::Tern, 20, 0);
    tooShort.videoFramesPerChunk = 1; // 20 frames and a timecode sample: fewer chunks than a finish needs
    QVERIFY(writeInterruptedRecording(zqv, tooShort).ok);
    const QByteArray recording = readFile(zqv);
    const QString zqa = tmp.filePath("B001.zqa");
    WavPlan wav;
    wav.pcm = interleavePcm({syntheticPcm(0, 4800, 3)}, 3);
    QByteArray brokenWav = buildWav(wav);
    brokenWav.replace(8, 4, "AVI ");
    QVERIFY(writeFile(zqa, brokenWav));
    QStringList out;
    QCOMPARE(runCli({tmp.path()}, &out), 1);
    QCOMPARE(namesIn(tmp.path()), QStringList({"A001.nrv", "B001.nra"}));

    const QString nrv = tmp.filePath("A001.nrv");
    const QString nra = tmp.filePath("B001.nra");
    QCOMPARE(runCli({"--restore", nrv, nra}, &out), 0);
    QCOMPARE(out, QStringList({"     " + nrv + " restored as " + zqv + ".",
                               "     " + nra + " restored as " + zqa + ".", " ", "2 file(s) restored."}));
    QVERIFY(readFile(zqv) == recording);
    QVERIFY(readFile(zqa) == brokenWav);
    QCOMPARE(runCli({tmp.path()}, &out), 1);
    QVERIFY(readFile(nrv) == recording);
}

void TestRestore::mixedCardAfterItsFinish()
{
    // Every file the finish of the mixed card left, restored at once: the two movies and the files given
    // up come back; the repaired WAV is refused, and so are the files that are no recording.
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(writeMixedCard(card));
    const QMap<QString, QByteArray> before = snapshotTree(card);
    QStringList out;
    QCOMPARE(runCli({card}, &out), 1);
    const QString clips = card + "/DCIM/100CLIPS/";
    const QString old = card + "/DCIM/099CLIPS/";
    const QString audio = card + "/AUDIO/";
    const QStringList files{clips + "A001C001.mov", clips + "A001C002.nrv", old + "B001C001.mov",
                            old + "B001C000.nrv", old + "notes.txt", audio + "B001T001.wav",
                            audio + "B001T002.nra", audio + "B001T000.nra"};
    const QByteArray repairedWav = readFile(audio + "B001T001.wav");
    QCOMPARE(runCli(QStringList{"--restore"} + files, &out), 1);
    QCOMPARE(out, QStringList({
        "     " + clips + "A001C001.mov restored as " + clips + "A001C001.zqv.",
        "     " + clips + "A001C002.nrv restored as " + clips + "A001C002.zqv.",
        "     " + old + "B001C001.mov restored as " + old + "B001C001.zqv.",
        "     " + old + "B001C000.nrv restored as " + old + "B001C000.zqv.",
        "     " + old + "notes.txt not restored: Clipward gives no finished or given-up file such a name.",
        "     " + audio + "B001T001.wav not restored: the sizes a WAV held before its finish are not kept, "
                          "so the recorder's file cannot be known exactly.",
        "     " + audio + "B001T002.nra restored as " + audio + "B001T002.zqa.",
        "     " + audio + "B001T000.nra restored as " + audio + "B001T000.zqa.",
        " ", "2 file(s) not restored.", "6 file(s) restored."}));

    QMap<QString, QByteArray> expected = before;
    expected.remove("AUDIO/B001T001.zqa");
    expected.insert("AUDIO/B001T001.wav", repairedWav);
    expected.insert("DCIM/099CLIPS/B001C000.zqv", expected.take("DCIM/099CLIPS/B001C000.nrv"));
    expected.insert("AUDIO/B001T000.zqa", expected.take("AUDIO/B001T000.nra"));
    QVERIFY(snapshotTree(card) == expected);
}

void TestRestore::refusalsLeaveEveryFileAsItIs()
{
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A001.zqv");
    QVERIFY(writeInterruptedRecording(zqv, restorePlan(RecordingPlan::Tern, true, 0)).ok);
    QStringList out;
    QCOMPARE(runCli({tmp.path()}, &out), 0);
    // A finished movie whose recording is back under its in-progress name: the name is taken.
    const QString taken = tmp.filePath("A001.mov");
    QVERIFY(writeInterruptedRecording(zqv, restorePlan(RecordingPlan::Tern, true, 0)).ok);
    // Bytes of no recording, a recording under its in-progress name, and a movie Clipward did not write
    // (the finished movie with its maker atom's name changed).
    const QString random = tmp.filePath("random.mov");
    QByteArray noise(6000000, '\0');
    for (int i = 0; i < noise.size(); ++i)
        noise[i] = char((quint32(i) * 7919u) >> 3);
    QVERIFY(writeFile(random, noise));
    const QString other = tmp.filePath("C001.mov");
    QByteArray foreign = readFile(taken);
    const int maker = foreign.lastIndexOf("hldn");
    QVERIFY(maker > 0);
    foreign.replace(maker, 4, "xxxx");
    QVERIFY(writeFile(other, foreign));
    const QString missing = tmp.filePath("missing.mov");
    const QMap<QString, QByteArray> before = snapshotTree(tmp.path());

    QCOMPARE(runCli({"--restore", taken, random, zqv, other, missing}, &out), 1);
    QCOMPARE(out, QStringList({
        "     " + taken + " not restored: " + zqv + " already exists.",
        "     " + random + " not restored: Clipward did not finish this movie.",
        "     " + zqv + " not restored: Clipward gives no finished or given-up file such a name.",
        "     " + other + " not restored: Clipward did not finish this movie.",
        "     " + missing + " not restored: there is no such file.",
        " ", "5 file(s) not restored.", "0 file(s) restored."}));
    QVERIFY(snapshotTree(tmp.path()) == before);

    QString err;
    QCOMPARE(runCli({"--restore"}, &out, &err), 2);
    QVERIFY(err.contains("no FILE given"));
    QCOMPARE(runCli({"--restore", "--json", taken}, &out, &err), 2);
    QVERIFY(snapshotTree(tmp.path()) == before);
}

void TestRestore::fileHeldByAnotherRunIsLeft()
{
    QTemporaryDir tmp;
    const QString mov = tmp.filePath("A001.mov");
    QVERIFY(writeInterruptedRecording(tmp.filePath("A001.zqv"), restorePlan(RecordingPlan::Heron, true, 0)).ok);
    QStringList out;
    QCOMPARE(runCli({tmp.path()}, &out), 0);
    const QByteArray finished = readFile(mov);
    {
        const RecordingLock held(mov, RecordingLock::Mode::Shared);
        QVERIFY(held.held());
        QCOMPARE(runCli({"--restore", mov}, &out), 3);
        QCOMPARE(out, QStringList({"     " + mov + " in use by another run, left as it is", " ",
                                   "1 file(s) left as they are.", "0 file(s) restored."}));
    }
    QVERIFY(readFile(mov) == finished);
    QCOMPARE(runCli({"--restore", mov}, &out), 0);
}

void TestRestore::fileThatCannotBeWrittenIsLeft()
{
    if (!canRunCliUnprivileged())
        QSKIP("no way to run the program as a user whom file permissions stop");
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(QDir().mkpath(card));
    const QString mov = card + "/A001.mov";
    QVERIFY(writeInterruptedRecording(card + "/A001.zqv", restorePlan(RecordingPlan::Tern, true, 0)).ok);
    QStringList out;
    QCOMPARE(runCli({card}, &out), 0);
    const QByteArray finished = readFile(mov);
    const auto readable = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup
                        | QFileDevice::ReadOther;
    const auto enterable = readable | QFileDevice::ExeOwner | QFileDevice::ExeGroup | QFileDevice::ExeOther;
    QVERIFY(QFile::setPermissions(tmp.path(), enterable));
    QVERIFY(QFile::setPermissions(card, enterable));
    QVERIFY(QFile::setPermissions(mov, readable));
    QCOMPARE(runCliUnprivileged({"--restore", mov}, &out), 3);
    QCOMPARE(out, QStringList({"     " + mov + " not restored: no permission to write it.", " ",
                               "1 file(s) left as they are.", "0 file(s) restored."}));
    QVERIFY(readFile(mov) == finished);
    QCOMPARE(namesIn(card), QStringList{"A001.mov"});
}

QTEST_GUILESS_MAIN(TestRestore)
#include "tst_restore.moc"
