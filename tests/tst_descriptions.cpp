#include "movie/HeaderAtoms.h"
#include "movie/MovieFamily.h"
#include "movie/QuickTimeFile.h"
#include "movie/SampleDescriptions.h"
#include "support/AtomBytes.h"
#include "support/MovieFixtures.h"
#include "support/TestSupport.h"

#include <QBuffer>
#include <QtTest>

using namespace Tern;
using AtomBytes::u16;
using AtomBytes::written;
using TestSupport::hex;

namespace {

// The 32-byte compressor name field: length byte, the letters, zero fill.
QByteArray counted32(const char* text)
{
    const QByteArray letters(text);
    QByteArray field(1, char(letters.size()));
    field += letters;
    field += QByteArray(32 - field.size(), '\0');
    return field;
}

class CountedDescription : public QuickTimeSampleDescription
{
public:
    explicit CountedDescription(int* counter)
        : QuickTimeSampleDescription(0, fourCC("cntd"))
        , m_counter(counter)
    {
    }
    ~CountedDescription() override { ++*m_counter; }

private:
    int* m_counter;
};

// Checks a description against its bytes written out by hand: the size it counts and the length of
// `expected` are both `size`, and it writes exactly `expected`.
void checkWrittenAs(QuickTimeSampleDescription& description, quint32 size, const QByteArray& expected)
{
    QCOMPARE(description.size, size);
    QCOMPARE(expected.size(), int(size));
    QCOMPARE(written(description), expected);
}

// Offsets inside a ProRes entry.
const int s_colourAt = 86;
const int s_fieldAt = 104;
const int s_aspectAt = 114;

} // namespace

class TestDescriptions : public QObject
{
    Q_OBJECT

private slots:
    void proResHq1080Tern();
    void proResHq1080HeronCleanAperture();
    void proResStandardDefinition_data();
    void proResStandardDefinition();
    void proResSizeOutsideTheImageTable();
    void proResNaming_data();
    void proResNaming();
    void dnxhd1080Interlaced();
    void dnxhdProgressive_data();
    void dnxhdProgressive();
    void soundThreeBytes();
    void soundFormats_data();
    void soundFormats();
    void soundWithoutFile();
    void timecodeNtsc();
    void timecodeFramesPerSecond_data();
    void timecodeFramesPerSecond();
    void sampleDescriptionAtomEmpty();
    void sampleDescriptionAtomWithProRes();
    void timecodeGrowsByItsNameAtom();
    void sampleDescriptionAtomOwnsDescriptions();
};

void TestDescriptions::proResHq1080Tern()
{
    QBuffer device;
    device.open(QIODevice::ReadWrite);
    QuickTimeFile file(device);
    file.width = 1920;
    file.height = 1080;
    file.videoCodecType = quicktime_codec_prores422;
    file.proResVariant = 1;
    QuickTimeProResVideoSampleDescription prores(&file);
    checkWrittenAs(prores, 134, hex("00000086 61706368 000000000000 0001"
                                    "0000 0000 6170706c 00000000 000003ff 0780 0438"
                                    "00480000 00480000 00000000 0001"
                                    "13 4170706c652050726f52657320343232204851 000000000000000000000000"
                                    "0018 ffff"
                                    "00000012 636f6c72 6e636c63 0001 0001 0001"
                                    "0000000a 6669656c 01 00"
                                    "00000010 70617370 00000001 00000001"
                                    "00000000"));
}

void TestDescriptions::proResHq1080HeronCleanAperture()
{
    QBuffer device;
    device.open(QIODevice::ReadWrite);
    HeronMovie file(device);
    file.width = 1920;
    file.height = 1080;
    file.videoCodecType = quicktime_codec_prores422;
    file.proResVariant = 0; // Heron numbers its 422 variants from 0
    QuickTimeProResVideoSampleDescription prores(&file);
    checkWrittenAs(prores, 174, hex("000000ae 61706368 000000000000 0001"
                                    "0000 0000 6170706c 00000000 000003ff 0780 0438"
                                    "00480000 00480000 00000000 0001"
                                    "15 4170706c652050726f526573203432322028485129 00000000000000000000"
                                    "0018 ffff"
                                    "00000012 636f6c72 6e636c63 0001 0001 0001"
                                    "0000000a 6669656c 01 00"
                                    "00000010 70617370 00000001 00000001"
                                    "00000028 636c6170 00000760 00000001 00000426 00000001"
                                    "00000000 00000001 00000000 00000001"
                                    "00000000"));
}

