// The interchange finish (clipward-cli --interchange): the start timecode as the frame number readers
// count, the index of both families in that form (the sound descriptions, the finish's own timecode
// sample, an edit list on every track, each track as long as its own media), the same report and names
// as the default finish, a cut-off WAV's sizes in whole sample frames, and the rewrite of movies finished
// earlier in the recorder's form.

#include "audio/AudioFile.h"
#include "movie/QuickTimeFile.h"
#include "simulate/RecordingSimulator.h"
#include "simulate/WavSimulator.h"
#include "support/AtomWalker.h"
#include "support/MediaTools.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

using namespace TestSupport;
using AtomWalker::Atom;
using AtomWalker::be32;
using AtomWalker::be64;
using AtomWalker::find;

namespace {

const qint64 kDatPos = 5472240;
const qint64 kMediaStart = 5472256;
const int kTimecodeSampleBytes = 512;
// 25 frames a second: a time scale of 2,500 and 100 units a frame.
const quint32 kMovieTimeScale = 2500;
const quint32 kFrameDuration = 100;
const quint32 kSampleRate = 48000;

// A recording with two sound tracks of `samples` samples each. Heron's recorder always writes 3 frames
// and 3,072 samples a chunk; Tern's chunks here hold 1,920.
RecordingPlan plan(RecordingPlan::Family family, int frames, int samples, int bytesPerSample)
{
    RecordingPlan p;
    p.family = family;
    p.audioSamplesPerChunk = family == RecordingPlan::Heron ? 3072 : 1920;
    p.audioBytesPerSample = quint32(bytesPerSample);
    p.width = 1280;
    p.height = 720;
    for (int i = 0; i < frames; ++i)
        p.videoFrames << syntheticFrame(i, 1500 + 13 * i);
    p.audioTracks << syntheticPcm(0, samples, bytesPerSample) << syntheticPcm(1, samples, bytesPerSample);
    return p;
}

// A recording cut off as power failing leaves it: a chunk torn at the end, past the last commit.
RecordingPlan tornPlan(RecordingPlan::Family family, bool storeEnd)
{
    RecordingPlan p = plan(family, 45, 45 * 1920, 3);
    p.storeRecordedEndPosition = storeEnd;
    p.tornTailBytes = 3000;
    return p;
}

QStringList cliArgs(const QString& path, bool interchange)
{
    return interchange ? QStringList{"--interchange", path} : QStringList{path};
}

// Writes the recording as CARD/A001.zqv and finishes the card; the finished movie, or nothing.
QByteArray finishedMovie(const QString& card, const RecordingPlan& p, bool interchange)
{
    if (!QDir().mkpath(card) || !writeInterruptedRecording(card + "/A001.zqv", p).ok)
        return QByteArray();
    QStringList out;
    if (runCli(cliArgs(card, interchange), &out) != 0)
        return QByteArray();
    return readFile(card + "/A001.mov");
}

QString trak(int track, const char* below)
{
    return QString("moov/trak:%1/%2").arg(track).arg(below);
}

int trackCount(const QByteArray& movie)
{
    const Atom moov = find(movie, "moov");
    int count = 0;
    for (const Atom& atom : AtomWalker::children(movie, moov.payload(), moov.end()))
        count += atom.type == AtomWalker::code("trak") ? 1 : 0;
    return count;
}

// The media handler's subtype of a track: "tmcd", "vide", "soun".
QByteArray handlerOf(const QByteArray& movie, int track)
{
    const Atom hdlr = find(movie, trak(track, "mdia/hdlr"));
    return hdlr.valid() ? movie.mid(int(hdlr.payload() + 8), 4) : QByteArray();
}

QList<int> tracksOf(const QByteArray& movie, const QByteArray& handler)
{
    QList<int> tracks;
    for (int t = 1; t <= trackCount(movie); ++t) {
        if (handlerOf(movie, t) == handler)
            tracks << t;
    }
    return tracks;
}

// Fields of the version 0 atoms, by their offset in the payload.
quint32 field(const QByteArray& movie, const QString& path, int offset)
{
    const Atom atom = find(movie, path);
    return atom.valid() ? be32(movie, atom.payload() + offset) : 0xFFFFFFFFu;
}

quint32 trackDuration(const QByteArray& movie, int track)
{
    return field(movie, trak(track, "tkhd"), 20);
}

quint32 editDuration(const QByteArray& movie, int track)
{
    return field(movie, trak(track, "edts/elst"), 8);
}

QByteArray soundFormat(const QByteArray& movie, int track)
{
    const Atom stsd = find(movie, trak(track, "mdia/minf/stbl/stsd"));
    return stsd.valid() ? movie.mid(int(stsd.payload() + 12), 4) : QByteArray();
}

// Where the 'mdat' atom ends: its 64-bit size, from the header the finish closed.
qint64 movieDataEnd(const QByteArray& movie)
{
    if (be32(movie, kDatPos) != 1 || movie.mid(int(kDatPos + 4), 4) != "mdat")
        return -1;
    return kDatPos + qint64(be64(movie, kDatPos + 8));
}

// The report of a run with what differs between two finishes of the same files masked: the positions
// in parentheses, the index's place in the "Recorded FILE Last Position" lines, and the card's folder.
QStringList comparable(QStringList lines, const QString& card)
{
    const QRegularExpression inParentheses("\\([0-9A-Fa-f]+\\)");
    const QRegularExpression indexPlace("Start:\\d+ End:\\d+ Size:\\d+");
    for (QString& line : lines) {
        line.replace(card, "CARD");
        line.replace(inParentheses, "(#)");
        line.replace(indexPlace, "Start:# End:# Size:#");
    }
    return lines;
}

QStringList fileNames(const QString& card)
{
    return QDir(card).entryList(QDir::Files, QDir::Name);
}

// ---- Cut-off WAV files ----

// 'RIFF' 12, 'fmt ' 24, 'bext' 610, the simulator's 512-byte iXML 520, the 'data' header 8.
const qint64 kWavDataStart = 1174;

// A WAV cut off mid-take (both sizes 0): `frames` whole sample frames, then `stray`, the bytes of a frame
// the recorder did not finish.
QByteArray cutOffWav(int channels, int bits, int frames, const QByteArray& stray)
{
    WavPlan p;
    p.channels = channels;
    p.bitsPerSample = bits;
    const int bytesPerSample = (bits + 7) / 8;
    QVector<QByteArray> pcm;
    for (int c = 0; c < channels; ++c)
        pcm << syntheticPcm(c, frames, bytesPerSample);
    p.pcm = interleavePcm(pcm, bytesPerSample) + stray;
    return buildWav(p);
}

// The file after AudioFile has repaired its sizes, in whole frames or to the end of the file.
QByteArray repairedWav(const QString& path, const QByteArray& bytes, bool wholeFrames)
{
    if (!writeFile(path, bytes))
        return QByteArray();
    {
        QFile file(path);
        if (!file.open(QIODevice::ReadWrite))
            return QByteArray();
        AudioFile audio(file);
        if (audio.ReadAudioFileInfo() != AudioFile::s_resultOk || audio.dataStart() != kWavDataStart)
            return QByteArray();
        const unsigned int result = wholeFrames ? audio.VerifyHeaderInWholeFrames() : audio.VerifyHeader();
        if (result != AudioFile::s_resultOk)
            return QByteArray();
    }
    return readFile(path);
}

} // namespace

