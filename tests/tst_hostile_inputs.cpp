// Inputs found by the fuzz targets (fuzz/), each reduced to what triggers it: damaged or hostile bytes
// that once crashed or hung a reader or the recovery, now refused or handled cleanly.

#include "audio/AudioFile.h"
#include "movie/HeronQuickTimeFile.h"
#include "movie/InformationAtoms.h"
#include "movie/QuickTimeFile.h"
#include "support/TestSupport.h"

#include <QBuffer>
#include <QtEndian>
#include <QtTest>

#include <algorithm>
#include <memory>

using TestSupport::hex;
using TestSupport::le;

namespace {

// ---- An unfinished recording, laid out by hand: the family's reserved region with the settings record
// and the frame map, the unclosed 'mdat' header at 5,472,240, then `mediaBlocks` blocks of zero media.

const int kDatPos = 5472240;
const int kRecordBytesTern = 120;
const int kRecordBytesHeron = 108;

QByteArray ternRegionHead()
{
    return hex("00000014 66747970 71742020 20070400 71742020" // 'ftyp', 20 bytes
               "00537FDC 75647461" // 'udta' up to the 'mdat' header
               "00000008 75726563"); // empty 'urec'; the record follows at 36
}

QByteArray heronRegionHead()
{
    return hex("00537FF0 66747970 71742020 20070400 71742020"); // 'ftyp' spanning the region; record at 20
}

QByteArray recording(
    const QByteArray& head, const QByteArray& record, const QVector<quint16>& map, int mediaBlocks)
{
    QByteArray bytes = head + record;
    for (quint16 entry : map)
        bytes += QByteArray(1, char(entry & 0xFF)) + QByteArray(1, char(entry >> 8));
    bytes += QByteArray(kDatPos - bytes.size(), '\0');
    bytes += hex("00000001 6D646174 00000000 00000010"); // unclosed 'mdat': 64-bit size of its header only
    bytes += QByteArray(512 * mediaBlocks, '\0');
    return bytes;
}

// A timecode sample, then 30 video frames of 3 blocks each and 30 sound chunks of 2 blocks each.
QVector<quint16> sixtyOneChunks()
{
    QVector<quint16> map { 0x8001 };
    for (int i = 0; i < 30; ++i)
        map << 0x4003 << 0x0002;
    return map;
}
const int kSixtyOneChunksBlocks = 1 + 30 * 3 + 30 * 2;

// A sound-carrying record every procedure accepts, with `recordedEndPosition` at the family's offset.
QByteArray settingsRecord(int size, int endOffset, quint64 recordedEndPosition)
{
    QByteArray record(size, '\0');
    auto put32 = [&record](int at, quint32 v) { record.replace(at, 4, le(v, 4)); };
    put32(16, 2500); // frameRate
    put32(24, 2); // audioTracks
    put32(28, 3); // audioBytesPerSample
    put32(32, 48000); // audioSampleRate
    record.replace(40, 4, hex("8007 3804")); // width 1920, height 1080
    put32(48, 1238); // videoCodecId
    record.replace(endOffset, 8, le(recordedEndPosition, 8));
    if (size == kRecordBytesTern) {
        put32(80, 1920); // audioSamplesPerChunk
        put32(84, 1); // videoFramesPerChunk
    }
    return record;
}

// The Tern procedure's calls on an opened recording, up to recover(); false where any of them refused.
bool recoverTern(QIODevice& device)
{
    auto movie = std::make_unique<Tern::QuickTimeFile>(device);
    if (!movie->verifyHeader())
        return false;
    movie->initFile(nullptr);
    const Tern::RecoverySettings* s = movie->loadSavedSettings();
    if (!s)
        return false;
    movie->setTimecode(s->timecode, s->dropFrame, false, true);
    movie->setUserData(s->userData1, s->userData2, s->frameRate, s->dropFrame, s->userData5, s->audioTracks,
        s->audioBytesPerSample * 8, s->audioSampleRate, s->userData9);
    movie->width = s->width;
    movie->height = s->height;
    movie->videoCodecId = s->videoCodecId;
    movie->setFrameRate(s->frameRate);
    movie->audioTracks = s->audioTracks;
    movie->setAudioSamplesPerFrame(int(s->audioSamplesPerChunk));
    movie->setAudioBytesPerSample(s->audioBytesPerSample);
    movie->setAudioSampleRate(s->audioSampleRate);
    movie->videoFramesPerChunk = s->videoFramesPerChunk;
    movie->recordedEndPosition = s->recordedEndPosition;
    movie->InitQuickTimeFileInfo();
    return movie->recover();
}

bool recoverHeron(QIODevice& device)
{
    std::unique_ptr<unsigned short[]> frameMap(new unsigned short[Tern::QuickTimeFile::s_frameMapEntries]);
    auto movie = std::make_unique<QuickTimeFile>(device, frameMap.get());
    if (!movie->verifyHeader())
        return false;
    movie->initFile(nullptr);
    const QuickTimeFile::RecoverySettings* s = movie->loadSavedSettings();
    if (!s)
        return false;
    movie->setTimecode(s->timecode, s->dropFrame, false);
    movie->setUserData(s->userData1, s->userData2, s->frameRate, s->dropFrame, s->userData5, s->audioTracks,
        s->audioBytesPerSample * 8, s->audioSampleRate, s->userData9);
    movie->setFrameRate(s->frameRate);
    movie->audioTracks = s->audioTracks;
    movie->setAudioSamplesPerFrame(3072);
    movie->setAudioBytesPerSample(s->audioBytesPerSample);
    movie->setAudioSampleRate(s->audioSampleRate);
    movie->videoFramesPerChunk = 3;
    movie->recordedEndPosition = s->recordedEndPosition;
    movie->InitQuickTimeFileInfo();
    return movie->recover();
}

} // namespace

