// The reader's table caches, its track dump and the fast sound map: windows of table entries reloaded
// around the index in use, the learned tracks as logged, and the coarse runs the audio-start search skips.

#include "movie/HeronQuickTimeFile.h"
#include "movie/QuickTimeFile.h"
#include "support/AtomBytes.h"
#include "support/MessageCapture.h"
#include "support/TestSupport.h"

#include <QBuffer>
#include <QtTest>

using AtomBytes::u32;
using AtomBytes::u64;
using TestSupport::hex;
using MovieFile = Tern::QuickTimeFile;
using Tern::QuickTimeTrackInfo;

namespace {

// A table of 200 (or `count`) entries at file offset 16; entry i holds values that name i.
QByteArray tableEntry(const QString& table, quint32 i)
{
    if (table == "stco")
        return u32(0x10000 + i);
    if (table == "co64")
        return u64(0x100000000ull + i);
    if (table == "stsz")
        return u32(0x20000 + i);
    return u32(i + 1) + u32(100 + i) + u32(1);
}

struct CacheProbe
{
    QString table;
    QuickTimeTrackInfo track;
    MovieFile* file;
    void setIndex(quint32 k)
    {
        if (table == "stsz")
            track.currentSample = k;
        else if (table == "stsc")
            track.stscEntry = k;
        else
            track.currentChunk = k;
    }
    bool check(bool force)
    {
        if (table == "stco")
            return file->checkSTCOCache(&track, force);
        if (table == "co64")
            return file->checkCO64Cache(&track, force);
        if (table == "stsz")
            return file->checkSTSZCache(&track, force);
        return file->checkSTSCCache(&track, force);
    }
    quint32 start() const
    {
        return table == "stco" ? track.stcoCacheStart
            : table == "co64"  ? track.co64CacheStart
            : table == "stsz"  ? track.stszCacheStart
                               : track.stscCacheStart;
    }
    quint32 count() const
    {
        return table == "stco" ? track.stcoCacheCount
            : table == "co64"  ? track.co64CacheCount
            : table == "stsz"  ? track.stszCacheCount
                               : track.stscCacheCount;
    }
    // The cached entry in slot `slot`, as the bytes the cache holds.
    QByteArray slot(int slot) const
    {
        const char* base = table == "stco" ? reinterpret_cast<const char*>(track.stcoCache)
            : table == "co64"              ? reinterpret_cast<const char*>(track.co64Cache)
            : table == "stsz"              ? reinterpret_cast<const char*>(track.stszCache)
                                           : reinterpret_cast<const char*>(track.stscCache);
        const int bytes = table == "co64" ? 8 : table == "stsc" ? 12 : 4;
        return QByteArray(base + slot * bytes, bytes);
    }
};

void placeTable(CacheProbe* probe, quint32 entries)
{
    const QString& t = probe->table;
    if (t == "stco") {
        probe->track.stcoPos = 16;
        probe->track.stcoEntries = entries;
    } else if (t == "co64") {
        probe->track.co64Pos = 16;
        probe->track.co64Entries = entries;
    } else if (t == "stsz") {
        probe->track.stszPos = 16;
        probe->track.stszEntries = entries;
    } else {
        probe->track.stscPos = 16;
        probe->track.stscEntries = entries;
    }
}

QByteArray tableFile(const QString& table, quint32 entries)
{
    QByteArray bytes(16, '\0');
    for (quint32 i = 0; i < entries; ++i)
        bytes += tableEntry(table, i);
    return bytes;
}

} // namespace

class TestReaderTables : public QObject
{
    Q_OBJECT

private slots:
    void cacheReloadsAroundTheIndex_data();
    void cacheReloadsAroundTheIndex();
    void thirtyEntryTableFillsThirty_data();
    void thirtyEntryTableFillsThirty();
    void dumpNamesEveryKindOfTrack();
    void heronAudioStartSkipsRunsOfTheFastSoundMap();
};

