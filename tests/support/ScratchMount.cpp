#include "support/ScratchMount.h"

#include "support/CardImages.h"

#include <QDir>
#include <QFile>
#include <QStringList>

#include <unistd.h>

using CardImages::runTool;
using CardImages::tool;

ScratchMount::ScratchMount(const QString& folder)
    : m_image(folder + "/fs.img")
    , m_point(folder + "/mnt")
{
    QDir().mkpath(m_point);
}

ScratchMount::~ScratchMount()
{
    if (m_mounted && !runTool("umount", { m_point }))
        runTool("umount", { "-l", m_point });
    if (!m_loop.isEmpty())
        runTool("losetup", { "-d", m_loop });
}

QString ScratchMount::mountTmpfs(const QString& size)
{
    if (geteuid() != 0)
        return "not running as root: mounting a tmpfs needs root";
    QString output;
    if (!runTool("mount", { "-t", "tmpfs", "-o", "size=" + size, "tmpfs", m_point }, &output))
        return "cannot mount a tmpfs: " + output;
    m_mounted = true;
    return QString();
}

QString ScratchMount::mountBtrfs(qint64 bytes)
{
    if (geteuid() != 0)
        return "not running as root: attaching loop devices and mounting images needs root";
    for (const QString& name : { "mkfs.btrfs", "losetup", "mount", "umount" }) {
        if (tool(name).isEmpty())
            return name + " is missing (Debian packages: btrfs-progs, util-linux, mount)";
    }
    QFile image(m_image);
    if (!image.open(QIODevice::WriteOnly | QIODevice::Truncate) || !image.resize(bytes))
        return "cannot create the image file " + m_image;
    image.close();
    QString output;
    if (!runTool("mkfs.btrfs", { "-q", m_image }, &output))
        return "mkfs.btrfs failed: " + output;
    if (!runTool("losetup", { "-f", "--show", m_image }, &output))
        return "cannot attach a loop device to the image: " + output;
    m_loop = output.split('\n').last().trimmed();
    if (!runTool("mount", { "-t", "btrfs", m_loop, m_point }, &output))
        return "cannot mount the btrfs image (is btrfs in this kernel?): " + output;
    m_mounted = true;
    return QString();
}

QString ScratchMount::remountReadOnly()
{
    QString output;
    return runTool("mount", { "-o", "remount,ro", m_point }, &output) ? QString() : output;
}