class TestInterchange : public QObject
{
    Q_OBJECT

private slots:
    void timecodeFrameNumbers_data();
    void timecodeFrameNumbers();
    void indexOfTheInterchangeForm_data();
    void indexOfTheInterchangeForm();
    void sameLinesAndNamesAsTheDefaultFinish();
    void wavSizesInWholeFrames_data();
    void wavSizesInWholeFrames();
    void rewriteOfFinishedMovies_data();
    void rewriteOfFinishedMovies();
    void rewriteRefusesWhatClipwardDidNotFinish();
};

void TestInterchange::timecodeFrameNumbers_data()
{
    QTest::addColumn<quint32>("timecode");
    QTest::addColumn<quint32>("framesPerSecond");
    QTest::addColumn<bool>("dropFrame");
    QTest::addColumn<quint32>("frameNumber");
    QTest::newRow("00:00:00:00 at 25") << 0x00000000u << 25u << false << 0u;
    QTest::newRow("01:00:00:00 at 25") << 0x01000000u << 25u << false << 90000u;
    QTest::newRow("10:00:00:00 at 24") << 0x0A000000u << 24u << false << 864000u;
    QTest::newRow("01:00:00:00 at 60") << 0x01000000u << 60u << false << 216000u;
    // Drop-frame counting skips the first 2 numbers of each minute (4 at 60) but every tenth minute's.
    QTest::newRow("00:00:59;29 at 30") << 0x00003B1Du << 30u << true << 1799u;
    QTest::newRow("00:01:00;02 at 30") << 0x00010002u << 30u << true << 1800u;
    QTest::newRow("00:10:00;00 at 30") << 0x000A0000u << 30u << true << 17982u;
    QTest::newRow("01:00:00;00 at 30") << 0x01000000u << 30u << true << 107892u;
    QTest::newRow("23:59:59;29 at 30") << 0x173B3B1Du << 30u << true << 2589407u;
    QTest::newRow("00:01:00;04 at 60") << 0x00010004u << 60u << true << 3600u;
    QTest::newRow("01:00:00;00 at 60") << 0x01000000u << 60u << true << 215784u;
}

