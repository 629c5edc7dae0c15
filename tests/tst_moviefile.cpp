// The movie file object (creation, reserved region, parameters, media and frame map, atom list) and the
// settings record.

#include "movie/QuickTimeFile.h"
#include "movie/RecoverySettings.h"
#include "support/TestSupport.h"

#include <QBuffer>
#include <QVector>
#include <QtTest>

using namespace Tern;
using TestSupport::FailingBuffer;
using TestSupport::hex;

namespace {

const qint64 s_regionEnd = QuickTimeFile::s_datPos;
const qint64 s_mediaStart = QuickTimeFile::s_movieDataStartOffset;

const char* const s_mdatHeader = "00000001 6D646174 0000000000000010";

// The Heron family keeps its frame map in the caller's storage.
class HeronMovie : public QuickTimeFile
{
public:
    HeronMovie(QIODevice& device, quint16* storage)
        : QuickTimeFile(device, heronFamily, storage)
    {
    }
};

bool allZero(const QByteArray& bytes)
{
    return bytes.count('\0') == bytes.size();
}

QByteArray pattern(int size, char first)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char(first + i % 13);
    return bytes;
}

} // namespace

class TestMovieFile : public QObject
{
    Q_OBJECT

private slots:
    // ---- creation and the reserved region

    void layoutOfARecording()
    {
        QCOMPARE(QuickTimeFile::s_recoverySettingsPos, qint64(36));
        QCOMPARE(QuickTimeFile::s_recoveryFrameMapPos, qint64(156));
        QCOMPARE(QuickTimeFile::s_datPos, qint64(5472240));
        QCOMPARE(QuickTimeFile::s_movieDataStartOffset, qint64(5472256));
        QCOMPARE(QuickTimeFile::s_frameMapEntries, 2736000u);
    }

    void initFileWritesTheTernRegion()
    {
        QBuffer buffer;
        buffer.open(QIODevice::ReadWrite);
        QuickTimeFile file(buffer);
        QVERIFY(file.initFile(&buffer));
        const QByteArray data = buffer.data();
        QCOMPARE(data.size(), 5472256);
        QCOMPARE(data.left(36), hex("00000014 66747970 71742020 20070400 71742020" // 'ftyp' qt, 2007-04
                                    "00537FDC 75647461"                             // 'udta' 5,472,220
                                    "00000008 75726563"));                          // 'urec' 8
        QVERIFY(allZero(data.mid(36, int(s_regionEnd - 36))));
        QCOMPARE(data.mid(int(s_regionEnd)), hex(s_mdatHeader));
        QCOMPARE(buffer.pos(), s_mediaStart);
        QVERIFY(file.movieData);
        QCOMPARE(file.movieData->dataSize, quint64(16));
        QVERIFY(file.frameMap);
    }

    void initFileWritesTheHeronRegion()
    {
        QVector<quint16> storage(int(QuickTimeFile::s_frameMapEntries), 0x1234);
        QBuffer buffer;
        buffer.open(QIODevice::ReadWrite);
        HeronMovie file(buffer, storage.data());
        QVERIFY(file.initFile(&buffer));
        const QByteArray data = buffer.data();
        QCOMPARE(data.size(), 5472256);
        // One 'ftyp' whose size spans the whole region up to the 'mdat' header.
        QCOMPARE(data.left(20), hex("00537FF0 66747970 71742020 20070400 71742020"));
        QVERIFY(allZero(data.mid(20, int(s_regionEnd - 20))));
        QCOMPARE(data.mid(int(s_regionEnd)), hex(s_mdatHeader));
        // The caller's storage is the frame map, and it is not cleared.
        QCOMPARE(file.frameMap, storage.data());
        QCOMPARE(storage.count(0x1234), storage.size());
    }

    void heronWithoutStorageCannotStart()
    {
        QBuffer buffer;
        buffer.open(QIODevice::ReadWrite);
        HeronMovie file(buffer, nullptr);
        QVERIFY(!file.initFile(&buffer));
        QCOMPARE(buffer.size(), qint64(0));
        QVERIFY(!file.movieData);
    }

