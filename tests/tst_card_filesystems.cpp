// Cards carry exFAT or FAT32, not ext4. These cases mount real file-system images through FUSE (loop
// devices and mounting need root) and finish cards on them: the mixed card gives the same log, the same
// exit status and, read back after a fresh mount, the same names and bytes as on the local ext4 disk; a
// card too full for the index leaves the take untouched until there is room; runs killed while writing
// the index are completed by the next run to the undisturbed bytes. Without root, FUSE or the tools, when
// an image cannot be mounted, or when the FUSE driver itself loses data, the cases report themselves
// skipped and say why.

#include "simulate/RecordingSimulator.h"
#include "support/CardImages.h"
#include "support/MixedCard.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QStorageInfo>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <memory>

#include <sys/statfs.h>
#include <unistd.h>

using namespace CardImages;
using namespace TestSupport;

namespace {

const QByteArray kUnclosedHeader = hex("00000001 6d646174 0000000000000010");
const long kExt4Magic = 0xEF53;

// Grows two files through fresh descriptors the way a finish grows a take: one ending on a cluster
// boundary is appended to, one ending inside a cluster is written past its end. A refused write is
// fine; a write taken must read back where it was put, with the file's earlier bytes unchanged. Returns
// what went wrong, empty when nothing did.
QString extendingLosesData(const QString& folder)
{
    struct Case
    {
        const char* name;
        int size;
        int gap;
    };
    for (const Case& c : { Case { "aligned", 65536, 0 }, Case { "unaligned", 65536 + 100, 512 } }) {
        const QString path = folder + "/probe-" + c.name;
        QByteArray bytes(c.size, '\0');
        for (int i = 0; i < c.size; ++i)
            bytes[i] = char(i * 7 + 3);
        if (!writeFile(path, bytes))
            return QString("cannot write %1").arg(path);
        QFile file(path);
        if (!file.open(QIODevice::ReadWrite | QIODevice::Unbuffered) || !file.seek(c.size + c.gap))
            return QString("cannot reopen %1").arg(path);
        const QByteArray tail(164, 'Z');
        const bool taken = file.write(tail) == tail.size();
        file.close();
        const QByteArray expected = taken ? bytes + QByteArray(c.gap, '\0') + tail : bytes;
        const QByteArray actual = readFile(path);
        QFile::remove(path);
        if (actual.left(expected.size()) != expected || (taken && actual.size() != expected.size()))
            return QString("%1 bytes written %2 a %3-byte file reopened for writing were %4, yet the file "
                           "reads back as %5 bytes%6")
                .arg(tail.size())
                .arg(c.gap == 0 ? QString("at the end of") : QString("%1 bytes past the end of").arg(c.gap))
                .arg(c.size)
                .arg(taken ? "accepted" : "refused")
                .arg(actual.size())
                .arg(actual.left(c.size) == bytes ? "" : ", its earlier bytes lost");
    }
    return QString();
}

bool onExt4(const QString& path)
{
    struct statfs info;
    return statfs(QFile::encodeName(path).constData(), &info) == 0 && long(info.f_type) == kExt4Magic;
}

// A folder on ext4 for the reference run, or empty when neither the temporary folder nor the build tree
// is on ext4.
QString ext4Folder()
{
    for (const QString& folder : { QDir::tempPath(), QCoreApplication::applicationDirPath() }) {
        if (onExt4(folder))
            return folder;
    }
    return QString();
}

// Copies the tree below `from` to `to`, folders (empty ones too) and files, keeping the names.
bool copyTree(const QString& from, const QString& to)
{
    QStringList entries;
    QDirIterator it(
        from, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext())
        entries << QDir(from).relativeFilePath(it.next());
    entries.sort(); // a parent is made before what it holds
    if (!QDir().mkpath(to))
        return false;
    for (const QString& entry : entries) {
        const QFileInfo source(from + "/" + entry);
        const bool copied = source.isDir() ? QDir().mkpath(to + "/" + entry)
                                           : writeFile(to + "/" + entry, readFile(source.filePath()));
        if (!copied)
            return false;
    }
    return true;
}

QStringList withCardAs(QStringList lines, const QString& card)
{
    for (QString& line : lines)
        line.replace(card, "CARD");
    return lines;
}

// A Tern take of many small sound chunks: its index runs to hundreds of KB, so writing it takes a while
// and needs real room on the card.
RecordingPlan longIndexPlan()
{
    RecordingPlan p;
    p.family = RecordingPlan::Tern;
    p.width = 1280;
    p.height = 720;
    p.storeRecordedEndPosition = true;
    p.audioSamplesPerChunk = 80;
    p.audioBytesPerSample = 2;
    p.audioTracks = { syntheticPcm(0, 80 * 40000, 2) };
    return p;
}

// `bytes` finished in a folder on ext4: what every other finish of them must come to.
QByteArray finishedOnExt4(const QByteArray& bytes, QString* failure)
{
    QTemporaryDir tmp(ext4Folder() + "/clipward-reference-XXXXXX");
    const QString card = tmp.filePath("card");
    QStringList out;
    if (!writeFile(card + "/A001.zqv", bytes) || runCli({ card }, &out) != 0) {
        *failure = "finishing on ext4: " + out.join('\n');
        return QByteArray();
    }
    return readFile(card + "/A001.mov");
}

// A long-index take as the recorder left it and as an undisturbed finish on ext4 leaves it.
struct LongIndexTake
{
    RecordingResult recording;
    QByteArray before;
    QByteArray undisturbed;
    QString failure; // empty when both are there
};

LongIndexTake writeLongIndexTake(const QString& path)
{
    LongIndexTake take;
    take.recording = writeInterruptedRecording(path, longIndexPlan());
    if (!take.recording.ok) {
        take.failure = "writing the recording: " + take.recording.error;
        return take;
    }
    take.before = readFile(path);
    take.undisturbed = finishedOnExt4(take.before, &take.failure);
    return take;
}

// The recording's own bytes in `after` are those of `before` (everything up to the recorded end but
// the 'mdat' header), and that header is either still unclosed or the finished one.
bool mediaIntact(
    const QByteArray& before, const QByteArray& after, qint64 recordedEnd, const QByteArray& finishedHeader)
{
    const int datPos = before.indexOf(kUnclosedHeader);
    const int mediaStart = datPos + kUnclosedHeader.size();
    const QByteArray header = after.mid(datPos, kUnclosedHeader.size());
    return datPos > 0 && after.left(datPos) == before.left(datPos)
        && after.mid(mediaStart, int(recordedEnd) - mediaStart)
        == before.mid(mediaStart, int(recordedEnd) - mediaStart)
        && (header == kUnclosedHeader || header == finishedHeader);
}

} // namespace

