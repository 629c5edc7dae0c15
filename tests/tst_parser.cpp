// Reading atoms back: the walk over crafted atom trees, what each atom pushes into the track being
// learned, and when a track is committed.

#include "movie/InformationAtoms.h"
#include "movie/QuickTimeAtom.h"
#include "movie/QuickTimeFile.h"
#include "support/AtomBytes.h"
#include "support/MessageCapture.h"
#include "support/MovieFixtures.h"

#include <QBuffer>
#include <QtTest>

using Tern::fourCC;
using Tern::QuickTimeAtom;
using MovieFile = Tern::QuickTimeFile;
using Tern::QuickTimeTrackInfo;
using namespace AtomBytes;

namespace {

// ---- Builders: every atom below is its size, its four letters and its payload, written out by hand.

QByteArray timecodeEntry(quint32 flags)
{
    return u32(34) + fcc("tmcd") + zeros(6) + u16(1) + u32(0) + u32(flags) + u32(2500) + u32(100) + u8(25)
        + u8(0);
}
QByteArray videoTrak(quint32 scale, quint32 duration, quint32 frames)
{
    const QList<quint32> zeroEntries = QVector<quint32>(int(frames)).toList(); // each size and offset 0
    return trak("vide", scale, videoEntry("apcn", 1920, 1080),
        stts(10, duration) + stsc({ { 1, 1 } }) + stsz(0, frames, zeroEntries) + stco(zeroEntries));
}
QByteArray soundTrak(quint32 samples)
{
    const QByteArray stbl = box("stbl",
        stsd(soundEntry("twos", 0, 1, 16, 48000, 0)) + stts(10, 1) + stsc({ { 1, 1 } }) + stsz(2, samples)
            + stco({ 0 }));
    const QByteArray minf = box("minf", fullBox("smhd", zeros(4)) + stbl);
    return box("trak", box("mdia", mdhd(48000) + hdlr("mhlr", "soun") + minf));
}
// The maker atom: counts, user data 1..9, marker, then the frame list.
QByteArray hldn(const QList<quint16>& frames, quint32 video, quint32 audio, quint32 timecode, quint32 marker)
{
    QByteArray payload
        = u32(1) + u32(1) + u32(quint32(frames.size())) + u32(video) + u32(audio) + u32(timecode);
    for (quint32 i = 1; i <= 9; ++i)
        payload += u32(0x100 + i);
    payload += u32(marker) + zeros(72);
    for (quint16 frame : frames)
        payload += u16(frame);
    return fullBox("hldn", payload);
}

// A movie read from memory, the way a movie from elsewhere is read: import mode, no maker atom yet.
struct Reader
{
    QByteArray bytes;
    CountingBuffer device;
    MovieFile file;
    explicit Reader(const QByteArray& content)
        : bytes(content)
        , file(device)
    {
        device.setBuffer(&bytes);
        device.open(QIODevice::ReadOnly | QIODevice::Unbuffered);
        file.importMode = true;
        file.writtenByRecorder = false;
        file.initCurrentTrackInfo();
        device.seeks = 0;
    }
    // Reads one atom at `at` with the rest of the device as budget.
    bool readAt(qint64 at, QuickTimeAtom** out = nullptr, quint64* left = nullptr)
    {
        device.seek(at);
        device.seeks = 0;
        device.bytesRead = 0;
        quint64 remaining = quint64(bytes.size() - at);
        const bool ok = QuickTimeAtom::readNextAtom(&file, out, file.stream, &remaining);
        if (left)
            *left = remaining;
        return ok;
    }
};

} // namespace

