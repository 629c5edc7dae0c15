// Copies checked by hash (VerifiedCopy): streamed between file systems with the bytes and the xxHash64 the
// xxhsum tool gives, cloned within btrfs, streamed when cloning is not allowed; a destination already
// there, a copy hashing differently, a full destination, an unreadable source and a cancelled copy each
// fail with their own reason and leave nothing at the destination; the source's bytes and times stay as
// they were, also when it can only be read. Mounting images and tmpfs needs root, the loop devices and the
// tools: without them those cases report themselves skipped and say why.

#include "finalize/SharedBlocks.h"
#include "finalize/VerifiedCopy.h"
#include "scratch/ScratchMount.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>

#include <cstring>
#include <vector>

#include <sys/stat.h>

using namespace TestSupport;

namespace {

constexpr qint64 kMiB = 1024 * 1024;
// The copy moves 8 MiB at a time and reports progress every 64 MiB.
constexpr qint64 kBufferBytes = 8 * kMiB;
constexpr qint64 kProgressStep = 64 * kMiB;

// `size` pseudo-random bytes, the same for the same seed.
QByteArray randomBytes(qint64 size, quint32 seed)
{
    std::vector<quint32> words(size_t((size + 3) / 4));
    QRandomGenerator(seed).fillRange(words.data(), qsizetype(words.size()));
    return QByteArray(reinterpret_cast<const char*>(words.data()), int(size));
}

// A file of `mebibytes` MiB, each MiB different, written without holding it all in memory.
bool writeLargeFile(const QString& path, int mebibytes)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    QByteArray block = randomBytes(kMiB, 7);
    for (int i = 0; i < mebibytes; ++i) {
        block[i % block.size()] = char(i);
        if (file.write(block) != block.size())
            return false;
    }
    return true;
}

bool sameFileSystem(const QString& a, const QString& b)
{
    struct stat first;
    struct stat second;
    return ::stat(QFile::encodeName(a).constData(), &first) == 0
        && ::stat(QFile::encodeName(b).constData(), &second) == 0 && first.st_dev == second.st_dev;
}

// A file's times in nanoseconds and its mode, to show that nothing about it changed.
struct FileState
{
    qint64 accessed = 0;
    qint64 modified = 0;
    qint64 changed = 0;
    mode_t mode = 0;
};

bool fileState(const QString& path, FileState* state)
{
    struct stat status;
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        return false;
#ifdef __APPLE__
    const struct timespec times[] = { status.st_atimespec, status.st_mtimespec, status.st_ctimespec };
#else
    const struct timespec times[] = { status.st_atim, status.st_mtim, status.st_ctim };
#endif
    const auto nanoseconds
        = [](const struct timespec& time) { return qint64(time.tv_sec) * 1000000000 + qint64(time.tv_nsec); };
    state->accessed = nanoseconds(times[0]);
    state->modified = nanoseconds(times[1]);
    state->changed = nanoseconds(times[2]);
    state->mode = status.st_mode;
    return true;
}

// Whether anything, even a dangling link, is at `path`.
bool somethingAt(const QString& path)
{
    struct stat status;
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0;
}

} // namespace

class TestVerifiedCopy : public QObject
{
    Q_OBJECT

private slots:
    void streamsToAnotherFileSystem_data();
    void streamsToAnotherFileSystem();
    void streamsWhenCloningIsNotAllowed();
    void clonesWithinBtrfs();
    void separateFilesShareNoBlocks();
    void leavesAnExistingDestinationAlone();
    void refusesACopyThatHashesDifferently();
    void stopsWhenTheDestinationIsFull();
    void reportsAnUnreadableSource();
    void stopsWhenProgressSaysSo_data();
    void stopsWhenProgressSaysSo();
    void reportsProgressUpToTheTotal();
    void leavesTheSourceAsItWas();
    void writesHashesAsSixteenLowerCaseDigits();

private:
    // A checked copy of `bytes` from a file in `from` to one in `to`, with the bytes and hashes compared.
    void checkCopy(const QByteArray& bytes, const QString& from, const QString& to, bool allowClone,
        VerifiedCopy::Method expected);
};

