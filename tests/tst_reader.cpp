// The movie reader on movies built here byte by byte: learning the tracks, reading frames and sound
// samples by the tables, seeking and play-mode navigation.

#include "movie/QuickTimeFile.h"
#include "support/AtomBytes.h"
#include "support/MessageCapture.h"
#include "support/MovieFixtures.h"
#include "support/TestSupport.h"

#include <QBuffer>
#include <QtTest>

using TestSupport::hex;
using MovieFile = Tern::QuickTimeFile;
using Tern::QuickTimePlayRegion;
using Tern::QuickTimeTrackInfo;
using namespace AtomBytes;

namespace {

// ---- Builders: every atom is its size, its four letters and its payload, written out by hand.

// A version 0 sound description of 16-bit big-endian samples ('twos', no 'enda').
QByteArray twosEntry(quint16 channels, quint32 rate)
{
    return soundEntry("twos", 0, channels, 16, rate, 0);
}

// 'mdat' first, its payload from file offset 8, then 'moov'.
QByteArray movie(const QByteArray& payload, const QByteArray& traks)
{
    return box("mdat", payload) + box("moov", traks);
}
// Puts `bytes` at file offset `at` of an 'mdat' payload that starts at file offset 8.
void put(QByteArray& payload, int at, const QByteArray& bytes)
{
    payload.replace(at - 8, bytes.size(), bytes);
}

// Two sound tracks, then the only video track. Sound A: mono, chunks of 3, 3, 2 samples at 8, 40, 72.
// Sound B: stereo, chunks of 2, 2, 1 frames at 16, 48, 80. Video: 3 frames of 5, 7, 6 bytes, two in the
// chunk at 100, one in the chunk at 120; frames last 3/8000 s, one sound sample at 8000 Hz takes 1/8000.
QByteArray videoAfterTwoSoundTracks()
{
    QByteArray payload = zeros(128);
    put(payload, 8, hex("A0A1 A2A3 A4A5"));
    put(payload, 40, hex("B0B1 B2B3 B4B5"));
    put(payload, 72, hex("C0C1 C2C3"));
    put(payload, 16, hex("D0D1D2D3 D4D5D6D7"));
    put(payload, 48, hex("E0E1E2E3 E4E5E6E7"));
    put(payload, 80, hex("F0F1F2F3"));
    put(payload, 100, hex("1011121314"));
    put(payload, 105, hex("20212223242526"));
    put(payload, 120, hex("303132333435"));
    const QByteArray soundA = trak("soun", 8000, twosEntry(1, 8000),
        stts(8, 1) + stsc({ { 1, 3 }, { 3, 2 } }) + stsz(2, 8) + stco({ 8, 40, 72 }));
    const QByteArray soundB = trak("soun", 8000, twosEntry(2, 8000),
        stts(5, 1) + stsc({ { 1, 2 }, { 3, 1 } }) + stsz(4, 5) + stco({ 16, 48, 80 }));
    const QByteArray video = trak("vide", 8000, videoEntry("apcn", 64, 48),
        stts(3, 3) + stsc({ { 1, 2 }, { 2, 1 } }) + stsz(0, 3, { 5, 7, 6 }) + stco({ 100, 120 }));
    return movie(payload, soundA + soundB + video);
}

QByteArray minimalSoundTrak()
{
    return trak("soun", 8000, twosEntry(1, 8000), stts(1, 1) + stsc({ { 1, 1 } }) + stco({ 8 }));
}
QByteArray minimalVideoTrak()
{
    return trak("vide", 2500, videoEntry("apcn", 64, 48),
        stts(1, 100) + stsc({ { 1, 1 } }) + stsz(0, 1, { 8 }) + stco({ 8 }));
}

// A movie in memory opened with initFileRead, its messages captured.
struct Opened
{
    QByteArray bytes;
    CountingBuffer device;
    MovieFile file;
    QStringList messages;
    bool ok = false;
    explicit Opened(const QByteArray& content)
        : bytes(content)
        , file(device)
    {
        device.setBuffer(&bytes);
        device.open(QIODevice::ReadOnly);
        MessageCapture log;
        ok = file.initFileRead(&device);
        messages = log.messages();
    }
    QByteArray audio(int track, unsigned count)
    {
        QByteArray buffer(int(count) * 4, '\0');
        const unsigned got
            = file.readAudioSamples(track, reinterpret_cast<unsigned char*>(buffer.data()), count);
        const QuickTimeTrackInfo* info = file.getAudioTrack(track);
        return buffer.left(int(got * info->audioBytesPerSample * info->audioChannels));
    }
    QByteArray video()
    {
        QByteArray buffer(64, '\0');
        int size = buffer.size();
        if (!file.getMovieVideoData(buffer.data(), &size))
            return QByteArray();
        return buffer.left(size);
    }
};

} // namespace

