#include "movie/StableStorage.h"

#include <QFile>
#include <QFileDevice>
#include <QIODevice>
#include <QStorageInfo>

#include <cerrno>
#include <cstring>

#ifdef Q_OS_WIN
#include <io.h>
#else
#include <fcntl.h>
#include <unistd.h>
#endif

namespace StableStorage {

bool sync(QIODevice& device, QString* failure)
{
    auto* file = qobject_cast<QFileDevice*>(&device);
    if (!file)
        return true;
    if (!file->flush()) {
        if (failure)
            *failure = file->errorString();
        return false;
    }
    const int handle = file->handle();
    if (handle < 0)
        return false;
    const bool synced = syncHandle(handle);
    if (!synced && failure)
        *failure = QString::fromLocal8Bit(std::strerror(errno));
    return synced;
}

qint64 bytesAvailable(QIODevice& device)
{
    auto* file = qobject_cast<QFileDevice*>(&device);
    if (!file || file->fileName().isEmpty())
        return -1;
    const QStorageInfo storage(file->fileName());
    return storage.isValid() ? storage.bytesAvailable() : -1;
}

bool syncFolder(const QString& folder)
{
#ifdef Q_OS_WIN
    Q_UNUSED(folder);
    return true; // renames are made durable by the file system itself
#else
    const int handle = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY);
    if (handle < 0)
        return false;
    const bool ok = syncHandle(handle);
    ::close(handle);
    return ok;
#endif
}

bool syncHandle(int handle)
{
#if defined(Q_OS_WIN)
    return _commit(handle) == 0;
#else
#ifdef F_FULLFSYNC
    // fsync leaves the bytes in the drive's cache on macOS; F_FULLFSYNC asks the drive to store them.
    if (::fcntl(handle, F_FULLFSYNC) == 0)
        return true;
#endif
    int synced;
    do
        synced = ::fsync(handle);
    while (synced != 0 && errno == EINTR);
    return synced == 0;
#endif
}

} // namespace StableStorage
