#pragma once

// Real file-system images for the tests that finish cards on the file systems cards carry: an exFAT or
// FAT32 image in a file, formatted, mounted through FUSE and unmounted again. Loop devices and mounting
// need root, /dev/fuse and the tools (run through Scratch::runTool); missingFor says what stops a kind from
// being tested.

#include <QProcess>
#include <QString>
#include <QStringList>

#include <memory>

namespace CardImages {

enum class Kind { Exfat, Fat32 };

QString kindName(Kind kind);

// What stops `kind` from being tested here, in words; empty when nothing does.
QString missingFor(Kind kind);

// One file-system image in a file, formatted, mounted through FUSE at a folder next to it; unmounted
// and detached again whatever way the test leaves, so a failed check never leaves a mount behind.
class MountedImage
{
public:
    MountedImage(Kind kind, const QString& folder);
    ~MountedImage() { unmount(); }
    MountedImage(const MountedImage&) = delete;
    MountedImage& operator=(const MountedImage&) = delete;

    QString mountPoint() const { return m_mountPoint; }

    // A fresh, empty file system of `bytes`; the reason when it could not be made.
    QString format(qint64 bytes);
    // Mounts the image; the reason when it could not be.
    QString mount();
    void unmount();

private:
    void detach();

    Kind m_kind;
    QString m_image;
    QString m_mountPoint;
    QString m_loop;
    std::unique_ptr<QProcess> m_daemon;
};

} // namespace CardImages
