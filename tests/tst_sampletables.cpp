// The movie index's output path: the buffered device, and the sample tables streamed from the frame map
// through it in batches (exact bytes of every table atom, progress messages, both modes of the walk).

#include "movie/QuickTimeBufferDevice.h"
#include "movie/InformationAtoms.h"
#include "movie/QuickTimeFile.h"
#include "movie/SampleTables.h"
#include "support/AtomBytes.h"
#include "support/MessageCapture.h"
#include "support/MovieFixtures.h"
#include "support/TestSupport.h"

#include <QBuffer>
#include <QVector>
#include <QtTest>

#include <memory>

using namespace Tern;
using AtomBytes::u32;
using AtomBytes::u64;
using TestSupport::FailingBuffer;
using TestSupport::hex;
using TestSupport::pattern;

namespace {

const quint64 S = ternFamily.movieDataStartOffset; // 0x538000, where the offsets below start

const char* const s_writeError =
    "!!! QuickTimeBufferDevice encountered HDD error, dumping subsequent writes (0) \"Unknown error\"";

const quint32 Sound = quicktime_frametype_sound;
const quint32 Video = quicktime_frametype_video;
const quint32 Timecode = quicktime_frametype_timecode;

// A recording in memory whose frame map holds the given entries, counted by type.
struct Recording
{
    QBuffer buffer;
    QuickTimeFile file{buffer};

    explicit Recording(const QVector<quint16>& entries)
    {
        buffer.open(QIODevice::ReadWrite);
        file.initFile(&buffer);
        setEntries(&file, entries);
    }

    // Writes the atoms as the file's top-level list at the media start; returns the bytes written.
    QByteArray write(const QList<QuickTimeAtom*>& atoms)
    {
        for (QuickTimeAtom* atom : atoms)
            file.addAtom(atom);
        if (!file.writeAtomList())
            return "write failed";
        return buffer.data().mid(int(S));
    }

    static void setEntries(QuickTimeFile* file, const QVector<quint16>& entries)
    {
        for (int i = 0; i < entries.size(); ++i) {
            file->frameMap[i] = entries[i];
            switch (entries[i] >> 14) {
            case 0:
                ++file->soundChunks;
                break;
            case 1:
                ++file->videoFrameCount;
                break;
            case 2:
                ++file->timecodeSamples;
                break;
            default:
                break;
            }
        }
        file->frameMap[entries.size()] = 0;
    }
};

// Twelve chunks: nine video frames between sound and timecode chunks. File offsets (from S) in comments.
const QVector<quint16> s_mixedMap = {
    0x4002, // video 1024   @ 0
    0x0001, // sound 512    @ 1024
    0x4003, // video 1536   @ 1536
    0x4001, // video 512    @ 3072
    0x8001, // timecode 512 @ 3584
    0x4004, // video 2048   @ 4096
    0x4002, // video 1024   @ 6144
    0x0003, // sound 1536   @ 7168
    0x4001, // video 512    @ 8704
    0x4001, // video 512    @ 9216
    0x4005, // video 2560   @ 9728
    0x4001, // video 512    @ 12288
};

} // namespace

class TestSampleTables : public QObject
{
    Q_OBJECT

private slots:
    // ---- the buffered device the tables are written through

    void bufferDeviceWritesOneFullBuffer()
    {
        QBuffer target;
        target.open(QIODevice::ReadWrite);
        QuickTimeBufferDevice device(&target);
        QVERIFY(device.open(QIODevice::ReadWrite | QIODevice::Unbuffered));
        QCOMPARE(device.bufferSize(), 131072);
        const QByteArray block = pattern(131072, 'A');
        QCOMPARE(device.write(block), qint64(131072));
        QCOMPARE(device.fill(), 0);
        QVERIFY(target.data() == block);
        QCOMPARE(device.write(QByteArray()), qint64(0));
        char byte = 0;
        QCOMPARE(device.read(&byte, 1), qint64(-1)); // write only
    }

