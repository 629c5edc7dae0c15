#include "finalize/VerifiedCopy.h"

#include "finalize/CardAccess.h"
#include "finalize/SharedBlocks.h"
#include "movie/StableStorage.h"

#include <QFile>

#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef __linux__
#include <linux/fs.h>
#ifndef FICLONE
#define FICLONE _IOW(0x94, 9, int)
#endif
#endif

#ifdef __APPLE__
#include <sys/attr.h>
#include <sys/clonefile.h>
#endif

namespace {

using Failure = VerifiedCopy::Failure;

// Large enough that a read or a write costs little next to the bytes it moves; three of them let the
// reader fill one while the writer empties another, with one to spare for whichever is ahead.
constexpr qint64 kBufferBytes = 8 * 1024 * 1024;
constexpr int kBufferCount = 3;
// The progress callback hears at most once per this many bytes, and once at the end.
constexpr qint64 kProgressStep = 64 * 1024 * 1024;

QString systemText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// xxHash64 with seed 0, fed piece by piece: the pieces' hash is the whole's.
class Hash
{
public:
    Hash()
        : m_state(XXH64_createState())
    {
        if (!m_state)
            throw std::bad_alloc();
        XXH64_reset(m_state, 0);
    }
    ~Hash() { XXH64_freeState(m_state); }
    Hash(const Hash&) = delete;
    Hash& operator=(const Hash&) = delete;

    void add(const char* data, qint64 size) { XXH64_update(m_state, data, size_t(size)); }
    quint64 value() const { return XXH64_digest(m_state); }

private:
    XXH64_state_t* m_state;
};

// Reads until `buffer` holds `capacity` bytes or the file ends, through interruptions. Returns the bytes
// read, or -1 with the system's error in `error`.
qint64 readFull(int fd, char* buffer, qint64 capacity, int* error)
{
    qint64 filled = 0;
    while (filled < capacity) {
        const ssize_t got = ::read(fd, buffer + filled, size_t(capacity - filled));
        if (got > 0) {
            filled += got;
        } else if (got == 0) {
            break;
        } else if (errno != EINTR) {
            *error = errno;
            return -1;
        }
    }
    return filled;
}

void adviseSequential(int fd)
{
#ifdef POSIX_FADV_SEQUENTIAL
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
#else
    Q_UNUSED(fd);
#endif
}

// The buffers passed between the thread reading the source and the one writing the copy. The reader fills
// buffers in turn while fewer than all are full; the writer empties the oldest full one. A buffer belongs
// to the reader from when it takes it until it counts it full, then to the writer until it counts it
// empty again, so the bytes themselves are touched without the lock.
struct Handoff
{
    struct Buffer
    {
        std::unique_ptr<char[]> data { new char[kBufferBytes] };
        qint64 size = 0;
    };

    std::mutex mutex;
    std::condition_variable changed;
    Buffer buffers[kBufferCount];
    int full = 0; // buffers read and not yet written
    int nextToFill = 0;
    int nextToWrite = 0;
    bool sourceEnded = false; // the reader met the end of the source; nothing more will be full
    int readError = 0; // the system's error the reader met; it stopped
    bool stopped = false; // the writer gave up: the reader stops too
};

// The reading thread: fills the buffers from `fd` and hashes each read as the source's bytes.
void readSource(int fd, Handoff* handoff, Hash* sourceHash)
{
    for (;;) {
        Handoff::Buffer* buffer = nullptr;
        {
            std::unique_lock<std::mutex> lock(handoff->mutex);
            handoff->changed.wait(lock, [&] { return handoff->stopped || handoff->full < kBufferCount; });
            if (handoff->stopped)
                return;
            buffer = &handoff->buffers[handoff->nextToFill];
        }
        int error = 0;
        const qint64 got = readFull(fd, buffer->data.get(), kBufferBytes, &error);
        if (got > 0)
            sourceHash->add(buffer->data.get(), got);
        {
            std::lock_guard<std::mutex> lock(handoff->mutex);
            if (got < 0) {
                handoff->readError = error;
            } else {
                buffer->size = got;
                if (got > 0) {
                    handoff->nextToFill = (handoff->nextToFill + 1) % kBufferCount;
                    ++handoff->full;
                }
                // A short read is the end of a regular file.
                if (got < kBufferBytes)
                    handoff->sourceEnded = true;
            }
        }
        handoff->changed.notify_all();
        if (got < kBufferBytes)
            return;
    }
}

// Runs the reading thread for as long as it lives; however the writer leaves, the reader is told to stop
// and waited for.
class ReaderThread
{
public:
    ReaderThread(int fd, Handoff* handoff, Hash* sourceHash)
        : m_handoff(handoff)
        , m_thread(readSource, fd, handoff, sourceHash)
    {
    }
    ~ReaderThread()
    {
        {
            std::lock_guard<std::mutex> lock(m_handoff->mutex);
            m_handoff->stopped = true;
        }
        m_handoff->changed.notify_all();
        m_thread.join();
    }
    ReaderThread(const ReaderThread&) = delete;
    ReaderThread& operator=(const ReaderThread&) = delete;

private:
    Handoff* m_handoff;
    std::thread m_thread;
};

// One copy from start to end. Every step returns false once the result holds a failure; run() then
// removes the file it created.
class CopyRun
{
public:
    CopyRun(const QString& source, const QString& destination, const VerifiedCopy::Options& options)
        : m_sourceName(QFile::encodeName(source))
        , m_destinationName(QFile::encodeName(destination))
        , m_destination(destination)
        , m_options(options)
    {
    }
    ~CopyRun()
    {
        closeDestination();
        if (m_sourceFd >= 0)
            ::close(m_sourceFd);
    }
    CopyRun(const CopyRun&) = delete;
    CopyRun& operator=(const CopyRun&) = delete;

