#include "scratch/ScratchMount.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

#include <unistd.h>

namespace Scratch {

QString toolPath(const QString& name)
{
    const QString onPath = QStandardPaths::findExecutable(name);
    if (!onPath.isEmpty())
        return onPath;
    const QStringList folders{"/usr/local/sbin", "/usr/sbin", "/sbin", "/usr/bin", "/bin"};
    return QStandardPaths::findExecutable(name, folders);
}

bool runTool(const QString& name, const QStringList& args, QString* output, int msecs)
{
    const QString program = toolPath(name);
    if (program.isEmpty()) {
        if (output)
            *output = name + " is not installed";
        return false;
    }
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, args);
    const bool done = process.waitForStarted() && process.waitForFinished(msecs);
    if (output)
        *output = QString::fromLocal8Bit(process.readAll()).trimmed();
    return done && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

bool isMountPoint(const QString& path)
{
    const QString canonical = QFileInfo(path).canonicalFilePath();
    QFile mounts("/proc/self/mountinfo");
    if (canonical.isEmpty() || !mounts.open(QIODevice::ReadOnly))
        return false;
    for (const QByteArray& line : mounts.readAll().split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() > 4 && QString::fromUtf8(fields[4]) == canonical)
            return true;
    }
    return false;
}

} // namespace Scratch

using Scratch::isMountPoint;
using Scratch::runTool;

ScratchMount::ScratchMount(const QString& folder)
    : m_image(QDir(folder).absoluteFilePath("fs.img"))
    , m_point(QDir(folder).absoluteFilePath("mnt"))
{
}

ScratchMount::~ScratchMount()
{
    clear();
}

void ScratchMount::clear()
{
    if (isMountPoint(m_point) && !runTool("umount", {m_point}))
        runTool("umount", {"-l", m_point});
    // Every loop device on the image, also one an interrupted run left: "/dev/loop3: [2049]:12 (image)".
    QString attached;
    if (QFileInfo::exists(m_image) && runTool("losetup", {"-j", m_image}, &attached)) {
        for (const QString& line : attached.split('\n', Qt::SkipEmptyParts))
            runTool("losetup", {"-d", line.section(':', 0, 0)});
    }
    if (!isMountPoint(m_point)) {
        QFile::remove(m_image);
        QDir().rmdir(m_point);
    }
}

QString ScratchMount::mountTmpfs(const QString& size)
{
    clear();
    if (geteuid() != 0)
        return "not running as root: mounting a tmpfs needs root";
    QString output;
    if (!QDir().mkpath(m_point))
        return "cannot make " + m_point;
    if (!runTool("mount", {"-t", "tmpfs", "-o", "size=" + size, "tmpfs", m_point}, &output))
        return "cannot mount a tmpfs: " + output;
    return QString();
}

QString ScratchMount::mountBtrfs(qint64 bytes)
{
    clear();
    if (geteuid() != 0)
        return "not running as root: attaching loop devices and mounting images needs root";
    for (const QString& name : {"mkfs.btrfs", "losetup", "mount", "umount"}) {
        if (Scratch::toolPath(name).isEmpty())
            return name + " is missing (Debian packages: btrfs-progs, util-linux, mount)";
    }
    if (!QDir().mkpath(m_point))
        return "cannot make " + m_point;
    QFile image(m_image);
    if (!image.open(QIODevice::WriteOnly | QIODevice::Truncate) || !image.resize(bytes))
        return "cannot create the image file " + m_image;
    image.close();
    QString output;
    if (!runTool("mkfs.btrfs", {"-q", m_image}, &output))
        return "mkfs.btrfs failed: " + output;
    if (!runTool("losetup", {"-f", "--show", m_image}, &output))
        return "cannot attach a loop device to the image: " + output;
    const QString loop = output.split('\n').last().trimmed();
    if (!runTool("mount", {"-t", "btrfs", loop, m_point}, &output))
        return "cannot mount the btrfs image (is btrfs in this kernel?): " + output;
    return QString();
}

QString ScratchMount::remountReadOnly()
{
    QString output;
    return runTool("mount", {"-o", "remount,ro", m_point}, &output) ? QString() : output;
}
