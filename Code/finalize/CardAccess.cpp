#include "finalize/CardAccess.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>

#ifdef _WIN32
#include <windows.h>
#else
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#endif

namespace CardAccess {

#ifdef _WIN32

bool driveWriteProtected(const QString& folder)
{
    const std::wstring root
        = QDir::toNativeSeparators(QFileInfo(folder).absoluteFilePath()).left(3).toStdWString();
    DWORD flags = 0;
    if (!GetVolumeInformationW(root.c_str(), nullptr, 0, nullptr, nullptr, &flags, nullptr, 0))
        return false;
    return (flags & FILE_READ_ONLY_VOLUME) != 0;
}

bool folderWritable(const QString& folder)
{
    return QFileInfo(folder).isWritable();
}

bool folderListable(const QString& folder)
{
    return QFileInfo(folder).isReadable();
}

WriteBlock writeBlockFor(const QString& path)
{
    const QFileInfo info(path);
    if (!info.isFile())
        return WriteBlock::None;
    if (driveWriteProtected(info.absolutePath()))
        return WriteBlock::DriveWriteProtected;
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::ExistingOnly))
        return WriteBlock::FileNotWritable;
    file.close();
    return folderWritable(info.absolutePath()) ? WriteBlock::None : WriteBlock::FolderNotWritable;
}

#else

bool driveWriteProtected(const QString& folder)
{
    struct statvfs fs;
    if (::statvfs(QFile::encodeName(folder).constData(), &fs) != 0)
        return false;
    return (fs.f_flag & ST_RDONLY) != 0;
}

bool folderWritable(const QString& folder)
{
    // Renaming needs write and search permission on the folder; access() also answers EROFS.
    return ::access(QFile::encodeName(folder).constData(), W_OK | X_OK) == 0;
}

bool folderListable(const QString& folder)
{
    DIR* listing = ::opendir(QFile::encodeName(folder).constData());
    if (!listing)
        return false;
    ::closedir(listing);
    return true;
}

WriteBlock writeBlockFor(const QString& path)
{
    const QByteArray name = QFile::encodeName(path);
    struct stat st;
    if (::stat(name.constData(), &st) != 0 || !S_ISREG(st.st_mode))
        return WriteBlock::None;
    // The truest answer is the system's own: opening for writing (no truncation, nothing written) fails
    // with EROFS on a read-only mount, EACCES or EPERM without permission, whoever runs the program.
    const int fd = ::open(name.constData(), O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        if (errno == EROFS)
            return WriteBlock::DriveWriteProtected;
        if (errno == EACCES || errno == EPERM || errno == ETXTBSY)
            return WriteBlock::FileNotWritable;
        return WriteBlock::None; // anything else is left to the finalize procedure to meet
    }
    ::close(fd);
    return folderWritable(QFileInfo(path).absolutePath()) ? WriteBlock::None : WriteBlock::FolderNotWritable;
}

#endif

bool isFullError(int error)
{
#ifdef EDQUOT
    if (error == EDQUOT)
        return true;
#endif
    return error == ENOSPC;
}

QString reasonText(WriteBlock block)
{
    switch (block) {
    case WriteBlock::None:
        return QString();
    case WriteBlock::DriveWriteProtected:
        return QStringLiteral("the drive is write-protected");
    case WriteBlock::FileNotWritable:
        return QStringLiteral("no permission to write it");
    case WriteBlock::FolderNotWritable:
        return QStringLiteral("no permission to rename files in its folder");
    }
    return QString();
}

} // namespace CardAccess
