#include "movie/QuickTimeBufferDevice.h"

#include <QtDebug>

#include <cstring>

namespace Tern {

QuickTimeBufferDevice::QuickTimeBufferDevice(QIODevice* target, QObject* parent)
    : QIODevice(parent)
    , m_buffer(s_bufferSize, '\0')
    , m_bufferSize(s_bufferSize)
    , m_fill(0)
    , m_target(target)
{
}

QuickTimeBufferDevice::~QuickTimeBufferDevice()
{
    flushBuffer();
}

void QuickTimeBufferDevice::flushBuffer()
{
    if (m_fill <= 0)
        return;
    // A short write is a failed one too: what did not fit (a full disk) is lost.
    if (m_target->write(m_buffer.constData(), m_fill) != m_fill) {
        logDeviceError("*** QuickTime***BufferDevice encountered HDD error, dumping subsequent writes (%d)");
        m_fill = -1;
        return;
    }
    m_fill = 0;
}

void QuickTimeBufferDevice::logDeviceError(const char* format) const
{
    // The message, then the target's own error text in quotes.
    qWarning() << qPrintable(QString::asprintf(format, m_fill)) << m_target->errorString();
}

qint64 QuickTimeBufferDevice::pos() const
{
    return m_target->pos() + m_fill;
}

char* QuickTimeBufferDevice::bufferData()
{
    return m_buffer.data(); // non-const access detaches a shared buffer
}

void QuickTimeBufferDevice::addToFill(int bytes)
{
    if (m_fill >= 0)
        m_fill += bytes;
}

bool QuickTimeBufferDevice::writeAhead(qint64 position, const char* data, int len)
{
    flushBuffer();
    if (m_fill < 0)
        return false;
    const qint64 back = m_target->pos();
    if (!growTargetTo(qMax(position + len, m_finalLength)) || !m_target->seek(position)
        || m_target->write(data, len) != len || !m_target->seek(back)) {
        logDeviceError("*** QuickTime***BufferDevice encountered HDD error, dumping subsequent writes (%d)");
        m_fill = -1;
        return false;
    }
    return true;
}

bool QuickTimeBufferDevice::growTargetTo(qint64 length)
{
    const qint64 end = m_target->size();
    if (end >= length)
        return true;
    if (!m_target->seek(end))
        return false;
    const QByteArray zeros(int(qMin<qint64>(length - end, 1 << 20)), '\0');
    for (qint64 left = length - end; left > 0;) {
        const int piece = int(qMin<qint64>(left, zeros.size()));
        if (m_target->write(zeros.constData(), piece) != piece)
            return false;
        left -= piece;
    }
    return true;
}

bool QuickTimeBufferDevice::skipWritten(qint64 bytes)
{
    flushBuffer();
    if (m_fill < 0)
        return false;
    if (!m_target->seek(m_target->pos() + bytes)) {
        logDeviceError("*** QuickTime***BufferDevice encountered HDD error, dumping subsequent writes (%d)");
        m_fill = -1;
        return false;
    }
    return true;
}

qint64 QuickTimeBufferDevice::readData(char*, qint64)
{
    return -1; // write only
}

qint64 QuickTimeBufferDevice::writeData(const char* data, qint64 len)
{
    if (m_fill < 0)
        return -1;
    if (quint32(len) == 0)
        return len;
    // The common case, a field of a few bytes with room to spare behind it: one copy and no flush. The
    // index writes millions of these (the maker atom's frame list goes out entry by entry).
    if (len < qint64(m_bufferSize - m_fill)) {
        std::memcpy(m_buffer.data() + m_fill, data, size_t(len));
        m_fill += int(len);
        return len;
    }

    char* buffer = m_buffer.data();
    qint64 remaining = len;
    while (remaining > 0) {
        const int piece = int(qMin(remaining, qint64(m_bufferSize - m_fill)));
        std::memcpy(buffer + m_fill, data, size_t(piece));
        data += piece;
        remaining -= piece;
        m_fill += piece;
        if (m_fill == m_bufferSize) {
            m_fill = 0;
            if (m_target->write(m_buffer.constData(), m_bufferSize) != m_bufferSize) {
                logDeviceError(
                    "!!! QuickTimeBufferDevice encountered HDD error, dumping subsequent writes (%d)");
                m_fill = -1;
                return -1;
            }
        }
    }
    return len;
}

} // namespace Tern
