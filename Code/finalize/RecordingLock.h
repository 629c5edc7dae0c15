#pragma once

#include <QString>

// An advisory lock on one recording, held for as long as this object lives, so that two runs on one
// card (two windows, a window and clipward-cli, two clipward-cli) never work on the same file at once.
// A finalize run locks exclusively from before it reads the header until after the rename; a scan-only
// run locks shared, so scans do not stand in each other's way. The lock is taken without waiting: a
// recording another run holds is left to that run.
//
// Linux and macOS: flock() on a descriptor of the file, which other processes' flock() respect and
// which follows the file through its rename. Windows: LockFileEx on a handle shared for renaming.
class RecordingLock
{
public:
    enum class Mode { Shared, Exclusive };
    enum class State {
        Held, // this run holds the lock; the path still names the locked file
        InUse, // another run holds it
        Gone, // nothing is at the path any more (renamed or removed since the folder was listed)
        Unreadable, // the file cannot be opened even for reading
    };

    RecordingLock(const QString& path, Mode mode);
    ~RecordingLock();
    RecordingLock(const RecordingLock&) = delete;
    RecordingLock& operator=(const RecordingLock&) = delete;

    State state() const { return m_state; }
    bool held() const { return m_state == State::Held; }

private:
    void release();

    State m_state = State::Unreadable;
#ifdef _WIN32
    void* m_handle = nullptr;
#else
    int m_fd = -1;
#endif
};