void TestDescriptions::proResStandardDefinition_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    QTest::addColumn<quint32>("interlaced");
    QTest::addColumn<quint32>("userValue9");
    QTest::addColumn<QByteArray>("colour");
    QTest::addColumn<QByteArray>("field");
    QTest::addColumn<QByteArray>("aspect");
    QTest::newRow("486 interlaced") << 720 << 486 << 1u << 0u << hex("0006 0001 0006") << hex("02 09")
                                    << hex("0000000a 0000000b");
    QTest::newRow("486 interlaced, value 9 set")
        << 720 << 486 << 1u << 1u << hex("0006 0001 0006") << hex("01 00") << hex("0000000a 0000000b");
    QTest::newRow("480 progressive") << 720 << 480 << 0u << 0u << hex("0006 0001 0006") << hex("01 00")
                                     << hex("0000000a 0000000b");
    QTest::newRow("576 interlaced") << 720 << 576 << 1u << 0u << hex("0005 0001 0006") << hex("02 09")
                                    << hex("0000003b 00000036");
    QTest::newRow("720p") << 1280 << 720 << 0u << 0u << hex("0001 0001 0001") << hex("01 00")
                          << hex("00000001 00000001");
}

void TestDescriptions::proResStandardDefinition()
{
    QFETCH(int, width);
    QFETCH(int, height);
    QFETCH(quint32, interlaced);
    QFETCH(quint32, userValue9);
    QFETCH(QByteArray, colour);
    QFETCH(QByteArray, field);
    QFETCH(QByteArray, aspect);
    QBuffer device;
    device.open(QIODevice::ReadWrite);
    QuickTimeFile file(device);
    file.width = quint16(width);
    file.height = quint16(height);
    file.interlaced = interlaced;
    file.userData[8] = userValue9;
    file.videoCodecType = quicktime_codec_prores422;
    file.proResVariant = 2;
    QuickTimeProResVideoSampleDescription prores(&file);
    const QByteArray bytes = written(prores);
    QCOMPARE(bytes.size(), 134);
    QCOMPARE(bytes.mid(32, 4), u16(quint16(width)) + u16(quint16(height)));
    QCOMPARE(bytes.mid(s_colourAt + 12, 6), colour);
    QCOMPARE(bytes.mid(s_fieldAt + 8, 2), field);
    QCOMPARE(bytes.mid(s_aspectAt + 8, 8), aspect);
}

void TestDescriptions::proResSizeOutsideTheImageTable()
{
    QBuffer device;
    device.open(QIODevice::ReadWrite);
    HeronMovie file(device);
    file.width = 1000;
    file.height = 1000;
    file.videoCodecType = quicktime_codec_prores4444;
    QuickTimeProResVideoSampleDescription prores(&file);
    const QByteArray bytes = written(prores);
    QCOMPARE(bytes.size(), 174);
    QCOMPARE(bytes.mid(4, 4), hex("61703468"));
    QCOMPARE(bytes.mid(s_aspectAt, 16), hex("00000010 70617370 00000001 00000001"));
    QCOMPARE(bytes.mid(130), hex("00000028 636c6170") + QByteArray(32, '\0') + hex("00000000"));
}