class TestParser : public QObject
{
    Q_OBJECT

private slots:
    void extendedMovieDataIsSkippedInOneSeek();
    void baseMediaHeaderIsReadAsMediaInformation();
    void userDataNotLedByMakerAtomIsSkippedWhole();
    void height486IsStoredAs480();
    void importWithoutMakerAtomHasNoFrameMap();
    void readFileAndCloseFileReadDropTheAtomList();
    void unexpectedAmountIsLoggedAndSynced();
    void childOverrunningItsContainerEndsTheContainer();
    void unrecognizedAtomCutShortWarns();
    void deepNestingIsBounded();
    void handlerSubtypeGivesTrackType();
    void completeTrackIsCommittedAndRateLearned_data();
    void completeTrackIsCommittedAndRateLearned();
    void sixtyFifthTrackIsNotCommitted();
    void makerAtomRestoresFrameMapAndCounts();
    void makerAtomListIsCappedAtTheMap();
    void makerAtomTooShortFails();
    void soundDescriptions();
    void fieldAndResolutionAtomsGiveInterlace();
    void heronDoesNotKnowExtendedFormats();
};

void TestParser::extendedMovieDataIsSkippedInOneSeek()
{
    // 'ftyp' (20 bytes), then 'mdat' with size 1 and the 64-bit size 48, whose payload looks like an 'mdhd'.
    const QByteArray media = mdhd(777);
    Reader reader(
        u32(20) + fcc("ftyp") + zeros(12) + u32(1) + fcc("mdat") + u64(16 + 32) + media + box("free", {}));
    QCOMPARE(media.size(), 32);
    QuickTimeAtom* atom = nullptr;
    quint64 left = 0;
    QVERIFY(reader.readAt(20, &atom, &left));
    QScopedPointer<QuickTimeAtom> owned(atom);
    QCOMPARE(atom->type, fourCC("mdat"));
    QCOMPARE(atom->size64, quint64(48));
    QCOMPARE(atom->startPos, quint64(20));
    QCOMPARE(reader.file.movieDataStart, quint64(36));
    QCOMPARE(reader.device.pos(), qint64(68));
    QCOMPARE(left, quint64(reader.bytes.size() - 20 - 48));
    QCOMPARE(reader.device.seeks, 1);
    QCOMPARE(reader.device.bytesRead, qint64(16)); // the header alone
    QCOMPARE(reader.file.currentTrack.timeScale, qint64(-1));
}

void TestParser::baseMediaHeaderIsReadAsMediaInformation()
{
    // 'gmhd' { 'gmin', 'mdhd' 600, 'tmcd' { 'tcmi', 'mdhd' 777 } }: read as a container, its 'mdhd' is
    // seen; 'tmcd' is skipped whole, so the 'mdhd' inside it is not.
    const QByteArray gmin = fullBox("gmin", u16(0x40) + u16(0x8000) + u16(0x8000) + u16(0x8000) + u32(0));
    const QByteArray tmcd = box("tmcd", fullBox("tcmi", zeros(52)) + mdhd(777));
    Reader reader(box("gmhd", gmin + mdhd(600) + tmcd));
    MessageCapture log;
    QuickTimeAtom* atom = nullptr;
    QVERIFY(reader.readAt(0, &atom));
    QScopedPointer<QuickTimeAtom> owned(atom);
    QVERIFY(dynamic_cast<Tern::QuickTimeMediaInformationAtom*>(atom));
    QCOMPARE(atom->type, fourCC("minf"));
    QCOMPARE(atom->size64, quint64(reader.bytes.size()));
    QCOMPARE(reader.file.currentTrack.timeScale, qint64(600));
    QCOMPARE(reader.device.pos(), qint64(reader.bytes.size()));
    QCOMPARE(log.messages(), QStringList());
}

