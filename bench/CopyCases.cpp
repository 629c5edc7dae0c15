// Case 8: finishing into a copy. Case 3's unfinished 4 GB recording is finished into a copy on a tmpfs
// (streamed, hashed as read and as written) against cp of the same file to the same tmpfs, both with the
// recording in the page cache and an empty destination each run. Then, on a btrfs image on a loop device,
// it is finished into a copy on the same btrfs (a clone, read back to be hashed) against the finish in
// place there of a fresh clone of it each run. Each half checks with --json, in its warm-up run, which
// way the copy was made.

#include "Cases.h"

#include "HeldSignals.h"
#include "scratch/ScratchMount.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <sys/statfs.h>
#include <sys/statvfs.h>

namespace {

// Below the work folder: the btrfs image and its mount, found again by a run after an interrupted one.
const char* const kBtrfsFolder = "copy-btrfs";

const qint64 kGiB = 1024LL * 1024 * 1024;
const long kTmpfsMagic = 0x01021994;

QString gigabytes(qint64 bytes)
{
    return QString::number(double(bytes) / 1e9, 'f', 1) + " GB";
}

qint64 freeBytes(const QString& path)
{
    struct statvfs status;
    if (::statvfs(QFile::encodeName(path).constData(), &status) != 0)
        return -1;
    return qint64(status.f_bavail) * qint64(status.f_frsize);
}

bool isTmpfs(const QString& path)
{
    struct statfs status;
    return ::statfs(QFile::encodeName(path).constData(), &status) == 0 && long(status.f_type) == kTmpfsMagic;
}

// MemAvailable of /proc/meminfo, in bytes; -1 when unknown.
qint64 availableMemory()
{
    QFile meminfo("/proc/meminfo");
    if (!meminfo.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : meminfo.readAll().split('\n')) {
        if (line.startsWith("MemAvailable:"))
            return line.mid(13).trimmed().split(' ').value(0).toLongLong() * 1024;
    }
    return -1;
}

// `path` as an empty folder.
bool emptyFolder(const QString& path)
{
    QDir(path).removeRecursively();
    return QDir().mkpath(path);
}

// clipward-cli with `args`, its report in `log` and its stderr in `log`.err, measured.
Usage runCliQuietly(const QStringList& args, const QString& log)
{
    return runCli(args, log, log + ".err");
}

// Finishes `folder` into `out` with --json, untimed: the method its file record gives the copy ("clone",
// "stream"), empty with why in `failure` when the run did not finish the recording into a copy.
QString copyMethodOfWarmUp(const QString& folder, const QString& out, const QString& log, QString* failure)
{
    const Usage usage = runCliQuietly({ "--json", "--output", out, folder }, log);
    QFile json(log);
    if (!usage.ok || !json.open(QIODevice::ReadOnly)) {
        *failure = QString("clipward-cli --json --output did not finish the recording (exit %1)")
                       .arg(usage.exitCode);
        return QString();
    }
    for (const QByteArray& line : json.readAll().split('\n')) {
        const QJsonObject file = QJsonDocument::fromJson(line).object();
        if (file.value("type").toString() != "file")
            continue;
        const QJsonObject copy = file.value("copy").toObject();
        if (file.value("outcome").toString() == "finalized" && copy.value("path").isString())
            return copy.value("method").toString();
        *failure = "clipward-cli --json --output reported " + QString::fromUtf8(line);
        return QString();
    }
    *failure = "clipward-cli --json --output reported no file";
    return QString();
}

// The first half: into a copy on a tmpfs (in /dev/shm) against cp to it.
void copyToTmpfsAgainstCp(const BenchOptions& o, const QString& recording, BenchResults* r)
{
    Measured* cli = &r->copyToTmpfs;
    Measured* cp = &r->cpToTmpfs;
    const QString shm = "/dev/shm";
    const qint64 size = QFileInfo(recording).size();
    // The copy and its index on the tmpfs; in memory, also the recording cached beside them.
    const qint64 needed = size + kGiB / 4;
    if (!isTmpfs(shm))
        return fail(cli, "could not run: /dev/shm is not a tmpfs here");
    if (freeBytes(shm) < needed)
        return fail(cli,
            QString("could not run: /dev/shm has %1 free, the copy needs %2")
                .arg(gigabytes(freeBytes(shm)), gigabytes(needed)));
    const qint64 memory = availableMemory();
    if (memory >= 0 && memory < needed + size)
        return fail(cli,
            QString("could not run: %1 of memory available, the copy and the cached recording need %2")
                .arg(gigabytes(memory), gigabytes(needed + size)));
    QTemporaryDir scratch(shm + "/clipward-bench-XXXXXX");
    if (!scratch.isValid())
        return fail(cli, "could not run: cannot make a folder in /dev/shm");
    const QString folder = QFileInfo(recording).absolutePath();
    const QString out = scratch.filePath("out");
    const QString copied = out + "/" + QFileInfo(recording).completeBaseName() + ".mov";
    const QString log = o.work + "/copy.log";
    ChildCommand cpCommand;
    cpCommand.program = "cp";
    cpCommand.arguments = QStringList { recording, out };

    // The warm-up of each reads the recording into the page cache and checks the run.
    QString failure;
    if (!emptyFolder(out))
        return fail(cli, "cannot make " + out);
    r->tmpfsCopyMethod = copyMethodOfWarmUp(folder, out, log, &failure);
    if (r->tmpfsCopyMethod.isEmpty())
        return fail(cli, failure);
    if (r->tmpfsCopyMethod != "stream")
        return fail(cli, "the copy was made by \"" + r->tmpfsCopyMethod + "\", not streamed");
    if (!emptyFolder(out) || !measureChild(cpCommand).ok)
        return fail(cp, "cp " + recording + " " + out + " failed");

    for (int step = 0; step < 2 * o.reps; ++step) {
        if (!emptyFolder(out))
            return fail(cli, "cannot empty " + out);
        if (firstRunsAt(step)) {
            const Usage usage = runCliQuietly({ "--output", out, folder }, log);
            if (HeldSignals::arrived())
                return fail(cli, "interrupted");
            if (!usage.ok || !finalizedIn(log) || QFileInfo(copied).size() <= size)
                return fail(cli, "clipward-cli --output did not finish " + recording + " into " + copied);
            cli->runs << usage;
        } else {
            const Usage usage = measureChild(cpCommand);
            if (HeldSignals::arrived())
                return fail(cp, "interrupted");
            if (!usage.ok || QFileInfo(out + "/" + QFileInfo(recording).fileName()).size() != size)
                return fail(cp, "cp " + recording + " " + out + " failed");
            cp->runs << usage;
        }
    }
}

// The second half: on one btrfs, into a copy there against finishing in place there.
void copyWithinBtrfsAgainstInPlace(const BenchOptions& o, const QString& recording, BenchResults* r)
{
    Measured* copy = &r->copyWithinBtrfs;
    Measured* inPlace = &r->inPlaceOnBtrfs;
    const qint64 size = QFileInfo(recording).size();
    // The image holds one copy of the recording (the clones share its blocks) and the indexes.
    const qint64 needed = size + kGiB;
    if (freeBytes(o.work) < needed)
        return fail(copy,
            QString("could not run: %1 free in %2, the btrfs image needs %3")
                .arg(gigabytes(freeBytes(o.work)), o.work, gigabytes(needed)));
    ScratchMount btrfs(QDir(o.work).filePath(kBtrfsFolder));
    const QString why = btrfs.mountBtrfs(2 * size + kGiB);
    if (!why.isEmpty())
        return fail(copy, "could not run: " + why);
    const QString card = btrfs.point() + "/card";
    const QString original = card + "/" + QFileInfo(recording).fileName();
    const QString inPlaceFolder = btrfs.point() + "/in-place";
    const QString fresh = inPlaceFolder + "/" + QFileInfo(recording).fileName();
    const QString out = btrfs.point() + "/out";
    const QString copied = out + "/" + QFileInfo(recording).completeBaseName() + ".mov";
    const QString log = o.work + "/copy.log";
    QString output;
    progress("case 8: the recording onto a btrfs image");
    if (!QDir().mkpath(card) || !Scratch::runTool("cp", { recording, original }, &output))
        return fail(copy, "cannot put the recording on the btrfs image: " + output);
    // A fresh unfinished recording to finish in place: a clone of the one on the card.
    const auto cloneToFinish = [&] {
        return emptyFolder(inPlaceFolder)
            && Scratch::runTool("cp", { "--reflink=always", original, fresh }, &output);
    };
    // Each run starts with the file system's and the image's writes done, not with those of the last.
    const auto settle = [&] { return Scratch::runTool("sync", {}, &output); };

    QString failure;
    if (!emptyFolder(out) || !settle())
        return fail(copy, "cannot make " + out);
    r->btrfsCopyMethod = copyMethodOfWarmUp(card, out, log, &failure);
    if (r->btrfsCopyMethod.isEmpty())
        return fail(copy, failure);
    if (r->btrfsCopyMethod != "clone")
        return fail(copy, "the copy was made by \"" + r->btrfsCopyMethod + "\", not cloned");
    if (!cloneToFinish() || !runCliQuietly({ inPlaceFolder }, log).ok || !finalizedIn(log))
        return fail(inPlace, "clipward-cli did not finish a clone of the recording in place: " + output);

    for (int step = 0; step < 2 * o.reps; ++step) {
        const bool copying = firstRunsAt(step);
        if (!(copying ? emptyFolder(out) : cloneToFinish()) || !settle())
            return fail(copying ? copy : inPlace, "cannot prepare the run: " + output);
        const Usage usage
            = copying ? runCliQuietly({ "--output", out, card }, log) : runCliQuietly({ inPlaceFolder }, log);
        Measured* m = copying ? copy : inPlace;
        if (HeldSignals::arrived())
            return fail(m, "interrupted");
        if (!usage.ok || !finalizedIn(log) || (copying && QFileInfo(copied).size() <= size))
            return fail(m, "clipward-cli did not finish " + (copying ? original + " into " + copied : fresh));
        m->runs << usage;
    }
}

} // namespace

void runCopyCases(const BenchOptions& o, const QString& recording, BenchResults* r)
{
    if (!QFileInfo(recording).isFile()) {
        fail(&r->copyToTmpfs, "no input: case 3's unfinished recording is not there");
        fail(&r->copyWithinBtrfs, "no input: case 3's unfinished recording is not there");
        return;
    }
    // Until the tmpfs folder and the btrfs image are gone, an interrupt only stops the case.
    const HeldSignals held;
    progress("case 8: into a copy on a tmpfs, against cp");
    copyToTmpfsAgainstCp(o, recording, r);
    if (!HeldSignals::arrived()) {
        progress("case 8: into a copy within one btrfs, against the finish in place");
        copyWithinBtrfsAgainstInPlace(o, recording, r);
    }
    QDir(o.work).rmdir(kBtrfsFolder); // emptied by the case's mount as it ended
    QFile::remove(o.work + "/copy.log");
    QFile::remove(o.work + "/copy.log.err");
}
