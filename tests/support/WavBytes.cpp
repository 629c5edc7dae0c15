#include "support/WavBytes.h"

#include "support/TestSupport.h"

using TestSupport::le;

namespace WavBytes {

QByteArray chunk(const char* id, const QByteArray& payload, qint64 sizeField)
{
    return QByteArray(id, 4) + le(quint64(sizeField < 0 ? payload.size() : sizeField), 4) + payload;
}

QByteArray riff(const QByteArray& chunks, qint64 riffSize, const char* form)
{
    return "RIFF" + le(quint64(riffSize < 0 ? chunks.size() + 4 : riffSize), 4) + QByteArray(form, 4)
        + chunks;
}

QByteArray fmtPayload(quint16 tag, quint16 channels, quint32 rate, quint16 bits)
{
    const quint16 align = quint16(channels * ((bits + 7) / 8));
    return le(tag, 2) + le(channels, 2) + le(rate, 4) + le(rate * align, 4) + le(align, 2) + le(bits, 2);
}

QByteArray bextPayload(const QByteArray& description, quint64 timeReference)
{
    QByteArray out = description.leftJustified(256, '\0', true);
    out += QByteArray("Originator").leftJustified(32, '\0') + QByteArray(32, '\0');
    out += "2024-01-02" + QByteArray("10:11:12");
    out += le(timeReference, 8) + le(1, 2) + QByteArray(64 + 190, '\0');
    return out;
}

QByteArray mpegFmtPayload(quint16 channels, quint32 rate, quint16 extensionSize, quint16 layer)
{
    return fmtPayload(80, channels, rate, 0) + le(extensionSize, 2) + le(0, 2) + le(layer, 2)
        + QByteArray(22, '\0');
}

QByteArray spaces(int n)
{
    return QByteArray(n, ' ');
}

QByteArray pcmBytes(int count)
{
    QByteArray out;
    for (int i = 0; i < count; ++i)
        out.append(char((i * 37 + 11) & 0xFF));
    return out;
}

} // namespace WavBytes
