// The header and information atoms: the bytes each one writes, from the movie's values or from its
// arguments.

#include "tst_atoms.h"

#include "movie/HeaderAtoms.h"
#include "movie/QuickTimeAtom.h"
#include "movie/QuickTimeFile.h"
#include "support/AtomBytes.h"
#include "support/TestSupport.h"

#include <QBuffer>
#include <QtTest>

using namespace Tern;
using AtomBytes::written;
using TestSupport::hex;

namespace {

const char* const s_identityMatrixHex
    = "00010000 00000000 00000000 00000000 00010000 00000000 00000000 00000000 40000000";

} // namespace

void TestAtoms::fileTypeLayoutAndFields()
{
    QuickTimeFileAtom ftyp;
    QCOMPARE(ftyp.size, 20u);
    QCOMPARE(ftyp.fieldCount, 3);
    QCOMPARE(written(ftyp), hex("00000014 66747970 71742020 20070400 71742020"));
    QCOMPARE(ftyp.fieldName(0), QString("Major Brand"));
    QCOMPARE(ftyp.fieldName(1), QString("Minor Version"));
    QCOMPARE(ftyp.fieldName(2), QString("Compatible Brand"));
    QCOMPARE(ftyp.fieldName(3), QString());
    QCOMPARE(ftyp.fieldValue(0), QString("qt  "));
    QCOMPARE(ftyp.fieldValue(1), QString("20070400"));
    QCOMPARE(ftyp.fieldValue(2), QString("qt  "));
    QString name;
    QCOMPARE(ftyp.getFieldName(4, name), 1);
}

void TestAtoms::movieHeaderLayout()
{
    QBuffer device;
    device.open(QIODevice::ReadWrite);
    QuickTimeFile file(device);
    file.timeScale = 2400;
    file.sampleDuration = 100;
    file.videoFrameCount = 50;
    QuickTimeMovieHeaderAtom mvhd(&file);
    QCOMPARE(mvhd.size, 108u);
    QCOMPARE(mvhd.fieldCount, 17);
    QCOMPARE(mvhd.file, &file);
    QCOMPARE(written(mvhd),
             hex("0000006c 6d766864 00000000"
                 "7c25b080 7c25b080 00000960 00001388 00010000 0100 00000000000000000000")
                 + hex(s_identityMatrixHex)
                 + hex("00000000 00000000 00000000 00000000 00000000 00000000 00000002"));
}

void TestAtoms::movieHeaderDurationWraps()
{
    QBuffer device;
    device.open(QIODevice::ReadWrite);
    QuickTimeFile file(device);
    file.timeScale = 23976;
    file.sampleDuration = 1000;
    file.videoFrameCount = 5000000; // 5,000,000,000 wraps to 705,032,704
    QuickTimeMovieHeaderAtom mvhd(&file);
    QCOMPARE(mvhd.duration, 705032704u);
    QCOMPARE(written(mvhd).mid(20, 8), hex("00005da8 2a05f200"));
}

void TestAtoms::trackHeaderFromFile()
{
    QBuffer device;
    device.open(QIODevice::ReadWrite);
    QuickTimeFile file(device);
    file.videoFrameCount = 50;
    file.width = 1920;
    file.height = 1080;
    QuickTimeTrackHeaderAtom tkhd(&file);
    QCOMPARE(tkhd.size, 92u);
    QCOMPARE(tkhd.fieldCount, 2);
    QCOMPARE(written(tkhd),
             hex("0000005c 746b6864 0000000f"
                 "7c25b080 7c25b080 00000001 00000000 00000032 0000000000000000"
                 "0000 0000 0000 0000")
                 + hex(s_identityMatrixHex) + hex("07800000 04380000"));
}

void TestAtoms::trackHeaderFromArguments()
{
    QuickTimeTrackHeaderAtom tkhd(nullptr, 3, 0x1388, 720, 486, 0x0100);
    QCOMPARE(written(tkhd),
             hex("0000005c 746b6864 0000000f"
                 "7c25b080 7c25b080 00000003 00000000 00001388 0000000000000000"
                 "0000 0000 0100 0000")
                 + hex(s_identityMatrixHex) + hex("02d00000 01e60000"));
}

