#pragma once

#include "movie/MovieFamily.h"
#include "movie/QuickTimeFile.h"

#include <QByteArray>
#include <QIODevice>

#include <vector>

// An unfinished recording of either family, as the recorder leaves it on the card, that is never held in
// memory: the reserved region (atom headers, settings record, frame map), the unclosed 'mdat' header and
// the zero media behind it are produced on each read from a few given pieces. What is written goes to an
// overlay of the written extents, in order, up to a total capacity; a write past it fails like a write to
// a full disk. Seeks past the end are granted as by a file, and a write there extends the device.
//
// An index of a full map runs to tens of megabytes, which nothing reads back: of each extent only the
// first `keptBytes` are kept. Reading written bytes beyond them is noted (readUnkeptBytes) and finds zeros.
class SynthesizedRecording : public QIODevice
{
public:
    // The family whose recording it is; its description holds the layout.
    using Family = const Tern::MovieFamily*;

    static constexpr qint64 s_frameMapBytes = Tern::QuickTimeFile::s_frameMapBytes;

    struct Extent
    {
        qint64 offset;
        qint64 length;
        QByteArray head; // the first keptBytes of it
    };

    // `record` is the settings record (cut or zero-padded to the family's record size); `frameMap` the
    // first bytes of the map as stored (little-endian entries), repeated until `mapBytes` of the map are
    // filled (no repetition when that is no more than the bytes given; the whole map with s_frameMapBytes),
    // then zeros; `mediaBytes` of zero media follow 'mdat'.
    SynthesizedRecording(Family family, const QByteArray& record, const QByteArray& frameMap, qint64 mapBytes,
        qint64 mediaBytes, qint64 writeCapacity, qint64 keptBytes);

    static int recordSize(Family family) { return family->recoveryRecord->size; }

    qint64 movieDataHeaderPos() const { return m_family->movieDataHeaderPos; }
    qint64 movieDataStartOffset() const { return m_family->movieDataStartOffset; }

    bool isSequential() const override { return false; }
    qint64 size() const override;

    // The size the recording had before anything was written.
    qint64 originalSize() const { return movieDataStartOffset() + m_mediaBytes; }
    // What was written, in order; adjacent writes are joined into one extent.
    const std::vector<Extent>& extents() const { return m_extents; }
    // One past the highest byte written; 0 when nothing was.
    qint64 writtenEnd() const { return m_writtenEnd; }
    // The device's content at `offset`, writes included, without moving the position.
    QByteArray contentAt(qint64 offset, qint64 length) const;
    // The bytes of the map the given ones fill by repetition; 0 when they are not repeated.
    qint64 repeatedMapBytes() const { return m_repeatEnd == 0 ? 0 : m_repeatEnd - m_mapPos; }
    // Whether a read met written bytes that were not kept.
    bool readUnkeptBytes() const { return m_readUnkept; }

protected:
    qint64 readData(char* data, qint64 maxSize) override;
    qint64 writeData(const char* data, qint64 len) override;

private:
    // The recording as the recorder left it, for [pos, pos + n) within originalSize().
    void fillOriginal(qint64 pos, char* out, qint64 n) const;
    void fill(qint64 pos, char* out, qint64 n) const;

    Family m_family;
    QByteArray m_head; // from offset 0 up to the frame map
    qint64 m_mapPos;
    QByteArray m_map; // the map bytes given
    QByteArray m_pattern; // when repeated: the given bytes repeated to at least a few KiB
    qint64 m_repeatEnd = 0; // where the repetition ends
    qint64 m_mediaBytes;
    qint64 m_keptBytes;
    mutable bool m_readUnkept = false;
    qint64 m_writeCapacity;
    qint64 m_written = 0;
    qint64 m_writtenEnd = 0;
    std::vector<Extent> m_extents;
};
