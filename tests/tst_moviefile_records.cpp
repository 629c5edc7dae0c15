// The movie file object's records: the counts and the frame map (adding entries, the space left, failed
// writes, durations), the atom list, and the settings record read and written field by field.

#include "tst_moviefile.h"

#include "movie/RecoverySettings.h"
#include "support/TestSupport.h"

#include <QBuffer>
#include <QVector>
#include <QtTest>

using namespace MovieFileTest;
using namespace Tern;
using TestSupport::FailingBuffer;
using TestSupport::hex;
using TestSupport::pattern;

void TestMovieFile::totalFramesFollowsTheModeFlags()
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

void TestMovieFile::spaceLeftEndsTwentyEntriesBeforeCapacity()
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

void TestMovieFile::addOperationsStoreTheirEntries()
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

void TestMovieFile::addedBlockCountsAreNotMasked()
{
    QBuffer buffer;
    buffer.open(QIODevice::ReadWrite);
    QuickTimeFile file(buffer);
    file.initFile(&buffer);
    QByteArray huge(16384 * 512, '\0'); // one block more than an entry can hold
    file.addMovieSoundData(huge);
    QCOMPARE(file.frameMap[0], quint16(0x4000));
}

void TestMovieFile::setFrameSizeMasksTheBlockCount()
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

void TestMovieFile::failedWritesKeepSoundAndTimecodeEntriesButNotVideo()
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

void TestMovieFile::soundAndVideoDurations()
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

void TestMovieFile::addAtomPlacesBehindTheRoot()
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

void TestMovieFile::alignNextAtomPadsToTheNextBlock()
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

void TestMovieFile::writeAtomListWritesTheTopLevelAtoms()
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

void TestMovieFile::writeAtomListWritesATypedRootHeader()
{
    QBuffer buffer;
    buffer.open(QIODevice::ReadWrite);
    QuickTimeFile file(buffer);
    file.root.type = 0x6D6F6F76;
    file.addAtom(new QuickTimeWideAtom);
    QVERIFY(file.writeAtomList());
    QCOMPARE(buffer.data(), hex("00000008 6D6F6F76 00000008 77696465"));
}

void TestMovieFile::settingsRecordFieldsAtTheirOffsets()
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

void TestMovieFile::settingsRecordReservedBytesAndReelNameBounds()
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
