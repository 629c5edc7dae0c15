#include "movie/StableStorage.h"

#include <QFile>
#include <QFileDevice>
#include <QIODevice>

#ifdef Q_OS_WIN
#include <io.h>
#else
#include <fcntl.h>
#include <unistd.h>
#endif

namespace StableStorage {

bool sync(QIODevice& device)
{
    auto* file = qobject_cast<QFileDevice*>(&device);
    if (!file)
        return true;
    if (!file->flush())
        return false;
    const int handle = file->handle();
    if (handle < 0)
        return false;
#ifdef Q_OS_WIN
    return _commit(handle) == 0;
#else
    return ::fsync(handle) == 0;
#endif
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
    const bool ok = ::fsync(handle) == 0;
    ::close(handle);
    return ok;
#endif
}

} // namespace StableStorage