void TestReaderTables::cacheReloadsAroundTheIndex_data()
{
    QTest::addColumn<QString>("table");
    QTest::addColumn<QByteArray>("entry100");
    QTest::addColumn<QByteArray>("entry163");
    QTest::addColumn<QByteArray>("entry0");
    QTest::addColumn<QByteArray>("entry87");
    QTest::newRow("stco") << "stco" << hex("00010064") << hex("000100A3") << hex("00010000")
                          << hex("00010057");
    QTest::newRow("co64") << "co64" << hex("0000000100000064") << hex("00000001000000A3")
                          << hex("0000000100000000") << hex("0000000100000057");
    QTest::newRow("stsz") << "stsz" << hex("00020064") << hex("000200A3") << hex("00020000")
                          << hex("00020057");
    QTest::newRow("stsc") << "stsc" << hex("00000065 000000C8 00000001") << hex("000000A4 00000107 00000001")
                          << hex("00000001 00000064 00000001") << hex("00000058 000000BB 00000001");
}

void TestReaderTables::cacheReloadsAroundTheIndex()
{
    QFETCH(QString, table);
    QFETCH(QByteArray, entry100);
    QFETCH(QByteArray, entry163);
    QFETCH(QByteArray, entry0);
    QFETCH(QByteArray, entry87);
    QByteArray bytes = tableFile(table, 200);
    QBuffer device(&bytes);
    device.open(QIODevice::ReadOnly);
    MovieFile file(device);
    CacheProbe probe { table, QuickTimeTrackInfo(), &file };
    placeTable(&probe, 200);

    probe.setIndex(100);
    QVERIFY(probe.check(false));
    QCOMPARE(probe.start(), 100u);
    QCOMPARE(probe.count(), 64u);
    QCOMPARE(probe.slot(0), entry100);
    QCOMPARE(probe.slot(63), entry163);

    probe.setIndex(120); // inside: nothing happens
    QVERIFY(!probe.check(false));
    QCOMPARE(probe.start(), 100u);

    probe.setIndex(10); // before the window, below 64: from 0
    QVERIFY(probe.check(false));
    QCOMPARE(probe.start(), 0u);
    QCOMPARE(probe.count(), 64u);
    QCOMPARE(probe.slot(0), entry0);

    probe.setIndex(100); // beyond the window: from the index
    QVERIFY(probe.check(false));
    QCOMPARE(probe.start(), 100u);
    QCOMPARE(probe.slot(0), entry100);

    probe.setIndex(199); // the last entry: a window of one
    QVERIFY(probe.check(false));
    QCOMPARE(probe.start(), 199u);
    QCOMPARE(probe.count(), 1u);

    probe.setIndex(150); // before the window, from 64 on: ending at the index
    QVERIFY(probe.check(false));
    QCOMPARE(probe.start(), 87u);
    QCOMPARE(probe.count(), 64u);
    QCOMPARE(probe.slot(0), entry87);

    QVERIFY(probe.check(true)); // forced: again at the same start
    QCOMPARE(probe.start(), 87u);
    QCOMPARE(probe.count(), 64u);
}

void TestReaderTables::thirtyEntryTableFillsThirty_data()
{
    QTest::addColumn<QString>("table");
    for (const char* table : { "stco", "co64", "stsz", "stsc" })
        QTest::newRow(table) << QString(table);
}

void TestReaderTables::thirtyEntryTableFillsThirty()
{
    QFETCH(QString, table);
    QByteArray bytes = tableFile(table, 30);
    QBuffer device(&bytes);
    device.open(QIODevice::ReadOnly);
    MovieFile file(device);
    CacheProbe probe { table, QuickTimeTrackInfo(), &file };
    placeTable(&probe, 30);
    probe.setIndex(0);
    QVERIFY(probe.check(false));
    QCOMPARE(probe.start(), 0u);
    QCOMPARE(probe.count(), 30u);
    QCOMPARE(probe.slot(29), tableEntry(table, 29));
    probe.setIndex(29);
    QVERIFY(!probe.check(false));
}