class TestCardFilesystems : public QObject
{
    Q_OBJECT

private slots:
    void mixedCardOnExfatEqualsExt4();
    void mixedCardOnFat32EqualsExt4();
    void nearlyFullExfatCardKeepsTheTake();
    void killedMidFinalizeOnExfatIsFinishedByTheNextRun();

private:
    void mixedCardEqualsExt4(Kind kind, const QString& reference, MountedImage& image);
};

#define SKIP_UNLESS_TESTABLE(kind)                                                                           \
    do {                                                                                                     \
        const QString missing = missingFor(kind);                                                            \
        if (!missing.isEmpty())                                                                              \
            QSKIP(qPrintable(missing));                                                                      \
        if (ext4Folder().isEmpty())                                                                          \
            QSKIP("neither the temporary folder nor the build tree is on ext4, the reference");              \
    } while (false)

// An image that cannot be made fails the case; one that cannot be mounted here skips it, saying why.
#define FORMAT_AND_MOUNT_OR_SKIP(image, bytes)                                                               \
    do {                                                                                                     \
        const QString formatFailure = (image).format(bytes);                                                 \
        QVERIFY2(formatFailure.isEmpty(), qPrintable(formatFailure));                                        \
        const QString mountFailure = (image).mount();                                                        \
        if (!mountFailure.isEmpty())                                                                         \
            QSKIP(qPrintable(mountFailure));                                                                 \
    } while (false)

