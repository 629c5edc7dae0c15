// clipward-cli --verify against ffmpeg: each finished movie is damaged one field at a time (atom sizes and
// types, version and flags, counts, first and last entries of every sample table, the sample description,
// the track and media headers, the maker atom's frame list). Every change that makes ffmpeg read other
// packets or other bytes must be flagged by verify; the undamaged movies must verify.

#include "movie/MovieVerifier.h"
#include "simulate/RecordingSimulator.h"
#include "support/AtomWalker.h"
#include "support/MediaTools.h"
#include "support/MessageCapture.h"
#include "support/MixedCard.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

using namespace TestSupport;

namespace {

// What ffmpeg reads from every stream: each packet's stream, time, size and checksum, in order. Empty
// when ffmpeg refuses the file.
QByteArray packetsAsFfmpegReadsThem(const QString& path)
{
    bool ok = false;
    const QByteArray out = MediaTools::run(
        "ffmpeg", { "-v", "error", "-i", path, "-map", "0", "-c", "copy", "-f", "framemd5", "-" }, &ok);
    return ok ? out : QByteArray();
}

bool verifies(const QString& path)
{
    return MessageCapture::quietly([&] { return verifyMovie(path).verified; });
}

struct Field
{
    QString name;
    qint64 offset;
    int bytes; // 1, 2, 4 or 8
};

// The fields changed, by table: the header of every atom on the way and the table's own leading fields
// and first and last entries.
QList<Field> fieldsOf(const QByteArray& movie)
{
    using namespace AtomWalker;
    QList<Field> fields;
    const auto header = [&](const QString& path) {
        const Atom atom = find(movie, path);
        if (!atom.valid())
            return atom;
        fields << Field { path + " size", atom.offset, 4 } << Field { path + " type", atom.offset + 4, 4 };
        return atom;
    };
    const auto field = [&](const QString& name, qint64 offset, int bytes) {
        fields << Field { name, offset, bytes };
    };
    for (int trak = 1; find(movie, QString("moov/trak:%1").arg(trak)).valid(); ++trak) {
        const QString t = QString("moov/trak:%1").arg(trak);
        const QString stbl = t + "/mdia/minf/stbl";
        if (const Atom tkhd = header(t + "/tkhd"); tkhd.valid())
            field(t + "/tkhd track id", tkhd.offset + 20, 4);
        if (const Atom mdhd = header(t + "/mdia/mdhd"); mdhd.valid()) {
            field(t + "/mdia/mdhd time scale", mdhd.offset + 20, 4);
            field(t + "/mdia/mdhd duration", mdhd.offset + 24, 4);
        }
        if (const Atom hdlr = header(t + "/mdia/hdlr"); hdlr.valid())
            field(t + "/mdia/hdlr subtype", hdlr.offset + 16, 4);
        header(stbl);
        if (const Atom stsd = header(stbl + "/stsd"); stsd.valid()) {
            field(stbl + "/stsd count", stsd.offset + 12, 4);
            field(stbl + "/stsd entry size", stsd.offset + 16, 4);
            field(stbl + "/stsd format", stsd.offset + 20, 4);
            field(stbl + "/stsd data reference", stsd.offset + 30, 2);
            for (int at = 32; at <= 48; at += 4)
                field(stbl + QString("/stsd entry %1").arg(at), stsd.offset + at, at < 48 ? 4 : 1);
        }
        for (const QString name : { "stts", "stsc", "stsz", "co64", "stco" }) {
            const Atom table = header(stbl + "/" + name);
            if (!table.valid())
                continue;
            const QString n = stbl + "/" + name;
            field(n + " version and flags", table.offset + 8, 4);
            // 'stsz' holds a constant sample size before its count.
            const bool sizes = name == "stsz";
            if (sizes)
                field(n + " sample size", table.offset + 12, 4);
            field(n + " count", table.offset + (sizes ? 16 : 12), 4);
            const qint64 entries = table.offset + (sizes ? 20 : 16);
            const int entry = name == "stsc" ? 12 : name == "stts" || name == "co64" ? 8 : 4;
            if (table.end() - entries < entry)
                continue;
            for (qint64 at = entries; at < entries + entry; at += 4)
                field(n + QString(" first entry +%1").arg(at - entries), at, 4);
            for (qint64 at = table.end() - entry; at < table.end(); at += 4)
                field(n + QString(" last entry +%1").arg(at - (table.end() - entry)), at, 4);
        }
    }
    // The maker atom: its counts, and the type bits of the first and last entries of its frame list.
    const Atom hldn = find(movie, "moov/udta/hldn");
    if (hldn.valid()) {
        // Behind the version and flags, two words: the entry count, then the video, sound and timecode
        // counts; the entries end the atom.
        const char* const counts[] = { "entries", "video frames", "sound chunks", "timecode samples" };
        for (int i = 0; i < 4; ++i)
            field(QString("hldn %1").arg(counts[i]), hldn.offset + 20 + 4 * i, 4);
        const qint64 listed = be32(movie, hldn.offset + 20);
        if (listed != 0) {
            field("hldn first entry", hldn.end() - 2 * listed, 1);
            field("hldn last entry", hldn.end() - 2, 1);
        }
    }
    return fields;
}

// The field changed by one, or for a one-byte field its frame-type bits turned.
QByteArray changed(QByteArray movie, const Field& field)
{
    auto* at = reinterpret_cast<uchar*>(movie.data()) + field.offset;
    switch (field.bytes) {
    case 1:
        at[0] ^= 0x40;
        break;
    case 2:
        qToBigEndian<quint16>(quint16(qFromBigEndian<quint16>(at) + 1), at);
        break;
    case 4:
        qToBigEndian<quint32>(qFromBigEndian<quint32>(at) + 1, at);
        break;
    default:
        qToBigEndian<quint64>(qFromBigEndian<quint64>(at) + 1, at);
    }
    return movie;
}

} // namespace

