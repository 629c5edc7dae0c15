#pragma once

// What case 8 mounts and how it gets it off again: a btrfs image on a loop device, and the signals held
// off while one is mounted, so that an interrupted run still unmounts it.

#include <QString>
#include <QStringList>

// A tool by name, also from the sbin folders a PATH does not always hold; empty when there is none.
QString toolPath(const QString& name);
// Runs a tool to its end; true when it exits with 0. Both output channels land in `output`.
bool runTool(const QString& name, const QStringList& args, QString* output = nullptr);

// SIGINT, SIGTERM and SIGHUP held off for as long as this lives. A program started meanwhile still ends
// on them (it starts with the default handling); this one notes the signal, for the case to stop and
// clean up, and ends on it when this goes.
class HeldSignals
{
public:
    HeldSignals();
    ~HeldSignals();
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    static bool arrived();
};

// A btrfs file system in a sparse image file, `folder`/btrfs.img, on a loop device, mounted at
// `folder`/mnt for one case. Whatever an interrupted earlier run left there is cleared first; the file
// system is unmounted, the loop device detached and the folder removed whichever way the case ends.
class BtrfsImage
{
public:
    explicit BtrfsImage(const QString& folder);
    ~BtrfsImage();
    BtrfsImage(const BtrfsImage&) = delete;
    BtrfsImage& operator=(const BtrfsImage&) = delete;

    // A fresh file system of `bytes`, mounted; why it could not be, empty when it was.
    QString mount(qint64 bytes);
    QString mountPoint() const { return m_point; }

private:
    void clear();

    QString m_folder;
    QString m_image;
    QString m_point;
};