void TestCardFilesystems::mixedCardOnExfatEqualsExt4()
{
    SKIP_UNLESS_TESTABLE(Kind::Exfat);
    QTemporaryDir tmp(ext4Folder() + "/clipward-exfat-XXXXXX");
    MountedImage image(Kind::Exfat, tmp.path());
    FORMAT_AND_MOUNT_OR_SKIP(image, 256LL << 20);
    mixedCardEqualsExt4(Kind::Exfat, tmp.filePath("ext4"), image);
}

void TestCardFilesystems::mixedCardOnFat32EqualsExt4()
{
    SKIP_UNLESS_TESTABLE(Kind::Fat32);
    QTemporaryDir tmp(ext4Folder() + "/clipward-fat32-XXXXXX");
    MountedImage image(Kind::Fat32, tmp.path());
    FORMAT_AND_MOUNT_OR_SKIP(image, 256LL << 20);
    // Checked first: a file system that loses data on its own would make any result on it meaningless.
    const QString defect = extendingLosesData(image.mountPoint());
    if (!defect.isEmpty())
        QSKIP(qPrintable("fusefat loses data when a reopened file grows, so a finish on FAT32 cannot be "
                         "judged through it: "
            + defect));
    mixedCardEqualsExt4(Kind::Fat32, tmp.filePath("ext4"), image);
}

void TestCardFilesystems::mixedCardEqualsExt4(Kind kind, const QString& reference, MountedImage& image)
{
    const QString ext4Card = reference + "/CARD";
    const QString card = image.mountPoint() + "/CARD";
    QVERIFY(onExt4(reference.section('/', 0, -2)));
    QVERIFY(writeMixedCard(ext4Card));
    QVERIFY(copyTree(ext4Card, card));
    const QMap<QString, QByteArray> written = snapshotTree(ext4Card);
    QCOMPARE(snapshotTree(card).keys(), written.keys());
    QVERIFY(snapshotTree(card) == written);

    QStringList ext4Out, out;
    const int ext4Exit = runCli({ ext4Card }, &ext4Out);
    const int exit = runCli({ card }, &out);
    const QStringList ext4Lines = withCardAs(ext4Out, ext4Card);
    const QStringList lines = withCardAs(out, card);

    // Read back from a fresh mount: nothing the FUSE daemon or the kernel still held counts.
    image.unmount();
    const QString failure = image.mount();
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
    const QMap<QString, QByteArray> expected = snapshotTree(ext4Card);
    const QMap<QString, QByteArray> actual = snapshotTree(card);

    if (kind == Kind::Exfat || lines == ext4Lines) {
        QCOMPARE(lines, ext4Lines);
        QCOMPARE(exit, ext4Exit);
        QCOMPARE(actual.keys(), expected.keys());
        for (const QString& name : expected.keys())
            QVERIFY2(actual.value(name) == expected.value(name),
                qPrintable(name + " differs on " + kindName(kind)));
        return;
    }

    // fusefat refuses some writes past the end of a file, and a movie's index goes there. Such a movie
    // must be left as it was, under its in-progress name, ready for a card reader that takes the finish;
    // everything finished in place (the WAV sizes) or not written at all matches ext4.
    const QRegularExpression leftLine("^     CARD/(.*\\.zqv) \\((Tern|Heron)\\) Left as it is: (.+)$");
    QStringList refused;
    QString reason;
    for (const QString& line : lines) {
        const QRegularExpressionMatch match = leftLine.match(line);
        if (match.hasMatch()) {
            refused << match.captured(1);
            reason = match.captured(3);
        }
    }
    QVERIFY2(
        !refused.isEmpty(), qPrintable("FAT32 differs from ext4 without a movie left:\n" + lines.join('\n')));

    QMap<QString, QByteArray> expectedOnFat32 = expected;
    QStringList expectedFileLines, expectedSummary;
    bool inSummary = false;
    for (const QString& line : ext4Lines) {
        if (line == " ")
            inSummary = true;
        if (!inSummary && line.startsWith("     "))
            expectedFileLines << line;
    }
    for (const QString& zqv : refused) {
        QString mov = zqv;
        mov.replace(".zqv", ".mov");
        QVERIFY2(expectedOnFat32.contains(mov), qPrintable(zqv + " was not finished on ext4"));
        expectedOnFat32.remove(mov);
        expectedOnFat32.insert(zqv, written.value(zqv)); // every byte as before the run
        const int at = expectedFileLines.indexOf(QRegularExpression(
            "^     CARD/" + QRegularExpression::escape(mov) + " \\((Tern|Heron)\\) Finalized$"));
        QVERIFY2(at >= 0, qPrintable(mov));
        expectedFileLines[at]
            = expectedFileLines[at].section(' ', 0, -2).replace(mov, zqv) + " Left as it is: " + reason;
    }
    QStringList fileLines;
    for (const QString& line : lines.mid(0, lines.indexOf(" "))) {
        if (line.startsWith("     "))
            fileLines << line;
    }
    QCOMPARE(fileLines, expectedFileLines);

    const QRegularExpression finishedLine("^(\\d+) file\\(s\\) have been successfully finalized\\.$");
    const QRegularExpressionMatch finished = finishedLine.match(ext4Lines.last());
    QVERIFY2(finished.hasMatch(), qPrintable(ext4Lines.last()));
    const int stillFinished = finished.captured(1).toInt() - refused.size();
    expectedSummary = ext4Lines.mid(ext4Lines.lastIndexOf(" "));
    expectedSummary.removeLast();
    expectedSummary << QString("%1 file(s) left as they are.").arg(refused.size())
                    << (stillFinished > 0
                               ? QString("%1 file(s) have been successfully finalized.").arg(stillFinished)
                               : QString("No file has been finalized."));
    QCOMPARE(lines.mid(lines.lastIndexOf(" ")), expectedSummary);
    QCOMPARE(exit, ext4Exit == 1 ? 1 : 3);

    QCOMPARE(actual.keys(), expectedOnFat32.keys());
    for (const QString& name : expectedOnFat32.keys())
        QVERIFY2(actual.value(name) == expectedOnFat32.value(name), qPrintable(name + " differs on FAT32"));
    qInfo("fusefat did not take the index of %s (\"%s\"): left under the in-progress name with every byte as "
          "before; the rest of the card matches ext4",
        qPrintable(refused.join(", ")), qPrintable(reason));
}