void TestVerifiedCopy::checkCopy(const QByteArray& bytes, const QString& from, const QString& to,
    bool allowClone, VerifiedCopy::Method expected)
{
    const QString source = from + "/A001C002.mov";
    const QString destination = to + "/A001C002.mov";
    QVERIFY(writeFile(source, bytes));
    VerifiedCopy::Options options;
    options.allowClone = allowClone;
    const VerifiedCopy::Result result = VerifiedCopy::copy(source, destination, options);
    QVERIFY2(result.ok(), qPrintable(result.reason));
    QVERIFY(result.reason.isEmpty());
    QCOMPARE(int(result.method), int(expected));
    QCOMPARE(result.bytes, qint64(bytes.size()));
    QVERIFY(readFile(destination) == bytes);
    QCOMPARE(result.copyHash, result.sourceHash);
    // A clone shares every block with the source and is not read back; a streamed copy shares none.
    QCOMPARE(result.sharedBlocks, expected == VerifiedCopy::Method::Clone);
    QCOMPARE(SharedBlocks::everyBlockShared(source, destination), expected == VerifiedCopy::Method::Clone);
    const QString independent = xxhsum(source);
    if (independent.isEmpty())
        qInfo("xxhsum is not installed (Debian package xxhash): the hash is not checked against it");
    else
        QCOMPARE(VerifiedCopy::hashText(result.sourceHash), independent);
    QCOMPARE(QFileInfo(destination).permissions() & (QFile::ReadOwner | QFile::WriteOwner),
        QFile::ReadOwner | QFile::WriteOwner);
}

void TestVerifiedCopy::streamsToAnotherFileSystem_data()
{
    QTest::addColumn<qint64>("size");
    QTest::newRow("3 MiB") << 3 * kMiB;
    QTest::newRow("empty") << qint64(0);
    QTest::newRow("two buffers and a piece") << 2 * kBufferBytes + 12345;
    QTest::newRow("exactly two buffers") << 2 * kBufferBytes;
}

void TestVerifiedCopy::streamsToAnotherFileSystem()
{
    QFETCH(qint64, size);
    if (!QFileInfo("/dev/shm").isDir())
        QSKIP("/dev/shm is missing: no second file system to copy to");
    QTemporaryDir from;
    QTemporaryDir to(QDir("/dev/shm").filePath("tst_verified_copy-XXXXXX"));
    QVERIFY(from.isValid() && to.isValid());
    if (sameFileSystem(from.path(), to.path()))
        QSKIP("the temporary folder and /dev/shm are on the same file system");
    checkCopy(randomBytes(size, quint32(size)), from.path(), to.path(), true, VerifiedCopy::Method::Stream);
}

void TestVerifiedCopy::streamsWhenCloningIsNotAllowed()
{
    QTemporaryDir folder;
    QVERIFY(folder.isValid());
    QDir(folder.path()).mkdir("out");
    checkCopy(randomBytes(kBufferBytes + 99, 3), folder.path(), folder.path() + "/out", false,
        VerifiedCopy::Method::Stream);
}

