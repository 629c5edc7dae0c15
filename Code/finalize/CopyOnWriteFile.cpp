#include "finalize/CopyOnWriteFile.h"

#include "finalize/CardFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

CopyOnWriteFile::CopyOnWriteFile(const QString& path)
    : QFile(path)
    , m_original(path)
{
}

CopyOnWriteFile::~CopyOnWriteFile()
{
    close();
}

bool CopyOnWriteFile::openView()
{
    // Unbuffered: every read comes through readData, so no byte of the file hides a written one.
    if (!m_original.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return false;
    if (!QFile::open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        m_original.close();
        return false;
    }
    setOpenMode(QIODevice::ReadWrite | QIODevice::Unbuffered);
    m_size = m_original.size();
    m_originalEnd = m_size;
    m_pages.clear();
    m_changed = false;
    m_readFailure.clear();
    m_writeFailure.clear();
    return true;
}

void CopyOnWriteFile::close()
{
    if (isOpen())
        QFile::close();
    m_original.close();
    m_pages.clear();
}

bool CopyOnWriteFile::seek(qint64 offset)
{
    if (offset < 0)
        return false;
    // Past the end, only where the file system lets the file's own descriptor go (a read-only seek moves
    // nothing but that descriptor).
    if (offset > m_size && !m_original.seek(offset))
        return false;
    return QIODevice::seek(offset);
}

bool CopyOnWriteFile::atEnd() const
{
    return pos() >= m_size;
}

qint64 CopyOnWriteFile::size() const
{
    return m_size;
}

bool CopyOnWriteFile::resize(qint64 newSize)
{
    if (newSize < 0)
        return false;
    m_changed = true;
    if (newSize < m_size) {
        // Pages wholly behind the new end go; the one it falls in keeps zeros behind it, as a file grown
        // again later reads.
        const qint64 lastPage = newSize / s_pageBytes;
        for (auto it = m_pages.begin(); it != m_pages.end();) {
            if (it.key() > lastPage) {
                it = m_pages.erase(it);
                continue;
            }
            if (it.key() == lastPage) {
                const int keep = int(newSize - lastPage * s_pageBytes);
                std::memset(it.value().data() + keep, 0, size_t(s_pageBytes - keep));
            }
            ++it;
        }
        m_originalEnd = qMin(m_originalEnd, newSize);
    }
    m_size = newSize;
    if (pos() > newSize)
        QIODevice::seek(newSize);
    return true;
}

bool CopyOnWriteFile::readOriginal(qint64 offset, char* into, qint64 length)
{
    errno = 0;
    if (!m_original.seek(offset) || m_original.read(into, length) != length) {
        if (m_readFailure.isEmpty())
            m_readFailure
                = errno != 0 ? QString::fromLocal8Bit(std::strerror(errno)) : m_original.errorString();
        return false;
    }
    return true;
}

qint64 CopyOnWriteFile::readData(char* data, qint64 maxSize)
{
    const qint64 start = pos();
    const qint64 length = qMin(maxSize, m_size - start);
    qint64 done = 0;
    while (done < length) {
        const qint64 at = start + done;
        const qint64 page = at / s_pageBytes;
        const qint64 inPage = at - page * s_pageBytes;
        const qint64 piece = qMin(length - done, s_pageBytes - inPage);
        const auto written = m_pages.constFind(page);
        if (written != m_pages.constEnd()) {
            std::memcpy(data + done, written.value().constData() + inPage, size_t(piece));
        } else {
            const qint64 fromOriginal = qBound<qint64>(0, m_originalEnd - at, piece);
            if (fromOriginal > 0 && !readOriginal(at, data + done, fromOriginal))
                return done > 0 ? done : -1;
            std::memset(data + done + fromOriginal, 0, size_t(piece - fromOriginal));
        }
        done += piece;
    }
    return done;
}

QByteArray* CopyOnWriteFile::pageForWrite(qint64 page)
{
    auto found = m_pages.find(page);
    if (found != m_pages.end())
        return &found.value();
    QByteArray bytes(int(s_pageBytes), '\0');
    const qint64 begin = page * s_pageBytes;
    const qint64 fromOriginal = qBound<qint64>(0, m_originalEnd - begin, s_pageBytes);
    if (fromOriginal > 0 && !readOriginal(begin, bytes.data(), fromOriginal))
        return nullptr;
    return &m_pages.insert(page, bytes).value();
}

qint64 CopyOnWriteFile::writeData(const char* data, qint64 len)
{
    const qint64 start = pos();
    // The file system lets a descriptor go as far as the largest file it holds, and no further.
    if (start + len > m_size && !m_original.seek(start + len)) {
        if (m_writeFailure.isEmpty())
            m_writeFailure = CardFile::tooLargeReason();
        return -1;
    }
    qint64 done = 0;
    while (done < len) {
        const qint64 at = start + done;
        const qint64 page = at / s_pageBytes;
        const qint64 inPage = at - page * s_pageBytes;
        const qint64 piece = qMin(len - done, s_pageBytes - inPage);
        // Zeros into a page not yet written and wholly behind the file's bytes change nothing a read sees
        // (a finish grows its file by zeros before it writes tables ahead of its stream).
        const bool zeros = page * s_pageBytes >= m_originalEnd && !m_pages.contains(page)
            && std::all_of(data + done, data + done + piece, [](char c) { return c == 0; });
        if (!zeros) {
            QByteArray* bytes = pageForWrite(page);
            if (!bytes)
                return done > 0 ? done : -1;
            std::memcpy(bytes->data() + inPage, data + done, size_t(piece));
        }
        done += piece;
    }
    m_changed = true;
    m_size = qMax(m_size, start + len);
    return len;
}

qint64 CopyOnWriteFile::readLineData(char* data, qint64 maxSize)
{
    // The file's own line reading would go around the view.
    return QIODevice::readLineData(data, maxSize);
}