void TestParser::userDataNotLedByMakerAtomIsSkippedWhole()
{
    const QByteArray maker = hldn({ 0x4003 }, 1, 0, 0, 1);
    {
        Reader reader(box("udta", box("urec", {}) + maker));
        MessageCapture log;
        QVERIFY(reader.readAt(0));
        QCOMPARE(reader.device.bytesRead, qint64(16)); // its header and the first child's header
        QCOMPARE(reader.device.pos(), qint64(reader.bytes.size()));
        QVERIFY(!reader.file.writtenByRecorder);
        QVERIFY(!reader.file.frameMap);
        QCOMPARE(log.messages(), QStringList());
    }
    {
        Reader reader(box("udta", maker + box("urec", {})));
        QVERIFY(reader.readAt(0));
        QVERIFY(reader.file.writtenByRecorder);
        QCOMPARE(reader.device.pos(), qint64(reader.bytes.size()));
    }
}

void TestParser::height486IsStoredAs480()
{
    Reader reader(stsd(videoEntry("apcn", 720, 486)) + stsd(videoEntry("apch", 720, 576)));
    QVERIFY(reader.readAt(0));
    QCOMPARE(reader.file.width, quint16(720));
    QCOMPARE(reader.file.height, quint16(480));
    QVERIFY(reader.readAt(reader.device.pos()));
    QCOMPARE(reader.file.height, quint16(576));
}

void TestParser::importWithoutMakerAtomHasNoFrameMap()
{
    Reader reader(box("moov", videoTrak(2500, 100, 5) + soundTrak(1000)));
    MessageCapture log;
    QVERIFY(reader.file.readFile());
    QCOMPARE(log.messages(), QStringList());
    QVERIFY(!reader.file.frameMap);
    QVERIFY(!reader.file.writtenByRecorder);
    QCOMPARE(reader.file.trackCount, 2);
    QCOMPARE(reader.file.videoFrames(), 5u);
    QCOMPARE(reader.file.audioFrames(), 1000u);
    QCOMPARE(reader.file.totalFrames(), 5u);
}

void TestParser::readFileAndCloseFileReadDropTheAtomList()
{
    // Two stray bytes behind the index: the walk ends on them with the stream's status cleared again.
    Reader reader(box("moov", videoTrak(2500, 100, 2)) + u16(0x1234));
    reader.file.addAtom(new Tern::QuickTimeMovieAtom());
    QVERIFY(reader.file.readFile());
    QCOMPARE(reader.file.root.children.size(), 0);
    QCOMPARE(reader.file.trackCount, 1);
    QCOMPARE(reader.file.stream.status(), QDataStream::Ok);
    reader.file.addAtom(new Tern::QuickTimeMovieAtom());
    QVERIFY(reader.file.closeFileRead());
    QCOMPARE(reader.file.root.children.size(), 0);
}

void TestParser::unexpectedAmountIsLoggedAndSynced()
{
    // An 'mdhd' declaring 40 bytes reads its 32; an 'mvhd' declaring 100 reads its 108 (into the 'free').
    Reader reader(box("moov",
        box("mdhd", u32(0) + u32(0) + u32(0) + u32(30000) + u32(0) + u32(0) + zeros(8))
            + box("mvhd", zeros(92)) + box("free", zeros(8))));
    MessageCapture log;
    QVERIFY(reader.readAt(0));
    QCOMPARE(log.messages(),
        QStringList({
            "unexpected amount of data read in atom mdhd @ 0x8 (expected 40, read 32), sync to 0x30",
            "unexpected amount of data read in atom mvhd @ 0x30 (expected 100, read 108), sync to 0x94",
        }));
    QCOMPARE(reader.file.currentTrack.timeScale, qint64(30000));
    QCOMPARE(reader.device.pos(), qint64(0xA4));

    // Sized as it reads: no message.
    Reader exact(box("moov", mdhd(30000)));
    MessageCapture quiet;
    QVERIFY(exact.readAt(0));
    QCOMPARE(quiet.messages(), QStringList());
}

