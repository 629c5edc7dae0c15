#pragma once

#include "movie/QuickTimeBufferDevice.h"

#include <QByteArray>
#include <QDataStream>
#include <QtEndian>

namespace Tern {

// Receives the entries of a big table in batches. Through the library's buffered device the batch is
// built in the device's own buffer and flushed, with no stream call per entry; any other device gets
// each batch from a scratch buffer of the same size.
class TableBatch
{
public:
    TableBatch(QDataStream& stream, int entryBytes)
        : m_stream(stream)
        , m_device(qobject_cast<QuickTimeBufferDevice*>(stream.device()))
        , m_entryBytes(entryBytes)
    {
        if (m_device) {
            m_device->flushBuffer();
            m_slots = m_device->bufferData();
            m_capacity = m_device->bufferSize() / entryBytes;
        } else {
            m_scratch.resize(QuickTimeBufferDevice::s_bufferSize);
            m_slots = m_scratch.data();
            m_capacity = m_scratch.size() / entryBytes;
        }
    }

    int capacity() const { return m_capacity; }

    void put16(int slot, quint16 value) { qToBigEndian<quint16>(value, m_slots + slot * m_entryBytes); }
    void put32(int slot, quint32 value) { qToBigEndian<quint32>(value, m_slots + slot * m_entryBytes); }
    void put64(int slot, quint64 value) { qToBigEndian<quint64>(value, m_slots + slot * m_entryBytes); }
    // For a table of 16-bit entries: `count` values from `values`, from `slot` on, in one plain loop.
    void put16Run(int slot, const quint16* values, int count)
    {
        uchar* out = reinterpret_cast<uchar*>(m_slots + slot * m_entryBytes);
        for (int i = 0; i < count; ++i) {
            out[2 * i] = uchar(values[i] >> 8);
            out[2 * i + 1] = uchar(values[i]);
        }
    }
    quint64 get64(int slot) const { return qFromBigEndian<quint64>(m_slots + slot * m_entryBytes); }
    QuickTimeBufferDevice* bufferDevice() const { return m_device; }

    void endBatch(int entries)
    {
        const int bytes = entries * m_entryBytes;
        if (m_device) {
            m_device->addToFill(bytes); // not once the device has latched an error
            m_device->flushBuffer();
        } else {
            m_stream.writeRawData(m_scratch.constData(), bytes);
        }
    }

private:
    QDataStream& m_stream;
    QuickTimeBufferDevice* m_device;
    QByteArray m_scratch;
    char* m_slots = nullptr;
    int m_entryBytes;
    int m_capacity = 0;
};

} // namespace Tern
