#include "finalize/CardFile.h"

#include "finalize/CardAccess.h"
#include "movie/QuickTimeFile.h"

#include <cerrno>
#include <cstring>

qint64 CardFile::readData(char* data, qint64 maxSize)
{
    errno = 0;
    const qint64 read = QFile::readData(data, maxSize);
    if (read < 0)
        noteFailure(errno, QStringLiteral("read"));
    return read;
}

qint64 CardFile::writeData(const char* data, qint64 len)
{
    errno = 0;
    const qint64 written = QFile::writeData(data, len);
    // A write cut short returns what fitted and leaves the system's reason in errno.
    if (written < len)
        noteFailure(errno, QStringLiteral("written"));
    return written;
}

void CardFile::noteFailure(int systemError, const QString& what)
{
    if (!m_mediumFailure.isEmpty())
        return;
    // Only what the card or the system answers counts; a refusal the recording's own values cause (a seek
    // to an offset no file reaches, EINVAL) stays the recording's failure. A write that would grow the
    // file past the largest the file system or the process may hold (EFBIG: a FAT32 card's 4 GiB, a
    // size limit) is the card's: the same take finishes where it fits.
    if (CardAccess::isFullError(systemError)) {
        m_mediumFailure = QStringLiteral("the card is full");
        return;
    }
    switch (systemError) {
    case EFBIG:
        m_mediumFailure = tooLargeReason();
        break;
    case EROFS:
        m_mediumFailure = CardAccess::reasonText(CardAccess::WriteBlock::DriveWriteProtected);
        break;
    case EACCES:
    case EPERM:
        m_mediumFailure = CardAccess::reasonText(CardAccess::WriteBlock::FileNotWritable);
        break;
    case EIO:
#ifdef ENXIO
    case ENXIO:
#endif
#ifdef ENODEV
    case ENODEV:
#endif
        m_mediumFailure = QStringLiteral("the card could not be %1 (%2)")
                              .arg(what, QString::fromLocal8Bit(std::strerror(systemError)));
        break;
    default:
        break;
    }
}

QString CardFile::tooLargeReason()
{
    return QStringLiteral("the finished file would be larger than the card allows");
}

QString CardFile::failedCloseReason(const Tern::QuickTimeFile& movie)
{
    if (movie.spaceShortfall() > 0)
        return QStringLiteral("the card needs %1 more bytes free").arg(movie.spaceShortfall());
    if (!movie.syncFailure().isEmpty())
        return QStringLiteral("the card could not be written (%1)").arg(movie.syncFailure());
    return QString();
}

void CardFile::noteFailedClose(const Tern::QuickTimeFile& movie)
{
    if (m_mediumFailure.isEmpty())
        m_mediumFailure = failedCloseReason(movie);
}
