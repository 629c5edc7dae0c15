#include "movie/HeaderAtoms.h"
#include "movie/QuickTimeAtom.h"
#include "movie/QuickTimeFile.h"
#include "support/TestSupport.h"

#include <QBuffer>
#include <QtTest>

using namespace Tern;
using TestSupport::hex;

namespace {

QByteArray written(QuickTimeAtom& atom)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    QDataStream stream(&buffer);
    atom.write(stream);
    return bytes;
}

// Counts destructions so ownership can be checked.
class CountedAtom : public QuickTimeAtom
{
public:
    explicit CountedAtom(int* counter, quint32 payload = 0)
        : QuickTimeAtom(fourCC("cntd"), payload, 0)
        , m_counter(counter)
    {
    }
    ~CountedAtom() override { ++*m_counter; }

private:
    int* m_counter;
};

const char* const s_identityMatrixHex
    = "00010000 00000000 00000000 00000000 00010000 00000000 00000000 00000000 40000000";

} // namespace

class TestAtoms : public QObject
{
    Q_OBJECT

private slots:
    // Tree, sizes and serialisation.
    void typeNames();
    void rootWritesOnlyItsChildren();
    void addAtomPlacesAndGrowsEveryAncestor();
    void addSizeReachesTheRoot();
    void removeAllChildrenDestroysButKeepsSize();
    void destructorDestroysChildren();
    void versionedFlagsDropTheMiddleByte();
    void versionedWriteOrder();
    void versionedHeaderThenPayloadOrder();
    void flagsDisplayShowsFirstByteTwice();
    void readConsumesHeaderCounts();
    void skipAlignNext_data();
    void skipAlignNext();
    void skipWritesZeroPadding();
    void movieDataEmpty();
    void movieDataAddData();
    void movieDataAddDataFailure();
    void wideAtom();
    void unrecognizedWriteAndRead();
    void unrecognizedReadShort();

    // Header and information atoms.
    void fileTypeLayoutAndFields();
    void movieHeaderLayout();
    void movieHeaderDurationWraps();
    void trackHeaderFromFile();
    void trackHeaderFromArguments();
    void mediaHeaderLayout();
    void handlerReference_data();
    void handlerReference();
    void videoInformation();
    void soundInformation();
    void baseMediaInformation();
    void timecodeInformation();
    void dataReference();
    void editList();
    void sourceReference();
    void sourceReferenceCutTo31();
    void trackReference();
    void haldenHundredFrames();
    void haldenWithoutFrames();
    void userSettingsKeepsItsSizeRule();
    void fieldAndResolutionAtoms();
};

// ---------------------------------------------------------------------------------------------------------

void TestAtoms::typeNames()
{
    QuickTimeAtom root;
    QCOMPARE(root.typeName(), QString("Root"));
    QuickTimeMovieAtom moov;
    QCOMPARE(moov.typeName(), QString("moov"));
    QCOMPARE(QuickTimeAtom::fourByteString(0x6D646174), QString("mdat"));
    // Built from a zero-terminated buffer: a zero byte ends the string.
    QCOMPARE(QuickTimeAtom::fourByteString(0x61620063), QString("ab"));
    QVERIFY(root.constructed);
    QCOMPARE(root.position, qint64(-1));
}

void TestAtoms::rootWritesOnlyItsChildren()
{
    QuickTimeAtom root;
    root.addAtom(new QuickTimeMovieAtom());
    root.addAtom(new QuickTimeUserDataAtom());
    QCOMPARE(root.size, 16u);
    QCOMPARE(written(root), hex("00000008 6d6f6f76 00000008 75647461"));
}

void TestAtoms::addAtomPlacesAndGrowsEveryAncestor()
{
    QuickTimeMovieAtom moov;
    moov.position = 1000;
    QuickTimeAtom* trak = moov.addAtom(new QuickTimeTrackAtom());
    QuickTimeAtom* mdia = trak->addAtom(new QuickTimeMediaAtom());
    QCOMPARE(trak->position, qint64(1008));
    QCOMPARE(mdia->position, qint64(1016));
    QCOMPARE(moov.size, 24u);
    QCOMPARE(trak->size, 16u);
    QCOMPARE(mdia->size, 8u);

    auto* child = new QuickTimeFileAtom(); // 20 bytes
    QCOMPARE(mdia->addAtom(child), static_cast<QuickTimeAtom*>(child));
    QCOMPARE(mdia->size, 28u);
    QCOMPARE(trak->size, 36u);
    QCOMPARE(moov.size, 44u);
    QCOMPARE(child->position, qint64(1024));
    QCOMPARE(child->parent, mdia);
    QCOMPARE(trak->parent, static_cast<QuickTimeAtom*>(&moov));
    QCOMPARE(moov.parent, static_cast<QuickTimeAtom*>(nullptr));

    // The next sibling goes behind the first child.
    QuickTimeAtom* second = mdia->addAtom(new QuickTimeWideAtom());
    QCOMPARE(second->position, qint64(1044));
    QCOMPARE(moov.size, 52u);
    QCOMPARE(written(moov),
             hex("00000034 6d6f6f76 0000002c 7472616b 00000024 6d646961"
                 "00000014 66747970 71742020 20070400 71742020"
                 "00000008 77696465"));
}

