#pragma once

#include <QByteArray>
#include <QFile>
#include <QHash>
#include <QString>

// A recording opened read-only, seen through a view that takes writes and size changes in memory: reads
// give the file's bytes where nothing was written, the written bytes elsewhere, and zeros past the file's
// end. A finish run on it does everything it does on the card and leaves the file as it was, so what it
// would produce can be read back before anything is changed.
//
// It is a QFile because the movie library asks its device for what only files have: the size a failed
// finish cuts back to and the unfinished index a killed finish left (resize), the free room on the card
// (the file's name), and a sync (flush and the system's descriptor). Those are answered as for the file
// itself: a resize changes the view, the room is the card's, and a sync flushes the recording's read-only
// descriptor, which POSIX systems accept and which changes nothing (Windows refuses to flush a read-only
// handle: there a prediction would end in a sync the card refused). A position the file system would not
// let the file reach is refused here too, and so is a write that would grow the file past the largest the
// file system holds, so a finish sent there fails as it would on the card.
class CopyOnWriteFile : public QFile
{
public:
    explicit CopyOnWriteFile(const QString& path);
    ~CopyOnWriteFile() override;

    // Opens the file read-only and the view read-write. False when the file cannot be read.
    bool openView();
    // Why a read of the file itself failed (the system's words); empty while none did.
    QString readFailure() const { return m_readFailure; }
    // Set when a write would have grown the file past the largest the file system holds (a FAT32 card's
    // 4 GiB), which the card refuses: the words a run's line gives that.
    QString writeFailure() const { return m_writeFailure; }
    // Whether anything was written or resized through the view.
    bool changed() const { return m_changed; }

    bool isSequential() const override { return false; }
    bool seek(qint64 offset) override;
    bool atEnd() const override;
    qint64 size() const override;
    bool resize(qint64 size) override;
    void close() override;

protected:
    qint64 readData(char* data, qint64 maxSize) override;
    qint64 writeData(const char* data, qint64 len) override;
    qint64 readLineData(char* data, qint64 maxSize) override;

private:
    static constexpr qint64 s_pageBytes = 64 * 1024;

    // Bytes [offset, offset + length) of the file itself, within one page; false when the read failed.
    bool readOriginal(qint64 offset, char* into, qint64 length);
    // The page holding `offset`, filled from the file the first time it is written.
    QByteArray* pageForWrite(qint64 page);

    QFile m_original; // the reads of the file's own bytes
    QHash<qint64, QByteArray> m_pages; // written pages by number, each s_pageBytes long
    qint64 m_size = 0; // the view's size
    qint64 m_originalEnd = 0; // the file's bytes show up to here; a cut-back view shows zeros behind it
    bool m_changed = false;
    QString m_readFailure;
    QString m_writeFailure;
};
