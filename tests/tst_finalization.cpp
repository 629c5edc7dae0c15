// The movie index built for a recording: tracks, their tables and where they land in the file.

#include "finalize/Finalize.h"
#include "simulate/RecordingSimulator.h"
#include "support/AtomWalker.h"
#include "support/MessageCapture.h"
#include "support/TestSupport.h"

#include <QTemporaryDir>
#include <QtTest>

using namespace AtomWalker;
using TestSupport::putLe32;
using TestSupport::readFile;

namespace {

RecordingPlan basePlan(int frames, int tracks, int samplesPerTrack)
{
    RecordingPlan plan;
    plan.videoFramesPerChunk = 3;
    plan.audioSamplesPerChunk = 1920;
    plan.audioBytesPerSample = 3;
    for (int i = 0; i < frames; ++i)
        plan.videoFrames << syntheticFrame(i, 3000 + 7 * i);
    for (int t = 0; t < tracks; ++t)
        plan.audioTracks << syntheticPcm(t, samplesPerTrack, 3);
    return plan;
}

// Simulates the plan, lets `patch` edit the unfinished bytes, finalizes through the Tern procedure and
// returns the finished file (empty when it was not finalized) and the messages logged.
QByteArray finalize(const RecordingPlan& plan, QStringList* messages = nullptr,
                    std::function<void(QByteArray&)> patch = nullptr)
{
    QTemporaryDir tmp;
    const QString path = tmp.filePath("A001.zqv");
    if (!writeInterruptedRecording(path, plan).ok)
        return QByteArray();
    if (patch) {
        QByteArray bytes = readFile(path);
        patch(bytes);
        TestSupport::writeFile(path, bytes);
    }
    MessageCapture capture;
    Finalize driver;
    const unsigned int result = driver.ternDoFinalize(path);
    if (messages)
        *messages = capture.messages();
    return result == 0 ? readFile(tmp.filePath("A001.mov")) : QByteArray();
}

int trackCount(const QByteArray& movie)
{
    int n = 0;
    for (const Atom& atom : AtomWalker::children(movie, find(movie, "moov").payload(), find(movie, "moov").end()))
        n += atom.type == code("trak");
    return n;
}

quint32 trackId(const QByteArray& movie, int trak)
{
    return be32(movie, find(movie, QString("moov/trak:%1/tkhd").arg(trak)).offset + 20);
}

quint32 handlerSubtype(const QByteArray& movie, int trak)
{
    return be32(movie, find(movie, QString("moov/trak:%1/mdia/hdlr").arg(trak)).offset + 16);
}

QList<quint32> stscEntries(const QByteArray& movie, int trak)
{
    const Atom stsc = find(movie, QString("moov/trak:%1/mdia/minf/stbl/stsc").arg(trak));
    QList<quint32> values;
    const quint32 count = be32(movie, stsc.offset + 12);
    for (quint32 i = 0; i < 3 * count; ++i)
        values << be32(movie, stsc.offset + 16 + 4 * i);
    return values;
}

} // namespace

class TestFinalization : public QObject
{
    Q_OBJECT

private slots:
    void treeShapeAndTrackOrder();
    void noVideoGivesSoundTrackIdTwoAndZeroDurations();
    void noSoundChunksGivesNoSoundTrack();
    void noSoundTracksGivesNoSoundTrack();
    void videoSampleToChunkEntries_data();
    void videoSampleToChunkEntries();
    void soundSampleToChunkOneEntryWhenChunksAreFull();
    void soundSampleToChunkThreeEntriesForShortFirstAndLast();
    void soundChunkOffsetsArePlanarPerTrack();
    void timecodeFramesPerSecondAt23976();
    void reelNameIsCutTo31();
    void tablesStartOn512ByteBoundaries();
    void logLineSizeIsTheIndexSize();
};

void TestFinalization::treeShapeAndTrackOrder()
{
    const QByteArray movie = finalize(basePlan(30, 2, 30 * 1920));
    QVERIFY(!movie.isEmpty());
    const Atom moov = find(movie, "moov");
    QList<quint32> kinds;
    for (const Atom& atom : AtomWalker::children(movie, moov.payload(), moov.end()))
        kinds << atom.type;
    QCOMPARE(kinds, QList<quint32>({code("udta"), code("mvhd"), code("trak"), code("trak"), code("trak"),
                                    code("trak")}));
    QCOMPARE(handlerSubtype(movie, 1), code("tmcd"));
    QCOMPARE(handlerSubtype(movie, 2), code("vide"));
    QCOMPARE(handlerSubtype(movie, 3), code("soun"));
    QCOMPARE(handlerSubtype(movie, 4), code("soun"));
    QCOMPARE(trackId(movie, 1), 1u);
    QCOMPARE(trackId(movie, 2), 2u);
    QCOMPARE(trackId(movie, 3), 3u);
    QCOMPARE(trackId(movie, 4), 4u);
    // The maker atom lists every frame: 30 video, 30 sound chunks (1920 samples each), 1 timecode sample.
    QCOMPARE(find(movie, "moov/udta/hldn").size, qint64(148 + 2 * 61));
    // The movie header's next track ID stays 2 whatever the track count.
    QCOMPARE(be32(movie, find(movie, "moov/mvhd").offset + 104), 2u);
    // 25 fps: scale 2500, duration 100 per frame.
    QCOMPARE(be32(movie, find(movie, "moov/mvhd").offset + 20), 2500u);
    QCOMPARE(be32(movie, find(movie, "moov/mvhd").offset + 24), 3000u);
}