void TestAtoms::addSizeReachesTheRoot()
{
    QuickTimeAtom root;
    QuickTimeAtom* moov = root.addAtom(new QuickTimeMovieAtom());
    QuickTimeAtom* udta = moov->addAtom(new QuickTimeUserDataAtom());
    udta->addSize(5);
    QCOMPARE(udta->size, 13u);
    QCOMPARE(moov->size, 21u);
    QCOMPARE(root.size, 21u);
}

void TestAtoms::removeAllChildrenDestroysButKeepsSize()
{
    int destroyed = 0;
    QuickTimeMovieAtom moov;
    moov.addAtom(new CountedAtom(&destroyed, 4));
    moov.addAtom(new CountedAtom(&destroyed));
    QCOMPARE(moov.size, 28u);
    moov.removeAllChildren();
    QCOMPARE(destroyed, 2);
    QVERIFY(moov.children.isEmpty());
    QCOMPARE(moov.size, 28u);
}

void TestAtoms::destructorDestroysChildren()
{
    int destroyed = 0;
    {
        QuickTimeMovieAtom moov;
        QuickTimeAtom* trak = moov.addAtom(new QuickTimeTrackAtom());
        trak->addAtom(new CountedAtom(&destroyed));
        moov.addAtom(new CountedAtom(&destroyed));
    }
    QCOMPARE(destroyed, 2);
}

void TestAtoms::versionedFlagsDropTheMiddleByte()
{
    QuickTimeVersionFlagsAtom f(fourCC("test"), 0, 0, 0, 0x0F);
    QCOMPARE(f.size, 12u);
    QCOMPARE(f.fieldCount, 2);
    QCOMPARE(written(f), hex("0000000c 74657374 00 00000f"));
    QCOMPARE(f.fieldValue(1), QString("0"));

    QuickTimeVersionFlagsAtom middle(fourCC("test"), 0, 3, 1, 0x000102);
    QCOMPARE(middle.fieldCount, 5);
    QCOMPARE(written(middle), hex("0000000c 74657374 01 000002"));

    QuickTimeVersionFlagsAtom high(fourCC("test"), 2, 0, 0, 0x01020304);
    QCOMPARE(high.size, 14u);
    QCOMPARE(written(high).mid(8), hex("00 010204"));
}

void TestAtoms::versionedWriteOrder()
{
    // The plain versioned write puts its children before version and flags.
    QuickTimeVersionFlagsAtom v(fourCC("test"), 0, 0, 3, 1);
    v.addAtom(new QuickTimeWideAtom());
    QCOMPARE(v.size, 20u);
    QCOMPARE(written(v), hex("00000014 74657374 00000008 77696465 03 000001"));
}

void TestAtoms::versionedHeaderThenPayloadOrder()
{
    QuickTimeVersionFlagsAtom v(fourCC("test"), 0, 0, 3, 1);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    QDataStream stream(&buffer);
    v.writeHeader(stream);
    QCOMPARE(bytes, hex("0000000c 74657374 03 000001"));

    // A root-like versioned atom (type 0) still writes version and flags.
    QuickTimeVersionFlagsAtom headless(0, 0, 0, 5, 0x0F);
    QCOMPARE(written(headless), hex("05 00000f"));
}

void TestAtoms::flagsDisplayShowsFirstByteTwice()
{
    QuickTimeVersionFlagsAtom v(fourCC("test"), 0, 0, 0, 0);
    QByteArray bytes = hex("07 010203");
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadOnly);
    QDataStream stream(&buffer);
    quint64 remaining = 12;
    QVERIFY(v.read(stream, &remaining));
    QCOMPARE(remaining, quint64(0));
    QCOMPARE(v.version, quint8(7));
    QCOMPARE(v.flags[2], quint8(3));
    QCOMPARE(v.fieldName(0), QString("Version"));
    QCOMPARE(v.fieldName(1), QString("Flags"));
    QCOMPARE(v.fieldName(2), QString());
    QCOMPARE(v.fieldValue(0), QString("7"));
    QCOMPARE(v.fieldValue(1), QString("10201"));
    QCOMPARE(v.fieldValue(2), QString());
    QString untouched("x");
    QCOMPARE(v.getFieldName(5, untouched), 3);
    QCOMPARE(untouched, QString("x"));
}

void TestAtoms::readConsumesHeaderCounts()
{
    QByteArray bytes = hex("00 000000");
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadOnly);
    QDataStream stream(&buffer);

    QuickTimeMovieAtom moov;
    moov.addAtom(new QuickTimeWideAtom());
    quint64 remaining = 7;
    QVERIFY(!moov.QuickTimeAtom::read(stream, &remaining));
    QCOMPARE(remaining, quint64(7));
    remaining = 20;
    QVERIFY(moov.QuickTimeAtom::read(stream, &remaining));
    QCOMPARE(remaining, quint64(12));
    QVERIFY(moov.children.isEmpty());  // children dropped
    QCOMPARE(buffer.pos(), qint64(0)); // nothing taken from the stream

    QuickTimeVersionFlagsAtom v(fourCC("test"), 0, 0, 0, 0);
    remaining = 11; // header fits, version and flags do not
    QVERIFY(!v.read(stream, &remaining));
    remaining = 5;
    QVERIFY(!v.read(stream, &remaining));
}