void TestDescriptions::proResNaming_data()
{
    QTest::addColumn<bool>("heron");
    QTest::addColumn<quint32>("codecType");
    QTest::addColumn<quint32>("variant");
    QTest::addColumn<QByteArray>("dataFormat");
    QTest::addColumn<QByteArray>("name");
    // Tern: 422 variants from 1, 4444 XQ as variant 0 of the 4444 family.
    QTest::newRow("tern 4444 XQ") << false << 2u << 0u << hex("61703478")
                                  << counted32("Apple ProRes 4444 XQ");
    QTest::newRow("tern 4444 v1") << false << 2u << 1u << hex("61703468") << counted32("Apple ProRes 4444");
    QTest::newRow("tern 4444 v7") << false << 2u << 7u << hex("61703468") << counted32("Apple ProRes 4444");
    QTest::newRow("tern 422 HQ") << false << 1u << 1u << hex("61706368") << counted32("Apple ProRes 422 HQ");
    QTest::newRow("tern 422") << false << 1u << 2u << hex("6170636e") << counted32("Apple ProRes 422");
    QTest::newRow("tern 422 LT") << false << 1u << 3u << hex("61706373") << counted32("Apple ProRes 422 LT");
    QTest::newRow("tern 422 Proxy") << false << 1u << 4u << hex("6170636f")
                                    << counted32("Apple ProRes 422 Proxy");
    QTest::newRow("tern 422 v0") << false << 1u << 0u << hex("61706368") << counted32("Apple ProRes 422");
    QTest::newRow("tern 422 v5") << false << 1u << 5u << hex("61706368") << counted32("Apple ProRes 422");
    QTest::newRow("tern type 0 v1") << false << 0u << 1u << hex("61706368")
                                    << counted32("Apple ProRes 422 HQ");
    QTest::newRow("tern type 3 v3") << false << 3u << 3u << hex("61706373")
                                    << counted32("Apple ProRes 422 LT");
    // Heron: 422 variants from 0, no 4444 XQ.
    QTest::newRow("heron 4444 v0") << true << 2u << 0u << hex("61703468") << counted32("Apple ProRes 4444");
    QTest::newRow("heron 4444 v5") << true << 2u << 5u << hex("61703468") << counted32("Apple ProRes 4444");
    QTest::newRow("heron 422 HQ") << true << 1u << 0u << hex("61706368")
                                  << counted32("Apple ProRes 422 (HQ)");
    QTest::newRow("heron 422") << true << 1u << 1u << hex("6170636e") << counted32("Apple ProRes 422");
    QTest::newRow("heron 422 LT") << true << 1u << 2u << hex("61706373")
                                  << counted32("Apple ProRes 422 (LT)");
    QTest::newRow("heron 422 Proxy") << true << 1u << 3u << hex("6170636f")
                                     << counted32("Apple ProRes 422 (Proxy)");
    QTest::newRow("heron 422 v4") << true << 1u << 4u << hex("61706368") << counted32("Apple ProRes 422");
    QTest::newRow("heron 422 v9") << true << 1u << 9u << hex("61706368") << counted32("Apple ProRes 422");
}

void TestDescriptions::proResNaming()
{
    QFETCH(bool, heron);
    QFETCH(quint32, codecType);
    QFETCH(quint32, variant);
    QFETCH(QByteArray, dataFormat);
    QFETCH(QByteArray, name);
    QBuffer device;
    device.open(QIODevice::ReadWrite);
    QuickTimeFile ternFile(device);
    HeronMovie heronFile(device);
    QuickTimeFile& file = heron ? static_cast<QuickTimeFile&>(heronFile) : ternFile;
    file.videoCodecType = codecType;
    file.proResVariant = variant;
    QuickTimeProResVideoSampleDescription prores(&file);
    const QByteArray bytes = written(prores);
    QCOMPARE(bytes.size(), heron ? 174 : 134);
    QCOMPARE(bytes.mid(4, 4), dataFormat);
    QCOMPARE(bytes.mid(50, 32), name);
}

void TestDescriptions::dnxhd1080Interlaced()
{
    QBuffer device;
    device.open(QIODevice::ReadWrite);
    QuickTimeFile file(device);
    file.width = 1920;
    file.height = 1080;
    file.interlaced = 1;
    file.videoCodecType = quicktime_codec_dnxhd;
    file.videoCodecId = 1242;
    QuickTimeAvidVideoSampleDescription dnxhd(&file);
    checkWrittenAs(dnxhd, 258, hex("00000102 4156646e 000000000000 0001"
                                   "0000 0000 686c646e 00000200 00000200 0780 0438"
                                   "00480000 00480000 00000000 0001"
                                   "0b 444e78484420436f646563 0000000000000000000000000000000000000000"
                                   "0018 ffff"
                                   "00000018 41434c52 41434c52 30303031 00000001 00000000"
                                   "00000018 41505247 41505247 30303031 00000001 00000000"
                                   "00000078 41524553 41524553 30303031 000004da"
                                   "00000780 0000021c 00000002 00000000 00000004")
                                   + QByteArray(80, '\0') + hex("00000000"));
}

void TestDescriptions::dnxhdProgressive_data()
{
    QTest::addColumn<int>("height");
    QTest::addColumn<QByteArray>("resolution");
    QTest::newRow("1080p") << 1080 << hex("00000780 00000438 00000001 00000000 00000005");
    QTest::newRow("720p") << 720 << hex("00000780 000002d0 00000001 00000000 00000006");
}

