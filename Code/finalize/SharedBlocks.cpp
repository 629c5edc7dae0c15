#include "finalize/SharedBlocks.h"

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef __linux__
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <cstring>
#include <memory>
#include <vector>
#endif

namespace {

#ifdef __linux__

struct Extent
{
    quint64 logical;
    quint64 physical;
    quint64 length;
    quint32 flags;
};

// Extents asked for at once; a long recording on a fragmented card may have many more.
const unsigned kExtentsPerCall = 256;

// Extents whose place on the disk does not name their bytes alone: unknown or not yet placed, compressed
// or encrypted (parts of one compressed extent share its place), kept inline with other data.
const quint32 kPlaceNotTheBytes = FIEMAP_EXTENT_UNKNOWN | FIEMAP_EXTENT_DELALLOC | FIEMAP_EXTENT_ENCODED
    | FIEMAP_EXTENT_DATA_ENCRYPTED | FIEMAP_EXTENT_NOT_ALIGNED | FIEMAP_EXTENT_DATA_INLINE
    | FIEMAP_EXTENT_DATA_TAIL;

// Every extent of the open file `fd`, in order; false when the file system cannot map the file.
bool extentsOf(int fd, std::vector<Extent>* extents)
{
    const size_t bytes = sizeof(fiemap) + kExtentsPerCall * sizeof(fiemap_extent);
    std::unique_ptr<char[]> storage(new char[bytes]);
    auto* map = reinterpret_cast<fiemap*>(storage.get());
    quint64 next = 0;
    for (;;) {
        std::memset(storage.get(), 0, bytes);
        map->fm_start = next;
        map->fm_length = FIEMAP_MAX_OFFSET - next;
        map->fm_flags = FIEMAP_FLAG_SYNC;
        map->fm_extent_count = kExtentsPerCall;
        if (::ioctl(fd, FS_IOC_FIEMAP, map) != 0)
            return false;
        if (map->fm_mapped_extents == 0)
            return true;
        for (unsigned i = 0; i < map->fm_mapped_extents; ++i) {
            const fiemap_extent& e = map->fm_extents[i];
            extents->push_back({e.fe_logical, e.fe_physical, e.fe_length, e.fe_flags});
            if (e.fe_flags & FIEMAP_EXTENT_LAST)
                return true;
            next = e.fe_logical + e.fe_length;
        }
    }
}

#endif

} // namespace

namespace SharedBlocks {

bool everyBlockShared(int sourceFd, int copyFd)
{
#ifdef __linux__
    struct stat source;
    struct stat copy;
    if (::fstat(sourceFd, &source) != 0 || ::fstat(copyFd, &copy) != 0 || source.st_size != copy.st_size)
        return false;
    std::vector<Extent> sourceExtents;
    std::vector<Extent> copyExtents;
    if (!extentsOf(sourceFd, &sourceExtents) || !extentsOf(copyFd, &copyExtents))
        return false;
    if (sourceExtents.size() != copyExtents.size())
        return false;
    for (size_t i = 0; i < copyExtents.size(); ++i) {
        const Extent& a = sourceExtents[i];
        const Extent& b = copyExtents[i];
        if ((a.flags | b.flags) & kPlaceNotTheBytes)
            return false;
        if (!(b.flags & FIEMAP_EXTENT_SHARED))
            return false;
        if (a.logical != b.logical || a.physical != b.physical || a.length != b.length)
            return false;
    }
    return true;
#else
    (void)sourceFd;
    (void)copyFd;
    return false;
#endif
}

bool everyBlockShared(const QString& source, const QString& copy)
{
    const int sourceFd = ::open(QFile::encodeName(source).constData(), O_RDONLY | O_CLOEXEC);
    const int copyFd = ::open(QFile::encodeName(copy).constData(), O_RDONLY | O_CLOEXEC);
    const bool shared = sourceFd >= 0 && copyFd >= 0 && everyBlockShared(sourceFd, copyFd);
    if (sourceFd >= 0)
        ::close(sourceFd);
    if (copyFd >= 0)
        ::close(copyFd);
    return shared;
}

} // namespace SharedBlocks