class TestHostileInputs : public QObject
{
    Q_OBJECT

private slots:
    // A cut-off Broadcast WAV (all four chunks, 'data' size 0) whose 'fmt ' gives a sample rate of 0 and
    // whose 'bext' holds a time reference: the time reference cannot become a timecode (it used to be
    // divided by the rate, which ended the program), and the sizes are repaired as for any such file.
    void wavTimeReferenceWithZeroSampleRate()
    {
        // clang-format off
        const QByteArray file = hex("52494646 00000000 57415645"                     // RIFF, size cut off
                                    "666D7420 10000000 0100 0200 00000000 00000000" // 'fmt ' PCM, 2 ch, 0 Hz
                                    "0400 1000"                                     // align 4, 16 bits
                                    "62657874 5A010000")                            // 'bext', 346 bytes
                              + QByteArray(256 + 82, '\0')                         // description ... time
                              + hex("01000000 00000000"                             // TimeReference 1
                                    "69584D4C 00000000"                             // empty 'iXML'
                                    "64617461 00000000 0102030405060708");          // 'data' cut off
        // clang-format on
        QByteArray bytes = file;
        QBuffer buffer(&bytes);
        QVERIFY(buffer.open(QIODevice::ReadWrite));
        AudioFile audio(buffer);
        QCOMPARE(audio.ReadAudioFileInfo(), 0u);
        AudioFile::AudioFileInfo info;
        audio.GetFileInfo(&info);
        QCOMPARE(info.sampleRate, 0u);
        QCOMPARE(info.frameRate, quint16(5)); // a time reference without a SPEED key: 30 frame/s
        QCOMPARE(info.startTimecode, 0xFFFFFFFFu);
        QCOMPARE(audio.VerifyHeader(), 0u);

        QByteArray expected = file;
        expected.replace(4, 4, hex("96010000")); // RIFF size 414 - 8
        expected.replace(402, 4, hex("08000000")); // 'data' size 8
        QCOMPARE(bytes.toHex(), expected.toHex());
    }

    // A settings record whose recorded end position lies beyond what a signed file offset holds (bit 63
    // set): the 'mdat' size computed from it overflowed. One just below that limit (the largest offset, or
    // one an index of 4 GiB, the appended sample and the closing zeros cannot follow) overflowed the index's
    // position. Recovery refuses the file and writes nothing.
    void recordedEndPositionBeyondSignedOffsets_data()
    {
        QTest::addColumn<bool>("heron");
        QTest::addColumn<quint64>("end");
        const quint64 furthest = 0x7FFFFFFFFFFFFFFFULL - 512 - (quint64(1) << 32) - 512;
        const struct {
            const char* name;
            quint64 end;
        } ends[] = {
            {"bit 63", 0x8000000000000000ULL}, // the most negative offset, below which the size wrapped
            {"largest offset", 0x7FFFFFFFFFFFFFFFULL},
            {"an index past the largest offset", furthest + 1},
        };
        for (const auto& end : ends) {
            QTest::newRow(qPrintable(QString("Tern, %1").arg(end.name))) << false << end.end;
            QTest::newRow(qPrintable(QString("Heron, %1").arg(end.name))) << true << end.end;
        }
    }
    void recordedEndPositionBeyondSignedOffsets()
    {
        QFETCH(bool, heron);
        QFETCH(quint64, end);
        const QByteArray original = heron
            ? recording(heronRegionHead(), settingsRecord(kRecordBytesHeron, 68, end), sixtyOneChunks(),
                kSixtyOneChunksBlocks)
            : recording(ternRegionHead(), settingsRecord(kRecordBytesTern, 72, end), sixtyOneChunks(),
                kSixtyOneChunksBlocks);
        QByteArray bytes = original;
        QBuffer buffer(&bytes);
        QVERIFY(buffer.open(QIODevice::ReadWrite));
        QVERIFY(!(heron ? recoverHeron(buffer) : recoverTern(buffer)));
        QCOMPARE(bytes.size(), original.size());
        QVERIFY(bytes == original);
    }