void TestParser::childOverrunningItsContainerEndsTheContainer()
{
    // 'moov' of 40 bytes whose child claims 100: the child is not read, the container is synced.
    Reader reader(u32(40) + fcc("moov") + u32(100) + fcc("mdhd") + zeros(24) + box("free", {}));
    MessageCapture log;
    QVERIFY(reader.readAt(0));
    QCOMPARE(log.messages(),
        QStringList(
            { "unexpected amount of data read in atom moov @ 0x0 (expected 40, read 16), sync to 0x28" }));
    QCOMPARE(reader.file.currentTrack.timeScale, qint64(-1));
    QCOMPARE(reader.device.pos(), qint64(40));
}

void TestParser::unrecognizedAtomCutShortWarns()
{
    // 'free' claims 64 bytes, the device ends after 20; the walk believes 64 remain.
    Reader reader(u32(64) + fcc("free") + zeros(12));
    MessageCapture log;
    reader.device.seek(0);
    quint64 remaining = 64;
    QVERIFY(QuickTimeAtom::readNextAtom(&reader.file, nullptr, reader.file.stream, &remaining));
    QCOMPARE(log.messages().first(), QString("Unexpected end of file."));
    QCOMPARE(remaining, quint64(0));
    QCOMPARE(reader.device.pos(), qint64(20));
}

void TestParser::deepNestingIsBounded()
{
    QByteArray nested = mdhd(500);
    for (int i = 0; i < 5000; ++i)
        nested = box("moov", nested);
    Reader reader(nested);
    MessageCapture log;
    QVERIFY(reader.file.readFile());
    QCOMPARE(QuickTimeAtom::nestingLevel, 0);
    QCOMPARE(reader.device.pos(), qint64(nested.size()));
    QCOMPARE(reader.file.currentTrack.timeScale, qint64(-1)); // too deep to be read
    QCOMPARE(log.messages(), QStringList());
}

void TestParser::handlerSubtypeGivesTrackType()
{
    Reader reader(hdlr("mhlr", "vide") + hdlr("dhlr", "soun") + hdlr("mhlr", "soun") + hdlr("mhlr", "tmcd")
        + hdlr("mhlr", "text"));
    const Tern::quicktime_frametype_t expected[]
        = { Tern::quicktime_frametype_video, Tern::quicktime_frametype_video, Tern::quicktime_frametype_sound,
              Tern::quicktime_frametype_timecode, Tern::quicktime_frametype_unknown };
    qint64 at = 0;
    for (Tern::quicktime_frametype_t type : expected) {
        QVERIFY(reader.readAt(at));
        QCOMPARE(reader.file.getCurrentTrackType(), type);
        at += 37; // 12 + five fields + length byte + "Name"
        QCOMPARE(reader.device.pos(), at);
    }
}

void TestParser::completeTrackIsCommittedAndRateLearned_data()
{
    QTest::addColumn<quint32>("scale");
    QTest::addColumn<quint32>("duration");
    QTest::addColumn<quint32>("interlaced");
    QTest::addColumn<quint32>("rate");
    QTest::newRow("25p") << 2500u << 100u << 0u << 2500u;
    QTest::newRow("23.976 (2397 kept as 2398)") << 24000u << 1001u << 0u << 2398u;
    QTest::newRow("50i doubled") << 2500u << 100u << 1u << 5000u;
    QTest::newRow("29.97 in 30000/1001") << 30000u << 1001u << 0u << 2997u;
}

void TestParser::completeTrackIsCommittedAndRateLearned()
{
    QFETCH(quint32, scale);
    QFETCH(quint32, duration);
    QFETCH(quint32, interlaced);
    QFETCH(quint32, rate);
    Reader reader(box("moov", videoTrak(scale, duration, 4)));
    reader.file.interlaced = interlaced;
    reader.file.userData[8] = 99;
    QVERIFY(reader.file.readFile());
    QCOMPARE(reader.file.trackCount, 1);
    const QuickTimeTrackInfo& track = reader.file.tracks[0];
    QCOMPARE(track.type, Tern::quicktime_frametype_video);
    QVERIFY(track.committed);
    QCOMPARE(reader.file.userData[2], rate);
    QCOMPARE(reader.file.userData[8], 0u);

    // Once a maker atom has been read, nothing is committed.
    Reader maker(box("moov", box("udta", hldn({}, 0, 0, 0, 1)) + videoTrak(scale, duration, 4)));
    QVERIFY(maker.file.readFile());
    QCOMPARE(maker.file.trackCount, 0);
    QCOMPARE(maker.file.userData[2], 0x103u);
}