    void initFileOnAnExistingRecordingWritesNothing()
    {
        QByteArray existing = pattern(int(s_mediaStart) + 100, 'a');
        QBuffer buffer(&existing);
        buffer.open(QIODevice::ReadWrite);
        const QByteArray before = existing;
        QuickTimeFile file(buffer);
        file.frameRate = 3000;
        file.videoFrameCount = 7;
        file.reelName = "X";
        QVERIFY(file.initFile(&buffer));
        QVERIFY(existing == before);
        QCOMPARE(file.frameRate, 2400u);
        QCOMPARE(file.videoFrameCount, 0u);
        QCOMPARE(file.reelName, QString("1"));
        QCOMPARE(file.movieData->dataSize, quint64(16));
        QVERIFY(file.frameMap);
    }

    void initFileSetsTheDefaults()
    {
        QBuffer buffer;
        buffer.open(QIODevice::ReadWrite);
        QuickTimeFile file(buffer);
        file.importMode = true;
        file.audioLittleEndian = 0;
        file.width = 1;
        file.height = 2;
        file.videoCodecId = 3;
        file.interlaced = 1;
        file.setFrameRate(2398);
        file.audioSampleRate = 44100;
        file.audioBytesPerSample = 2;
        file.audioTracks = 8;
        file.audioSamplesPerChunk = 1;
        file.playFrame = 5;
        file.soundChunks = 3;
        file.timecodeSamples = 2;
        file.lastChunkSamples = 4;
        file.firstChunkSamples = 5;
        file.timecode = 0x01020304;
        file.dropFrame = true;
        file.counter = true;
        file.savedFrameMapEntries = 9;
        file.addAtom(new QuickTimeWideAtom);
        QVERIFY(file.initFile(&buffer));
        QVERIFY(file.writtenByRecorder);
        QVERIFY(!file.importMode);
        QCOMPARE(file.audioLittleEndian, quint8(1));
        QCOMPARE(file.width, quint16(1920));
        QCOMPARE(file.height, quint16(1080));
        QCOMPARE(file.videoCodecId, 1238u);
        QCOMPARE(file.interlaced, 0u);
        QCOMPARE(file.frameRate, 2400u);
        QCOMPARE(file.sampleDuration, 100u);
        QCOMPARE(file.timeScale, 2400u);
        QCOMPARE(file.audioSampleRate, 48000u);
        QCOMPARE(file.audioBytesPerSample, 4u);
        QCOMPARE(file.audioTracks, 1u);
        QCOMPARE(file.audioSamplesPerChunk, 512u);
        QCOMPARE(file.playFrame, 0u);
        QCOMPARE(file.soundChunks, 0u);
        QCOMPARE(file.timecodeSamples, 0u);
        QCOMPARE(file.lastChunkSamples, 0u);
        QCOMPARE(file.firstChunkSamples, 0u);
        QCOMPARE(file.timecode, 0u);
        QVERIFY(!file.dropFrame);
        QVERIFY(!file.counter);
        QCOMPARE(file.savedFrameMapEntries, 0u);
        QVERIFY(file.root.children.isEmpty());
    }

    // ---- parameters

    void frameRate23976UsesItsOwnTimeScale()
    {
        QBuffer buffer;
        QuickTimeFile file(buffer);
        file.setFrameRate(2398);
        QCOMPARE(file.frameRate, 2398u);
        QCOMPARE(file.timeScale, 23976u);
        QCOMPARE(file.sampleDuration, 1000u);
        file.setFrameRate(2399);
        QCOMPARE(file.timeScale, 2399u);
        QCOMPARE(file.sampleDuration, 100u);
        file.setFrameRate(2397);
        QCOMPARE(file.timeScale, 23976u);
        QCOMPARE(file.sampleDuration, 1000u);

        quint32 duration = 0;
        quint32 scale = 0;
        QCOMPARE(file.calculateVideoInfoFromFrameRate(2500, &duration, &scale), 2500u);
        QCOMPARE(duration, 100u);
        QCOMPARE(scale, 2500u);
        QCOMPARE(file.calculateVideoInfoFromFrameRate(2398, &duration, nullptr), 23976u);
        QCOMPARE(duration, 1000u);
        QCOMPARE(file.timeScale, 23976u); // nothing stored
        QCOMPARE(file.frameRate, 2397u);
    }