    void bufferDevicePositionCountsHeldBytes()
    {
        QBuffer target;
        target.open(QIODevice::ReadWrite);
        target.write(hex("0102030405"));
        {
            QuickTimeBufferDevice device(&target);
            device.open(QIODevice::ReadWrite | QIODevice::Unbuffered);
            device.write(hex("AABBCCDDEEFF0011"));
            QCOMPARE(target.size(), qint64(5));
            QCOMPARE(device.fill(), 8);
            QCOMPARE(device.pos(), qint64(13));
            device.write(pattern(131072, 'x'));
            QCOMPARE(target.size(), qint64(5 + 131072));
            QCOMPARE(device.fill(), 8);
            QCOMPARE(device.pos(), qint64(5 + 131072 + 8));
            device.flushBuffer();
            QCOMPARE(device.fill(), 0);
            QCOMPARE(device.pos(), qint64(5 + 131072 + 8));
            device.write(hex("77"));
        }
        // The destructor flushes what is left.
        QCOMPARE(target.data(), hex("0102030405 AABBCCDDEEFF0011") + pattern(131072, 'x') + hex("77"));
    }

    void bufferDeviceLatchesAFailedFullBuffer()
    {
        FailingBuffer target(0);
        target.open(QIODevice::ReadWrite);
        MessageCapture capture;
        {
            QuickTimeBufferDevice device(&target);
            device.open(QIODevice::ReadWrite | QIODevice::Unbuffered);
            QCOMPARE(device.write(pattern(131072 + 10, 'A')), qint64(-1));
            QCOMPARE(device.fill(), -1);
            QCOMPARE(device.write(hex("0102")), qint64(-1));
            device.flushBuffer();
            QCOMPARE(device.fill(), -1);
        }
        QCOMPARE(capture.messages(), QStringList{s_writeError});
        QCOMPARE(target.size(), qint64(0));
    }

    void bufferDeviceLatchesAFailedFlush()
    {
        FailingBuffer target(5);
        target.open(QIODevice::ReadWrite);
        MessageCapture capture;
        QuickTimeBufferDevice device(&target);
        device.open(QIODevice::ReadWrite | QIODevice::Unbuffered);
        QCOMPARE(device.write(pattern(10, 'A')), qint64(10));
        device.flushBuffer();
        QCOMPARE(device.fill(), -1);
        device.addToFill(4); // table writers cannot revive a latched device
        QCOMPARE(device.fill(), -1);
        QCOMPARE(device.write(pattern(131072, 'A')), qint64(-1));
        QCOMPARE(capture.messages(),
                 QStringList{"*** QuickTime***BufferDevice encountered HDD error, dumping "
                             "subsequent writes (10) \"Unknown error\""});
    }

    void writeAtomListReportsAFailedFlush()
    {
        FailingBuffer buffer(4);
        buffer.open(QIODevice::ReadWrite);
        QuickTimeFile file(buffer);
        QuickTimeAtom* moov = file.addAtom(new QuickTimeMovieAtom);
        moov->addAtom(new QuickTimeWideAtom);
        MessageCapture capture;
        QVERIFY(!file.writeAtomList());
        QCOMPARE(capture.messages(),
                 QStringList{"*** QuickTime***BufferDevice encountered HDD error, dumping "
                             "subsequent writes (16) \"Unknown error\""});
        QCOMPARE(buffer.size(), qint64(0));
    }

    void writeAtomListReportsAFailedFullBuffer()
    {
        FailingBuffer buffer(0);
        buffer.open(QIODevice::ReadWrite);
        QuickTimeFile file(buffer);
        auto* skip = new QuickTimeSkipAtom;
        skip->size = 300000; // more than two buffers of padding
        file.addAtom(skip);
        file.addAtom(new QuickTimeWideAtom);
        MessageCapture capture;
        QVERIFY(!file.writeAtomList());
        QCOMPARE(capture.messages(), QStringList{s_writeError});
    }

    // ---- tables

    void timeToSample()
    {
        Recording rec({});
        QCOMPARE(rec.write({new QuickTimeTimeToSampleAtom(&rec.file, 240, 100)}),
                 hex("00000018 73747473 00000000 00000001 000000F0 00000064"));
    }

    void sampleToChunkWithoutShortFirstChunk()
    {
        Recording rec({});
        auto* stsc = new QuickTimeSampleToChunkAtom(&rec.file, 10, 5, 3, 0);
        QCOMPARE(stsc->size, 40u);
        QCOMPARE(rec.write({stsc}), hex("00000028 73747363 00000000 00000002"
                                        "00000001 0000000A 00000001"
                                        "00000005 00000003 00000001"));
    }

