#pragma once

#include <QString>
#include <QtGlobal>

#include <functional>

// A copy of a recording off a card, checked by hash: the source is only ever opened for reading, the copy
// is created new (never over an existing file) and synced before copy() returns. Where the destination's
// file system can share the source's blocks (a clone: FICLONE on Linux, clonefile on macOS) the copy is a
// clone; otherwise the bytes are streamed through large buffers. Either way the source is hashed as it is
// read, with xxHash64, and the copy stands only when its bytes are shown to be the same: a streamed copy
// is hashed as it is written (reading on a second thread while it writes); a clone whose every block the
// file system shows shared with the source's is those very bytes (SharedBlocks), and any other clone is
// read back and hashed.
class VerifiedCopy
{
public:
    enum class Method {
        Clone,  // the file system shares the source's blocks with the copy
        Stream, // the bytes were read and written
    };

    enum class Failure {
        None,
        SourceUnreadable,    // the source could not be opened or read (the card)
        DestinationExists,   // something is at the destination already (nothing was written)
        DestinationFull,     // the destination ran out of room
        DestinationFailed,   // the destination refused to create, write or sync the copy
        HashMismatch,        // the copy does not hash as the source did
        Cancelled,           // the progress callback asked to stop
    };

    struct Result
    {
        Failure failure = Failure::None;
        QString reason;          // in words, for every failure ("the destination is full", ...)
        Method method = Method::Stream;
        qint64 bytes = 0;        // the source's size
        quint64 sourceHash = 0;  // xxHash64 (seed 0) of the source's bytes as read
        quint64 copyHash = 0;    // the same of the copy's bytes (a clone sharing every block: the source's)
        bool sharedBlocks = false; // a clone shown to share every block with the source, so not read back
        bool ok() const { return failure == Failure::None; }
    };

    // Called as the copy goes, on the thread that called copy(): bytes done of the total, at most once per
    // 64 MiB and once at the end (then done == total). Returning false stops the copy (Cancelled).
    using Progress = std::function<bool(qint64 done, qint64 total)>;

    struct Options
    {
        bool allowClone = true; // false: always stream (the same bytes, slower)
        bool readBackClones = false; // true: read a clone back even where it shares every block
        Progress progress;
        // For tests: changes the bytes hashed as the copy's before they are hashed, to show that a copy
        // which does not hash as its source fails.
        std::function<void(char* data, qint64 size)> corruptCopyHashInput;
    };

    // Copies `source` to a new file at `destination`. On any failure no file is left at `destination`.
    static Result copy(const QString& source, const QString& destination, const Options& options);

    // The hash as the report writes it: 16 lower-case hexadecimal digits.
    static QString hashText(quint64 hash);
};