void TestDescriptions::dnxhdProgressive()
{
    QFETCH(int, height);
    QFETCH(QByteArray, resolution);
    QBuffer device;
    device.open(QIODevice::ReadWrite);
    QuickTimeFile file(device);
    file.width = 1920;
    file.height = quint16(height);
    file.videoCodecId = 1238;
    QuickTimeAvidVideoSampleDescription dnxhd(&file);
    const QByteArray bytes = written(dnxhd);
    QCOMPARE(bytes.mid(150, 4), hex("000004d6"));
    QCOMPARE(bytes.mid(154, 20), resolution);
}

void TestDescriptions::soundThreeBytes()
{
    QBuffer device;
    device.open(QIODevice::ReadWrite);
    QuickTimeFile file(device);
    file.audioBytesPerSample = 3;
    file.audioLittleEndian = 1;
    QuickTimeSoundSampleDescription sound(&file, 0, 48000);
    checkWrittenAs(sound, 82, hex("00000052 696e3234 000000000000 0001"
                                  "0001 0000 00000000 0001 0010 0000 0000 bb800000"
                                  "00000001 00000003 00000003 00000002"
                                  "0000001e 77617665 0000000c 66726d61 696e3234 0000000a 656e6461 0001"));
}

void TestDescriptions::soundFormats_data()
{
    QTest::addColumn<int>("bytesPerSample");
    QTest::addColumn<QByteArray>("format");
    QTest::newRow("2") << 2 << hex("74776f73");
    QTest::newRow("3") << 3 << hex("696e3234");
    QTest::newRow("4") << 4 << hex("696e3332");
    QTest::newRow("1") << 1 << hex("696e3332");
    QTest::newRow("0") << 0 << hex("696e3332");
}

void TestDescriptions::soundFormats()
{
    QFETCH(int, bytesPerSample);
    QFETCH(QByteArray, format);
    QByteArray direct;
    QDataStream(&direct, QIODevice::WriteOnly) << SoundResolutionToFormat(bytesPerSample);
    QCOMPARE(direct, format);

    QBuffer device;
    device.open(QIODevice::ReadWrite);
    QuickTimeFile file(device);
    file.audioBytesPerSample = quint32(bytesPerSample);
    file.audioLittleEndian = 0;
    QuickTimeSoundSampleDescription sound(&file, fourCC("hldn"), 44100);
    const QByteArray bytes = written(sound);
    QCOMPARE(bytes.mid(4, 4), format);
    QCOMPARE(bytes.mid(20, 4), hex("686c646e"));
    QCOMPARE(bytes.mid(32, 4), hex("ac440000"));
    const QByteArray width = hex("000000") + QByteArray(1, char(bytesPerSample));
    QCOMPARE(bytes.mid(40, 12), width + width + hex("00000002"));
    QCOMPARE(bytes.mid(68, 4), format);
    QCOMPARE(bytes.mid(80, 2), hex("0000"));
}

void TestDescriptions::soundWithoutFile()
{
    QuickTimeSoundSampleDescription sound(nullptr, 0, 48000);
    const QByteArray bytes = written(sound);
    QCOMPARE(bytes.size(), 82);
    QCOMPARE(bytes.mid(4, 4), hex("696e3332"));
    QCOMPARE(bytes.mid(80, 2), hex("0001"));
}

void TestDescriptions::timecodeNtsc()
{
    QBuffer device;
    device.open(QIODevice::ReadWrite);
    QuickTimeFile file(device);
    file.timeScale = 30000;
    file.sampleDuration = 1001;
    file.dropFrame = true;
    QuickTimeTimecodeSampleDescription timecode(&file);
    QCOMPARE(timecode.size, 34u);
    QCOMPARE(written(timecode),
             hex("00000022 746d6364 000000000000 0001 00000000 00000001 00007530 000003e9 1e 00"));
}

