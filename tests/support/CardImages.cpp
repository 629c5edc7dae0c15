#include "support/CardImages.h"

#include "scratch/ScratchMount.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QThread>

#include <unistd.h>

namespace CardImages {

using Scratch::isMountPoint;
using Scratch::runTool;

QString kindName(Kind kind)
{
    return kind == Kind::Exfat ? "exFAT" : "FAT32";
}

QString missingFor(Kind kind)
{
    if (geteuid() != 0)
        return "not running as root: attaching loop devices and mounting images needs root";
    if (!QFileInfo::exists("/dev/fuse"))
        return "/dev/fuse is missing: this system cannot mount FUSE file systems";
    const QStringList needed = kind == Kind::Exfat
        ? QStringList { "mkfs.exfat", "mount.exfat-fuse", "losetup", "umount" }
        : QStringList { "mkfs.vfat", "fusefat", "umount" };
    QStringList missing;
    for (const QString& name : needed) {
        if (Scratch::toolPath(name).isEmpty())
            missing << name;
    }
    if (missing.isEmpty())
        return QString();
    return QString("%1 cannot be tested, missing: %2 (Debian packages: %3)")
        .arg(kindName(kind), missing.join(", "),
            kind == Kind::Exfat ? "exfatprogs exfat-fuse fuse3 util-linux" : "dosfstools fusefat fuse3");
}

MountedImage::MountedImage(Kind kind, const QString& folder)
    : m_kind(kind)
    , m_image(folder + "/card.img")
    , m_mountPoint(folder + "/mnt")
{
    QDir().mkpath(m_mountPoint);
}

QString MountedImage::format(qint64 bytes)
{
    QFile image(m_image);
    if (!image.open(QIODevice::WriteOnly | QIODevice::Truncate) || !image.resize(bytes))
        return "cannot create the image file " + m_image;
    image.close();
    QString output;
    const bool made = m_kind == Kind::Exfat ? runTool("mkfs.exfat", { m_image }, &output)
                                            : runTool("mkfs.vfat", { "-F", "32", m_image }, &output);
    return made ? QString() : QString("formatting %1 failed: %2").arg(kindName(m_kind), output);
}

QString MountedImage::mount()
{
    QString output;
    if (m_kind == Kind::Exfat) {
        // exfat-fuse run as root wants a block device, not an image file.
        if (!runTool("losetup", { "-f", "--show", m_image }, &output))
            return "cannot attach a loop device to the exFAT image: " + output;
        m_loop = output.split('\n').last().trimmed();
        if (!runTool("mount.exfat-fuse", { m_loop, m_mountPoint }, &output)) {
            detach();
            return QString("mount.exfat-fuse %1 failed: %2").arg(m_loop, output);
        }
    } else {
        // Kept in the foreground as a child of this test, so an unmount can wait until fusefat has
        // written all it holds back to the image and ended.
        m_daemon.reset(new QProcess);
        m_daemon->setProcessChannelMode(QProcess::MergedChannels);
        m_daemon->setStandardOutputFile(m_image + ".log");
        m_daemon->start(Scratch::toolPath("fusefat"), { "-f", "-o", "rw+", m_image, m_mountPoint });
        QElapsedTimer clock;
        clock.start();
        while (!isMountPoint(m_mountPoint) && m_daemon->state() != QProcess::NotRunning
            && clock.elapsed() < 20000)
            QThread::msleep(20);
    }
    if (!isMountPoint(m_mountPoint)) {
        const QString log = QString::fromLocal8Bit(TestSupport::readFile(m_image + ".log")).trimmed();
        unmount();
        return QString("%1 image did not mount at %2 %3").arg(kindName(m_kind), m_mountPoint, log);
    }
    return QString();
}

void MountedImage::unmount()
{
    if (isMountPoint(m_mountPoint) && !runTool("umount", { m_mountPoint })) {
        if (!runTool("fusermount", { "-u", m_mountPoint }))
            runTool("fusermount3", { "-u", m_mountPoint });
    }
    if (m_daemon) {
        if (!m_daemon->waitForFinished(30000))
            m_daemon->kill();
        m_daemon->waitForFinished(5000);
        m_daemon.reset();
    }
    detach();
}

void MountedImage::detach()
{
    if (!m_loop.isEmpty())
        runTool("losetup", { "-d", m_loop });
    m_loop.clear();
}

} // namespace CardImages