void TestCardFilesystems::nearlyFullExfatCardKeepsTheTake()
{
    SKIP_UNLESS_TESTABLE(Kind::Exfat);
    QTemporaryDir tmp(ext4Folder() + "/clipward-full-XXXXXX");
    const LongIndexTake take = writeLongIndexTake(tmp.filePath("A001.zqv"));
    QVERIFY2(take.failure.isEmpty(), qPrintable(take.failure));
    const QByteArray& before = take.before;
    const QByteArray& undisturbed = take.undisturbed;
    QVERIFY2(undisturbed.size() - before.size() > 64 * 1024,
        qPrintable(QString("the index is only %1 bytes").arg(undisturbed.size() - before.size())));

    MountedImage image(Kind::Exfat, tmp.path());
    FORMAT_AND_MOUNT_OR_SKIP(image, 64LL << 20);
    const QString card = image.mountPoint() + "/card";
    const QString zqv = card + "/A001.zqv";
    QVERIFY(writeFile(zqv, before));

    // Zeros until the card takes no more, then a little room given back: far less than the index needs.
    const QString fillerPath = image.mountPoint() + "/filler";
    {
        QFile filler(fillerPath);
        QVERIFY(filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
        const QByteArray block(1 << 20, '\0');
        for (int size = block.size(); size >= 4096; size /= 16) {
            while (filler.write(block.constData(), size) == size) { }
        }
        QVERIFY(filler.resize(filler.size() - 32 * 1024));
    }
    const qint64 freeBytes = QStorageInfo(image.mountPoint()).bytesAvailable();
    const qint64 growth = undisturbed.size() - before.size(); // the index and the closing zero block
    QVERIFY2(freeBytes > 0 && freeBytes < growth, qPrintable(QString("%1 bytes free").arg(freeBytes)));

    QStringList out;
    QCOMPARE(runCli({ card }, &out), 3);
    QVERIFY2(out.contains(QString("     %1 not finished: the card needs %2 more bytes free.")
                              .arg(zqv)
                              .arg(growth - freeBytes)),
        qPrintable(out.join('\n')));
    QVERIFY2(out.contains("1 file(s) left as they are."), qPrintable(out.join('\n')));
    QVERIFY2(out.contains("No file has been finalized."), qPrintable(out.join('\n')));
    QCOMPARE(QDir(card).entryList(QDir::Files), QStringList { "A001.zqv" });
    QVERIFY(readFile(zqv) == before);

    QVERIFY(QFile::remove(fillerPath));
    QCOMPARE(runCli({ card }, &out), 0);
    QCOMPARE(QDir(card).entryList(QDir::Files), QStringList { "A001.mov" });
    QVERIFY(readFile(card + "/A001.mov") == undisturbed);
}

void TestCardFilesystems::killedMidFinalizeOnExfatIsFinishedByTheNextRun()
{
    SKIP_UNLESS_TESTABLE(Kind::Exfat);
    QTemporaryDir tmp(ext4Folder() + "/clipward-killed-XXXXXX");
    const LongIndexTake take = writeLongIndexTake(tmp.filePath("A001.zqv"));
    QVERIFY2(take.failure.isEmpty(), qPrintable(take.failure));
    const RecordingResult& recording = take.recording;
    const QByteArray& before = take.before;
    const QByteArray& undisturbed = take.undisturbed;
    const int datPos = before.indexOf(kUnclosedHeader);
    QVERIFY(datPos > 0);
    const QByteArray finishedHeader = undisturbed.mid(datPos, kUnclosedHeader.size());

    MountedImage image(Kind::Exfat, tmp.path());
    FORMAT_AND_MOUNT_OR_SKIP(image, 64LL << 20);
    const QString card = image.mountPoint() + "/card";
    const QString zqv = card + "/A001.zqv";
    const QString mov = card + "/A001.mov";
    const QString nrv = card + "/A001.nrv";

    // An undisturbed run on this card sets the span the kills are spread over.
    QVERIFY(writeFile(zqv, before));
    QElapsedTimer clock;
    clock.start();
    QStringList out;
    QCOMPARE(runCli({ card }, &out), 0);
    const qint64 undisturbedMs = qMax<qint64>(clock.elapsed(), 20);
    QVERIFY(readFile(mov) == undisturbed);

    QRandomGenerator random(20261124);
    const int rounds = 10;
    int interrupted = 0;
    int finishedUnnamed = 0;
    for (int round = 0; round < rounds; ++round) {
        QVERIFY(QFile::remove(mov));
        QVERIFY(writeFile(zqv, before));
        QProcess cli;
        cli.start(CLIPWARD_CLI_PATH, { card });
        QVERIFY(cli.waitForStarted());
        QThread::usleep(random.bounded(quint32(undisturbedMs * 1000)));
        cli.kill();
        cli.waitForFinished();

        // Whatever name it has now, the recording's own bytes are intact.
        const QString left = QFile::exists(mov) ? mov : QFile::exists(nrv) ? nrv : zqv;
        QVERIFY2(mediaIntact(before, readFile(left), recording.recordedEndPosition, finishedHeader),
            qPrintable(QString("round %1, %2").arg(round).arg(left)));
        QVERIFY2(left != nrv, qPrintable(QString("round %1: a kill gave the take up").arg(round)));
        if (left != mov) {
            ++interrupted;
            // Killed after the header was patched but before the rename, the bytes are already the finished
            // ones: the next run checks them and renames. Killed earlier, it finishes the file. Either way
            // with no step by hand.
            const bool headerFinal = readFile(left).mid(datPos, kUnclosedHeader.size()) == finishedHeader;
            finishedUnnamed += headerFinal;
            const int exit = runCli({ card }, &out);
            QVERIFY2(exit == 0,
                qPrintable(QString("round %1, the next run exited with %2:\n%3")
                               .arg(round)
                               .arg(exit)
                               .arg(out.join('\n'))));
        }
        QVERIFY2(readFile(mov) == undisturbed, qPrintable(QString("round %1").arg(round)));
    }
    qInfo("%d of %d runs on exFAT were killed before the file was renamed (undisturbed run: %lld ms)",
        interrupted, rounds, undisturbedMs);
    qInfo("%d of them after the header was patched, renamed by the next run", finishedUnnamed);
}

QTEST_GUILESS_MAIN(TestCardFilesystems)
#include "tst_card_filesystems.moc"