class TestReader : public QObject
{
    Q_OBJECT

private slots:
    void sixtyFifthTrackIsNotCommitted();
    void sixtyFourthTrackStillCounts();
    void readAudioSamplesOfZeroReadsNothing();
    void videoTrackAfterTwoSoundTracksIsFound();
    void soundIsReadAcrossChunks();
    void seeksMoveVideoAndSoundTogether();
    void playNavigationServesTheFileInOrder();
    void filmRateAndInterlaceOfTheVideoTrack_data();
    void filmRateAndInterlaceOfTheVideoTrack();
    void frameTime();
};

void TestReader::sixtyFifthTrackIsNotCommitted()
{
    QByteArray traks;
    for (int i = 0; i < 64; ++i)
        traks += minimalSoundTrak();
    traks += minimalVideoTrak();
    Opened opened(movie(zeros(8), traks));
    QVERIFY(!opened.ok);
    QCOMPARE(opened.file.trackCount, 64);
    QCOMPARE(opened.file.currentTrack.type, Tern::quicktime_frametype_video);
    QVERIFY(!opened.file.currentTrack.committed);
    QCOMPARE(opened.messages.size(), 2 + 64 * 4 + 1);
    QCOMPARE(opened.messages.value(1), QString("### 64 tracks"));
    QCOMPARE(opened.messages.value(254), QString("   track 63 (64x48p)"));
    QCOMPARE(opened.messages.last(), QString("!!!!!! didn't find a video track on import file !!!!!"));
}

void TestReader::sixtyFourthTrackStillCounts()
{
    QByteArray traks;
    for (int i = 0; i < 63; ++i)
        traks += minimalSoundTrak();
    traks += minimalVideoTrak();
    Opened opened(movie(zeros(8), traks));
    QVERIFY(opened.ok);
    QCOMPARE(opened.file.trackCount, 64);
    QCOMPARE(opened.file.tracks[63].type, Tern::quicktime_frametype_video);
    QCOMPARE(opened.file.videoTrack.type, Tern::quicktime_frametype_video);
    QCOMPARE(opened.file.audioTracks, 63u);
}

void TestReader::readAudioSamplesOfZeroReadsNothing()
{
    Opened opened(videoAfterTwoSoundTracks());
    QVERIFY(opened.ok);
    const QuickTimeTrackInfo before = *opened.file.getAudioTrack(0);
    opened.device.bytesRead = 0;
    QByteArray buffer(8, char(0xEE));
    QCOMPARE(opened.file.readAudioSamples(0, reinterpret_cast<unsigned char*>(buffer.data()), 0), 0u);
    QCOMPARE(buffer, QByteArray(8, char(0xEE)));
    QCOMPARE(opened.device.bytesRead, qint64(0));
    const QuickTimeTrackInfo& after = *opened.file.getAudioTrack(0);
    QCOMPARE(after.currentSample, before.currentSample);
    QCOMPARE(after.currentChunk, before.currentChunk);
    QCOMPARE(after.sampleInChunk, before.sampleInChunk);
    // A track number beyond the sound tracks reads nothing either.
    QCOMPARE(opened.file.readAudioSamples(2, reinterpret_cast<unsigned char*>(buffer.data()), 2), 0u);
    QCOMPARE(opened.file.samplesLeftInCurrentChunk(2), 0u);
    QVERIFY(!opened.file.getAudioTrack(-1));
}