    void sampleToChunkWithShortFirstChunk()
    {
        Recording rec({});
        auto* stsc = new QuickTimeSampleToChunkAtom(&rec.file, 10, 5, 3, 4);
        QCOMPARE(stsc->size, 52u);
        QCOMPARE(rec.write({stsc}), hex("00000034 73747363 00000000 00000003"
                                        "00000001 00000004 00000001"
                                        "00000002 0000000A 00000001"
                                        "00000005 00000003 00000001"));
        QCOMPARE(stsc->firstChunk, 2u); // the object is written once
    }

    void videoEntry4003IsA1536ByteVideoFrame()
    {
        Recording rec({0x4003});
        quicktime_frametype_t type = quicktime_frametype_unknown;
        unsigned int bytes = 0;
        QVERIFY(rec.file.frameSize(0, &type, &bytes));
        QCOMPARE(type, quicktime_frametype_video);
        QCOMPARE(bytes, 1536u);
        QCOMPARE(rec.write({new QuickTimeSampleSizeAtom(&rec.file, Video, 1, 0)}),
                 hex("00000018 7374737A 00000000 00000000 00000001 00000600"));
    }

    void fixedSampleSizeWritesTwentyBytes()
    {
        Recording rec(s_mixedMap);
        auto* stsz = new QuickTimeSampleSizeAtom(&rec.file, Sound, 100000, 4);
        QCOMPARE(stsz->size, 20u);
        QCOMPARE(rec.write({stsz}), hex("00000014 7374737A 00000000 00000004 000186A0"));
    }

    void sampleSizesOfOneType()
    {
        Recording rec(s_mixedMap);
        QCOMPARE(rec.write({new QuickTimeSampleSizeAtom(&rec.file, Video, 9, 0)}),
                 hex("00000038 7374737A 00000000 00000000 00000009"
                     "00000400 00000600 00000200 00000800 00000400 00000200 00000200 00000A00 00000200"));
    }

    void chunkOffsetsPerFrame()
    {
        Recording rec(s_mixedMap);
        MessageCapture capture;
        QCOMPARE(rec.write({new QuickTimeChunkOffsetAtom(&rec.file, Sound, 2, 0x10)}),
                 hex("00000018 7374636F 00000000 00000002 00538410 00539C10"));
        QCOMPARE(capture.messages(), QStringList{"stream 2 entries"});
    }

    void chunkOffsetsWrapAt32Bits()
    {
        Recording rec({0x7FFF, 0x7FFF});
        // Bias 0xFFAC8000 + S = 2^32; the frames are 0x3FFF blocks each.
        QCOMPARE(rec.write({new QuickTimeChunkOffsetAtom(&rec.file, Video, 2, 0xFFAC8000)}),
                 hex("00000018 7374636F 00000000 00000002 00000000 007FFE00"));
    }

    void co64TwoSamplesPerChunkOverNineFrames()
    {
        Recording rec(s_mixedMap);
        auto* co64 = new QuickTimeChunkOffset64Atom(&rec.file, Video, 9, 0x100, 2, 0, 0);
        QCOMPARE(co64->size, 56u);
        // The 1st, 3rd, 5th, 7th and 9th video frame, plus the bias.
        QCOMPARE(rec.write({co64}), hex("00000038 636F3634 00000000 00000005"
                                        "0000000000538100 0000000000538D00 0000000000539900"
                                        "000000000053A500 000000000053B100"));
    }

    void co64LastChunkTakesItsOwnBias()
    {
        Recording rec(s_mixedMap);
        QCOMPARE(rec.write({new QuickTimeChunkOffset64Atom(&rec.file, Video, 9, 0x100, 2, 0x40, 0x999)}),
                 hex("00000038 636F3634 00000000 00000005"
                     "0000000000538100 0000000000538D00 0000000000539900"
                     "000000000053A500 000000000053B040"));
    }