void TestDescriptions::timecodeFramesPerSecond_data()
{
    QTest::addColumn<quint32>("timeScale");
    QTest::addColumn<quint32>("duration");
    QTest::addColumn<bool>("dropFrame");
    QTest::addColumn<bool>("counter");
    QTest::addColumn<QByteArray>("tail"); // flags, time scale, duration, frames, reserved
    QTest::newRow("23.976") << 23976u << 1000u << false << false << hex("00000000 00005da8 000003e8 18 00");
    QTest::newRow("24 counter") << 2400u << 100u << false << true << hex("00000008 00000960 00000064 18 00");
    QTest::newRow("both flags") << 3000u << 100u << true << true << hex("00000009 00000bb8 00000064 1e 00");
    QTest::newRow("no duration") << 2500u << 0u << false << false << hex("00000000 000009c4 00000000 00 00");
}

void TestDescriptions::timecodeFramesPerSecond()
{
    QFETCH(quint32, timeScale);
    QFETCH(quint32, duration);
    QFETCH(bool, dropFrame);
    QFETCH(bool, counter);
    QFETCH(QByteArray, tail);
    QBuffer device;
    device.open(QIODevice::ReadWrite);
    QuickTimeFile file(device);
    file.timeScale = timeScale;
    file.sampleDuration = duration;
    file.dropFrame = dropFrame;
    file.counter = counter;
    QuickTimeTimecodeSampleDescription timecode(&file);
    QCOMPARE(written(timecode).mid(20), tail);
}

void TestDescriptions::sampleDescriptionAtomEmpty()
{
    QuickTimeSampleDescriptionAtom stsd(nullptr);
    QCOMPARE(stsd.size, 16u);
    QCOMPARE(stsd.fieldCount, 2);
    QCOMPARE(written(stsd), hex("00000010 73747364 00000000 00000000"));
}

void TestDescriptions::sampleDescriptionAtomWithProRes()
{
    QBuffer device;
    device.open(QIODevice::ReadWrite);
    QuickTimeFile file(device);
    file.videoCodecType = quicktime_codec_prores422;
    file.proResVariant = 3;
    QuickTimeSampleTableAtom stbl;
    auto* stsd = new QuickTimeSampleDescriptionAtom(&file);
    stbl.addAtom(stsd);
    stsd->addDescription(new QuickTimeProResVideoSampleDescription(&file));
    QCOMPARE(stsd->size, 150u);
    QCOMPARE(stbl.size, 158u);
    QCOMPARE(stsd->entryCount, 1u);
    const QByteArray bytes = written(*stsd);
    QCOMPARE(bytes.size(), 150);
    QCOMPARE(bytes.left(24), hex("00000096 73747364 00000000 00000001 00000086 61706373"));
}

void TestDescriptions::timecodeGrowsByItsNameAtom()
{
    QBuffer device;
    device.open(QIODevice::ReadWrite);
    QuickTimeFile file(device);
    file.timeScale = 30000;
    file.sampleDuration = 1001;
    QuickTimeSampleTableAtom stbl;
    auto* stsd = new QuickTimeSampleDescriptionAtom(&file);
    stbl.addAtom(stsd);
    auto* timecode = new QuickTimeTimecodeSampleDescription(&file);
    stsd->addDescription(timecode);
    // The reel name is written behind the description as its extension, and counted by it.
    auto* name = new QuickTimeSourceReferenceAtom("1");
    stsd->addAtom(name);
    timecode->size += name->size;
    QCOMPARE(timecode->size, 78u);
    QCOMPARE(stsd->size, 94u);
    QCOMPARE(stbl.size, 102u);
    const QByteArray expected
        = hex("0000005e 73747364 00000000 00000001"
              "0000004e 746d6364 000000000000 0001 00000000 00000000 00007530 000003e9 1e 00"
              "0000002c 6e616d65 0001 0000 31")
        + QByteArray(31, '\0');
    QCOMPARE(expected.size(), 94);
    QCOMPARE(written(*stsd), expected);
}

void TestDescriptions::sampleDescriptionAtomOwnsDescriptions()
{
    int destroyed = 0;
    {
        QuickTimeSampleDescriptionAtom stsd(nullptr);
        stsd.addDescription(new CountedDescription(&destroyed));
        stsd.addDescription(new CountedDescription(&destroyed));
        QCOMPARE(stsd.entryCount, 2u);
        QCOMPARE(stsd.size, 48u);
        QCOMPARE(written(stsd),
                 hex("00000030 73747364 00000000 00000002"
                     "00000010 636e7464 000000000000 0001"
                     "00000010 636e7464 000000000000 0001"));
    }
    QCOMPARE(destroyed, 2);
}

QTEST_APPLESS_MAIN(TestDescriptions)
#include "tst_descriptions.moc"
