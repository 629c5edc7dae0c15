// Recovery of an unfinished recording whose settings record and frame map come from the input, for both
// families, on a device that presents the whole 5.47 MB reserved region and the media without holding them.
// The calls are the finalize procedures' own, in their order: verifyHeader, initFile, loadSavedSettings,
// the procedure's check and copy of the settings, recover (which runs closeFile).
//
// Input: byte 0 bit 0 picks the family (0 Tern, 1 Heron), bit 1 repeats the given map bytes through the
// whole map (a map with no terminator); bytes 1-4 the media length in 512-byte blocks (little-endian,
// capped); then the settings record (120 bytes Tern, 108 Heron; zero-padded when the input is short);
// the rest is the start of the frame map as stored (little-endian entries), zeros after it.
//
// Beyond memory safety, undefined behaviour and bounded time, the target holds recovery to its promises:
// nothing is written into the reserved region or into the media before the recorded end, and a recovery
// that reports success leaves a closed 'mdat' that ends where a 'moov' begins whose size is what was written.

#include "FuzzSupport.h"
#include "SynthesizedRecording.h"
#include "finalize/Finalize.h"
#include "finalize/TernSettings.h"
#include "movie/HeronQuickTimeFile.h"
#include "movie/QuickTimeFile.h"

#include <QtEndian>

#include <memory>

