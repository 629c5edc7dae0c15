// Recognising an unfinished recording, its settings record and frame map, and recover().

#include "movie/QuickTimeFile.h"
#include "support/AtomWalker.h"
#include "support/TestSupport.h"

#include <QBuffer>
#include <QtEndian>
#include <QtTest>

using Tern::QuickTimeFile;
using namespace AtomWalker;

namespace {

const qint64 kMediaStart = 5472256;
const qint64 kMapPos = 156;

// A buffer that notes every write it receives (position and length).
class WriteLog : public QBuffer
{
public:
    QList<QPair<qint64, qint64>> writes;

protected:
    qint64 writeData(const char* data, qint64 len) override
    {
        writes << qMakePair(pos(), len);
        return QBuffer::writeData(data, len);
    }
};

void putLe16(QByteArray& bytes, qint64 offset, quint16 value)
{
    qToLittleEndian<quint16>(value, reinterpret_cast<uchar*>(bytes.data()) + offset);
}

// An unfinished recording: the reserved region, the media blocks the entries describe (each block
// filled with its chunk's index), the frame map and usable settings.
QByteArray makeRecording(const QVector<quint16>& entries, bool terminate = true, quint64 recordedEnd = 0,
                         const QByteArray& trailing = QByteArray())
{
    QBuffer buffer;
    buffer.open(QIODevice::ReadWrite);
    {
        QuickTimeFile movie(buffer);
        movie.initFile(&buffer);
        movie.settings.frameRate = 2500;
        movie.settings.width = 1920;
        movie.settings.height = 1080;
        movie.settings.videoFramesPerChunk = 1;
        movie.settings.audioTracks = 1;
        movie.settings.audioBytesPerSample = 2;
        movie.settings.audioSampleRate = 48000;
        movie.settings.audioSamplesPerChunk = 256;
        movie.settings.videoCodecType = 1;
        movie.settings.recordedEndPosition = recordedEnd;
        movie.saveRecoverySettings();
    }
    QByteArray bytes = buffer.data();
    for (int i = 0; i < entries.size(); ++i) {
        putLe16(bytes, kMapPos + 2 * i, entries[i]);
        bytes.append(QByteArray((entries[i] & 0x3FFF) * 512, char(i)));
    }
    if (terminate && entries.size() < 2736000)
        putLe16(bytes, kMapPos + 2 * entries.size(), 0);
    return bytes + trailing;
}

// The finalizer's calls in their order; returns recover()'s result and leaves the file in `bytes`.
bool finish(QByteArray& bytes, quint32* video = nullptr, quint32* sound = nullptr)
{
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadWrite);
    QuickTimeFile movie(buffer);
    if (!movie.verifyHeader())
        return false;
    movie.initFile(nullptr);
    QuickTimeFile::RecoverySettings* s = movie.loadSavedSettings();
    if (!s)
        return false;
    movie.setTimecode(s->timecode, s->dropFrame, false, true);
    movie.setFrameRate(s->frameRate);
    movie.width = s->width;
    movie.height = s->height;
    movie.videoCodecType = s->videoCodecType;
    movie.audioTracks = s->audioTracks;
    movie.videoFramesPerChunk = s->videoFramesPerChunk;
    movie.setAudioSamplesPerFrame(int(s->audioSamplesPerChunk));
    movie.setAudioBytesPerSample(s->audioBytesPerSample);
    movie.setAudioSampleRate(s->audioSampleRate);
    movie.recordedEndPosition = s->recordedEndPosition;
    movie.InitQuickTimeFileInfo();
    const bool ok = movie.recover();
    if (video)
        *video = movie.videoFrames();
    if (sound)
        *sound = movie.audioFrames();
    return ok;
}

QVector<quint16> videoEntries(int count)
{
    return QVector<quint16>(count, 0x4001);
}

} // namespace

class TestRecovery : public QObject
{
    Q_OBJECT

private slots:
    void positionsAreTheFormatsConstants();
    void fileOfExactlyTheMediaStartFailsVerify();
    void movieDataHeaderMustBeUnclosed_data();
    void movieDataHeaderMustBeUnclosed();
    void settingsRecordIsReadFromItsOffset();
    void shortSettingsRecordGivesNull();
    void emptyMapIsNotRecovered();
    void twentyNineEntriesAreNotRecovered();
    void thirtyEntriesAreRecovered();
    void unknownEntriesOccupyBlocksButAreNotCounted();
    void zeroEndPositionTakesTheDeviceSize();
    void recordedEndPositionLeavesTheTornTailOutside();
    void countingStopsAtTheEndOfAnUnterminatedMap();
    void finishedMovieNoLongerVerifies();
    void periodicSaveWritesOnlyNewEntries();
    void saveRecoverySettingsRestoresPosition();
    void userDataRoundTripAndNullPointers();
    void timecodeNoWriteStoresOnly();
    void timecodeWritesFirstSampleOnce();
};

