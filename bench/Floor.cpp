#include "Floor.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

const size_t kFrameMapBytes = 5472000;
const size_t kBufferBytes = 131072; // the finalizer's output buffer
const long kClosingZeroBytes = 512;
const size_t kMovieDataHeaderBytes = 16;

bool syncFolderOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash);
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY);
    if (fd < 0)
        return false;
    const bool ok = fsync(fd) == 0;
    close(fd);
    return ok;
}

} // namespace

int runFloor(const char* recording, long long mapPos, long long indexBytes, const char* output)
{
    std::vector<char> map(kFrameMapBytes);
    FILE* in = std::fopen(recording, "rb");
    if (!in || fseeko(in, off_t(mapPos), SEEK_SET) != 0
        || std::fread(map.data(), 1, map.size(), in) != map.size())
        return 1;
    std::fclose(in);

    FILE* out = std::fopen(output, "wb");
    if (!out || std::setvbuf(out, nullptr, _IOFBF, kBufferBytes) != 0)
        return 1;
    // The index: as many bytes as the finalizer appends before its closing block (what they hold costs
    // nothing to compute here, so this is pure I/O).
    long long left = indexBytes - kClosingZeroBytes;
    while (left > 0) {
        const size_t piece = size_t(std::min<long long>(left, (long long)map.size()));
        if (std::fwrite(map.data(), 1, piece, out) != piece)
            return 1;
        left -= (long long)piece;
    }
    // The finalizer's flushes: the closing block reaches the disk, then the patched 'mdat' header, then
    // the rename of the finished file is made durable through its folder.
    const std::vector<char> zeros(kClosingZeroBytes, '\0');
    if (std::fwrite(zeros.data(), 1, zeros.size(), out) != zeros.size() || std::fflush(out) != 0
        || fsync(fileno(out)) != 0)
        return 1;
    if (fseeko(out, 0, SEEK_SET) != 0
        || std::fwrite(map.data(), 1, kMovieDataHeaderBytes, out) != kMovieDataHeaderBytes
        || std::fflush(out) != 0 || fsync(fileno(out)) != 0)
        return 1;
    if (std::fclose(out) != 0)
        return 1;
    const std::string finished = std::string(output) + ".done";
    if (std::rename(output, finished.c_str()) != 0 || !syncFolderOf(finished))
        return 1;
    return 0;
}