void TestAtoms::mediaHeaderLayout()
{
    QuickTimeMediaHeaderAtom mdhd(nullptr, 48000, 0x12345678);
    QCOMPARE(mdhd.size, 32u);
    QCOMPARE(written(mdhd), hex("00000020 6d646864 00000000 7c25b080 7c25b080 0000bb80 12345678 0000 0000"));
}

void TestAtoms::handlerReference_data()
{
    QTest::addColumn<quint32>("componentType");
    QTest::addColumn<quint32>("subtype");
    QTest::addColumn<QByteArray>("expected");
    const QByteArray fixed = hex("00000000 00000000 00000000");
    QTest::newRow("video") << fourCC("mhlr") << fourCC("vide")
                           << hex("0000002d 68646c72 00000000 6d686c72 76696465") + fixed
            + hex("0c 566964656f48616e646c6572");
    QTest::newRow("data") << fourCC("dhlr") << fourCC("alis")
                          << hex("0000002c 68646c72 00000000 64686c72 616c6973") + fixed
            + hex("0b 4461746148616e646c6572");
    QTest::newRow("text") << fourCC("mhlr") << fourCC("text")
                          << hex("00000021 68646c72 00000000 6d686c72 74657874") + fixed + hex("00");
    QTest::newRow("sound") << fourCC("mhlr") << fourCC("soun")
                           << hex("0000002d 68646c72 00000000 6d686c72 736f756e") + fixed
            + hex("0c 536f756e6448616e646c6572");
    QTest::newRow("timecode") << fourCC("mhlr") << fourCC("tmcd")
                              << hex("00000030 68646c72 00000000 6d686c72 746d6364") + fixed
            + hex("0f 54696d65636f646548616e646c6572");
    // Any other component type names a data handler, whatever the subtype.
    QTest::newRow("other type") << fourCC("xxxx") << fourCC("vide")
                                << hex("0000002c 68646c72 00000000 78787878 76696465") + fixed
            + hex("0b 4461746148616e646c6572");
}

void TestAtoms::handlerReference()
{
    QFETCH(quint32, componentType);
    QFETCH(quint32, subtype);
    QFETCH(QByteArray, expected);
    QuickTimeMediaAtom mdia;
    auto* hdlr = new QuickTimeHandlerReferenceAtom(componentType, subtype);
    mdia.addAtom(hdlr);
    QCOMPARE(hdlr->size, quint32(expected.size()));
    QCOMPARE(mdia.size, 8 + quint32(expected.size()));
    QCOMPARE(written(*hdlr), expected);
}

void TestAtoms::videoInformation()
{
    QuickTimeVideoInformationAtom vmhd;
    QCOMPARE(written(vmhd), hex("00000014 766d6864 00000001 0000 0000 0000 0000"));
}

void TestAtoms::soundInformation()
{
    QuickTimeSoundInformationAtom smhd;
    QCOMPARE(written(smhd), hex("00000010 736d6864 00000001 0000 0000"));
}

void TestAtoms::baseMediaInformation()
{
    QuickTimeBaseMediaInformationAtom gmin;
    QCOMPARE(written(gmin), hex("00000018 676d696e 00000000 0040 8000 8000 8000 0000 0000"));
}

void TestAtoms::timecodeInformation()
{
    QuickTimeTimecodeInformationAtom tcmi;
    QCOMPARE(written(tcmi),
             hex("00000040 74636d69 00000001 0000 0000 000c 0000 ffff ffff ffff 0000 0000 0000"
                 "06 53797374656d")
                 + QByteArray(25, '\0'));
}

void TestAtoms::dataReference()
{
    QuickTimeDataReferenceAtom dref;
    QCOMPARE(written(dref), hex("0000001c 64726566 00000000 00000001 0000000c 616c6973 00000001"));
}

void TestAtoms::editList()
{
    QuickTimeEditListAtom elst(nullptr, 0x1388, 0, 0x00010000);
    QCOMPARE(written(elst), hex("0000001c 656c7374 00000000 00000001 00001388 00000000 00010000"));
}