    void co64MessagesNameCountAndTablePosition()
    {
        Recording rec(s_mixedMap);
        MessageCapture capture;
        // 'stsz' of 9 entries (56 bytes) first: the offset table starts at S + 56 + 16 = 0x538048.
        rec.write({new QuickTimeSampleSizeAtom(&rec.file, Video, 9, 0),
                   new QuickTimeChunkOffset64Atom(&rec.file, Video, 9, 0, 2, 0, 0)});
        QCOMPARE(capture.messages(), (QStringList{"stream 5 entries (538048)", "done streaming 5 entries"}));
    }

    void emptyCo64LogsOnlyTheClosingLine()
    {
        Recording noFrames({});
        MessageCapture capture;
        QCOMPARE(noFrames.write({new QuickTimeChunkOffset64Atom(&noFrames.file, Timecode, 0, 0, 1, 0, 0)}),
                 hex("00000010 636F3634 00000000 00000000"));
        QCOMPARE(capture.messages(), QStringList{"done streaming 0 entries"});

        // A count with no frame behind it: the count is written, nothing follows.
        Recording stillNoFrames({});
        capture.clear();
        auto* tooMany = new QuickTimeChunkOffset64Atom(&stillNoFrames.file, Video, 3, 0, 1, 0, 0);
        QCOMPARE(stillNoFrames.write({tooMany}),
                 hex("00000028 636F3634 00000000 00000003"));
        QCOMPARE(capture.messages(), QStringList{"done streaming 0 entries"});
    }

    void heronCo64LogsNothing()
    {
        QVector<quint16> storage(int(QuickTimeFile::s_frameMapEntries));
        QBuffer buffer;
        buffer.open(QIODevice::ReadWrite);
        HeronMovie file(buffer, storage.data());
        QVERIFY(file.initFile(&buffer));
        Recording::setEntries(&file, s_mixedMap);
        MessageCapture capture;
        file.addAtom(new QuickTimeChunkOffset64Atom(&file, Video, 9, 0x100, 2, 0, 0));
        file.addAtom(new QuickTimeChunkOffsetAtom(&file, Sound, 2, 0x10));
        QVERIFY(file.writeAtomList());
        QCOMPARE(buffer.data().mid(int(S)), hex("00000038 636F3634 00000000 00000005"
                                                "0000000000538100 0000000000538D00 0000000000539900"
                                                "000000000053A500 000000000053B100"
                                                "00000018 7374636F 00000000 00000002 00538410 00539C10"));
        QCOMPARE(capture.messages(), QStringList{"stream 2 entries"});
    }

    void streamedTablesAcrossBatchesMatchAPerEntryLoop()
    {
        // 100,000 chunks: 70,000 video frames (more than two batches of sizes, four of offsets) of up to
        // 16,383 blocks, so offsets pass 4 GiB, with sound and timecode chunks in between.
        QVector<quint16> map;
        for (quint32 i = 0; i < 100000; ++i) {
            if (i % 10 < 7)
                map << quint16(0x4000 | ((i * 7919u) % 0x3FFF + 1));
            else if (i % 10 < 9)
                map << quint16((i * 31u) % 200 + 1);
            else
                map << quint16(0x8001);
        }
        Recording rec(map);
        QCOMPARE(rec.file.videoFrameCount, 70000u);
        QCOMPARE(rec.file.soundChunks, 20000u);

        // Per-entry reference: sizes, offsets of every video frame, offsets of every third sound chunk;
        // the last chunk of each offset table takes its lastOffsetBias (5, 0x1234) instead of the bias.
        QByteArray sizes, videoOffsets, soundOffsets;
        quint64 offset = S;
        quint32 soundSeen = 0;
        quint64 lastVideoStart = 0;
        quint64 lastSoundChunkStart = 0;
        for (quint16 entry : map) {
            const quint32 length = quint32(entry & 0x3FFF) * 512;
            if (entry >> 14 == 1) {
                sizes += u32(length);
                videoOffsets += u64(3 + offset);
                lastVideoStart = offset;
            } else if (entry >> 14 == 0 && soundSeen++ % 3 == 0) {
                soundOffsets += u64(1000 + offset);
                lastSoundChunkStart = offset;
            }
            offset += length;
        }
        QVERIFY(offset > (quint64(1) << 32));
        videoOffsets.replace(videoOffsets.size() - 8, 8, u64(lastVideoStart + 5));
        soundOffsets.replace(soundOffsets.size() - 8, 8, u64(lastSoundChunkStart + 0x1234));
        QCOMPARE(soundOffsets.size(), 8 * 6667);

        MessageCapture capture;
        const QByteArray written =
            rec.write({new QuickTimeSampleSizeAtom(&rec.file, Video, 70000, 0),
                       new QuickTimeChunkOffset64Atom(&rec.file, Video, 70000, 3, 1, 5, 0),
                       new QuickTimeChunkOffset64Atom(&rec.file, Sound, 20000, 1000, 3, 0x1234, 0)});
        const QByteArray expected = hex("000445D4 7374737A 00000000 00000000 00011170") + sizes
                                    + hex("00088B90 636F3634 00000000 00011170") + videoOffsets
                                    + hex("0000D068 636F3634 00000000 00001A0B") + soundOffsets;
        QCOMPARE(written.size(), expected.size());
        QVERIFY(written == expected);
        // The offset tables start at S + 0x445D4 + 16 and S + 0x445D4 + 0x88B90 + 16.
        QCOMPARE(capture.messages(), (QStringList{"stream 70000 entries (57c5e4)",
                                               "done streaming 70000 entries",
                                               "stream 6667 entries (605174)",
                                               "done streaming 6667 entries"}));
    }

