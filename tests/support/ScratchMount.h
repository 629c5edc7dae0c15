#pragma once

// A file system mounted for one test case at `folder`/mnt: a small tmpfs, or a btrfs image (`folder`/fs.img)
// on a loop device. Unmounted, and the loop device detached, whichever way the case leaves. Mounting needs
// root, the loop devices and the tools: each mount says what stopped it, for the case to skip with.

#include <QString>

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
    QString m_image;
    QString m_point;
    QString m_loop;
    bool m_mounted = false;
};
