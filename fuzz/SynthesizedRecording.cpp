#include "SynthesizedRecording.h"

#include "simulate/RecordingSimulator.h"

#include <algorithm>
#include <cstring>

namespace {

const int kMinimumPatternBytes = 4096;

// Copies the part of [sourcePos, sourcePos + sourceSize) that lies in [pos, pos + n) into out.
void copyOverlap(qint64 sourcePos, const char* source, qint64 sourceSize, qint64 pos, char* out, qint64 n)
{
    const qint64 begin = std::max(sourcePos, pos);
    const qint64 end = std::min(sourcePos + sourceSize, pos + n);
    if (begin < end)
        std::memcpy(out + (begin - pos), source + (begin - sourcePos), size_t(end - begin));
}

} // namespace

SynthesizedRecording::SynthesizedRecording(Family family, const QByteArray& record,
    const QByteArray& frameMap, qint64 mapBytes, qint64 mediaBytes, qint64 writeCapacity, qint64 keptBytes)
    : m_family(family)
    , m_mapPos(family->recoveryFrameMapPos)
    , m_map(frameMap.left(int(std::min<qint64>(frameMap.size(), s_frameMapBytes))))
    , m_mediaBytes(mediaBytes)
    , m_keptBytes(keptBytes)
    , m_writeCapacity(writeCapacity)
{
    m_head = recordingRegionHead(*family, int(family->recoverySettingsPos));
    m_head.append(record.left(recordSize(family)));
    m_head.append(QByteArray(int(m_mapPos - m_head.size()), '\0'));

    // Whole entries only, so that a repeated map keeps them aligned.
    m_map.truncate(m_map.size() & ~1);
    if (mapBytes > m_map.size() && !m_map.isEmpty()) {
        while (m_pattern.size() < kMinimumPatternBytes)
            m_pattern.append(m_map);
        m_repeatEnd = m_mapPos + std::min(mapBytes, s_frameMapBytes);
    }
}

qint64 SynthesizedRecording::size() const
{
    return std::max(originalSize(), m_writtenEnd);
}

void SynthesizedRecording::fillOriginal(qint64 pos, char* out, qint64 n) const
{
    std::memset(out, 0, size_t(n));
    if (pos >= movieDataStartOffset())
        return; // zero media
    copyOverlap(0, m_head.constData(), m_head.size(), pos, out, n);
    if (m_pattern.isEmpty()) {
        copyOverlap(m_mapPos, m_map.constData(), m_map.size(), pos, out, n);
    } else {
        // The pattern's length is a multiple of the given bytes: step through the map in whole patterns.
        const qint64 first = std::max(pos, m_mapPos);
        const qint64 last = std::min(pos + n, m_repeatEnd);
        for (qint64 at = first; at < last;) {
            const qint64 patternStart = m_mapPos + (at - m_mapPos) / m_pattern.size() * m_pattern.size();
            const qint64 patternEnd = std::min<qint64>(patternStart + m_pattern.size(), m_repeatEnd);
            const qint64 length = patternEnd - patternStart;
            copyOverlap(patternStart, m_pattern.constData(), length, pos, out, n);
            at = patternStart + length;
        }
    }
    static const char unclosedMovieData[16] = { 0, 0, 0, 1, 'm', 'd', 'a', 't', 0, 0, 0, 0, 0, 0, 0, 16 };
    copyOverlap(movieDataHeaderPos(), unclosedMovieData, sizeof unclosedMovieData, pos, out, n);
}

void SynthesizedRecording::fill(qint64 pos, char* out, qint64 n) const
{
    const qint64 original = std::min(n, std::max<qint64>(0, originalSize() - pos));
    if (original > 0)
        fillOriginal(pos, out, original);
    // Beyond the original end, bytes not written read as zeros, as in a file extended by a seek.
    std::memset(out + original, 0, size_t(n - original));
    for (const Extent& extent : m_extents) {
        copyOverlap(extent.offset, extent.head.constData(), extent.head.size(), pos, out, n);
        const qint64 unkept = extent.offset + extent.head.size();
        if (unkept < extent.offset + extent.length) {
            const qint64 unkeptEnd = extent.offset + extent.length;
            if (std::max(unkept, pos) < std::min(unkeptEnd, pos + n)) {
                m_readUnkept = true;
                std::memset(out + (std::max(unkept, pos) - pos), 0,
                    size_t(std::min(unkeptEnd, pos + n) - std::max(unkept, pos)));
            }
        }
    }
}

QByteArray SynthesizedRecording::contentAt(qint64 offset, qint64 length) const
{
    const qint64 n = std::max<qint64>(0, std::min(length, size() - offset));
    QByteArray bytes(int(n), '\0');
    if (n > 0)
        fill(offset, bytes.data(), n);
    return bytes;
}

qint64 SynthesizedRecording::readData(char* data, qint64 maxSize)
{
    const qint64 n = std::min(maxSize, size() - pos());
    if (n <= 0)
        return 0;
    fill(pos(), data, n);
    return n;
}

qint64 SynthesizedRecording::writeData(const char* data, qint64 len)
{
    if (len <= 0)
        return 0;
    if (m_written + len > m_writeCapacity) {
        setErrorString(QStringLiteral("No space left on device"));
        return -1;
    }
    const qint64 at = pos();
    if (m_extents.empty() || m_extents.back().offset + m_extents.back().length != at)
        m_extents.push_back({ at, 0, QByteArray() });
    Extent& extent = m_extents.back();
    const qint64 kept = std::min(len, std::max<qint64>(0, m_keptBytes - extent.length));
    extent.head.append(data, int(kept));
    extent.length += len;
    m_written += len;
    m_writtenEnd = std::max(m_writtenEnd, at + len);
    return len;
}