    // Three tables of the same sound chunks with their own biases, a stts and a sizes table between
    // them, written alone and as a group: the same bytes and messages, and the group's walk wrote the
    // two later tables. With a count the map cannot fill, the walk would stop short and move what
    // follows, so the tables are written alone.
    void groupedTablesMatchTablesWrittenAlone_data()
    {
        QTest::addColumn<quint32>("chunks");
        QTest::addColumn<int>("served");
        QTest::newRow("every chunk in the map") << 20000u << 2;
        QTest::newRow("more chunks than the map holds") << 20001u << 0;
    }

    void groupedTablesMatchTablesWrittenAlone()
    {
        QFETCH(quint32, chunks);
        QFETCH(int, served);
        QVector<quint16> map;
        for (quint32 i = 0; i < 100000; ++i)
            map << quint16(i % 10 < 7 ? 0x4000 | ((i * 7919u) % 0x3FFF + 1) : (i % 10 < 9 ? (i * 31u) % 200 + 1 : 0x8001));
        const quint64 biases[3][2] = {{0, 0}, {5760, 1920}, {11520, 0}}; // offset, last chunk

        // In a 'moov' placed where the list is written, so every table's placement is its file position.
        const auto tables = [&](std::shared_ptr<QuickTimeChunkOffsetGroup> group, Recording& rec) {
            auto* moov = new QuickTimeMovieAtom();
            moov->position = qint64(S);
            for (const auto& b : biases) {
                auto* co64 = new QuickTimeChunkOffset64Atom(&rec.file, Sound, chunks, b[0], 1, b[1], 0);
                co64->group = group;
                if (group)
                    group->tables << co64;
                moov->addAtom(co64);
                moov->addAtom(new QuickTimeTimeToSampleAtom(&rec.file, 9, 1));
                moov->addAtom(new QuickTimeSampleSizeAtom(&rec.file, Sound, 9, 3));
            }
            return QList<QuickTimeAtom*>{moov};
        };
        Recording alone(map);
        MessageCapture aloneCapture;
        const QByteArray expected = alone.write(tables(nullptr, alone));
        const QStringList expectedLines = aloneCapture.messages();

        Recording grouped(map);
        const auto group = std::make_shared<QuickTimeChunkOffsetGroup>();
        MessageCapture groupedCapture;
        const QByteArray written = grouped.write(tables(group, grouped));
        QCOMPARE(written.size(), expected.size());
        QVERIFY(written == expected);
        QCOMPARE(groupedCapture.messages(), expectedLines);
        QCOMPARE(group->served.size(), served);
    }