void TestReader::videoTrackAfterTwoSoundTracksIsFound()
{
    Opened opened(videoAfterTwoSoundTracks());
    QVERIFY(opened.ok);
    MovieFile& file = opened.file;
    QCOMPARE(opened.messages,
        QStringList({ "********** learned track info *************", "### 3 tracks", "   track 0 (64x48p)",
            "      type: AUDIO (2 bytes/sample, big endian, 1 channel(s)", "      sample duration 1",
            "      time scale 8000", "   track 1 (64x48p)",
            "      type: AUDIO (2 bytes/sample, big endian, 2 channel(s)", "      sample duration 1",
            "      time scale 8000", "   track 2 (64x48p)", "      type: VIDEO (rate 266666)",
            "      sample duration 3", "      time scale 8000" }));
    QVERIFY(!file.writtenByRecorder);
    QCOMPARE(file.videoTrack.type, Tern::quicktime_frametype_video);
    QCOMPARE(file.videoTrack.stszEntries, 3u);
    QCOMPARE(file.videoTrack.stcoEntries, 2u);
    QCOMPARE(file.videoFrames(), 3u);
    QCOMPARE(file.playStart, 0u);
    QCOMPARE(file.playFrame, 0u);
    // The sound parameters come from the first sound track; a stereo track makes the count its channels.
    QCOMPARE(file.audioSampleRate, 8000u);
    QCOMPARE(file.audioBytesPerSample, 2u);
    QCOMPARE(file.audioLittleEndian, quint8(0));
    QCOMPARE(file.audioTracks, 2u);
    QVERIFY(file.interleavedAudio);
    QCOMPARE(file.userData[5], 2u);
    QCOMPARE(file.userData[6], 16u);
    QCOMPARE(file.userData[7], 8000u);
    QCOMPARE(file.fileInfo.sampleRate, 8000u);
    QCOMPARE(file.fileInfo.bytesPerSample, 2u);

    QCOMPARE(opened.video(), hex("1011121314"));
    QCOMPARE(opened.video(), hex("20212223242526"));
    QCOMPARE(opened.video(), hex("303132333435"));
    QCOMPARE(opened.video(), QByteArray()); // no fourth frame
    QVERIFY(file.gotoVideoFrame(1));
    quint64 position = 0;
    quint64 bytes = 0;
    QVERIFY(file.calculateLocationSeekVideo(1, &position, &bytes));
    QCOMPARE(position, quint64(105));
    QCOMPARE(bytes, quint64(7));
    QVERIFY(!file.calculateLocationSeekVideo(3, &position, &bytes));
    QVERIFY(!file.gotoVideoFrame(3));
    QCOMPARE(file.playFrame, 1u);
    // A buffer too small is not filled and learns the size needed.
    char small[4];
    int size = 4;
    QVERIFY(!file.getMovieVideoData(small, &size));
    QCOMPARE(size, 7);
    QCOMPARE(file.playFrame, 1u);
    QVERIFY(!file.getMovieSoundData(small, nullptr, nullptr)); // sound of such a movie: readAudioSamples
    QVERIFY(file.closeFileRead());
}

