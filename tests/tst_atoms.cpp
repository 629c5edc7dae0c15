// The atom tree: atoms placed, grown, sized, destroyed with their parents, and written and read back; the
// versioned, skip, movie data, wide and unrecognized atoms. The header and information atoms are in
// tst_atoms_headers.cpp.

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

} // namespace

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

QTEST_APPLESS_MAIN(TestAtoms)