void TestFinalization::noVideoGivesSoundTrackIdTwoAndZeroDurations()
{
    const QByteArray movie = finalize(basePlan(0, 2, 40 * 1920));
    QVERIFY(!movie.isEmpty());
    QCOMPARE(trackCount(movie), 3);
    QCOMPARE(handlerSubtype(movie, 2), code("soun"));
    QCOMPARE(trackId(movie, 2), 2u);
    QCOMPARE(trackId(movie, 3), 3u);
    QCOMPARE(be32(movie, find(movie, "moov/mvhd").offset + 24), 0u);
    for (int trak = 1; trak <= 3; ++trak) {
        QCOMPARE(be32(movie, find(movie, QString("moov/trak:%1/tkhd").arg(trak)).offset + 28), 0u);
        QCOMPARE(be32(movie, find(movie, QString("moov/trak:%1/edts/elst").arg(trak)).offset + 16), 0u);
    }
    // The sound media itself still has its samples.
    QCOMPARE(be32(movie, find(movie, "moov/trak:2/mdia/mdhd").offset + 24), 40u * 1920u);
}

void TestFinalization::noSoundChunksGivesNoSoundTrack()
{
    RecordingPlan plan = basePlan(30, 0, 0);
    const QByteArray movie = finalize(plan, nullptr, [](QByteArray& bytes) {
        putLe32(bytes, 36 + 24, 2); // two tracks announced, none recorded
    });
    QCOMPARE(trackCount(movie), 2);
}

void TestFinalization::noSoundTracksGivesNoSoundTrack()
{
    const QByteArray movie = finalize(basePlan(30, 2, 30 * 1920), nullptr, [](QByteArray& bytes) {
        putLe32(bytes, 36 + 24, 0);
    });
    QCOMPARE(trackCount(movie), 2);

    // The count is taken as signed: 0x80000000 tracks is below 1, so no sound track either.
    const QByteArray negative = finalize(basePlan(30, 2, 30 * 1920), nullptr, [](QByteArray& bytes) {
        putLe32(bytes, 36 + 24, 0x80000000u);
    });
    QCOMPARE(trackCount(negative), 2);
}

void TestFinalization::videoSampleToChunkEntries_data()
{
    QTest::addColumn<int>("frames");
    QTest::addColumn<QList<quint32>>("entries");
    QTest::newRow("multiple of 3") << 30 << QList<quint32>({1, 3, 1});
    QTest::newRow("31 frames") << 31 << QList<quint32>({1, 3, 1, 11, 1, 1});
    QTest::newRow("32 frames") << 32 << QList<quint32>({1, 3, 1, 11, 2, 1});
}

void TestFinalization::videoSampleToChunkEntries()
{
    QFETCH(int, frames);
    QFETCH(QList<quint32>, entries);
    const QByteArray movie = finalize(basePlan(frames, 1, 10 * 1920));
    QCOMPARE(stscEntries(movie, 2), entries);
    QCOMPARE(find(movie, "moov/trak:2/mdia/minf/stbl/stsc").size, qint64(entries.size() == 3 ? 28 : 40));
}

void TestFinalization::soundSampleToChunkOneEntryWhenChunksAreFull()
{
    const QByteArray movie = finalize(basePlan(30, 1, 10 * 1920));
    QCOMPARE(stscEntries(movie, 3), QList<quint32>({1, 1920, 1}));
    QCOMPARE(find(movie, "moov/trak:3/mdia/minf/stbl/stsc").size, qint64(28));
}

void TestFinalization::soundSampleToChunkThreeEntriesForShortFirstAndLast()
{
    RecordingPlan plan = basePlan(30, 2, 1000 + 8 * 1920 + 700);
    plan.firstChunkSamples = 1000;
    const QByteArray movie = finalize(plan);
    QCOMPARE(stscEntries(movie, 3), QList<quint32>({1, 1000, 1, 2, 1920, 1, 10, 700, 1}));
    QCOMPARE(find(movie, "moov/trak:3/mdia/minf/stbl/stsc").size, qint64(52));
    QCOMPARE(be32(movie, find(movie, "moov/trak:3/mdia/mdhd").offset + 24), 1000u + 8 * 1920 + 700);
}

