// Finishing into copies (clipward-cli --output DIR PATH): every in-progress recording below PATH is copied
// to the same place below DIR and the copy finished there. The card is only read: its names and bytes are
// the same after the run, also when it is mounted read-only; each copy is byte for byte what the in-place
// finish of the same card gives; a copy's name already taken is left alone unless --overwrite; a full
// destination and a run killed mid-copy leave no finished-looking file, and the next run completes. Copies
// within one btrfs are clones, copies to another file system are streamed; mounting the btrfs image and the
// tmpfs for that needs root, and those cases skip, saying why, where it cannot be done.

#include "finalize/Finalize.h"
#include "scratch/ScratchMount.h"
#include "support/MessageCapture.h"
#include "support/MixedCard.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QJsonObject>
#include <QMap>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

using namespace TestSupport;

namespace {

// What a run of the in-place finish makes of the mixed card: the finished and given-up files it writes,
// by their path below the card (the given-up files from before, the text file and the empty folder are
// not recordings to copy).
QMap<QString, QByteArray> finishedInPlace(const QString& scratch)
{
    const QString card = QDir(scratch).filePath("inplace");
    if (!writeMixedCard(card))
        return {};
    QStringList lines;
    runCli({card}, &lines);
    QMap<QString, QByteArray> finished;
    const QMap<QString, QByteArray> after = snapshotTree(card);
    for (auto it = after.begin(); it != after.end(); ++it) {
        const bool fromBefore = it.key().endsWith("000.nrv") || it.key().endsWith("000.nra");
        const bool recording = QRegularExpression("\\.(mov|wav|nrv|nra)$").match(it.key()).hasMatch();
        if (recording && !fromBefore)
            finished.insert(it.key(), it.value());
    }
    return finished;
}

// How every copy the run placed was made and checked ("clone, shared blocks", "stream, hashed as written"),
// by the copy's path below `out`, from the "copy" objects of its JSON file records.
QMap<QString, QString> copyMethods(const QList<QJsonObject>& files, const QString& out)
{
    QMap<QString, QString> methods;
    for (const QJsonObject& file : files) {
        const QJsonObject copy = file.value("copy").toObject();
        if (!copy.value("path").isString())
            continue;
        methods.insert(QDir(out).relativeFilePath(copy.value("path").toString()),
                       copy.value("method").toString() + ", " + copy.value("check").toString());
    }
    return methods;
}

bool isRoot()
{
    return ::geteuid() == 0;
}

} // namespace

class TestCopyFinish : public QObject
{
    Q_OBJECT

private slots:
    void copiesAreTheInPlaceFinishAndTheCardIsUntouched();
    void aReadOnlyCardIsFinishedIntoCopies();
    void scanOnlyWithOutputWritesNothing();
    void aTakenNameIsLeftAloneUnlessOverwrite();
    void aFullDestinationLeavesNoCopy();
    void aCopyThatDoesNotHashAsTheCardIsRefused();
    void aRunKilledMidCopyIsCompletedByTheNextRun();
    void jsonCarriesTheCopyAndItsHash();
    void outputInsidePathIsRefused();
    void copiesWithinOneBtrfsAreClones();
    void copiesToAnotherFileSystemAreStreamed();

private:
    // Finishes the mixed card at `card` into copies in `out` with --json: the card is unchanged, each copy
    // is the in-place finish of the same card (made below `scratch`), and the JSON record of each copy
    // placed says it was made by `method`.
    void checkCopiesMadeBy(const QString& method, const QString& card, const QString& out,
                           const QString& scratch);
};