void TestVerifiedCopy::clonesWithinBtrfs()
{
    QTemporaryDir folder;
    QVERIFY(folder.isValid());
    ScratchMount mount(folder.path());
    const QString why = mount.mountBtrfs(160 * kMiB);
    if (!why.isEmpty())
        QSKIP(qPrintable("btrfs cannot be tested: " + why));
    const QString card = mount.point() + "/card";
    const QString cloned = mount.point() + "/cloned";
    const QString streamed = mount.point() + "/streamed";
    const QString tampered = mount.point() + "/tampered";
    for (const QString& path : { card, cloned, streamed, tampered })
        QVERIFY(QDir().mkpath(path));

    const QByteArray bytes = randomBytes(2 * kBufferBytes + 4321, 11);
    checkCopy(bytes, card, cloned, true, VerifiedCopy::Method::Clone);
    if (QTest::currentTestFailed())
        return;
    checkCopy(bytes, card, streamed, false, VerifiedCopy::Method::Stream);
    if (QTest::currentTestFailed())
        return;

    // A clone asked to be read back is hashed as read: a copy read back differently fails and goes.
    VerifiedCopy::Options options;
    options.readBackClones = true;
    options.corruptCopyHashInput = [](char* data, qint64 size) {
        if (size > 0)
            data[0] = char(data[0] ^ 0x01);
    };
    const VerifiedCopy::Result result
        = VerifiedCopy::copy(card + "/A001C002.mov", tampered + "/A001C002.mov", options);
    QCOMPARE(int(result.failure), int(VerifiedCopy::Failure::HashMismatch));
    QCOMPARE(int(result.method), int(VerifiedCopy::Method::Clone));
    QVERIFY(!somethingAt(tampered + "/A001C002.mov"));
    QVERIFY(readFile(card + "/A001C002.mov") == bytes);

    // A clone with one byte of its own no longer shares every block: it would be read back.
    const QString clone = cloned + "/A001C002-again.mov";
    const VerifiedCopy::Result again = VerifiedCopy::copy(card + "/A001C002.mov", clone, {});
    QVERIFY(again.ok() && again.sharedBlocks);
    QVERIFY(SharedBlocks::everyBlockShared(card + "/A001C002.mov", clone));
    QFile changed(clone);
    QVERIFY(changed.open(QIODevice::ReadWrite) && changed.seek(kBufferBytes) && changed.write("x", 1) == 1);
    changed.close();
    QVERIFY(!SharedBlocks::everyBlockShared(card + "/A001C002.mov", clone));
    QVERIFY(readFile(card + "/A001C002.mov") == bytes);

    // A clone of another file of the same bytes, laid out alike, shares blocks, but that file's, not the
    // card's.
    const QByteArray small = randomBytes(kMiB, 12);
    QVERIFY(writeFile(card + "/A001C003.mov", small));
    QVERIFY(writeFile(card + "/A001C004.mov", small));
    const QString other = cloned + "/A001C004.mov";
    QVERIFY(VerifiedCopy::copy(card + "/A001C004.mov", other, {}).sharedBlocks);
    QVERIFY(!SharedBlocks::everyBlockShared(card + "/A001C003.mov", other));
}

void TestVerifiedCopy::separateFilesShareNoBlocks()
{
    // Two files of the same bytes, written each on its own, in the temporary folder and in /dev/shm: the
    // same bytes, but not the same blocks.
    QTemporaryDir folder;
    QVERIFY(folder.isValid());
    const QByteArray bytes = randomBytes(kMiB, 21);
    QVERIFY(writeFile(folder.path() + "/a.mov", bytes));
    QVERIFY(writeFile(folder.path() + "/b.mov", bytes));
    QVERIFY(!SharedBlocks::everyBlockShared(folder.path() + "/a.mov", folder.path() + "/b.mov"));
    QVERIFY(!SharedBlocks::everyBlockShared(folder.path() + "/a.mov", folder.path() + "/missing.mov"));
    if (QFileInfo("/dev/shm").isDir()) {
        QTemporaryDir shm(QDir("/dev/shm").filePath("tst_verified_copy-XXXXXX"));
        QVERIFY(writeFile(shm.path() + "/a.mov", bytes));
        QVERIFY(!SharedBlocks::everyBlockShared(folder.path() + "/a.mov", shm.path() + "/a.mov"));
    }
}