namespace {

using FuzzSupport::fail;

const qint64 kMaxMediaBytes = qint64(1) << 40;
// Room for the largest index of a map of a few thousand entries and then some; the full disk beyond it
// ends an index of a map repeated to millions of entries with a write error.
const qint64 kWriteCapacity = qint64(48) << 20;
const int kClosingZeroBytes = 512;
const int kTimecodeSampleBytes = 512;

// The driver lives for the whole run, as in the program: its work buffer is every Heron movie's frame map.
Finalize& driver()
{
    static Finalize* finalize = new Finalize;
    return *finalize;
}

// Runs the family's procedure up to and including recover; false when any step refused the file.
bool finish(SynthesizedRecording::Family family, SynthesizedRecording& device, quint64* recordedEnd,
    bool* soundSizesOverstated)
{
    if (family == SynthesizedRecording::Tern) {
        auto movie = std::make_unique<Tern::QuickTimeFile>(device);
        if (!movie->verifyHeader())
            return false;
        movie->initFile(nullptr);
        Tern::RecoverySettings* settings = movie->loadSavedSettings();
        if (!settings || !TernSettings::usable(*settings))
            return false;
        TernSettings::configure(*movie, *settings);
        *recordedEnd = settings->recordedEndPosition;
        *soundSizesOverstated = settings->audioBytesPerSample == 0;
        return movie->recover();
    }
    auto movie = std::make_unique<QuickTimeFile>(device, driver().workBuffer);
    if (!movie->verifyHeader())
        return false;
    movie->initFile(nullptr);
    QuickTimeFile::RecoverySettings* settings = movie->loadSavedSettings();
    if (!settings)
        return false;
    driver().setQuickTimeFileInfo(settings, movie.get());
    *recordedEnd = settings->recordedEndPosition;
    *soundSizesOverstated = settings->audioBytesPerSample == 0;
    return movie->recover();
}

quint32 bigEndian32(const QByteArray& bytes, int at)
{
    return qFromBigEndian<quint32>(reinterpret_cast<const uchar*>(bytes.constData()) + at);
}

void checkWrites(const SynthesizedRecording& device, quint64 recordedEnd)
{
    // Media before the recorded end (or all of it when no end was recorded) and the reserved region are
    // the recording itself; only the 'mdat' header may change there.
    const qint64 original = device.originalSize();
    const qint64 mediaEnd
        = recordedEnd != 0 && recordedEnd < quint64(original) ? qint64(recordedEnd) : original;
    const qint64 firstWritable = qMax(mediaEnd, SynthesizedRecording::s_movieDataStartOffset);
    for (const SynthesizedRecording::Extent& extent : device.extents()) {
        const qint64 begin = extent.offset;
        const qint64 end = extent.offset + extent.bytes.size();
        const bool header
            = begin >= SynthesizedRecording::s_datPos && end <= SynthesizedRecording::s_movieDataStartOffset;
        if (!header && begin < firstWritable)
            fail("recovery wrote into the reserved region or the recorded media");
    }
}

// What the frame map holds up to its terminator, as recovery reads it.
struct MapList
{
    bool unknownEntries = false; // entries of type 3, which recovery does not count
    bool full = false; // no terminator within the map
};

MapList readMapList(const SynthesizedRecording& device, SynthesizedRecording::Family family)
{
    const QByteArray map
        = device.contentAt(SynthesizedRecording::frameMapPos(family), SynthesizedRecording::s_frameMapBytes);
    const uchar* entries = reinterpret_cast<const uchar*>(map.constData());
    MapList list;
    for (int i = 0; i + 1 < map.size(); i += 2) {
        const quint16 entry = qFromLittleEndian<quint16>(entries + i);
        if (entry == 0)
            return list;
        list.unknownEntries |= entry >> 14 == 3;
    }
    list.full = true;
    return list;
}

void checkClosedMovie(
    SynthesizedRecording::Family family, const SynthesizedRecording& device, bool tablesMayRunShort)
{
    const QByteArray header = device.contentAt(SynthesizedRecording::s_datPos, 16);
    if (header.size() != 16 || bigEndian32(header, 0) != 1 || header.mid(4, 4) != "mdat")
        fail("a successful recovery left no 'mdat' header");
    const quint64 movieDataSize
        = qFromBigEndian<quint64>(reinterpret_cast<const uchar*>(header.constData()) + 8);
    if (movieDataSize == 16)
        fail("a successful recovery left 'mdat' unclosed");
    const qint64 moovStart = SynthesizedRecording::s_datPos + qint64(movieDataSize);
    if (family == SynthesizedRecording::Heron
        && moovStart < SynthesizedRecording::s_movieDataStartOffset + kTimecodeSampleBytes)
        fail("the Heron 'mdat' does not hold the closing timecode sample");
    const QByteArray moov = device.contentAt(moovStart, 8);
    if (moov.size() != 8 || moov.mid(4, 4) != "moov")
        fail("the 'mdat' size does not lead to the 'moov' atom");
    // A table whose count overstates what the list of the frame map holds is written short, as the table
    // writers promise. That happens to the sound size table of a record with 0 bytes per sample; to any
    // table of a map with unknown entries, which the counts leave out and so end the list early; and to
    // Heron's timecode tables when its map is full, since the closing sample then has no entry.
    if (tablesMayRunShort)
        return;
    const quint32 moovSize = bigEndian32(moov, 0);
    if (moovStart + qint64(moovSize) + kClosingZeroBytes != device.writtenEnd())
        fail("the 'moov' size differs from the bytes of the index written");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    FuzzSupport::quietLog();
    driver();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzSupport::InputReader in(data, size);
    const quint8 flags = in.u8();
    const auto family = (flags & 1) ? SynthesizedRecording::Heron : SynthesizedRecording::Tern;
    const bool repeatMap = (flags & 2) != 0;
    const qint64 mediaBytes = qMin(qint64(in.u32()) * 512, kMaxMediaBytes);
    QByteArray record(SynthesizedRecording::recordSize(family), '\0');
    in.bytes(record.data(), size_t(record.size()));
    const QByteArray map(reinterpret_cast<const char*>(in.rest()), int(in.restSize()));

    SynthesizedRecording device(family, record, map, repeatMap, mediaBytes, kWriteCapacity);
    device.open(QIODevice::ReadWrite | QIODevice::Unbuffered);
    quint64 recordedEnd = 0;
    bool soundSizesOverstated = false;
    const bool recovered = finish(family, device, &recordedEnd, &soundSizesOverstated);

    checkWrites(device, recordedEnd);
    if (recovered) {
        const MapList list = readMapList(device, family);
        const bool tablesMayRunShort = soundSizesOverstated || list.unknownEntries
            || (family == SynthesizedRecording::Heron && list.full);
        checkClosedMovie(family, device, tablesMayRunShort);
    }
    return 0;
}