    void makerAtomFrameListAcrossBatches()
    {
        // 100,000 entries: the frame list fills one batch of the buffered device (65,536 entries) and
        // part of a second; through the device and through a plain stream it is the map, big-endian.
        QVector<quint16> map;
        for (quint32 i = 0; i < 100000; ++i)
            map << quint16(i % 4 == 3 ? (i * 31u) % 200 + 1 : 0x4000 | ((i * 7919u) % 0x3FFF + 1));
        Recording rec(map);
        QByteArray list;
        for (quint16 entry : map)
            list += char(entry >> 8) + QByteArray(1, char(entry & 0xFF));

        const QByteArray buffered = rec.write({new QuickTimeHaldenAtom(&rec.file)});
        QCOMPARE(buffered.size(), 148 + 200000);
        QCOMPARE(buffered.left(8), hex("00030DD4 686C646E")); // 148 + 200,000 bytes
        QVERIFY(buffered.mid(148) == list);

        QBuffer plain;
        plain.open(QIODevice::WriteOnly);
        QDataStream out(&plain);
        QuickTimeHaldenAtom(&rec.file).write(out);
        QVERIFY(plain.data() == buffered);
    }

    void unbufferedStreamGetsTheSameBytes()
    {
        Recording rec(s_mixedMap);
        QBuffer plain;
        plain.open(QIODevice::WriteOnly);
        QDataStream out(&plain);
        QuickTimeSampleSizeAtom stsz(&rec.file, Video, 9, 0);
        QuickTimeChunkOffset64Atom co64(&rec.file, Video, 9, 0x100, 2, 0x40, 0);
        stsz.write(out);
        co64.write(out);
        QCOMPARE(plain.data(),
                 hex("00000038 7374737A 00000000 00000000 00000009"
                     "00000400 00000600 00000200 00000800 00000400 00000200 00000200 00000A00 00000200"
                     "00000038 636F3634 00000000 00000005"
                     "0000000000538100 0000000000538D00 0000000000539900"
                     "000000000053A500 000000000053B040"));
    }

    void videoOnlyModeCountsVideoFramesOfNoLength()
    {
        // A movie read from elsewhere: no frame map is consulted, whatever the storage holds.
        Recording rec({0x0005, 0x8001, 0x0007, 0x0002});
        rec.file.importMode = true;
        rec.file.writtenByRecorder = false;
        rec.file.videoFrameCount = 4;
        quicktime_frametype_t type = quicktime_frametype_unknown;
        unsigned int bytes = 99;
        QVERIFY(rec.file.frameSize(3, &type, &bytes));
        QCOMPARE(type, quicktime_frametype_video);
        QCOMPARE(bytes, 0u);
        QVERIFY(!rec.file.frameSize(4, &type, &bytes));

        QCOMPARE(rec.write({new QuickTimeSampleSizeAtom(&rec.file, Video, 4, 0),
                            new QuickTimeChunkOffsetAtom(&rec.file, Video, 4, 0x20),
                            new QuickTimeChunkOffset64Atom(&rec.file, Video, 4, 0, 2, 0, 0)}),
                 hex("00000024 7374737A 00000000 00000000 00000004 00000000 00000000 00000000 00000000"
                     "00000020 7374636F 00000000 00000004 00538020 00538020 00538020 00538020"
                     "00000020 636F3634 00000000 00000002 0000000000538000 0000000000538000"));
    }

    void latchedDeviceKeepsTableBytesOut()
    {
        Recording rec(s_mixedMap);
        FailingBuffer target(0);
        target.open(QIODevice::WriteOnly);
        MessageCapture capture;
        {
            QuickTimeBufferDevice buffered(&target);
            buffered.open(QIODevice::ReadWrite | QIODevice::Unbuffered);
            QDataStream out(&buffered);
            QuickTimeSampleSizeAtom stsz(&rec.file, Video, 9, 0);
            stsz.write(out); // the flush before the table fails and latches
            QCOMPARE(buffered.fill(), -1);
            QuickTimeChunkOffset64Atom co64(&rec.file, Video, 9, 0, 1, 0, 0);
            co64.write(out);
            QCOMPARE(buffered.fill(), -1);
        }
        QCOMPARE(target.data().size(), 0);
        QCOMPARE(capture.messages().first(), "*** QuickTime***BufferDevice encountered HDD error, dumping "
                                          "subsequent writes (20) \"Unknown error\"");
        QCOMPARE(capture.messages().filter("HDD error").size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestSampleTables)
#include "tst_sampletables.moc"