void TestAtoms::sourceReference()
{
    char reel[] = "REEL01";
    QuickTimeSourceReferenceAtom name(reel);
    QCOMPARE(name.size, 44u);
    QCOMPARE(written(name), hex("0000002c 6e616d65 0006 0000 5245454c3031") + QByteArray(26, '\0'));
}

void TestAtoms::sourceReferenceCutTo31()
{
    QuickTimeSourceReferenceAtom name("0123456789012345678901234567890123456789");
    QCOMPARE(name.nameLength, quint16(31));
    QCOMPARE(written(name),
             hex("0000002c 6e616d65 001f 0000"
                 "30313233343536373839 30313233343536373839 30313233343536373839 30 00"));
}

void TestAtoms::trackReference()
{
    QuickTimeTrackReferenceAtom tref;
    QCOMPARE(written(tref), hex("00000014 74726566 0000000c 746d6364 00000001"));
}

void TestAtoms::haldenHundredFrames()
{
    QBuffer device;
    device.open(QIODevice::ReadWrite);
    QuickTimeFile file(device);
    file.interlaced = 1;
    file.videoFrameCount = 60;
    file.soundChunks = 30;
    file.timecodeSamples = 10;
    for (int i = 0; i < 9; ++i)
        file.userData[i] = quint32(i + 1);
    file.frameMap = new quint16[101]; // owned by the file from here on
    for (int i = 0; i < 101; ++i)
        file.frameMap[i] = i < 10 ? 0x8001 : i < 70 ? 0x4123 : i < 100 ? 0x0018 : 0xFFFF;

    QuickTimeUserDataAtom udta;
    auto* hldn = new QuickTimeHaldenAtom(&file);
    udta.addAtom(hldn);
    QCOMPARE(hldn->size, 348u);
    QCOMPARE(udta.size, 356u);

    const QByteArray expected
        = hex("0000015c 686c646e 00000000"
              "00000001 00000001 00000064 0000003c 0000001e 0000000a"
              "00000001 00000002 00000003 00000004 00000005 00000006 00000007 00000008 00000009"
              "00000001")
        + QByteArray(72, '\0') + hex("8001").repeated(10) + hex("4123").repeated(60)
        + hex("0018").repeated(30);
    QCOMPARE(expected.size(), 348);
    QCOMPARE(written(*hldn), expected);
}

void TestAtoms::haldenWithoutFrames()
{
    QBuffer device;
    device.open(QIODevice::ReadWrite);
    QuickTimeFile file(device);
    QuickTimeHaldenAtom hldn(&file);
    QCOMPARE(hldn.size, 148u);
    const QByteArray bytes = written(hldn);
    QCOMPARE(bytes.size(), 148);
    QCOMPARE(bytes.left(24), hex("00000094 686c646e 00000000 00000001 00000000 00000000"));
}

void TestAtoms::userSettingsKeepsItsSizeRule()
{
    QBuffer device;
    device.open(QIODevice::ReadWrite);
    QuickTimeFile file(device);
    file.userSettings = QStringLiteral("AB");
    QuickTimeUserSettingsAtom uset(&file);
    QCOMPARE(uset.size, 14u); // one byte per character, not the string's real length
    QCOMPARE(written(uset), hex("0000000e 75736574 00000000 00000004 0041 0042"));

    QuickTimeUserSettingsAtom withoutFile(nullptr);
    QCOMPARE(withoutFile.size, 12u);
    // No text is a count of 0 bytes, not the stream's null-string marker.
    QCOMPARE(written(withoutFile), hex("0000000c 75736574 00000000 00000000"));
    QuickTimeFile unset(device);
    QuickTimeUserSettingsAtom empty(&unset);
    QCOMPARE(written(empty), hex("0000000c 75736574 00000000 00000000"));
}

void TestAtoms::fieldAndResolutionAtoms()
{
    QuickTimeFieldAtom fiel(nullptr);
    QCOMPARE(written(fiel), hex("00000008 6669656c"));
    QuickTimeAvidResolutionAtom ares(nullptr);
    QCOMPARE(written(ares), hex("00000008 41524553"));
}