void TestCopyFinish::copiesAreTheInPlaceFinishAndTheCardIsUntouched()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    const QString out = tmp.filePath("out");
    QVERIFY(writeMixedCard(card));
    const QMap<QString, QByteArray> before = snapshotTree(card);

    QStringList lines;
    const int status = runCli({"--output", out, card}, &lines);
    QCOMPARE(status, 1); // the mixed card holds recordings that cannot be finished
    QCOMPARE(snapshotTree(card), before);
    QCOMPARE(placedCopies(out), finishedInPlace(tmp.path()));
    QVERIFY(!QFileInfo::exists(QDir(out).filePath(".clipward-partial")));
    QVERIFY(lines.contains(QString("Finished copies go to %1; nothing on the card is written.").arg(out)));
    QVERIFY(lines.contains(QString("     %1/DCIM/100CLIPS/A001C001.mov (Tern) Finalized").arg(out)));
    QVERIFY(lines.contains(QString("     %1/DCIM/099CLIPS/B001C000.nrv Unrecoverable").arg(card)));
}

void TestCopyFinish::aReadOnlyCardIsFinishedIntoCopies()
{
    if (!isRoot())
        QSKIP("a read-only bind mount needs root");
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    const QString locked = tmp.filePath("locked");
    const QString out = tmp.filePath("out");
    QVERIFY(writeMixedCard(card));
    QVERIFY(QDir().mkpath(locked));
    if (!Scratch::runTool("mount", {"--bind", card, locked}))
        QSKIP("mount --bind is not allowed here");
    const bool readOnly = Scratch::runTool("mount", {"-o", "remount,bind,ro", locked});
    const QMap<QString, QByteArray> before = snapshotTree(locked);
    QStringList lines;
    const int status = runCli({"--output", out, locked}, &lines);
    const QMap<QString, QByteArray> after = snapshotTree(locked);
    Scratch::runTool("umount", {locked});
    QVERIFY2(readOnly, "the bind mount could not be made read-only");
    QCOMPARE(status, 1);
    QCOMPARE(after, before);
    QCOMPARE(placedCopies(out), finishedInPlace(tmp.path()));
    QVERIFY(!lines.join('\n').contains("write-protected"));
}

void TestCopyFinish::scanOnlyWithOutputWritesNothing()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    const QString out = tmp.filePath("out");
    QVERIFY(writeMixedCard(card));
    const QMap<QString, QByteArray> before = snapshotTree(card);
    // The lines of a plain scan of the same card, with the line saying where copies would go.
    QStringList plain;
    const int plainStatus = runCli({"--scan-only", card}, &plain);
    QStringList lines;
    QCOMPARE(runCli({"--scan-only", "--output", out, card}, &lines), plainStatus);
    QVERIFY(!QFileInfo::exists(out));
    QCOMPARE(snapshotTree(card), before);
    const QString where = QString("Finished copies go to %1; nothing on the card is written.").arg(out);
    QCOMPARE(lines.count(where), 1);
    lines.removeAll(where);
    QCOMPARE(lines, plain);
    QVERIFY(lines.contains(QString("     %1/DCIM/100CLIPS/A001C001.zqv (tern) Requires finalize").arg(card)));
}

void TestCopyFinish::aTakenNameIsLeftAloneUnlessOverwrite()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    const QString out = tmp.filePath("out");
    QVERIFY(writeMixedCard(card));
    const QString taken = QDir(out).filePath("DCIM/100CLIPS/A001C001.mov");
    QVERIFY(writeFile(taken, "someone else's file"));

    QStringList lines;
    QCOMPARE(runCli({"--output", out, card}, &lines), 1);
    QCOMPARE(readFile(taken), QByteArray("someone else's file"));
    QVERIFY(lines.contains(QString("     %1/DCIM/100CLIPS/A001C001.zqv not copied: %2 already exists.")
                               .arg(card, taken)));
    QVERIFY(lines.contains("1 file(s) left as they are."));

    QCOMPARE(runCli({"--output", out, "--overwrite", card}, &lines), 1);
    QCOMPARE(readFile(taken), finishedInPlace(tmp.path()).value("DCIM/100CLIPS/A001C001.mov"));
}