void TestFinalization::soundChunkOffsetsArePlanarPerTrack()
{
    RecordingPlan plan = basePlan(30, 2, 9 * 1920 + 500);
    const QByteArray movie = finalize(plan);
    const Atom video = find(movie, "moov/trak:2/mdia/minf/stbl/co64");
    const Atom left = find(movie, "moov/trak:3/mdia/minf/stbl/co64");
    const Atom right = find(movie, "moov/trak:4/mdia/minf/stbl/co64");
    QCOMPARE(be32(movie, left.offset + 12), 10u);
    // Layout: timecode sample, 3 frames, sound chunk 1, ... 3 frames, sound chunk 10 (500 per track).
    // Frames 0-2 are 3000, 3007 and 3014 bytes: 6 blocks + 2 trailer blocks each.
    QCOMPARE(be64(movie, video.offset + 16), quint64(5472256 + 512));
    const quint64 chunk1 = be64(movie, left.offset + 16);
    const quint64 chunk10 = be64(movie, left.offset + 16 + 8 * 9);
    QCOMPARE(chunk1, quint64(5472256 + 512 + 3 * 8 * 512));
    QCOMPARE(be64(movie, right.offset + 16), chunk1 + 1920 * 3);
    QCOMPARE(be64(movie, right.offset + 16 + 8 * 9), chunk10 + 500 * 3);
    // Each track's part of a chunk holds that track's samples.
    QCOMPARE(movie.mid(int(chunk1), 6), plan.audioTracks[0].left(6));
    QCOMPARE(movie.mid(int(chunk1 + 1920 * 3), 6), plan.audioTracks[1].left(6));
    QCOMPARE(movie.mid(int(chunk10 + 500 * 3), 6), plan.audioTracks[1].mid(9 * 1920 * 3, 6));
}

void TestFinalization::timecodeFramesPerSecondAt23976()
{
    RecordingPlan plan = basePlan(30, 1, 10 * 1920);
    plan.frameRate = 2398;
    const QByteArray movie = finalize(plan);
    const Atom stsd = find(movie, "moov/trak:1/mdia/minf/stbl/stsd");
    // Entry starts after the 16-byte 'stsd' head: scale at 24, duration at 28, frames at 32.
    QCOMPARE(be32(movie, stsd.offset + 16 + 24), 23976u);
    QCOMPARE(be32(movie, stsd.offset + 16 + 28), 1000u);
    QCOMPARE(quint8(movie[int(stsd.offset + 16 + 32)]), quint8(24));
}

void TestFinalization::reelNameIsCutTo31()
{
    const QByteArray movie = finalize(basePlan(30, 1, 10 * 1920), nullptr, [](QByteArray& bytes) {
        bytes.replace(36 + 88, 32, QByteArray(32, 'R')); // no terminator inside the record
    });
    const Atom stsd = find(movie, "moov/trak:1/mdia/minf/stbl/stsd");
    const qint64 name = stsd.offset + 16 + 34;
    QCOMPARE(be32(movie, stsd.offset + 16), 78u);
    QCOMPARE(movie.mid(int(name), 8), TestSupport::hex("0000002c 6e616d65"));
    QCOMPARE(be16(movie, name + 8), quint16(31));
    QCOMPARE(movie.mid(int(name + 12), 32), QByteArray(31, 'R') + QByteArray(1, '\0'));
}

void TestFinalization::tablesStartOn512ByteBoundaries()
{
    RecordingPlan plan = basePlan(31, 3, 1000 + 9 * 1920 + 77);
    plan.firstChunkSamples = 1000;
    const QByteArray movie = finalize(plan);
    for (int trak = 2; trak <= 5; ++trak) {
        const Atom stsz = find(movie, QString("moov/trak:%1/mdia/minf/stbl/stsz").arg(trak));
        const Atom co64 = find(movie, QString("moov/trak:%1/mdia/minf/stbl/co64").arg(trak));
        QVERIFY2((stsz.offset + 20) % 512 == 0, qPrintable(QString("stsz of trak %1").arg(trak)));
        QVERIFY2((co64.offset + 16) % 512 == 0, qPrintable(QString("co64 of trak %1").arg(trak)));
    }
}

void TestFinalization::logLineSizeIsTheIndexSize()
{
    QStringList messages;
    const QByteArray movie = finalize(basePlan(30, 2, 10 * 1920), &messages);
    const Atom moov = find(movie, "moov");
    QVERIFY(messages.contains(QString("Recorded FILE Last Position Start:%1 End:%2 Size:%3")
                                  .arg(moov.offset)
                                  .arg(moov.end())
                                  .arg(moov.size)));
}

QTEST_GUILESS_MAIN(TestFinalization)
#include "tst_finalization.moc"