void TestVerifiedCopy::leavesAnExistingDestinationAlone()
{
    QTemporaryDir folder;
    QVERIFY(folder.isValid());
    const QString source = folder.path() + "/card.mov";
    const QString destination = folder.path() + "/copy.mov";
    QVERIFY(writeFile(source, randomBytes(kMiB, 5)));
    const QByteArray existing = randomBytes(1000, 6);
    QVERIFY(writeFile(destination, existing));
    for (const bool allowClone : { true, false }) {
        VerifiedCopy::Options options;
        options.allowClone = allowClone;
        const VerifiedCopy::Result result = VerifiedCopy::copy(source, destination, options);
        QCOMPARE(int(result.failure), int(VerifiedCopy::Failure::DestinationExists));
        QCOMPARE(result.reason, destination + " already exists");
        QVERIFY(readFile(destination) == existing);
    }
    // A dangling link is something at the destination too: nothing is created where it points.
    const QString link = folder.path() + "/link.mov";
    QVERIFY(QFile::link(folder.path() + "/nowhere.mov", link));
    QCOMPARE(
        int(VerifiedCopy::copy(source, link, {}).failure), int(VerifiedCopy::Failure::DestinationExists));
    QVERIFY(!somethingAt(folder.path() + "/nowhere.mov"));
}

void TestVerifiedCopy::refusesACopyThatHashesDifferently()
{
    QTemporaryDir folder;
    QVERIFY(folder.isValid());
    const QString source = folder.path() + "/card.mov";
    const QString destination = folder.path() + "/copy.mov";
    const QByteArray bytes = randomBytes(kMiB, 8);
    QVERIFY(writeFile(source, bytes));
    VerifiedCopy::Options options;
    options.allowClone = false;
    options.corruptCopyHashInput = [](char* data, qint64 size) {
        if (size > 0)
            data[0] = char(data[0] ^ 0x01);
    };
    const VerifiedCopy::Result result = VerifiedCopy::copy(source, destination, options);
    QCOMPARE(int(result.failure), int(VerifiedCopy::Failure::HashMismatch));
    QVERIFY(result.sourceHash != result.copyHash);
    QCOMPARE(result.reason,
        QString("the copy does not match the card (xxh64 %1 on the card, %2 in the copy)")
            .arg(VerifiedCopy::hashText(result.sourceHash), VerifiedCopy::hashText(result.copyHash)));
    QVERIFY(!somethingAt(destination));
    QVERIFY(readFile(source) == bytes);

    // The hashes are those of the card's bytes and of the bytes with the first one changed (the file is
    // one write).
    QByteArray changed = bytes;
    changed[0] = char(changed[0] ^ 0x01);
    QVERIFY(writeFile(folder.path() + "/changed.mov", changed));
    const QString sourceHash = xxhsum(source);
    if (sourceHash.isEmpty())
        QSKIP("xxhsum is not installed (Debian package xxhash): the hashes are not checked against it");
    QCOMPARE(VerifiedCopy::hashText(result.sourceHash), sourceHash);
    QCOMPARE(VerifiedCopy::hashText(result.copyHash), xxhsum(folder.path() + "/changed.mov"));
}

void TestVerifiedCopy::stopsWhenTheDestinationIsFull()
{
    QTemporaryDir folder;
    QVERIFY(folder.isValid());
    ScratchMount mount(folder.path());
    const QString why = mount.mountTmpfs("1m");
    if (!why.isEmpty())
        QSKIP(qPrintable("a full destination cannot be tested: " + why));
    const QString source = folder.path() + "/card.mov";
    QVERIFY(writeFile(source, randomBytes(3 * kMiB, 9)));
    for (const bool allowClone : { true, false }) {
        VerifiedCopy::Options options;
        options.allowClone = allowClone;
        const VerifiedCopy::Result result = VerifiedCopy::copy(source, mount.point() + "/copy.mov", options);
        QCOMPARE(int(result.failure), int(VerifiedCopy::Failure::DestinationFull));
        QCOMPARE(result.reason, QString("the destination is full"));
        QVERIFY(
            QDir(mount.point()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System).isEmpty());
    }
}