void TestCopyFinish::aFullDestinationLeavesNoCopy()
{
    if (!isRoot())
        QSKIP("mounting a small file system needs root");
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(writeMixedCard(card));
    ScratchMount mount(tmp.filePath("full"));
    const QString why = mount.mountTmpfs("2m");
    if (!why.isEmpty())
        QSKIP(qPrintable("a tmpfs cannot be mounted here: " + why));
    const QString out = mount.point();
    QStringList lines;
    const int status = runCli({"--output", out, card}, &lines);
    const QMap<QString, QByteArray> placed = placedCopies(out);
    const QMap<QString, QByteArray> partial = snapshotTree(out);
    QCOMPARE(status, 1);
    const QString report = lines.join('\n');
    QVERIFY2(report.contains("not finished: the destination is full."), qPrintable(report));
    // Whatever did not fit left nothing: neither a placed copy nor a leftover in the work folder.
    const QMap<QString, QByteArray> inPlace = finishedInPlace(tmp.path());
    for (const QString& name : placed.keys())
        QCOMPARE(placed.value(name), inPlace.value(name));
    QCOMPARE(partial.size(), placed.size());
}

void TestCopyFinish::aCopyThatDoesNotHashAsTheCardIsRefused()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    const QString out = tmp.filePath("out");
    QVERIFY(writeMixedCard(card));
    const QMap<QString, QByteArray> before = snapshotTree(card);
    Finalize driver;
    driver.outputFolder = out;
    driver.copyHashTamper = [](char* data, qint64 size) {
        if (size > 0)
            data[size / 2] ^= 0x01;
    };
    QString report;
    connect(&driver, &Finalize::textOutput, [&report](const QString& text) { report += text; });
    {
        const MessageCapture quiet(MessageCapture::Drop);
        driver.finalizeFolders({card});
    }
    QCOMPARE(snapshotTree(card), before);
    QVERIFY(placedCopies(out).isEmpty());
    QVERIFY(snapshotTree(out).isEmpty());
    const QRegularExpression refused(
        "     \\S+/A001C001\\.zqv not finished: the copy does not match the card "
        "\\(xxh64 [0-9a-f]{16} on the card, [0-9a-f]{16} in the copy\\)\\.\n");
    QVERIFY2(refused.match(report).hasMatch(), qPrintable(report));
    QCOMPARE(driver.leftCount, 5);
    QCOMPARE(driver.goodCount, 0);
}

void TestCopyFinish::aRunKilledMidCopyIsCompletedByTheNextRun()
{
    if (QStandardPaths::findExecutable("strace").isEmpty())
        QSKIP("strace is not installed");
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    const QString out = tmp.filePath("out");
    QVERIFY(writeMixedCard(card));
    const QMap<QString, QByteArray> expected = finishedInPlace(tmp.path());
    // Killed at the 2nd, 5th, ... write of the run: inside a copy, inside a finish, between them.
    for (const int nth : {2, 5, 9, 14}) {
        QDir(out).removeRecursively();
        const QStringList args{"-f", "-qq", "-o", "/dev/null", "-e", "trace=write,pwrite64",
                               "-e", QString("inject=write,pwrite64:signal=KILL:when=%1").arg(nth),
                               CLIPWARD_CLI_PATH, "--output", out, card};
        runCommand("strace", args, 60000);
        // A placed copy is a finished one; the rest is in the work folder only.
        const QMap<QString, QByteArray> placed = placedCopies(out);
        for (const QString& name : placed.keys())
            QCOMPARE(placed.value(name), expected.value(name));
        QStringList lines;
        QCOMPARE(runCli({"--output", out, card}, &lines), 1);
        QCOMPARE(placedCopies(out), expected);
    }
}