void TestReader::soundIsReadAcrossChunks()
{
    Opened opened(videoAfterTwoSoundTracks());
    QVERIFY(opened.ok);
    MovieFile& file = opened.file;
    QCOMPARE(file.samplesLeftInCurrentChunk(0), 3u);
    QCOMPARE(opened.audio(0, 5), hex("A0A1A2A3A4A5 B0B1B2B3"));
    QCOMPARE(file.samplesLeftInCurrentChunk(0), 1u);
    QCOMPARE(file.getAudioTrack(0)->currentSample, quint64(5));
    QCOMPARE(opened.audio(0, 5), hex("B4B5 C0C1C2C3")); // only 3 are left
    QCOMPARE(file.samplesLeftInCurrentChunk(0), 0u);
    QCOMPARE(opened.audio(0, 5), QByteArray());
    QCOMPARE(opened.audio(1, 10), hex("D0D1D2D3D4D5D6D7 E0E1E2E3E4E5E6E7 F0F1F2F3"));
    QCOMPARE(file.getAudioTrack(1)->currentChunk, 3u);
}

void TestReader::seeksMoveVideoAndSoundTogether()
{
    Opened opened(videoAfterTwoSoundTracks());
    QVERIFY(opened.ok);
    MovieFile& file = opened.file;
    // Frame 1 starts 3/8000 s in: sample 3 of both sound tracks.
    QCOMPARE(file.calculateCorrespondingSample(1, file.getAudioTrack(0)), quint64(3));
    QVERIFY(file.seekToVideoFrameAbsolute(1));
    QCOMPARE(file.currentVideoFrame, 1u);
    QCOMPARE(file.playFrame, 1u);
    QCOMPARE(opened.audio(0, 1), hex("B0B1"));
    QCOMPARE(opened.audio(1, 1), hex("E4E5E6E7"));
    QCOMPARE(opened.video(), hex("20212223242526"));

    // Frame 2: sample 6, the start of A's last chunk and past B's five samples.
    QVERIFY(file.seekToVideoFrameRelative(1));
    QCOMPARE(file.currentVideoFrame, 2u);
    QCOMPARE(file.samplesLeftInCurrentChunk(1), 0u);
    QCOMPARE(opened.audio(0, 2), hex("C0C1C2C3"));
    QVERIFY(!file.seekToVideoFrameRelative(1));
    QVERIFY(!file.seekToVideoFrameRelative(-3));
    QCOMPARE(file.currentVideoFrame, 2u);
    QVERIFY(file.seekToVideoFrameRelative(-2));
    QCOMPARE(opened.audio(0, 1), hex("A0A1"));
    QVERIFY(!file.seekAudioToVideoFrameAbsolute(2)); // B ends before frame 2
    QVERIFY(file.seekAudioToVideoFrameAbsolute(1));

    QuickTimeTrackInfo* a = file.getAudioTrack(0);
    QVERIFY(file.seekToChunkJustBeyond(a, 41));
    QCOMPARE(a->currentChunk, 2u);
    quint64 position = 0;
    QVERIFY(file.calculateLocationSeek(a, &position));
    QCOMPARE(position, quint64(72));
    QVERIFY(file.seekToChunkJustBeyond(a, 8));
    QCOMPARE(a->currentChunk, 0u);
    QVERIFY(!file.seekToChunkJustBeyond(a, 73));
    QVERIFY(file.seekToAudioChunk(a, 1));
    QCOMPARE(a->currentSample, quint64(3));
    QVERIFY(!file.seekToAudioChunk(a, 3));
    QVERIFY(file.seekToSampleAbsolute(a, 7));
    QCOMPARE(a->currentChunk, 2u);
    QCOMPARE(a->sampleInChunk, 1u);
    QVERIFY(!file.seekToSampleAbsolute(a, 8));
    QVERIFY(file.seekToSampleAbsolute(a, 4));
    QVERIFY(file.calculateLocationSeek(a, &position));
    QCOMPARE(position, quint64(42));
}