void TestParser::sixtyFifthTrackIsNotCommitted()
{
    QByteArray tracks;
    for (int i = 0; i < 65; ++i)
        tracks += videoTrak(2500 + quint32(i), 100, 2);
    Reader reader(box("moov", tracks));
    QVERIFY(reader.file.readFile());
    QCOMPARE(reader.file.trackCount, 64);
    QCOMPARE(reader.file.tracks[63].timeScale, qint64(2563));
    QVERIFY(reader.file.currentTrack.committed == false); // the 65th was complete but had no room
    QCOMPARE(reader.file.currentTrack.timeScale, qint64(2564));
}

void TestParser::makerAtomRestoresFrameMapAndCounts()
{
    Reader reader(hldn({ 0x4003, 0x0002, 0x8001 }, 1, 1, 1, 0));
    QVERIFY(reader.readAt(0));
    QCOMPARE(reader.device.pos(), qint64(148 + 6));
    QVERIFY(reader.file.frameMap);
    QCOMPARE(reader.file.frameMap[0], quint16(0x4003));
    QCOMPARE(reader.file.frameMap[1], quint16(0x0002));
    QCOMPARE(reader.file.frameMap[2], quint16(0x8001));
    QCOMPARE(reader.file.videoFrames(), 1u);
    QCOMPARE(reader.file.audioFrames(), 1u);
    QCOMPARE(reader.file.timecodeSamples, 1u);
    QCOMPARE(reader.file.totalFrames(), 3u);
    QCOMPARE(reader.file.interlaced, 1u);
    for (int i = 0; i < 9; ++i)
        QCOMPARE(reader.file.userData[i], quint32(0x101 + i));
    QVERIFY(reader.file.writtenByRecorder);
    QVERIFY(!reader.file.haldenMarker);

    Reader marked(hldn({}, 0, 0, 0, 7));
    QVERIFY(marked.readAt(0));
    QVERIFY(marked.file.haldenMarker);
}

void TestParser::makerAtomListIsCappedAtTheMap()
{
    QList<quint16> frames;
    for (quint32 i = 0; i < MovieFile::s_frameMapEntries + 2; ++i)
        frames << quint16(0x4000 | (i % 0x3FFF));
    Reader reader(hldn(frames, quint32(frames.size()), 0, 0, 1));
    MessageCapture log;
    QVERIFY(reader.readAt(0));
    QCOMPARE(log.messages(), QStringList());
    QCOMPARE(reader.device.pos(), qint64(reader.bytes.size()));
    const quint32 last = MovieFile::s_frameMapEntries - 1;
    QCOMPARE(reader.file.frameMap[last], quint16(0x4000 | (last % 0x3FFF)));
}

void TestParser::makerAtomTooShortFails()
{
    // 135 bytes behind version and flags: nothing is taken from it.
    Reader reader(fullBox("hldn", zeros(135)));
    MessageCapture log;
    QVERIFY(reader.readAt(0));
    QCOMPARE(log.messages(),
        QStringList(
            { "unexpected amount of data read in atom hldn @ 0x0 (expected 147, read 12), sync to 0x93" }));
    QVERIFY(!reader.file.writtenByRecorder);
    QVERIFY(!reader.file.frameMap);
}