void TestInterchange::timecodeFrameNumbers()
{
    QFETCH(quint32, timecode);
    QFETCH(quint32, framesPerSecond);
    QFETCH(bool, dropFrame);
    QFETCH(quint32, frameNumber);
    QCOMPARE(Tern::QuickTimeFile::timecodeFrameNumber(timecode, framesPerSecond, dropFrame), frameNumber);
}

void TestInterchange::indexOfTheInterchangeForm_data()
{
    QTest::addColumn<int>("family");
    QTest::addColumn<int>("bytesPerSample");
    QTest::addColumn<int>("samples");
    QTest::addColumn<quint32>("soundDuration"); // in the movie's time scale, rounded up
    QTest::addColumn<QByteArray>("interchangeFormat");
    QTest::addColumn<QByteArray>("recorderFormat");
    const int tern = int(RecordingPlan::Tern);
    const int heron = int(RecordingPlan::Heron);
    const QByteArray twos("twos"), sowt("sowt"), in24("in24"), in32("in32"), lpcm("lpcm");
    // 36 frames (1.44 s) and 2.5 s of sound or about that: the sound outlasts the picture, and the
    // counts that are not whole units of the movie's time scale are rounded up.
    QTest::newRow("Tern, 16-bit") << tern << 2 << 120000 << 6250u << sowt << twos;
    QTest::newRow("Tern, 24-bit") << tern << 3 << 120001 << 6251u << in24 << in24;
    QTest::newRow("Tern, 32-bit") << tern << 4 << 121111 << 6308u << lpcm << in32;
    QTest::newRow("Heron, 16-bit") << heron << 2 << 120000 << 6250u << sowt << twos;
    QTest::newRow("Heron, 24-bit") << heron << 3 << 122881 << 6401u << in24 << in24;
    QTest::newRow("Heron, 32-bit") << heron << 4 << 119999 << 6250u << lpcm << in32;
}