void TestRecovery::positionsAreTheFormatsConstants()
{
    QCOMPARE(Tern::ternFamily.recoverySettingsPos, qint64(36));
    QCOMPARE(Tern::ternFamily.recoveryFrameMapPos, qint64(156));
    QCOMPARE(Tern::ternFamily.movieDataHeaderPos, qint64(0x537FF0));
    QCOMPARE(Tern::ternFamily.movieDataStartOffset, qint64(0x538000));
}

void TestRecovery::fileOfExactlyTheMediaStartFailsVerify()
{
    QByteArray bytes = makeRecording({});
    QCOMPARE(bytes.size(), 5472256);
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadWrite);
    QuickTimeFile movie(buffer);
    QVERIFY(!movie.verifyHeader());
    bytes.append('\0');
    QVERIFY(movie.verifyHeader());
}

void TestRecovery::movieDataHeaderMustBeUnclosed_data()
{
    QTest::addColumn<QByteArray>("header");
    QTest::addColumn<bool>("unfinished");
    QTest::newRow("unclosed") << TestSupport::hex("00000001 6d646174 0000000000000010") << true;
    QTest::newRow("size 17") << TestSupport::hex("00000001 6d646174 0000000000000011") << false;
    QTest::newRow("32-bit size 2") << TestSupport::hex("00000002 6d646174 0000000000000010") << false;
    QTest::newRow("32-bit size 16") << TestSupport::hex("00000010 6d646174 0000000000000010") << false;
    QTest::newRow("not mdat") << TestSupport::hex("00000001 66726565 0000000000000010") << false;
}

void TestRecovery::movieDataHeaderMustBeUnclosed()
{
    QFETCH(QByteArray, header);
    QFETCH(bool, unfinished);
    QByteArray bytes = makeRecording(videoEntries(1));
    bytes.replace(5472240, 16, header);
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadWrite);
    QuickTimeFile movie(buffer);
    QCOMPARE(movie.verifyHeader(), unfinished);
}

void TestRecovery::settingsRecordIsReadFromItsOffset()
{
    QByteArray bytes = makeRecording(videoEntries(1));
    // frameRate is the little-endian word at record offset 16.
    putLe16(bytes, 36 + 16, 2997);
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadWrite);
    QuickTimeFile movie(buffer);
    QuickTimeFile::RecoverySettings* s = movie.loadSavedSettings();
    QVERIFY(s == &movie.settings);
    QCOMPARE(s->frameRate, 2997u);
    QCOMPARE(s->width, quint16(1920));
    QCOMPARE(s->videoFramesPerChunk, 1u);
}

void TestRecovery::shortSettingsRecordGivesNull()
{
    QByteArray bytes(100, '\0');
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadWrite);
    QuickTimeFile movie(buffer);
    QVERIFY(movie.loadSavedSettings() == nullptr);
}

void TestRecovery::emptyMapIsNotRecovered()
{
    QByteArray bytes = makeRecording({}, true, 0, QByteArray(4096, 'm'));
    const QByteArray before = bytes;
    QVERIFY(!finish(bytes));
    QCOMPARE(bytes, before);
}

void TestRecovery::twentyNineEntriesAreNotRecovered()
{
    QByteArray bytes = makeRecording(videoEntries(29));
    const QByteArray before = bytes;
    quint32 video = 0;
    QVERIFY(!finish(bytes, &video));
    QCOMPARE(video, 29u);
    QCOMPARE(bytes, before);
}

void TestRecovery::thirtyEntriesAreRecovered()
{
    QByteArray bytes = makeRecording(videoEntries(30));
    const int mediaEnd = bytes.size();
    quint32 video = 0;
    QVERIFY(finish(bytes, &video));
    QCOMPARE(video, 30u);
    QCOMPARE(be64(bytes, 5472248), quint64(16 + 30 * 512));
    const Atom moov = find(bytes, "moov");
    QCOMPARE(moov.offset, qint64(mediaEnd));
    // 512 zero bytes close the file behind the index.
    QCOMPARE(bytes.size(), int(moov.end() + 512));
    QCOMPARE(bytes.right(512), QByteArray(512, '\0'));
}

void TestRecovery::unknownEntriesOccupyBlocksButAreNotCounted()
{
    QVector<quint16> entries = videoEntries(30);
    entries.insert(1, 0xC002); // two blocks of something unknown between frames 1 and 2
    QByteArray bytes = makeRecording(entries);
    quint32 video = 0;
    QVERIFY(finish(bytes, &video));
    QCOMPARE(video, 30u);
    const Atom co64 = find(bytes, "moov/trak:2/mdia/minf/stbl/co64");
    QVERIFY(co64.valid());
    QCOMPARE(be32(bytes, co64.payload() + 4), 30u);
    QCOMPARE(be64(bytes, co64.payload() + 8), quint64(kMediaStart));
    QCOMPARE(be64(bytes, co64.payload() + 16), quint64(kMediaStart + 512 + 1024));
}

void TestRecovery::zeroEndPositionTakesTheDeviceSize()
{
    const QByteArray garbage(700, 'g');
    QByteArray bytes = makeRecording(videoEntries(30), true, 0, garbage);
    const qint64 size = bytes.size();
    QVERIFY(finish(bytes));
    QCOMPARE(be64(bytes, 5472248), quint64(16 + 30 * 512 + 700));
    QCOMPARE(find(bytes, "moov").offset, size);
}

