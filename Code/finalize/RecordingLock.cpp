#include "finalize/RecordingLock.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <QFile>

#ifdef _WIN32

RecordingLock::RecordingLock(const QString& path, Mode mode)
{
    const std::wstring name = path.toStdWString();
    // Shared for reading, writing and deleting: the procedure opens the file again and renames it while
    // this handle stays open.
    HANDLE handle
        = CreateFileW(name.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
            nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        m_state = error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? State::Gone
                                                                                 : State::Unreadable;
        return;
    }
    m_handle = handle;
    OVERLAPPED whole = {};
    const DWORD flags = LOCKFILE_FAIL_IMMEDIATELY | (mode == Mode::Exclusive ? LOCKFILE_EXCLUSIVE_LOCK : 0);
    if (!LockFileEx(handle, flags, 0, MAXDWORD, MAXDWORD, &whole)) {
        m_state = GetLastError() == ERROR_LOCK_VIOLATION ? State::InUse : State::Unreadable;
        release();
        return;
    }
    m_state = State::Held;
}

void RecordingLock::release()
{
    if (m_handle) {
        CloseHandle(static_cast<HANDLE>(m_handle)); // closing the handle releases its lock
        m_handle = nullptr;
    }
}

#else

RecordingLock::RecordingLock(const QString& path, Mode mode)
{
    const QByteArray name = QFile::encodeName(path);
    m_fd = ::open(name.constData(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (m_fd < 0) {
        m_state = errno == ENOENT || errno == ENOTDIR ? State::Gone : State::Unreadable;
        return;
    }
    int locked;
    do
        locked = ::flock(m_fd, (mode == Mode::Exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB);
    while (locked != 0 && errno == EINTR);
    if (locked != 0 && errno == EWOULDBLOCK) {
        m_state = State::InUse;
        release();
        return;
    }
    // A file system without locks (ENOLCK, EOPNOTSUPP) is worked on unlocked, as before locks existed.
    // The file may have been finished and renamed by another run between our open and our lock, and
    // something else may stand at the path now: the lock counts only while the path names what we locked.
    struct stat locked_file;
    struct stat at_path;
    if (::fstat(m_fd, &locked_file) != 0 || ::stat(name.constData(), &at_path) != 0
        || locked_file.st_dev != at_path.st_dev || locked_file.st_ino != at_path.st_ino) {
        m_state = State::Gone;
        release();
        return;
    }
    m_state = State::Held;
}

void RecordingLock::release()
{
    if (m_fd >= 0) {
        ::close(m_fd); // closing the only descriptor releases its flock
        m_fd = -1;
    }
}

#endif

RecordingLock::~RecordingLock()
{
    release();
}