void TestInterchange::indexOfTheInterchangeForm()
{
    QFETCH(int, family);
    QFETCH(int, bytesPerSample);
    QFETCH(int, samples);
    QFETCH(quint32, soundDuration);
    QFETCH(QByteArray, interchangeFormat);
    QFETCH(QByteArray, recorderFormat);
    const auto kind = RecordingPlan::Family(family);
    const int frames = 36;
    const RecordingPlan p = plan(kind, frames, samples, bytesPerSample);
    QTemporaryDir tmp;
    const QByteArray movie = finishedMovie(tmp.filePath("interchange"), p, true);
    QVERIFY(!movie.isEmpty());

    QCOMPARE(trackCount(movie), 4);
    const QList<int> timecode = tracksOf(movie, "tmcd");
    const QList<int> video = tracksOf(movie, "vide");
    const QList<int> sound = tracksOf(movie, "soun");
    QCOMPARE(timecode, QList<int>{1});
    QCOMPARE(video, QList<int>{2});
    QCOMPARE(sound, QList<int>({3, 4}));

    // Durations: the picture its frames, each sound track its samples rounded up to the movie's time
    // scale, the movie and its timecode the longest.
    const quint32 pictureDuration = frames * kFrameDuration;
    QCOMPARE(pictureDuration, 3600u);
    const quint32 movieDuration = qMax(pictureDuration, soundDuration);
    QVERIFY(soundDuration > pictureDuration);
    QCOMPARE(field(movie, "moov/mvhd", 12), kMovieTimeScale);
    QCOMPARE(field(movie, "moov/mvhd", 16), movieDuration);
    for (int t = 1; t <= 4; ++t) {
        QVERIFY2(find(movie, trak(t, "edts/elst")).valid(), qPrintable(QString("track %1").arg(t)));
        QCOMPARE(field(movie, trak(t, "edts/elst"), 4), 1u); // one edit
        QCOMPARE(field(movie, trak(t, "edts/elst"), 12), 0u); // from the media's start
        QCOMPARE(field(movie, trak(t, "edts/elst"), 16), 0x00010000u); // at normal rate
    }
    QCOMPARE(trackDuration(movie, 1), movieDuration);
    QCOMPARE(editDuration(movie, 1), movieDuration);
    QCOMPARE(trackDuration(movie, 2), pictureDuration);
    QCOMPARE(editDuration(movie, 2), pictureDuration);
    for (int t : sound) {
        QCOMPARE(trackDuration(movie, t), soundDuration);
        QCOMPARE(editDuration(movie, t), soundDuration);
        QCOMPARE(field(movie, trak(t, "mdia/mdhd"), 12), kSampleRate);
        QCOMPARE(field(movie, trak(t, "mdia/mdhd"), 16), quint32(samples));
        QCOMPARE(soundFormat(movie, t), interchangeFormat);
    }

    // The timecode track lists one 4-byte sample: the frame number of 01:00:00:00 at 25 a second, in the
    // 512 bytes the finish appended to the media right before the index.
    const QString stbl = trak(1, "mdia/minf/stbl");
    QCOMPARE(field(movie, stbl + "/stsz", 4), 4u);
    QCOMPARE(field(movie, stbl + "/stsz", 8), 1u);
    QCOMPARE(field(movie, stbl + "/co64", 4), 1u);
    const qint64 mediaEnd = movieDataEnd(movie);
    QVERIFY(mediaEnd > kMediaStart);
    const Atom co64 = find(movie, stbl + "/co64");
    const qint64 sampleAt = qint64(be64(movie, co64.payload() + 8));
    QCOMPARE(sampleAt, mediaEnd - kTimecodeSampleBytes);
    QCOMPARE(be32(movie, sampleAt), 90000u);
    const int zeros = kTimecodeSampleBytes - 4;
    QCOMPARE(movie.mid(int(sampleAt + 4), zeros), QByteArray(zeros, '\0'));
    if (kind == RecordingPlan::Tern)
        QCOMPARE(be32(movie, kMediaStart), 0x01000000u); // the recorder's own sample, kept as it was

    // The default finish of the same recording keeps the recorder's sound descriptions, its packed
    // timecode word, and Heron's index without edit lists.
    const QByteArray recorder = finishedMovie(tmp.filePath("recorder"), p, false);
    QVERIFY(!recorder.isEmpty());
    QCOMPARE(trackCount(recorder), 4);
    QCOMPARE(tracksOf(recorder, "soun"), sound);
    for (int t = 1; t <= 4; ++t)
        QCOMPARE(find(recorder, trak(t, "edts/elst")).valid(), kind == RecordingPlan::Tern);
    for (int t : sound) {
        QCOMPARE(soundFormat(recorder, t), recorderFormat);
        QCOMPARE(trackDuration(recorder, t), pictureDuration);
    }
    QCOMPARE(field(recorder, "moov/mvhd", 16), pictureDuration);
    if (kind == RecordingPlan::Heron)
        QCOMPARE(be32(recorder, movieDataEnd(recorder) - kTimecodeSampleBytes), 0x01000000u);
    QVERIFY(recorder != movie);
}

