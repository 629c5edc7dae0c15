#pragma once

// File systems mounted for one test or benchmark case, and the system tools that make them. Mounting
// needs root, the loop devices and the tools: each mount says what stopped it, for the case to skip with
// or to report.

#include <QString>
#include <QStringList>

namespace Scratch {

// A tool by name, also from the sbin folders a PATH does not always hold; empty when there is none.
QString toolPath(const QString& name);
// Runs a tool to its end (at most `msecs`); true when it exits with 0. Both output channels land in
// `output`.
bool runTool(const QString& name, const QStringList& args, QString* output = nullptr, int msecs = 300000);
// Whether a file system is mounted at `path`.
bool isMountPoint(const QString& path);

} // namespace Scratch

// A file system mounted at `folder`/mnt: a tmpfs, or a btrfs image (`folder`/fs.img) on a loop device.
// Whatever an interrupted earlier run left there (a mount, loop devices on the image) is cleared before a
// mount; the file system is unmounted, the loop devices detached and the image and the mount folder
// removed whichever way the case leaves.
class ScratchMount
{
public:
    explicit ScratchMount(const QString& folder);
    ~ScratchMount();
    ScratchMount(const ScratchMount&) = delete;
    ScratchMount& operator=(const ScratchMount&) = delete;

    QString point() const { return m_point; }

    // Each returns why the file system could not be mounted; empty when it was.
    QString mountTmpfs(const QString& size);
    QString mountBtrfs(qint64 bytes);
    // Why the mounted file system could not be made read-only; empty when it was.
    QString remountReadOnly();

private:
    // Unmounts the mount folder and detaches every loop device on the image; removes both but never
    // through a file system still mounted.
    void clear();

    QString m_image;
    QString m_point;
};