void TestAtoms::skipAlignNext_data()
{
    QTest::addColumn<qint64>("pos");
    QTest::addColumn<quint32>("pad");
    QTest::newRow("0") << qint64(0) << 504u;
    QTest::newRow("504") << qint64(504) << 0u;
    QTest::newRow("505") << qint64(505) << 511u;
    QTest::newRow("512") << qint64(512) << 504u;
    QTest::newRow("low 32 bits") << qint64(0x100000000LL + 505) << 511u;
}

void TestAtoms::skipAlignNext()
{
    QFETCH(qint64, pos);
    QFETCH(quint32, pad);
    QuickTimeSampleTableAtom stbl;
    auto* skip = new QuickTimeSkipAtom();
    stbl.addAtom(skip);
    QCOMPARE(skip->alignNext(pos), pad);
    QCOMPARE(skip->size, 8 + pad);
    QCOMPARE(stbl.size, 16 + pad);
    QCOMPARE((pos + 8 + pad) % 512, qint64(0));
}

void TestAtoms::skipWritesZeroPadding()
{
    QuickTimeSkipAtom plain;
    QCOMPARE(written(plain), hex("00000008 736b6970"));

    QuickTimeSkipAtom padded;
    padded.alignNext(505);
    const QByteArray bytes = written(padded);
    QCOMPARE(bytes.size(), 519);
    QCOMPARE(bytes.left(8), hex("00000207 736b6970"));
    QCOMPARE(bytes.mid(8), QByteArray(511, '\0'));
}

void TestAtoms::movieDataEmpty()
{
    QuickTimeMovieDataAtom mdat(0);
    QCOMPARE(mdat.size, 8u);
    QCOMPARE(mdat.position, qint64(-1));
    QCOMPARE(mdat.dataSize, quint64(16));
    QCOMPARE(written(mdat), hex("00000001 6d646174 0000000000000010"));
}

void TestAtoms::movieDataAddData()
{
    QuickTimeMovieDataAtom mdat(0x100000000ULL);
    QByteArray media;
    QBuffer device(&media);
    device.open(QIODevice::WriteOnly);
    QVERIFY(mdat.addData(hex("01020304 05"), device));
    QCOMPARE(media, hex("01020304 05")); // straight to the device
    QCOMPARE(mdat.dataSize, quint64(0x100000015ULL));
    QCOMPARE(written(mdat), hex("00000001 6d646174 0000000100000015"));
}

void TestAtoms::movieDataAddDataFailure()
{
    QuickTimeMovieDataAtom mdat(0);
    TestSupport::FailingBuffer device(2);
    device.open(QIODevice::WriteOnly);
    QVERIFY(!mdat.addData(hex("01020304"), device));
    QCOMPARE(mdat.dataSize, quint64(16));
}

void TestAtoms::wideAtom()
{
    QuickTimeWideAtom wide;
    QCOMPARE(wide.size, 8u);
    QCOMPARE(written(wide), hex("00000008 77696465"));
}

void TestAtoms::unrecognizedWriteAndRead()
{
    QuickTimeUnrecognizedAtom freeAtom(fourCC("free"), 20);
    QCOMPARE(freeAtom.size, 20u);
    QCOMPARE(freeAtom.typeName(), QString("free"));
    QCOMPARE(written(freeAtom), hex("00000014 66726565"));

    QByteArray bytes = hex("000102030405060708090a0b ff");
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadOnly);
    QDataStream stream(&buffer);
    quint64 remaining = 100;
    QVERIFY(freeAtom.read(stream, &remaining));
    QCOMPARE(buffer.pos(), qint64(12));
    QCOMPARE(remaining, quint64(80));

    // A bare header skips nothing.
    QuickTimeUnrecognizedAtom bare(fourCC("free"), 8);
    remaining = 8;
    QVERIFY(bare.read(stream, &remaining));
    QCOMPARE(buffer.pos(), qint64(12));
    QCOMPARE(remaining, quint64(0));

    remaining = 7;
    QVERIFY(!bare.read(stream, &remaining));
}

void TestAtoms::unrecognizedReadShort()
{
    QuickTimeUnrecognizedAtom junk(fourCC("junk"), 40);
    QByteArray bytes = hex("0102030405");
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadOnly);
    QDataStream stream(&buffer);
    quint64 remaining = 30; // less than the atom: the count stops at 0
    QTest::ignoreMessage(QtWarningMsg, "Unexpected end of file.");
    QVERIFY(!junk.read(stream, &remaining));
    QCOMPARE(remaining, quint64(0));
}

// ---------------------------------------------------------------------------------------------------------

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

QTEST_APPLESS_MAIN(TestAtoms)
#include "tst_atoms.moc"