void TestInterchange::sameLinesAndNamesAsTheDefaultFinish()
{
    // The finish style changes what the index says, not what the run reports or how it names files: a
    // card of a Tern movie, a Heron movie, a Tern recording too short to finish and a cut-off WAV.
    QTemporaryDir tmp;
    const QString plainCard = tmp.filePath("plain/CARD");
    const QString interchangeCard = tmp.filePath("interchange/CARD");
    for (const QString& card : {plainCard, interchangeCard}) {
        QVERIFY(QDir().mkpath(card));
        QVERIFY(writeInterruptedRecording(card + "/A001.zqv", plan(RecordingPlan::Tern, 36, 72000, 3)).ok);
        QVERIFY(writeInterruptedRecording(card + "/B001.zqv", plan(RecordingPlan::Heron, 36, 72000, 2)).ok);
        QVERIFY(writeInterruptedRecording(card + "/C001.zqv", plan(RecordingPlan::Tern, 6, 3840, 3)).ok);
        QVERIFY(writeFile(card + "/D001.zqa", cutOffWav(2, 24, 2000, "\x01\x02\x03\x04")));
    }
    QStringList plainLines, interchangeLines;
    const int plainStatus = runCli({plainCard}, &plainLines);
    const int interchangeStatus = runCli({"--interchange", interchangeCard}, &interchangeLines);
    QCOMPARE(plainStatus, 1); // the short recording is unrecoverable
    QCOMPARE(interchangeStatus, plainStatus);

    const QStringList names{"A001.mov", "B001.mov", "C001.nrv", "D001.wav"};
    QCOMPARE(fileNames(plainCard), names);
    QCOMPARE(fileNames(interchangeCard), names);
    const QStringList report = comparable(interchangeLines, interchangeCard);
    QCOMPARE(report, comparable(plainLines, plainCard));
    const QStringList outcomes{"     CARD/A001.mov (Tern) Finalized", "     CARD/B001.mov (Heron) Finalized",
                               "     CARD/C001.nrv (Tern) Unrecoverable",
                               "     CARD/D001.wav (Heron) Finalized",
                               "1 file(s) unrecoverable.", "3 file(s) have been successfully finalized."};
    for (const QString& line : outcomes)
        QVERIFY2(report.contains(line), qPrintable(line));
    for (const QString& name : names) {
        const bool unchanged = name == "C001.nrv";
        QCOMPARE(readFile(plainCard + "/" + name) == readFile(interchangeCard + "/" + name), unchanged);
    }
}

void TestInterchange::wavSizesInWholeFrames_data()
{
    QTest::addColumn<int>("channels");
    QTest::addColumn<int>("bits");
    QTest::addColumn<int>("frames");
    QTest::addColumn<QByteArray>("stray"); // bytes of a frame the recorder did not finish
    QTest::addColumn<qint64>("dataSize"); // the 'data' size in whole frames
    QTest::addColumn<qint64>("riffSize");
    QTest::addColumn<qint64>("fileSize"); // after the whole-frames repair
    const qint64 s = kWavDataStart;
    QTest::newRow("stereo 24-bit, 4 stray bytes")
        << 2 << 24 << 1000 << QByteArray("\x11\x22\x33\x44") << qint64(6000) << s + 6000 - 8 << s + 6004;
    QTest::newRow("mono 24-bit, odd size, nothing after")
        << 1 << 24 << 1001 << QByteArray() << qint64(3003) << s + 3004 - 8 << s + 3004;
    QTest::newRow("mono 24-bit, odd size, 2 stray bytes")
        << 1 << 24 << 1001 << QByteArray("\x55\x66") << qint64(3003) << s + 3004 - 8 << s + 3005;
    QTest::newRow("mono 24-bit, odd size, 1 stray byte")
        << 1 << 24 << 1001 << QByteArray("\x77") << qint64(3003) << s + 3004 - 8 << s + 3004;
    QTest::newRow("stereo 32-bit, 7 stray bytes")
        << 2 << 32 << 500 << QByteArray("\x01\x02\x03\x04\x05\x06\x07") << qint64(4000) << s + 4000 - 8
        << s + 4007;
    QTest::newRow("stereo 16-bit, whole frames") << 2 << 16 << 1000 << QByteArray() << qint64(4000)
                                                 << s + 4000 - 8 << s + 4000;
}