void TestCopyFinish::jsonCarriesTheCopyAndItsHash()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    const QString out = tmp.filePath("out");
    QVERIFY(writeMixedCard(card));
    const QList<QJsonObject> files = cliFileObjects({"--output", out, card});
    bool sawTern = false;
    for (const QJsonObject& file : files) {
        if (!file.value("path").toString().endsWith("A001C001.zqv"))
            continue;
        sawTern = true;
        QCOMPARE(file.value("outcome").toString(), QString("finalized"));
        QCOMPARE(file.value("path_after").toString(), file.value("path").toString());
        const QJsonObject copy = file.value("copy").toObject();
        QCOMPARE(copy.value("path").toString(), QDir(out).filePath("DCIM/100CLIPS/A001C001.mov"));
        // Which method a temporary folder gets depends on its file system; the two cases above pin each.
        const QString method = copy.value("method").toString();
        const QString check = copy.value("check").toString();
        QVERIFY2((method == "stream" && check == "hashed as written")
                     || (method == "clone" && (check == "shared blocks" || check == "read back")),
                 qPrintable(method + ", " + check));
        QCOMPARE(copy.value("media_xxh64").toString().size(), 16);
        const QString sum = xxhsum(QDir(card).filePath("DCIM/100CLIPS/A001C001.zqv"));
        if (!sum.isEmpty())
            QCOMPARE(copy.value("media_xxh64").toString(), sum);
    }
    QVERIFY(sawTern);
}

void TestCopyFinish::outputInsidePathIsRefused()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(writeMixedCard(card));
    QStringList lines;
    QString errors;
    QCOMPARE(runCli({"--output", QDir(card).filePath("out"), card}, &lines, &errors), 2);
    QVERIFY(errors.startsWith("clipward-cli: the output folder must not be inside PATH\n"));
    QCOMPARE(runCli({"--overwrite", card}, &lines, &errors), 2);
    QVERIFY(errors.startsWith("clipward-cli: --overwrite goes with --output DIR\n"));
    QCOMPARE(runCli({card, "--output"}, &lines, &errors), 2);
    QVERIFY(errors.startsWith("clipward-cli: --output needs a folder (--output DIR)\n"));
}

void TestCopyFinish::checkCopiesMadeBy(const QString& method, const QString& card, const QString& out,
                                       const QString& scratch)
{
    QVERIFY(writeMixedCard(card));
    const QMap<QString, QByteArray> before = snapshotTree(card);
    const QList<QJsonObject> files = cliFileObjects({"--output", out, card});
    QCOMPARE(snapshotTree(card), before);
    const QMap<QString, QByteArray> placed = placedCopies(out);
    QCOMPARE(placed, finishedInPlace(scratch));
    const QMap<QString, QString> methods = copyMethods(files, out);
    QCOMPARE(methods.keys(), placed.keys());
    QVERIFY(!methods.isEmpty());
    for (auto it = methods.begin(); it != methods.end(); ++it) {
        const QString what = QString("%1 was copied by \"%2\"").arg(it.key(), it.value());
        QVERIFY2(it.value() == method, qPrintable(what));
    }
}

void TestCopyFinish::copiesWithinOneBtrfsAreClones()
{
    QTemporaryDir tmp;
    QVERIFY(tmp.isValid());
    ScratchMount mount(tmp.path());
    const QString why = mount.mountBtrfs(160 * 1024 * 1024);
    if (!why.isEmpty())
        QSKIP(qPrintable("btrfs cannot be tested: " + why));
    const QString card = QDir(mount.point()).filePath("card");
    const QString out = QDir(mount.point()).filePath("out");
    checkCopiesMadeBy("clone, shared blocks", card, out, tmp.path());
}

void TestCopyFinish::copiesToAnotherFileSystemAreStreamed()
{
    QTemporaryDir tmp;
    QVERIFY(tmp.isValid());
    ScratchMount mount(tmp.path());
    const QString why = mount.mountTmpfs("64m");
    if (!why.isEmpty())
        QSKIP(qPrintable("a tmpfs destination cannot be tested: " + why));
    const QString out = QDir(mount.point()).filePath("out");
    checkCopiesMadeBy("stream, hashed as written", tmp.filePath("card"), out, tmp.path());
}

QTEST_GUILESS_MAIN(TestCopyFinish)
#include "tst_copy_finish.moc"