    void userDataAndTimecodeRoundTrip()
    {
        QBuffer buffer;
        QuickTimeFile file(buffer);
        file.setUserData(1, 2, 3, 4, 5, 6, 7, 8, 9);
        quint32 v[9] = {};
        file.getUserData(&v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6], &v[7], &v[8]);
        for (quint32 i = 0; i < 9; ++i)
            QCOMPARE(v[i], i + 1);
        file.getUserData(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
        quint32 third = 0;
        file.getUserData(nullptr, nullptr, &third, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
        QCOMPARE(third, 3u);

        file.setTimecode(0x01020304, true, false, true);
        quint32 tc = 0;
        bool drop = false;
        bool counter = true;
        file.getTimecode(&tc, &drop, &counter);
        QCOMPARE(tc, 0x01020304u);
        QVERIFY(drop);
        QVERIFY(!counter);
        file.getTimecode(nullptr, nullptr, nullptr);
    }

    void setTimecodeWritesTheFirstSampleOnce()
    {
        QBuffer buffer;
        buffer.open(QIODevice::ReadWrite);
        QuickTimeFile file(buffer);
        file.initFile(&buffer);
        file.setTimecode(0x0A0B0C0D, false, false, true); // the finalizer's call appends nothing
        QCOMPARE(file.timecodeSamples, 0u);
        file.setTimecode(0x0A0B0C0D, false, true, false);
        file.setTimecode(0x01010101, false, true, false);
        QCOMPARE(file.timecodeSamples, 1u);
        QCOMPARE(file.frameMap[0], quint16(0x8001));
        QCOMPARE(buffer.data().mid(int(s_mediaStart)), hex("0A0B0C0D") + QByteArray(508, '\0'));
        QCOMPARE(file.timecode, 0x01010101u);
    }

    void fileInfoFromTheUserData()
    {
        QBuffer buffer;
        QuickTimeFile file(buffer);
        file.width = 1280;
        file.height = 720;
        file.videoFrameCount = 48;
        file.setUserData(11, 22, 2400, 0, 55, 2, 24, 48000, 99);
        file.InitQuickTimeFileInfo();
        const QuickTimeFileInfo& info = file.fileInfo;
        QCOMPARE(info.width, quint16(1280));
        QCOMPARE(info.height, quint16(720));
        QVERIFY(info.progressive);
        QCOMPARE(info.frameRate, 2400u);
        QCOMPARE(info.userValue5, 55u);
        QCOMPARE(info.sampleRate, 48000u);
        QCOMPARE(info.bytesPerSample, 3u);
        QCOMPARE(info.channels, 2u);
        QCOMPARE(info.userValue1, 11u);
        QCOMPARE(info.userValue2, 22u);
        QCOMPARE(info.dropFrame, 0u);
        QCOMPARE(info.framesPerSecond, 24.0f);
        QCOMPARE(info.frameRateCode, quint8(1));
        QCOMPARE(info.durationSeconds, 2.0f);
        QCOMPARE(info.userValue9, 99u);

        file.interlaced = 1; // fields: the frame duration is twice as long
        file.InitQuickTimeFileInfo();
        QVERIFY(!file.fileInfo.progressive);
        QCOMPARE(file.fileInfo.durationSeconds, 4.0f);
    }

    void frameRateCodes_data()
    {
        QTest::addColumn<quint32>("rate");
        QTest::addColumn<quint32>("drop");
        QTest::addColumn<int>("code");
        QTest::newRow("24") << 2400u << 0u << 1;
        QTest::newRow("25") << 2500u << 0u << 2;
        QTest::newRow("29.97 non-drop") << 2997u << 0u << 3;
        QTest::newRow("29.97 drop") << 2997u << 1u << 4;
        QTest::newRow("30") << 3000u << 0u << 5;
        QTest::newRow("30 drop") << 3000u << 1u << 6;
        QTest::newRow("59.94 fields") << 5994u << 0u << 3;
        QTest::newRow("60 fields drop") << 6000u << 1u << 6;
        QTest::newRow("48 fields") << 4800u << 0u << 1;
        QTest::newRow("23.976") << 2398u << 0u << 0;
        QTest::newRow("below 24") << 1u << 0u << 0;
        QTest::newRow("zero") << 0u << 0u << 255;
        QTest::newRow("26") << 2600u << 0u << 255;
        QTest::newRow("3002 halves to 1501") << 3002u << 0u << 0;
        QTest::newRow("70 fields") << 7000u << 0u << 255;
    }

    void frameRateCodes()
    {
        QFETCH(quint32, rate);
        QFETCH(quint32, drop);
        QFETCH(int, code);
        QBuffer buffer;
        QuickTimeFile file(buffer);
        file.setUserData(0, 0, rate, drop, 0, 0, 0, 0, 0);
        file.InitQuickTimeFileInfo();
        QCOMPARE(int(file.fileInfo.frameRateCode), code);
    }

    void codecSettings()
    {
        QCOMPARE(QuickTimeFile::getCodecSetting(quicktime_codec_prores422, 0), 5u);
        QCOMPARE(QuickTimeFile::getCodecSetting(quicktime_codec_prores422, 1), 4u);
        QCOMPARE(QuickTimeFile::getCodecSetting(quicktime_codec_prores422, 2), 5u);
        QCOMPARE(QuickTimeFile::getCodecSetting(quicktime_codec_prores422, 3), 6u);
        QCOMPARE(QuickTimeFile::getCodecSetting(quicktime_codec_prores422, 4), 7u);
        QCOMPARE(QuickTimeFile::getCodecSetting(quicktime_codec_prores422, 5), 5u);
        QCOMPARE(QuickTimeFile::getCodecSetting(quicktime_codec_prores4444, 0), 9u);
        QCOMPARE(QuickTimeFile::getCodecSetting(quicktime_codec_prores4444, 3), 8u);
        QCOMPARE(QuickTimeFile::getCodecSetting(quicktime_codec_type_t(3), 1), 0u);

        // DNxHD compression ids 1235 ... 1253.
        const quint32 dnxhd[19] = {0, 0, 2, 1, 0, 0, 0, 2, 1, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3};
        for (quint32 i = 0; i < 19; ++i)
            QCOMPARE(QuickTimeFile::getCodecSetting(quicktime_codec_dnxhd, 1235 + i), dnxhd[i]);
        QCOMPARE(QuickTimeFile::getCodecSetting(quicktime_codec_dnxhd, 1253), 3u);
        QCOMPARE(QuickTimeFile::getCodecSetting(quicktime_codec_dnxhd, 1234), 0u);
        QCOMPARE(QuickTimeFile::getCodecSetting(quicktime_codec_dnxhd, 1254), 0u);
    }

    // ---- counts and the frame map

    void totalFramesFollowsTheModeFlags()
    {
        QBuffer buffer;
        QuickTimeFile file(buffer);
        file.videoFrameCount = 5;
        file.soundChunks = 3;
        file.timecodeSamples = 1;
        file.writtenByRecorder = true;
        QCOMPARE(file.totalFrames(), 9u);
        file.importMode = true;
        QCOMPARE(file.totalFrames(), 9u);
        file.writtenByRecorder = false;
        QCOMPARE(file.totalFrames(), 5u);
        file.importMode = false;
        QCOMPARE(file.totalFrames(), 9u);
        QCOMPARE(file.videoFrames(), 5u);
        QCOMPARE(file.audioFrames(), 3u);
    }

    void spaceLeftEndsTwentyEntriesBeforeCapacity()
    {
        QBuffer buffer;
        QuickTimeFile file(buffer);
        file.videoFrameCount = 2735979 - 2;
        file.soundChunks = 1;
        file.timecodeSamples = 1;
        QVERIFY(file.spaceLeft());
        file.soundChunks = 2; // 2,735,980 entries
        QVERIFY(!file.spaceLeft());
    }

    void addOperationsStoreTheirEntries()
    {
        QBuffer buffer;
        buffer.open(QIODevice::ReadWrite);
        QuickTimeFile file(buffer);
        file.initFile(&buffer);
        QByteArray frame = pattern(1000, 'v');
        QByteArray extra = pattern(24, 'e');
        QByteArray sound = pattern(1000, 's');
        QByteArray tcSample = pattern(600, 't');
        QByteArray bogus = pattern(10, 'b');
        QCOMPARE(file.addMovieVideoData(frame, extra), 0);
        file.addMovieSoundData(sound);
        file.addMovieTimecodeData(tcSample);
        file.addMovieTimecodeData(0x11223344u);
        file.addBogusMovieVideoData(bogus);

        QCOMPARE(file.frameMap[0], quint16(0x4004)); // ceil(1000 / 512) + 2 blocks, video
        QCOMPARE(file.frameMap[1], quint16(0x0002));
        QCOMPARE(file.frameMap[2], quint16(0x8002));
        QCOMPARE(file.frameMap[3], quint16(0x8001));
        QCOMPARE(file.videoFrameCount, 2u); // the bogus frame counts, without an entry or bytes
        QCOMPARE(file.soundChunks, 1u);
        QCOMPARE(file.timecodeSamples, 2u);
        QCOMPARE(file.movieData->dataSize, quint64(16 + 1000 + 24 + 1000 + 600 + 512));
        const QByteArray media = buffer.data().mid(int(s_mediaStart));
        QCOMPARE(media, frame + extra + sound + tcSample + hex("11223344") + QByteArray(508, '\0'));
    }

    void addedBlockCountsAreNotMasked()
    {
        QBuffer buffer;
        buffer.open(QIODevice::ReadWrite);
        QuickTimeFile file(buffer);
        file.initFile(&buffer);
        QByteArray huge(16384 * 512, '\0'); // one block more than an entry can hold
        file.addMovieSoundData(huge);
        QCOMPARE(file.frameMap[0], quint16(0x4000));
    }

    void setFrameSizeMasksTheBlockCount()
    {
        QBuffer buffer;
        buffer.open(QIODevice::ReadWrite);
        QuickTimeFile file(buffer);
        file.initFile(&buffer);
        file.setFrameSize(0, quicktime_frametype_video, 1536);
        file.setFrameSize(1, quicktime_frametype_sound, 0x7FFFFF);
        file.setFrameSize(2, quicktime_frametype_unknown, 1023);
        file.setFrameSize(3, quicktime_frametype_timecode, 0x800000);
        QCOMPARE(file.frameMap[0], quint16(0x4003));
        QCOMPARE(file.frameMap[1], quint16(0x3FFF));
        QCOMPARE(file.frameMap[2], quint16(0xC001));
        QCOMPARE(file.frameMap[3], quint16(0x8000));

        file.videoFrameCount = 4;
        quicktime_frametype_t type = quicktime_frametype_unknown;
        unsigned int bytes = 0;
        QVERIFY(file.frameSize(0, &type, &bytes));
        QCOMPARE(type, quicktime_frametype_video);
        QCOMPARE(bytes, 1536u);
        QVERIFY(file.frameSize(1, nullptr, &bytes));
        QCOMPARE(bytes, 8388096u);
        QVERIFY(file.frameSize(2, &type, nullptr));
        QCOMPARE(type, quicktime_frametype_unknown);
        QVERIFY(!file.frameSize(4, &type, &bytes));
    }

    void failedWritesKeepSoundAndTimecodeEntriesButNotVideo()
    {
        // The region and the 'mdat' header fit; the next ten bytes still do, everything after fails.
        FailingBuffer buffer(s_mediaStart + 10);
        buffer.open(QIODevice::ReadWrite);
        QuickTimeFile file(buffer);
        QVERIFY(file.initFile(&buffer));
        QCOMPARE(buffer.size(), s_mediaStart);
        file.frameMap[0] = 0xBEEF;

        QByteArray frame = pattern(1000, 'v');
        QByteArray extra = pattern(10, 'e');
        file.addMovieVideoData(frame, extra);
        QCOMPARE(file.videoFrameCount, 0u);
        QCOMPARE(file.frameMap[0], quint16(0xBEEF));
        QCOMPARE(file.movieData->dataSize, quint64(16 + 10)); // only the extra bytes arrived

        QByteArray sound = pattern(1000, 's');
        file.addMovieSoundData(sound);
        QCOMPARE(file.soundChunks, 1u);
        QCOMPARE(file.frameMap[0], quint16(0x0002));

        QByteArray tcSample = pattern(600, 't');
        file.addMovieTimecodeData(tcSample);
        file.addMovieTimecodeData(0x01020304u);
        QCOMPARE(file.timecodeSamples, 2u);
        QCOMPARE(file.frameMap[1], quint16(0x8002));
        QCOMPARE(file.frameMap[2], quint16(0x8001));
        QCOMPARE(file.movieData->dataSize, quint64(16 + 10));
    }

    void soundAndVideoDurations()
    {
        QBuffer buffer;
        QuickTimeFile file(buffer);
        file.audioSamplesPerChunk = 1600;
        file.soundChunks = 10;
        file.audioSampleRate = 48000;
        file.videoFrameCount = 24;
        file.setFrameRate(2398);
        quint64 sound = 0;
        quint64 video = 0;
        // 1000 * (48000 * 24) / 23976 = 48048 (remainder 1152).
        QCOMPARE(file.calculateAVDuration(&sound, &video), quint64(48048));
        QCOMPARE(sound, quint64(16000));
        QCOMPARE(video, quint64(48048));

        file.firstChunkSamples = 400; // a short first chunk replaces a full one
        file.calculateAVDuration(&sound, nullptr);
        QCOMPARE(sound, quint64(1600 * 9 + 400));
        file.soundChunks = 0;
        file.calculateAVDuration(&sound, nullptr);
        QCOMPARE(sound, quint64(0));
    }

    // ---- atom list

    void addAtomPlacesBehindTheRoot()
    {
        QBuffer buffer;
        QuickTimeFile file(buffer);
        file.root.position = 1000;
        QuickTimeAtom* first = file.addAtom(new QuickTimeWideAtom);
        QuickTimeAtom* second = file.addAtom(new QuickTimeMovieAtom);
        QCOMPARE(first->position, qint64(1000));
        QCOMPARE(second->position, qint64(1008));
        QCOMPARE(first->parent, &file.root);
        QCOMPARE(file.root.size, 16u);
        QCOMPARE(file.root.children.size(), 2);
        file.removeAllAtoms();
        QVERIFY(file.root.children.isEmpty());
    }

    void alignNextAtomPadsToTheNextBlock()
    {
        QBuffer buffer;
        buffer.open(QIODevice::ReadWrite);
        QuickTimeFile file(buffer);
        QuickTimeAtom* moov = file.addAtom(new QuickTimeMovieAtom);
        moov->position = 100;
        file.alignNextAtom(moov, 20);
        // The skip atom starts at 108; 108 + 384 = 492, and 492 + 20 lands on 512.
        QCOMPARE(moov->children.size(), 1);
        QCOMPARE(moov->children.first()->position, qint64(108));
        QCOMPARE(moov->children.first()->size, 384u);
        QCOMPARE(moov->size, 392u);
        QVERIFY(file.writeAtomList());
        QCOMPARE(buffer.data(), hex("00000188 6D6F6F76 00000180 736B6970") + QByteArray(376, '\0'));
    }

    void writeAtomListWritesTheTopLevelAtoms()
    {
        QByteArray existing = hex("AABBCC");
        QBuffer buffer(&existing);
        buffer.open(QIODevice::ReadWrite);
        buffer.seek(3);
        QuickTimeFile file(buffer);
        QuickTimeAtom* moov = file.addAtom(new QuickTimeMovieAtom);
        moov->addAtom(new QuickTimeWideAtom);
        file.addAtom(new QuickTimeWideAtom);
        QVERIFY(file.writeAtomList());
        QCOMPARE(existing, hex("AABBCC 00000010 6D6F6F76 00000008 77696465 00000008 77696465"));
        QCOMPARE(buffer.pos(), qint64(3 + 24));
    }

    void writeAtomListWritesATypedRootHeader()
    {
        QBuffer buffer;
        buffer.open(QIODevice::ReadWrite);
        QuickTimeFile file(buffer);
        file.root.type = 0x6D6F6F76;
        file.addAtom(new QuickTimeWideAtom);
        QVERIFY(file.writeAtomList());
        QCOMPARE(buffer.data(), hex("00000008 6D6F6F76 00000008 77696465"));
    }

    // ---- settings record

    void settingsRecordFieldsAtTheirOffsets()
    {
        const QByteArray record = hex("44332211"  // 0 userData1
                                      "04030201"  // 4 timecode
                                      "01 000000" // 8 dropFrame, reserved
                                      "0D0C0B0A"  // 12 userData2
                                      "B50B0000"  // 16 frameRate 2997
                                      "05000000"  // 20 userData5
                                      "08000000"  // 24 audioTracks
                                      "03000000"  // 28 audioBytesPerSample
                                      "80BB0000"  // 32 audioSampleRate 48000
                                      "99000000"  // 36 userData9
                                      "8007 3804" // 40 width 1920, 42 height 1080
                                      "01000000"  // 44 interlaced
                                      "E5040000"  // 48 videoCodecId 1253
                                      "02000000"  // 52 videoCodecType
                                      "04000000"  // 56 proResVariant
                                      "2C010000"  // 60 lastChunkSamples 300
                                      "C8000000"  // 64 firstChunkSamples 200
                                      "00000000"  // 68 reserved
                                      "8967452301000000" // 72 recordedEndPosition
                                      "40060000"  // 80 audioSamplesPerChunk 1600
                                      "0A000000"  // 84 videoFramesPerChunk
                                      "41303031 00000000 00000000 00000000"
                                      "00000000 00000000 00000000 00000000"); // 88 reelName "A001"
        QCOMPARE(record.size(), RecoverySettings::s_size);
        RecoverySettings settings;
        QVERIFY(settings.fromBytes(record));
        QCOMPARE(settings.userData1, 0x11223344u);
        QCOMPARE(settings.timecode, 0x01020304u);
        QCOMPARE(settings.dropFrame, quint8(1));
        QCOMPARE(settings.userData2, 0x0A0B0C0Du);
        QCOMPARE(settings.frameRate, 2997u);
        QCOMPARE(settings.userData5, 5u);
        QCOMPARE(settings.audioTracks, 8u);
        QCOMPARE(settings.audioBytesPerSample, 3u);
        QCOMPARE(settings.audioSampleRate, 48000u);
        QCOMPARE(settings.userData9, 0x99u);
        QCOMPARE(settings.width, quint16(1920));
        QCOMPARE(settings.height, quint16(1080));
        QCOMPARE(settings.interlaced, 1u);
        QCOMPARE(settings.videoCodecId, 1253u);
        QCOMPARE(settings.videoCodecType, 2u);
        QCOMPARE(settings.proResVariant, 4u);
        QCOMPARE(settings.lastChunkSamples, 300u);
        QCOMPARE(settings.firstChunkSamples, 200u);
        QCOMPARE(settings.recordedEndPosition, quint64(0x123456789));
        QCOMPARE(settings.audioSamplesPerChunk, 1600u);
        QCOMPARE(settings.videoFramesPerChunk, 10u);
        QCOMPARE(settings.reelNameText(), QString("A001"));
        QCOMPARE(settings.toBytes(), record);
    }

    void settingsRecordReservedBytesAndReelNameBounds()
    {
        QByteArray record(RecoverySettings::s_size, '\0');
        record[9] = 'r';
        record[69] = 'r';
        record.replace(88, 32, QByteArray(32, 'R')); // no terminator inside the field
        RecoverySettings settings;
        QVERIFY(!settings.fromBytes(record.left(119)));
        QVERIFY(settings.fromBytes(record));
        QCOMPARE(settings.reelNameText(), QString(32, 'R'));
        const QByteArray written = settings.toBytes();
        QCOMPARE(written.size(), 120);
        QVERIFY(allZero(written.left(88)));
        QCOMPARE(written.mid(88), QByteArray(31, 'R') + hex("00"));

        settings.setReelNameText(QString(40, 'z'));
        QCOMPARE(settings.toBytes().mid(88), QByteArray(31, 'z') + hex("00"));
        settings.setReelNameText("B2");
        QCOMPARE(settings.toBytes().mid(88), hex("4232") + QByteArray(30, '\0'));
    }
};

QTEST_GUILESS_MAIN(TestMovieFile)
#include "tst_moviefile.moc"