void TestParser::soundDescriptions()
{
    const QByteArray wave = box("wave", box("frma", fcc("in24")) + box("enda", u16(1)) + u32(8) + u32(0));
    Reader reader(stsd(soundEntry("in24", 1, 2, 16, 44100, 3, wave))
        + stsd(soundEntry("twos", 0, 1, 16, 32000, 0)) + stsd(timecodeEntry(0x9))
        + stsd(soundEntry("sowt", 0, 6, 16, 8000, 0)));
    MessageCapture log;
    QVERIFY(reader.readAt(0));
    QCOMPARE(reader.file.currentTrack.audioBytesPerSample, 3u);
    QCOMPARE(reader.file.currentTrack.audioBigEndian, false);
    QCOMPARE(reader.file.currentTrack.audioChannels, 2u);
    QCOMPARE(reader.file.audioSampleRate, 44100u);
    QVERIFY(reader.readAt(reader.device.pos()));
    QCOMPARE(reader.file.currentTrack.audioBytesPerSample, 2u);
    QCOMPARE(reader.file.currentTrack.audioBigEndian, true);
    QCOMPARE(reader.file.currentTrack.audioChannels, 1u);
    QCOMPARE(reader.file.audioSampleRate, 32000u);
    QVERIFY(!reader.file.dropFrame && !reader.file.counter);
    QVERIFY(reader.readAt(reader.device.pos()));
    QVERIFY(reader.file.dropFrame);
    QVERIFY(reader.file.counter);
    // A format the library does not know is passed over.
    QVERIFY(reader.readAt(reader.device.pos()));
    QCOMPARE(reader.file.currentTrack.audioChannels, 1u);
    QCOMPARE(reader.device.pos(), qint64(reader.bytes.size()));
    QCOMPARE(log.messages(), QStringList());
}

void TestParser::fieldAndResolutionAtomsGiveInterlace()
{
    const QByteArray fiel = u32(10) + fcc("fiel") + u8(2) + u8(9);
    const QByteArray ares = box("ARES",
        fcc("ARES") + fcc("0001") + u32(1241) + u32(1920) + u32(540) + u32(2) + u32(0) + u32(4) + zeros(80));
    {
        Reader reader(stsd(videoEntry("apch", 1920, 1080, fiel + u32(0))));
        MessageCapture log;
        QVERIFY(reader.readAt(0));
        QCOMPARE(reader.file.interlaced, 1u);
        QCOMPARE(log.messages(), QStringList());
    }
    {
        // A maker atom read before wins over the description's field atom, not over 'ARES'.
        Reader reader(
            stsd(videoEntry("apch", 1920, 1080, fiel + u32(0))) + stsd(videoEntry("AVdn", 1920, 1080, ares)));
        reader.file.writtenByRecorder = true;
        QVERIFY(reader.readAt(0));
        QCOMPARE(reader.file.interlaced, 0u);
        QVERIFY(reader.readAt(reader.device.pos()));
        QCOMPARE(reader.file.interlaced, 1u);
    }
}

void TestParser::heronDoesNotKnowExtendedFormats()
{
    const QByteArray bytes
        = stsd(videoEntry("ap4x", 3840, 2160)) + stsd(soundEntry("in31", 0, 1, 32, 48000, 0));
    QVector<quint16> map(MovieFile::s_frameMapEntries);
    for (bool heron : { false, true }) {
        QByteArray content = bytes;
        QBuffer device(&content);
        device.open(QIODevice::ReadOnly);
        QScopedPointer<MovieFile> file(heron ? new HeronMovie(device, map.data()) : new MovieFile(device));
        file->initCurrentTrackInfo();
        quint64 remaining = quint64(content.size());
        QVERIFY(QuickTimeAtom::readNextAtom(file.data(), nullptr, file->stream, &remaining));
        QVERIFY(QuickTimeAtom::readNextAtom(file.data(), nullptr, file->stream, &remaining));
        QCOMPARE(file->width, quint16(heron ? 1920 : 3840));
        QCOMPARE(file->currentTrack.audioBytesPerSample, heron ? 0u : 4u);
    }
}

QTEST_GUILESS_MAIN(TestParser)
#include "tst_parser.moc"