    VerifiedCopy::Result run();

private:
    bool fail(Failure failure, const QString& reason);
    bool failRead(int error);
    bool failWrite(int error, const char* what);

    bool openSource();
    bool createDestination();
    bool clone(bool* cloned);
    bool hashClone();
    bool stream();
    bool writeAll(const char* data, qint64 size, Hash* copyHash);
    void addCopyBytes(Hash* copyHash, const char* data, qint64 size);
    bool reportProgress(qint64 done, bool last);
    bool compareHashes();
    bool syncDestination();
    int closeDestination();
    void removeDestination();

    const QByteArray m_sourceName;
    const QByteArray m_destinationName;
    const QString m_destination;
    const VerifiedCopy::Options& m_options;
    int m_sourceFd = -1;
    int m_destinationFd = -1;
    bool m_created = false; // a file at the destination is ours to remove
    qint64 m_total = 0; // the source's size when opened
    qint64 m_reported = -1; // the bytes done at the last progress call
    std::vector<char> m_scratch; // what the test hook changes instead of the written bytes
    VerifiedCopy::Result m_result;
};

VerifiedCopy::Result CopyRun::run()
{
    bool cloned = false;
    bool ok = openSource();
#ifdef __APPLE__
    // clonefile makes the copy's file itself, so it comes before the file is created for streaming.
    ok = ok && (!m_options.allowClone || clone(&cloned));
    ok = ok && (cloned || createDestination());
#else
    ok = ok && createDestination();
    ok = ok && (!m_options.allowClone || clone(&cloned));
#endif
    if (ok) {
        m_result.method = cloned ? VerifiedCopy::Method::Clone : VerifiedCopy::Method::Stream;
        ok = cloned ? hashClone() : stream();
    }
    ok = ok && reportProgress(m_result.bytes, true) && compareHashes() && syncDestination();
    if (!ok)
        removeDestination();
    return m_result;
}

bool CopyRun::fail(Failure failure, const QString& reason)
{
    m_result.failure = failure;
    m_result.reason = reason;
    return false;
}

bool CopyRun::failRead(int error)
{
    return fail(Failure::SourceUnreadable, QString("the card could not be read (%1)").arg(systemText(error)));
}

bool CopyRun::failWrite(int error, const char* what)
{
    if (CardAccess::isFullError(error))
        return fail(Failure::DestinationFull, QStringLiteral("the destination is full"));
    return fail(Failure::DestinationFailed,
        QString("the copy could not be %1 (%2)").arg(QLatin1String(what), systemText(error)));
}

bool CopyRun::openSource()
{
    const int flags = O_RDONLY | O_CLOEXEC;
#ifdef O_NOATIME
    // Reading leaves the card's access times alone where the system allows it (the file's owner or root).
    m_sourceFd = ::open(m_sourceName.constData(), flags | O_NOATIME);
    if (m_sourceFd < 0 && errno == EPERM)
        m_sourceFd = ::open(m_sourceName.constData(), flags);
#else
    m_sourceFd = ::open(m_sourceName.constData(), flags);
#endif
    if (m_sourceFd < 0)
        return failRead(errno);
    struct stat status;
    if (::fstat(m_sourceFd, &status) != 0)
        return failRead(errno);
    if (S_ISDIR(status.st_mode))
        return failRead(EISDIR);
    if (!S_ISREG(status.st_mode))
        return fail(Failure::SourceUnreadable, QStringLiteral("the card could not be read (not a file)"));
    m_total = qint64(status.st_size);
    return true;
}

bool CopyRun::createDestination()
{
    m_destinationFd
        = ::open(m_destinationName.constData(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, 0644);
    if (m_destinationFd < 0) {
        if (errno == EEXIST)
            return fail(Failure::DestinationExists, QString("%1 already exists").arg(m_destination));
        return failWrite(errno, "created");
    }
    m_created = true;
    return true;
}

// Shares the source's blocks with the copy where the file system can. A file system that cannot (another
// file system, no clones, a kind of file it will not clone) leaves *cloned false and the copy is streamed
// instead, as it is after any other refusal: streaming meets whatever is really wrong and says it in its
// own words. Only a destination out of room fails here.
bool CopyRun::clone(bool* cloned)
{
#if defined(__linux__)
    if (::ioctl(m_destinationFd, FICLONE, m_sourceFd) == 0) {
        *cloned = true;
        return true;
    }
    if (CardAccess::isFullError(errno))
        return failWrite(errno, "written");
    return true;
#elif defined(__APPLE__)
    if (::fclonefileat(m_sourceFd, AT_FDCWD, m_destinationName.constData(), 0) != 0) {
        if (errno == EEXIST)
            return fail(Failure::DestinationExists, QString("%1 already exists").arg(m_destination));
        if (CardAccess::isFullError(errno))
            return failWrite(errno, "written");
        return true;
    }
    m_created = true;
    // The clone carries the source's permissions, perhaps read-only; the copy is read back and synced
    // through this descriptor and gets the mode a streamed copy is created with.
    m_destinationFd = ::open(m_destinationName.constData(), O_RDONLY | O_CLOEXEC);
    if (m_destinationFd < 0)
        return failWrite(errno, "read back");
    ::fchmod(m_destinationFd, 0644);
    *cloned = true;
    return true;
#else
    Q_UNUSED(cloned);
    return true;
#endif
}

// A clone holds no bytes of its own to hash as they are written. Where the file system shows every block
// of it shared with the source, its bytes are the source's: only the source is read and hashed. Otherwise
// the source and the copy are both read, piece by piece, and hashed.
bool CopyRun::hashClone()
{
    const bool readBack
        = m_options.readBackClones || !SharedBlocks::everyBlockShared(m_sourceFd, m_destinationFd);
    m_result.sharedBlocks = !readBack;
    adviseSequential(m_sourceFd);
    if (readBack)
        adviseSequential(m_destinationFd);
    std::unique_ptr<char[]> sourceBytes(new char[kBufferBytes]);
    std::unique_ptr<char[]> copyBytes(readBack ? new char[kBufferBytes] : nullptr);
    Hash sourceHash;
    Hash copyHash;
    for (;;) {
        int error = 0;
        const qint64 got = readFull(m_sourceFd, sourceBytes.get(), kBufferBytes, &error);
        if (got < 0)
            return failRead(error);
        sourceHash.add(sourceBytes.get(), got);
        qint64 back = 0;
        if (readBack) {
            back = readFull(m_destinationFd, copyBytes.get(), kBufferBytes, &error);
            if (back < 0)
                return failWrite(error, "read back");
            addCopyBytes(&copyHash, copyBytes.get(), back);
        }
        m_result.bytes += got;
        m_result.sourceHash = sourceHash.value();
        m_result.copyHash = readBack ? copyHash.value() : m_result.sourceHash;
        if (got == 0 && back == 0)
            return true;
        if (!reportProgress(m_result.bytes, false))
            return false;
    }
}

// The source is read and hashed on a second thread while this one writes what was read before, so
// reading and writing (each with its hashing) overlap.
bool CopyRun::stream()
{
    // Whatever a refused clone may have left goes; the copy starts empty.
    if (::ftruncate(m_destinationFd, 0) != 0 || ::lseek(m_destinationFd, 0, SEEK_SET) != 0)
        return failWrite(errno, "written");
    adviseSequential(m_sourceFd);
    Hash sourceHash;
    Hash copyHash;
    Handoff handoff;
    bool ok = true;
    {
        ReaderThread reader(m_sourceFd, &handoff, &sourceHash);
        while (ok) {
            Handoff::Buffer* buffer = nullptr;
            {
                std::unique_lock<std::mutex> lock(handoff.mutex);
                handoff.changed.wait(
                    lock, [&] { return handoff.full > 0 || handoff.sourceEnded || handoff.readError != 0; });
                if (handoff.readError != 0) {
                    ok = failRead(handoff.readError);
                    break;
                }
                if (handoff.full == 0)
                    break; // the source ended and all of it is written
                buffer = &handoff.buffers[handoff.nextToWrite];
            }
            // Read before the buffer goes back: the reader refills it (and its size) at once.
            const qint64 size = buffer->size;
            ok = writeAll(buffer->data.get(), size, &copyHash);
            {
                std::lock_guard<std::mutex> lock(handoff.mutex);
                handoff.nextToWrite = (handoff.nextToWrite + 1) % kBufferCount;
                --handoff.full;
            }
            handoff.changed.notify_all();
            if (ok) {
                m_result.bytes += size;
                ok = reportProgress(m_result.bytes, false);
            }
        }
    } // the reader has ended here: its hash is complete
    m_result.sourceHash = sourceHash.value();
    m_result.copyHash = copyHash.value();
    return ok;
}

// Writes all of `data`, through short writes and interruptions, hashing each piece the copy took.
bool CopyRun::writeAll(const char* data, qint64 size, Hash* copyHash)
{
    qint64 written = 0;
    while (written < size) {
        const ssize_t put = ::write(m_destinationFd, data + written, size_t(size - written));
        if (put < 0) {
            if (errno == EINTR)
                continue;
            return failWrite(errno, "written");
        }
        if (put == 0)
            return fail(Failure::DestinationFailed,
                QStringLiteral("the copy could not be written (the destination took no bytes)"));
        addCopyBytes(copyHash, data + written, put);
        written += put;
    }
    return true;
}

// Hashes bytes as the copy's. Only when a test hook is set are they copied first, for the hook to change.
void CopyRun::addCopyBytes(Hash* copyHash, const char* data, qint64 size)
{
    if (!m_options.corruptCopyHashInput || size == 0) {
        copyHash->add(data, size);
        return;
    }
    m_scratch.assign(data, data + size);
    m_options.corruptCopyHashInput(m_scratch.data(), size);
    copyHash->add(m_scratch.data(), size);
}

// Tells the callback how far the copy is, at most once per kProgressStep and once at the end (`last`),
// never the same count twice. The total is the source's size as opened, or at the end the bytes copied.
bool CopyRun::reportProgress(qint64 done, bool last)
{
    if (!m_options.progress || done == m_reported)
        return true;
    if (!last && done - std::max<qint64>(m_reported, 0) < kProgressStep)
        return true;
    m_reported = done;
    if (m_options.progress(done, last ? done : std::max(m_total, done)))
        return true;
    return fail(Failure::Cancelled, QStringLiteral("the copy was cancelled"));
}

bool CopyRun::compareHashes()
{
    if (m_result.sourceHash == m_result.copyHash)
        return true;
    return fail(Failure::HashMismatch,
        QString("the copy does not match the card (xxh64 %1 on the card, %2 in the copy)")
            .arg(VerifiedCopy::hashText(m_result.sourceHash), VerifiedCopy::hashText(m_result.copyHash)));
}

bool CopyRun::syncDestination()
{
    if (!StableStorage::syncHandle(m_destinationFd))
        return failWrite(errno, "synced");
    // Some file systems (network ones) report a failed write only when the file is closed.
    if (closeDestination() != 0 && errno != EINTR)
        return failWrite(errno, "written");
    return true;
}

int CopyRun::closeDestination()
{
    if (m_destinationFd < 0)
        return 0;
    const int closed = ::close(m_destinationFd);
    m_destinationFd = -1;
    return closed;
}

void CopyRun::removeDestination()
{
    closeDestination();
    if (m_created)
        ::unlink(m_destinationName.constData());
    m_created = false;
}

} // namespace

VerifiedCopy::Result VerifiedCopy::copy(
    const QString& source, const QString& destination, const Options& options)
{
    CopyRun run(source, destination, options);
    return run.run();
}

QString VerifiedCopy::hashText(quint64 hash)
{
    return QString("%1").arg(hash, 16, 16, QLatin1Char('0'));
}