void TestInterchange::wavSizesInWholeFrames()
{
    QFETCH(int, channels);
    QFETCH(int, bits);
    QFETCH(int, frames);
    QFETCH(QByteArray, stray);
    QFETCH(qint64, dataSize);
    QFETCH(qint64, riffSize);
    QFETCH(qint64, fileSize);
    const QByteArray original = cutOffWav(channels, bits, frames, stray);
    QCOMPARE(le32(original, 4), 0u);
    QCOMPARE(le32(original, kWavDataStart - 4), 0u);
    QTemporaryDir tmp;

    const QByteArray whole = repairedWav(tmp.filePath("whole.wav"), original, true);
    QCOMPARE(qint64(whole.size()), fileSize);
    QCOMPARE(qint64(le32(whole, kWavDataStart - 4)), dataSize);
    QCOMPARE(qint64(le32(whole, 4)), riffSize);
    // Only the two size fields change, and a pad byte of 0 may follow an odd size that ends the file.
    QByteArray expected = original;
    expected.replace(4, 4, whole.mid(4, 4));
    expected.replace(int(kWavDataStart - 4), 4, whole.mid(int(kWavDataStart - 4), 4));
    if (fileSize > original.size())
        expected.append('\0');
    QCOMPARE(whole, expected);
    const QByteArray afterSound = fileSize > original.size() ? QByteArray(1, '\0') : stray;
    QCOMPARE(whole.mid(int(kWavDataStart + dataSize)), afterSound);

    // The default repair: the sound reaches the end of the file.
    const QByteArray toTheEnd = repairedWav(tmp.filePath("end.wav"), original, false);
    QCOMPARE(toTheEnd.size(), original.size());
    QCOMPARE(qint64(le32(toTheEnd, kWavDataStart - 4)), qint64(original.size()) - kWavDataStart);
    QCOMPARE(qint64(le32(toTheEnd, 4)), qint64(original.size()) - 8);
    if (stray.isEmpty() && dataSize % 2 == 0)
        QCOMPARE(whole, toTheEnd);

    // The same through the program: a card's .zqa becomes a .wav repaired either way.
    for (const bool interchange : {true, false}) {
        const QString card = tmp.filePath(interchange ? "interchange" : "plain");
        QVERIFY(writeFile(card + "/D001.zqa", original));
        QStringList out;
        QCOMPARE(runCli(cliArgs(card, interchange), &out), 0);
        QCOMPARE(fileNames(card), QStringList{"D001.wav"});
        QCOMPARE(readFile(card + "/D001.wav"), interchange ? whole : toTheEnd);
    }
}

void TestInterchange::rewriteOfFinishedMovies_data()
{
    QTest::addColumn<int>("family");
    QTest::addColumn<bool>("storeEnd");
    const auto tern = int(RecordingPlan::Tern);
    const auto heron = int(RecordingPlan::Heron);
    QTest::newRow("Tern, recorded end") << tern << true;
    QTest::newRow("Tern, end from the file size") << tern << false;
    QTest::newRow("Heron, recorded end") << heron << true;
    QTest::newRow("Heron, end from the file size") << heron << false;
}

void TestInterchange::rewriteOfFinishedMovies()
{
    // A movie finished in the recorder's form, rewritten, is byte for byte the movie an interchange
    // finish of the same recording gives; rewriting it again changes nothing.
    QFETCH(int, family);
    QFETCH(bool, storeEnd);
    const RecordingPlan p = tornPlan(RecordingPlan::Family(family), storeEnd);
    QTemporaryDir tmp;
    const QByteArray interchange = finishedMovie(tmp.filePath("interchange"), p, true);
    QVERIFY(!interchange.isEmpty());
    const QString card = tmp.filePath("card");
    const QString mov = card + "/A001.mov";
    const QByteArray recorderForm = finishedMovie(card, p, false);
    QVERIFY(!recorderForm.isEmpty());
    QVERIFY(recorderForm != interchange);

    const QStringList rewritten{"     " + mov + " rewritten for interchange.", " ",
                                "1 movie(s) rewritten for interchange."};
    QStringList out;
    QCOMPARE(runCli({"--interchange", mov}, &out), 0);
    QCOMPARE(out, rewritten);
    QCOMPARE(fileNames(card), QStringList{"A001.mov"});
    QVERIFY(readFile(mov) == interchange);

    QCOMPARE(runCli({"--interchange", mov}, &out), 0);
    QCOMPARE(out, rewritten);
    QVERIFY(readFile(mov) == interchange);
}