void TestReader::playNavigationServesTheFileInOrder()
{
    Opened opened(videoAfterTwoSoundTracks());
    QVERIFY(opened.ok);
    MovieFile& file = opened.file;
    auto served = [&file](Tern::quicktime_playmode_t mode) {
        QList<QList<quint64>> pieces;
        QuickTimePlayRegion region;
        for (bool more = file.getStartDataLocation(mode, &region); more && pieces.size() < 20;
             more = file.getNextDataLocation(mode, &region))
            pieces << QList<quint64> { quint64(region.type), region.position, region.bytes, region.index,
                quint64(qint64(region.soundTrack) + 1) };
        return pieces;
    };
    // type, position, bytes, index (frame or chunk), sound track + 1
    const QList<QList<quint64>> sound { { 0, 8, 6, 0, 1 }, { 0, 16, 8, 0, 2 }, { 0, 40, 6, 1, 1 },
        { 0, 48, 8, 1, 2 }, { 0, 72, 4, 2, 1 }, { 0, 80, 4, 2, 2 } };
    const QList<QList<quint64>> video { { 1, 100, 5, 0, 0 }, { 1, 105, 7, 1, 0 }, { 1, 120, 6, 2, 0 } };
    QCOMPARE(served(Tern::quicktime_playmode_all), sound + video);
    QCOMPARE(served(Tern::quicktime_playmode_sound), sound);
    QCOMPARE(served(Tern::quicktime_playmode_video), video);
    QCOMPARE(file.currentVideoFrame, 2u);
}

void TestReader::filmRateAndInterlaceOfTheVideoTrack_data()
{
    QTest::addColumn<QByteArray>("extensions");
    QTest::addColumn<quint32>("recordedRate");
    QTest::addColumn<quint32>("interlaced");
    QTest::newRow("23.976p") << QByteArray() << 2398u << 0u;
    QTest::newRow("23.976, two fields") << box("fiel", hex("0206")) << 4796u << 1u;
}

void TestReader::filmRateAndInterlaceOfTheVideoTrack()
{
    QFETCH(QByteArray, extensions);
    QFETCH(quint32, recordedRate);
    QFETCH(quint32, interlaced);
    const QByteArray video = trak("vide", 23976, videoEntry("apcn", 720, 486, extensions),
        stts(1, 1000) + stsc({ { 1, 1 } }) + stsz(0, 1, { 8 }) + stco({ 8 }));
    Opened opened(movie(zeros(8), video));
    QVERIFY(opened.ok);
    QCOMPARE(opened.file.userData[2], recordedRate); // 2397.6 is spelled 2398, doubled for fields
    QCOMPARE(opened.file.userData[8], 0u);
    QCOMPARE(opened.file.interlaced, interlaced);
    QCOMPARE(opened.file.frameRate, 2398u);
    QCOMPARE(opened.file.timeScale, 23976u);
    QCOMPARE(opened.file.sampleDuration, 1000u);
    QCOMPARE(opened.file.height, quint16(480));
    QCOMPARE(opened.messages.value(2), QString("   track 0 (720x480%1)").arg(interlaced ? "i" : "p"));
    QCOMPARE(opened.messages.value(3), QString("      type: VIDEO (rate 2397)"));
}

void TestReader::frameTime()
{
    Opened opened(videoAfterTwoSoundTracks());
    QVERIFY(opened.ok);
    quint32 seconds = 99;
    quint32 remainder = 99;
    QVERIFY(opened.file.getFrameTime(2, 5, &seconds, &remainder)); // 15 / 8000
    QCOMPARE(seconds, 0u);
    QCOMPARE(remainder, 15u);
    QVERIFY(opened.file.getFrameTime(0, 8001, &seconds, &remainder));
    QCOMPARE(seconds, 1u);
    QCOMPARE(remainder, 1u);
    QVERIFY(opened.file.getFrameTime(1, 16000, &seconds, nullptr));
    QCOMPARE(seconds, 2u);
    QVERIFY(!opened.file.getFrameTime(3, 1, &seconds, &remainder));
}

QTEST_GUILESS_MAIN(TestReader)
#include "tst_reader.moc"