    // The furthest end an index can follow passes the settings check; one byte further does not.
    void furthestRecordedEndIsAPlaceForAnIndex()
    {
        const quint64 furthest = 0x7FFFFFFFFFFFFFFFULL - 512 - (quint64(1) << 32) - 512;
        QCOMPARE(quint64(Tern::QuickTimeFile::s_furthestRecordedEnd), furthest);
        QVERIFY(Tern::QuickTimeFile::settingsAllowIndex(3, 2, 3, furthest, Tern::ternFamily));
        QVERIFY(!Tern::QuickTimeFile::settingsAllowIndex(3, 2, 3, furthest + 1, Tern::ternFamily));
    }

    // The same recordings with the end position they should have recover: the test above fails only
    // for the hostile field.
    void recordingsOfTheseLayoutsRecover_data() { recordedEndPositionBeyondSignedOffsets_data(); }
    void recordingsOfTheseLayoutsRecover()
    {
        QFETCH(bool, heron);
        const quint64 end = 5472256 + 512 * kSixtyOneChunksBlocks;
        QByteArray bytes = heron ? recording(heronRegionHead(), settingsRecord(kRecordBytesHeron, 68, end),
                               sixtyOneChunks(), kSixtyOneChunksBlocks)
                                 : recording(ternRegionHead(), settingsRecord(kRecordBytesTern, 72, end),
                                     sixtyOneChunks(), kSixtyOneChunksBlocks);
        QBuffer buffer(&bytes);
        QVERIFY(buffer.open(QIODevice::ReadWrite));
        QVERIFY(heron ? recoverHeron(buffer) : recoverTern(buffer));
        // The 'mdat' header is closed: it spans the media (and Heron's appended timecode sample).
        const quint64 mdatSize = 16 + 512 * quint64(kSixtyOneChunksBlocks) + (heron ? 512 : 0);
        QByteArray size64(8, '\0');
        qToBigEndian<quint64>(mdatSize, reinterpret_cast<uchar*>(size64.data()));
        QCOMPARE(bytes.mid(kDatPos, 16).toHex(), (hex("00000001 6D646174") + size64).toHex());
        QCOMPARE(bytes.mid(int(kDatPos + mdatSize) + 4, 4), QByteArray("moov"));
    }

    // A Heron recording whose frame map is full (2,736,000 entries, no terminator) counts the timecode
    // sample that closing appends without room for its entry; the maker atom listed that entry from past
    // the end of the map. An entry beyond the map is listed as 0, and the atom is exactly its size.
    // Counts whose tables would not fit a 32-bit atom size (chunk offsets for 2^28 sound chunks on two
    // tracks, 4 GiB): closeFile builds no index and writes nothing.
    void indexBeyondAtomSizesIsNotWritten()
    {
        QByteArray bytes = recording(ternRegionHead(), settingsRecord(kRecordBytesTern, 72, 0), sixtyOneChunks(),
            kSixtyOneChunksBlocks);
        QBuffer buffer(&bytes);
        QVERIFY(buffer.open(QIODevice::ReadWrite));
        Tern::QuickTimeFile movie(buffer);
        QVERIFY(movie.verifyHeader());
        movie.initFile(nullptr);
        movie.videoFrameCount = 30;
        movie.timecodeSamples = 1;
        movie.videoFramesPerChunk = 1;
        movie.audioTracks = 2;
        movie.audioBytesPerSample = 3;
        movie.soundChunks = 1u << 28;
        QVERIFY(!movie.indexFitsAtomSizes());
        const QByteArray before = bytes;
        QVERIFY(buffer.seek(buffer.size()));
        QVERIFY(!movie.closeFile());
        QVERIFY(bytes == before);

        movie.soundChunks = 30; // the recording's own count: the same call builds the index
        QVERIFY(movie.indexFitsAtomSizes());
        QVERIFY(movie.closeFile());
        QVERIFY(bytes.size() > before.size());
    }

    void makerAtomListsNothingFromBeyondTheFrameMap()
    {
        const quint32 capacity = Tern::QuickTimeFile::s_frameMapEntries;
        std::unique_ptr<unsigned short[]> storage(new unsigned short[capacity + 1]);
        std::fill(storage.get(), storage.get() + capacity, quint16(0x0001));
        storage[capacity] = 0xBEEF; // what lies behind the map must never reach the file
        QBuffer unused;
        QuickTimeFile movie(unused, storage.get());
        movie.soundChunks = capacity;
        movie.timecodeSamples = 1; // counted, not entered

        Tern::QuickTimeHaldenAtom atom(&movie);
        QCOMPARE(atom.size, 8 + 4 + 136 + 2 * (capacity + 1));
        QByteArray bytes;
        QBuffer out(&bytes);
        QVERIFY(out.open(QIODevice::WriteOnly));
        QDataStream stream(&out);
        atom.write(stream);
        QCOMPARE(quint32(bytes.size()), atom.size);
        QCOMPARE(bytes.right(6).toHex(), QByteArray("000100010000")); // the last two entries, then 0
    }
};

QTEST_GUILESS_MAIN(TestHostileInputs)
#include "tst_hostile_inputs.moc"