void TestVerifiedCopy::reportsAnUnreadableSource()
{
    QTemporaryDir folder;
    QVERIFY(folder.isValid());
    const QString destination = folder.path() + "/copy.mov";
    VerifiedCopy::Result result = VerifiedCopy::copy(folder.path() + "/missing.mov", destination, {});
    QCOMPARE(int(result.failure), int(VerifiedCopy::Failure::SourceUnreadable));
    QCOMPARE(result.reason,
        QString("the card could not be read (%1)").arg(QString::fromLocal8Bit(strerror(ENOENT))));
    QVERIFY(!somethingAt(destination));

    result = VerifiedCopy::copy(folder.path(), destination, {});
    QCOMPARE(int(result.failure), int(VerifiedCopy::Failure::SourceUnreadable));
    QVERIFY(!somethingAt(destination));
}

void TestVerifiedCopy::stopsWhenProgressSaysSo_data()
{
    QTest::addColumn<int>("mebibytes");
    QTest::addColumn<bool>("allowClone");
    QTest::newRow("midway") << 136 << true;
    QTest::newRow("at the end") << 1 << true;
    QTest::newRow("at the end, streamed") << 1 << false;
}

void TestVerifiedCopy::stopsWhenProgressSaysSo()
{
    QFETCH(int, mebibytes);
    QFETCH(bool, allowClone);
    QTemporaryDir folder;
    QVERIFY(folder.isValid());
    const QString source = folder.path() + "/card.mov";
    const QString destination = folder.path() + "/copy.mov";
    QVERIFY(writeLargeFile(source, mebibytes));
    int calls = 0;
    qint64 stoppedAt = -1;
    VerifiedCopy::Options options;
    options.allowClone = allowClone;
    options.progress = [&](qint64 done, qint64) {
        ++calls;
        stoppedAt = done;
        return false;
    };
    const VerifiedCopy::Result result = VerifiedCopy::copy(source, destination, options);
    QCOMPARE(int(result.failure), int(VerifiedCopy::Failure::Cancelled));
    QVERIFY(!result.reason.isEmpty());
    QCOMPARE(calls, 1);
    QCOMPARE(stoppedAt, qMin(qint64(mebibytes) * kMiB, kProgressStep));
    QVERIFY(!somethingAt(destination));
}

void TestVerifiedCopy::reportsProgressUpToTheTotal()
{
    if (!QFileInfo("/dev/shm").isDir())
        QSKIP("/dev/shm is missing: no memory-backed folder to copy to");
    QTemporaryDir from;
    QTemporaryDir to(QDir("/dev/shm").filePath("tst_verified_copy-XXXXXX"));
    QVERIFY(from.isValid() && to.isValid());
    const int mebibytes = 136;
    const qint64 total = mebibytes * kMiB;
    QVERIFY(writeLargeFile(from.path() + "/card.mov", mebibytes));
    QList<qint64> seen;
    VerifiedCopy::Options options;
    options.progress = [&](qint64 done, qint64 reportedTotal) {
        seen << done;
        return reportedTotal == total;
    };
    const VerifiedCopy::Result result
        = VerifiedCopy::copy(from.path() + "/card.mov", to.path() + "/copy.mov", options);
    QVERIFY2(result.ok(), qPrintable(result.reason));
    // Rising, a step or more apart but for the last, ending at the total: how many bytes each write
    // carries decides where the steps fall, so not the exact counts.
    QVERIFY2(seen.size() >= total / kProgressStep && seen.size() <= total / kProgressStep + 1,
        qPrintable(QString::number(seen.size())));
    QCOMPARE(seen.last(), total);
    QCOMPARE(result.bytes, total);
    for (int i = 0; i + 1 < seen.size(); ++i)
        QVERIFY(seen.at(i) - (i == 0 ? 0 : seen.at(i - 1)) >= kProgressStep);

    // An empty file hears once, at its end.
    QVERIFY(writeFile(from.path() + "/empty.mov", QByteArray()));
    seen.clear();
    options.progress = [&](qint64 done, qint64 reportedTotal) {
        seen << done << reportedTotal;
        return true;
    };
    QVERIFY(VerifiedCopy::copy(from.path() + "/empty.mov", to.path() + "/empty.mov", options).ok());
    QCOMPARE(seen, (QList<qint64> { 0, 0 }));
}