void TestReaderTables::dumpNamesEveryKindOfTrack()
{
    QBuffer device;
    MovieFile file(device);
    file.width = 1280;
    file.height = 720;
    file.interlaced = 1;
    file.trackCount = 4;
    file.tracks[0].type = Tern::quicktime_frametype_timecode;
    file.tracks[0].sampleDuration = 4000;
    file.tracks[0].timeScale = 2500;
    file.tracks[1].type = Tern::quicktime_frametype_video;
    file.tracks[1].sampleDuration = 1001;
    file.tracks[1].timeScale = 60000;
    file.tracks[2].type = Tern::quicktime_frametype_sound;
    file.tracks[2].sampleDuration = 1;
    file.tracks[2].timeScale = 48000;
    file.tracks[2].audioBytesPerSample = 3;
    file.tracks[2].audioChannels = 8;
    file.tracks[3].type = Tern::quicktime_frametype_unknown;
    MessageCapture log;
    file.dumpTrackInfo();
    QCOMPARE(log.messages(),
        QStringList({ "********** learned track info *************", "### 4 tracks", "   track 0 (1280x720i)",
            "      type: TIMECODE", "      sample duration 4000", "      time scale 2500",
            "   track 1 (1280x720i)", "      type: VIDEO (rate 5994)", "      sample duration 1001",
            "      time scale 60000", "   track 2 (1280x720i)",
            "      type: AUDIO (3 bytes/sample, little endian, 8 channel(s)", "      sample duration 1",
            "      time scale 48000", "   track 3 (1280x720i)", "      type: UNKNOWN!!!",
            "      sample duration -1", "      time scale -1" }));
}

void TestReaderTables::heronAudioStartSkipsRunsOfTheFastSoundMap()
{
    // 1,000 entries: video (3 blocks) and sound (16 blocks, 8,192 bytes) by turns.
    QVector<quint16> map(int(MovieFile::s_frameMapEntries), 0);
    for (int i = 0; i < 1000; ++i)
        map[i] = i % 2 == 0 ? 0x4003 : 0x0010;
    QBuffer device;
    QuickTimeFile heron(device, map.data());
    heron.videoFrameCount = 500;
    heron.soundChunks = 500;
    // 48,000 Hz x 2 bytes x 2 tracks x 100 / 2500: 7,680 bytes of sound a frame.
    heron.audioSampleRate = 48000;
    heron.audioBytesPerSample = 2;
    heron.audioTracks = 2;
    heron.userData[2] = 2500;

    // Frame 100: 768,000 bytes in. Runs of 4 entries hold 16,384 bytes; 46 runs are skipped whole
    // (753,664 bytes), then sound entry 185 (8,192), leaving 6,144 bytes into entry 187.
    QCOMPARE(heron.prepareAudioStartLocation(100), 187u);
    QCOMPARE(heron.playFrame, 187u);
    QCOMPARE(heron.audioStartOffset, 6144u);
    QCOMPARE(heron.fastAudioRunCount, 250);
    QCOMPARE(heron.frameMapLength, 1000u);
    const Tern::QuickTimeFastAudioRun* runs = heron.fastAudioMap.get();
    QCOMPARE(runs[0].firstEntry, 0u);
    QCOMPARE(runs[0].soundBlocks, 32u);
    QCOMPARE(runs[0].blocksBefore, quint64(0));
    QCOMPARE(runs[1].firstEntry, 4u);
    QCOMPARE(runs[1].blocksBefore, quint64(38));
    QCOMPARE(runs[249].firstEntry, 996u);
    QCOMPARE(runs[249].blocksBefore, quint64(9462));

    QCOMPARE(heron.prepareAudioStartLocation(0), 1u);
    QCOMPARE(heron.audioStartOffset, 0u);

    MessageCapture log;
    QCOMPARE(heron.prepareAudioStartLocation(2000), 0u); // 15,360,000 bytes: past the 4,096,000 there
    QCOMPARE(log.messages(), QStringList({ "prepareAudioStartLocation failed" }));
    QCOMPARE(heron.playFrame, 0u);
    QCOMPARE(heron.audioStartOffset, 0u);
}

QTEST_GUILESS_MAIN(TestReaderTables)
#include "tst_reader_tables.moc"