class TestVerifyDamage : public QObject
{
    Q_OBJECT

private slots:
    void everyDamageAPlayerSeesIsFlagged_data();
    void everyDamageAPlayerSeesIsFlagged();
};

void TestVerifyDamage::everyDamageAPlayerSeesIsFlagged_data()
{
    QTest::addColumn<int>("family");
    QTest::addColumn<int>("frames");
    QTest::addColumn<int>("tracks");
    QTest::addColumn<bool>("unknownChunk");
    QTest::newRow("Tern, video and two sound tracks") << int(RecordingPlan::Tern) << 31 << 2 << false;
    QTest::newRow("Tern, sound only") << int(RecordingPlan::Tern) << 0 << 2 << false;
    QTest::newRow("Heron, video and two sound tracks") << int(RecordingPlan::Heron) << 30 << 2 << false;
    // The maker atom's list ends early: verify goes by the tables alone.
    QTest::newRow("Tern, a sound chunk of unknown type") << int(RecordingPlan::Tern) << 31 << 1 << true;
}

void TestVerifyDamage::everyDamageAPlayerSeesIsFlagged()
{
    if (!MediaTools::available())
        QSKIP("ffmpeg is not installed");
    QFETCH(int, family);
    QFETCH(int, frames);
    QFETCH(int, tracks);
    QFETCH(bool, unknownChunk);
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    const int soundSamples = frames != 0 ? frames * 1920 : 40 * 1920;
    const RecordingPlan p = syntheticPlan(RecordingPlan::Family(family), frames, tracks,
        family == RecordingPlan::Heron ? 3072 : 1920, soundSamples);
    QVERIFY(QDir().mkpath(card));
    QVERIFY(writeInterruptedRecording(card + "/A001.zqv", p).ok);
    if (unknownChunk)
        QVERIFY(markSoundChunkUnknown(card + "/A001.zqv", 1));
    QStringList out;
    QCOMPARE(runCli({ card }, &out), 0);
    const QString finished = card + "/A001.mov";
    const QByteArray movie = readFile(finished);
    const QByteArray reference = packetsAsFfmpegReadsThem(finished);
    QVERIFY(!reference.isEmpty());
    QVERIFY(verifies(finished));

    const QString damagedPath = tmp.filePath("damaged.mov");
    QStringList missed;
    int seen = 0;
    int flagged = 0;
    for (const Field& field : fieldsOf(movie)) {
        QVERIFY(writeFile(damagedPath, changed(movie, field)));
        const bool playerSeesIt = packetsAsFfmpegReadsThem(damagedPath) != reference;
        const bool verified = verifies(damagedPath);
        seen += playerSeesIt;
        flagged += !verified;
        if (playerSeesIt && verified)
            missed << field.name;
    }
    qInfo("%d fields changed one at a time: ffmpeg reads %d of them differently, verify flags %d",
        int(fieldsOf(movie).size()), seen, flagged);
    QVERIFY2(missed.isEmpty(), qPrintable("missed: " + missed.join(", ")));
}

QTEST_GUILESS_MAIN(TestVerifyDamage)
#include "tst_verify_damage.moc"