void TestRecovery::recordedEndPositionLeavesTheTornTailOutside()
{
    const qint64 end = kMediaStart + 30 * 512;
    QByteArray bytes = makeRecording(videoEntries(30), true, quint64(end), QByteArray(900, 't'));
    QVERIFY(finish(bytes));
    QCOMPARE(be64(bytes, 5472248), quint64(16 + 30 * 512));
    QCOMPARE(find(bytes, "moov").offset, end);
}

void TestRecovery::countingStopsAtTheEndOfAnUnterminatedMap()
{
    // 30 frames, then entries of unknown type and no length up to the map's last slot, no terminator;
    // the zero fill behind the map holds a video entry that must not be counted.
    QVector<quint16> entries = videoEntries(30);
    entries.resize(2736000);
    std::fill(entries.begin() + 30, entries.end(), quint16(0xC000));
    QByteArray bytes = makeRecording(entries, false);
    putLe16(bytes, kMapPos + 2 * 2736000, 0x4001);
    quint32 video = 0;
    QVERIFY(finish(bytes, &video));
    QCOMPARE(video, 30u);
}

void TestRecovery::finishedMovieNoLongerVerifies()
{
    QByteArray bytes = makeRecording(videoEntries(30));
    QVERIFY(finish(bytes));
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadWrite);
    QuickTimeFile movie(buffer);
    QVERIFY(!movie.verifyHeader());
}

void TestRecovery::periodicSaveWritesOnlyNewEntries()
{
    WriteLog log;
    log.open(QIODevice::ReadWrite);
    QuickTimeFile movie(log);
    movie.initFile(&log);
    movie.periodicFrameMapSave();
    log.writes.clear();
    movie.periodicFrameMapSave();
    QVERIFY(log.writes.isEmpty());

    QByteArray chunk(1000, 's');
    movie.addMovieSoundData(chunk);
    log.writes.clear();
    movie.periodicFrameMapSave();
    movie.periodicFrameMapSave();
    QCOMPARE(log.writes.size(), 1);
    QCOMPARE(log.writes.first(), qMakePair(kMapPos, qint64(4)));
    // The entry (2 blocks of sound) and the terminator, little-endian.
    QCOMPARE(log.data().mid(int(kMapPos), 4), TestSupport::hex("0200 0000"));
    QCOMPARE(log.pos(), kMediaStart + 1000);
}

void TestRecovery::saveRecoverySettingsRestoresPosition()
{
    QBuffer buffer;
    buffer.open(QIODevice::ReadWrite);
    QuickTimeFile movie(buffer);
    movie.initFile(&buffer);
    buffer.seek(kMediaStart);
    movie.settings.userData1 = 0x04030201;
    movie.saveRecoverySettings();
    QCOMPARE(buffer.pos(), kMediaStart);
    QCOMPARE(buffer.data().mid(36, 4), TestSupport::hex("01020304"));
}

void TestRecovery::userDataRoundTripAndNullPointers()
{
    QBuffer buffer;
    QuickTimeFile movie(buffer);
    movie.setUserData(1, 2, 3, 4, 5, 6, 7, 8, 9);
    quint32 v[9] = {};
    movie.getUserData(&v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6], &v[7], &v[8]);
    for (int i = 0; i < 9; ++i)
        QCOMPARE(v[i], quint32(i + 1));
    movie.getUserData(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    quint32 third = 0;
    movie.getUserData(nullptr, nullptr, &third, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    QCOMPARE(third, 3u);
}

void TestRecovery::timecodeNoWriteStoresOnly()
{
    QBuffer buffer;
    buffer.open(QIODevice::ReadWrite);
    QuickTimeFile movie(buffer);
    movie.initFile(&buffer);
    const qint64 size = buffer.size();
    movie.setTimecode(0x01020304, true, true, true);
    QCOMPARE(movie.timecodeSamples, 0u);
    QCOMPARE(buffer.size(), size);
    quint32 tc = 0;
    bool drop = false, counter = false;
    movie.getTimecode(&tc, &drop, &counter);
    QCOMPARE(tc, 0x01020304u);
    QVERIFY(drop);
    QVERIFY(counter);
}

void TestRecovery::timecodeWritesFirstSampleOnce()
{
    QBuffer buffer;
    buffer.open(QIODevice::ReadWrite);
    QuickTimeFile movie(buffer);
    movie.initFile(&buffer);
    buffer.seek(kMediaStart);
    movie.setTimecode(0x01000000, false, false, false);
    movie.setTimecode(0x02000000, false, false, false);
    QCOMPARE(movie.timecodeSamples, 1u);
    QCOMPARE(movie.frameMap[0], quint16(0x8001));
    QCOMPARE(buffer.size(), kMediaStart + 512);
    QCOMPARE(buffer.data().mid(int(kMediaStart), 4), TestSupport::hex("01000000"));
}

QTEST_GUILESS_MAIN(TestRecovery)
#include "tst_recovery.moc"
