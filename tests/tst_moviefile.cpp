// The movie file object: a recording created (its reserved region, for both families, and the defaults
// it starts from) and its parameters (frame rate, user data, timecode, the file information, codec
// settings). The counts, the frame map, the atom list and the settings record are in
// tst_moviefile_records.cpp.

#include "tst_moviefile.h"

#include "support/MovieFixtures.h"
#include "support/TestSupport.h"

#include <QBuffer>
#include <QVector>
#include <QtTest>

using namespace MovieFileTest;
using namespace Tern;
using TestSupport::hex;
using TestSupport::pattern;

namespace {

const qint64 s_regionEnd = ternFamily.movieDataHeaderPos;

const char* const s_mdatHeader = "00000001 6D646174 0000000000000010";

} // namespace

void TestMovieFile::layoutOfARecording()
{
    QCOMPARE(ternFamily.recoverySettingsPos, qint64(36));
    QCOMPARE(ternFamily.recoveryFrameMapPos, qint64(156));
    QCOMPARE(ternFamily.movieDataHeaderPos, qint64(5472240));
    QCOMPARE(ternFamily.movieDataStartOffset, qint64(5472256));
    QCOMPARE(QuickTimeFile::s_frameMapEntries, 2736000u);
}

void TestMovieFile::initFileWritesTheTernRegion()
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

void TestMovieFile::initFileWritesTheHeronRegion()
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

void TestMovieFile::heronWithoutStorageCannotStart()
{
    QBuffer buffer;
    buffer.open(QIODevice::ReadWrite);
    HeronMovie file(buffer, nullptr);
    QVERIFY(!file.initFile(&buffer));
    QCOMPARE(buffer.size(), qint64(0));
    QVERIFY(!file.movieData);
}

void TestMovieFile::initFileOnAnExistingRecordingWritesNothing()
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

void TestMovieFile::initFileSetsTheDefaults()
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

void TestMovieFile::frameRate23976UsesItsOwnTimeScale()
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

void TestMovieFile::userDataAndTimecodeRoundTrip()
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

void TestMovieFile::setTimecodeWritesTheFirstSampleOnce()
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

void TestMovieFile::fileInfoFromTheUserData()
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

void TestMovieFile::frameRateCodes_data()
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

void TestMovieFile::frameRateCodes()
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

void TestMovieFile::codecSettings()
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

QTEST_GUILESS_MAIN(TestMovieFile)