void TestVerifiedCopy::leavesTheSourceAsItWas()
{
    QTemporaryDir folder;
    QVERIFY(folder.isValid());
    const QString card = folder.path() + "/card";
    const QString source = card + "/A001C003.mov";
    const QByteArray bytes = randomBytes(kBufferBytes + 777, 12);
    QVERIFY(writeFile(source, bytes));
    // Times from an hour ago, so a change now would show.
    const QDateTime earlier = QDateTime::currentDateTimeUtc().addSecs(-3600);
    {
        QFile file(source);
        QVERIFY(file.open(QIODevice::ReadWrite));
        QVERIFY(file.setFileTime(earlier, QFileDevice::FileModificationTime));
        QVERIFY(file.setFileTime(earlier, QFileDevice::FileAccessTime));
    }
    const auto readOnly = QFile::ReadOwner | QFile::ReadGroup | QFile::ReadOther;
    QVERIFY(QFile::setPermissions(source, readOnly));
    QVERIFY(QFile::setPermissions(card, readOnly | QFile::ExeOwner | QFile::ExeGroup | QFile::ExeOther));
    const auto restore
        = qScopeGuard([&] { QFile::setPermissions(card, readOnly | QFile::WriteOwner | QFile::ExeOwner); });
    FileState before;
    QVERIFY(fileState(source, &before));

    for (const bool allowClone : { true, false }) {
        const QString destination = folder.path() + (allowClone ? "/cloned.mov" : "/streamed.mov");
        VerifiedCopy::Options options;
        options.allowClone = allowClone;
        const VerifiedCopy::Result result = VerifiedCopy::copy(source, destination, options);
        QVERIFY2(result.ok(), qPrintable(result.reason));
        QVERIFY(readFile(destination) == bytes);
    }
    FileState after;
    QVERIFY(fileState(source, &after));
    QCOMPARE(after.modified, before.modified);
    QCOMPARE(after.changed, before.changed);
    QCOMPARE(after.mode, before.mode);
#ifdef __linux__
    // The copy reads without moving the access time (the file's owner may ask that of Linux); the times
    // above are older than the last status change, which would otherwise have a read record one.
    QCOMPARE(after.accessed, before.accessed);
#endif
    QVERIFY(readFile(source) == bytes);
    QCOMPARE(QStringList(QDir(card).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System)),
        QStringList { "A001C003.mov" });

    // Root writes past permissions; a file system mounted read-only refuses everyone.
    ScratchMount mount(folder.path());
    const QString why = mount.mountTmpfs("16m");
    if (!why.isEmpty())
        QSKIP(qPrintable("copying off a read-only file system cannot be tested: " + why));
    QVERIFY(writeFile(mount.point() + "/A001C003.mov", bytes));
    const QString remounted = mount.remountReadOnly();
    if (!remounted.isEmpty())
        QSKIP(qPrintable("the tmpfs cannot be mounted read-only: " + remounted));
    const VerifiedCopy::Result result
        = VerifiedCopy::copy(mount.point() + "/A001C003.mov", folder.path() + "/from-read-only.mov", {});
    QVERIFY2(result.ok(), qPrintable(result.reason));
    QVERIFY(readFile(folder.path() + "/from-read-only.mov") == bytes);
}

void TestVerifiedCopy::writesHashesAsSixteenLowerCaseDigits()
{
    QCOMPARE(VerifiedCopy::hashText(0), QString("0000000000000000"));
    QCOMPARE(VerifiedCopy::hashText(0xABCULL), QString("0000000000000abc"));
    QCOMPARE(VerifiedCopy::hashText(0xEF46DB3751D8E999ULL), QString("ef46db3751d8e999"));
}

QTEST_GUILESS_MAIN(TestVerifiedCopy)
#include "tst_verified_copy.moc"