void TestInterchange::rewriteRefusesWhatClipwardDidNotFinish()
{
    // Only a movie Clipward finished is rewritten; any other file keeps its bytes and is counted as
    // not rewritten.
    QTemporaryDir tmp;
    const QString folder = tmp.filePath("files");
    QVERIFY(QDir().mkpath(folder));
    const QStringList refusedLines{" ", "1 file(s) not rewritten.", "0 movie(s) rewritten for interchange."};
    const auto refusal = [](const QString& path) {
        return "     " + path + " not rewritten: Clipward did not finish this movie.";
    };
    QStringList out;

    const QString unfinished = folder + "/A001.zqv";
    QVERIFY(writeInterruptedRecording(unfinished, tornPlan(RecordingPlan::Tern, true)).ok);
    const QByteArray recording = readFile(unfinished);
    const int status = runCli({"--interchange", unfinished}, &out);
    QVERIFY2(status == 1 && out == QStringList{refusal(unfinished)} + refusedLines
                 && readFile(unfinished) == recording,
             qPrintable(QString("exit %1: ").arg(status) + out.join(" | ")));

    // Random bytes, shorter and longer than a recording's reserved region and 'mdat' header.
    QRandomGenerator random(20240611);
    for (const int size : {100000, 6000000}) {
        const QString noise = folder + QString("/x%1.mov").arg(size);
        QByteArray bytes(size, '\0');
        for (char& b : bytes)
            b = char(random.bounded(256));
        QVERIFY(writeFile(noise, bytes));
        QCOMPARE(runCli({"--interchange", noise}, &out), 1);
        QCOMPARE(out, QStringList{refusal(noise)} + refusedLines);
        QVERIFY(readFile(noise) == bytes);
    }

    // With more than one path every one is a movie to rewrite; one that is not there is said so. A single
    // path that is no file is a folder to finish, and must exist.
    const QString finishedCard = tmp.filePath("card");
    QVERIFY(!finishedMovie(finishedCard, tornPlan(RecordingPlan::Heron, true), false).isEmpty());
    const QString mov = finishedCard + "/A001.mov";
    const QString missing = folder + "/missing.mov";
    QString err;
    QCOMPARE(runCli({"--interchange", mov, missing}, &out, &err), 1);
    QCOMPARE(out, QStringList({"     " + mov + " rewritten for interchange.",
                               "     " + missing + " not rewritten: there is no such file.", " ",
                               "1 file(s) not rewritten.", "1 movie(s) rewritten for interchange."}));
    QVERIFY(!QFile::exists(missing));
    QCOMPARE(runCli({"--interchange", missing}, &out, &err), 2);
    QCOMPARE(err, "clipward-cli: path does not exist: " + missing + "\n");
    QVERIFY(!QFile::exists(missing));

    if (!MediaTools::available())
        QSKIP("ffmpeg is not installed: a movie it made is not tried");
    const QString made = folder + "/ffmpeg.mov";
    bool ok = false;
    const QStringList sources{"-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25", "-f", "lavfi", "-i",
                              "sine=frequency=440:sample_rate=48000"};
    MediaTools::run("ffmpeg",
                    QStringList{"-v", "error", "-y"} + sources
                        + QStringList{"-t", "1", "-c:v", "prores_ks", "-c:a", "pcm_s24le", "-f", "mov", made},
                    &ok);
    QVERIFY(ok);
    const QByteArray madeBytes = readFile(made);
    QCOMPARE(runCli({"--interchange", made}, &out), 1);
    QCOMPARE(out, QStringList{refusal(made)} + refusedLines);
    QVERIFY(readFile(made) == madeBytes);
}

QTEST_GUILESS_MAIN(TestInterchange)
#include "tst_interchange.moc"
