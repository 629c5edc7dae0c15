#pragma once

#include <QFile>
#include <QString>

namespace Tern {
class QuickTimeFile;
}

// The recording's file as a finalize procedure opens it, remembering the first transfer the medium
// refused. QFile's own error is cleared by every later successful seek or resize (and the finish cuts
// back what it appended after a failure), and a write cut short by a full disk sets none; so the reason
// is caught where it happens, to tell a full or failing card from a take that cannot be finished.
class CardFile : public QFile
{
public:
    using QFile::QFile;

    // Opens the file to change it in place: read-write and unbuffered (a failing write fails where it
    // happens, not in a hidden buffer flushed later); a file that vanished since the walk listed it is not
    // created anew.
    bool openToChange() { return open(ReadWrite | Unbuffered | ExistingOnly); }

    // Why the card or the system refused a transfer ("the card is full", ...); empty while none was.
    QString mediumFailure() const { return m_mediumFailure; }

    // Takes over what a failed close of `movie` learned of the card: the room the index lacked (nothing
    // was written then) or a sync the disk refused.
    void noteFailedClose(const Tern::QuickTimeFile& movie);
    // What a failed close of `movie` learned of the card, in the report's words; empty when nothing.
    static QString failedCloseReason(const Tern::QuickTimeFile& movie);
    // A write the file system refused for the file's size (a FAT32 card's 4 GiB, a process limit).
    static QString tooLargeReason();

protected:
    qint64 readData(char* data, qint64 maxSize) override;
    qint64 writeData(const char* data, qint64 len) override;

private:
    void noteFailure(int systemError, const QString& what);

    QString m_mediumFailure;
};
