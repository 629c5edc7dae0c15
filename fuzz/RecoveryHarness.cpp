#include "RecoveryHarness.h"

#include "FuzzSupport.h"
#include "finalize/SettingsCheck.h"
#include "movie/QuickTimeFile.h"

#include <QtEndian>

#include <memory>

namespace RecoveryHarness {

namespace {

using FuzzSupport::fail;

const qint64 kMaxMediaBytes = qint64(1) << 40;
const int kClosingZeroBytes = 512;
const int kTimecodeSampleBytes = 512;

// A movie of either family whose frame map is one buffer kept for the whole run, like the driver's work
// buffer, so that an input does not pay for mapping 5.4 MB of fresh memory. Recovery reads the whole map
// into it before it is used.
class MovieWithRunFrameMap : public Tern::QuickTimeFile
{
public:
    MovieWithRunFrameMap(QIODevice& device, const Tern::MovieFamily& family)
        : Tern::QuickTimeFile(device, family, buffer())
    {
    }

private:
    static quint16* buffer()
    {
        static quint16* map = new quint16[Tern::QuickTimeFile::s_frameMapEntries];
        return map;
    }
};

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
    const qint64 firstWritable = qMax(mediaEnd, device.movieDataStartOffset());
    for (const SynthesizedRecording::Extent& extent : device.extents()) {
        const qint64 begin = extent.offset;
        const qint64 end = extent.offset + extent.length;
        const bool header
            = begin >= device.movieDataHeaderPos() && end <= device.movieDataStartOffset();
        if (!header && begin < firstWritable)
            fail("recovery wrote into the reserved region or the recorded media");
    }
}

// What the frame map holds up to its terminator, as recovery reads it. Worked out from the input, not
// read back: the map is part of the reserved region, which checkWrites has found untouched.
struct MapList
{
    bool unknownEntries = false; // entries of type 3, which recovery does not count
    bool full = false; // no terminator within the map
};

MapList mapList(const Input& input, qint64 repeatedBytes)
{
    const QByteArray& given = input.map;
    const int entries = qMin(given.size(), int(SynthesizedRecording::s_frameMapBytes)) / 2;
    MapList list;
    const uchar* bytes = reinterpret_cast<const uchar*>(given.constData());
    for (int i = 0; i < entries; ++i) {
        const quint16 entry = qFromLittleEndian<quint16>(bytes + 2 * i);
        if (entry == 0)
            return list;
        list.unknownEntries |= entry >> 14 == 3;
    }
    // No terminator among the given entries: the map is full when they, repeated or not, fill it.
    const qint64 filled = entries == 0 ? 0 : qMax(qint64(entries) * 2, repeatedBytes);
    list.full = filled >= SynthesizedRecording::s_frameMapBytes;
    return list;
}

void checkClosedMovie(
    SynthesizedRecording::Family family, const SynthesizedRecording& device, bool tablesMayRunShort)
{
    const QByteArray header = device.contentAt(device.movieDataHeaderPos(), 16);
    if (header.size() != 16 || bigEndian32(header, 0) != 1 || header.mid(4, 4) != "mdat")
        fail("a successful recovery left no 'mdat' header");
    const quint64 movieDataSize
        = qFromBigEndian<quint64>(reinterpret_cast<const uchar*>(header.constData()) + 8);
    if (movieDataSize == 16)
        fail("a successful recovery left 'mdat' unclosed");
    const qint64 moovStart = device.movieDataHeaderPos() + qint64(movieDataSize);
    if (family->closeAppendsTimecodeSample
        && moovStart < device.movieDataStartOffset() + kTimecodeSampleBytes)
        fail("the 'mdat' does not hold the closing timecode sample");
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

Input readInput(const uint8_t* data, size_t size)
{
    FuzzSupport::InputReader in(data, size);
    Input input;
    const quint8 flags = in.u8();
    // Bit 1 is the map's repetition; the other bits pick the family, every family of the library in
    // turn (with two, bit 0 alone decides).
    const auto& families = Tern::movieFamilies();
    const unsigned familyBits = (flags & 1u) | ((unsigned(flags) >> 2) << 1);
    input.family = families[familyBits % families.size()];
    input.repeatMap = (flags & 2) != 0;
    input.mediaBytes = qMin(qint64(in.u32()) * 512, kMaxMediaBytes);
    input.record = QByteArray(SynthesizedRecording::recordSize(input.family), '\0');
    in.bytes(input.record.data(), size_t(input.record.size()));
    input.map = QByteArray(reinterpret_cast<const char*>(in.rest()), int(in.restSize()));
    return input;
}

Finish finish(SynthesizedRecording::Family family, QIODevice& device)
{
    Finish result;
    MovieWithRunFrameMap movie(device, *family);
    if (!movie.verifyHeader())
        return result;
    movie.initFile(nullptr);
    Tern::RecoverySettings* settings = movie.loadSavedSettings();
    if (!settings || !SettingsCheck::usable(*family, *settings))
        return result;
    settings->copyInto(movie);
    result.recordedEnd = settings->recordedEndPosition;
    result.soundSizesOverstated = settings->audioBytesPerSample == 0;
    result.recovered = movie.recover();
    return result;
}

void checkRecovery(const SynthesizedRecording& device, const Input& input, const Finish& result)
{
    checkWrites(device, result.recordedEnd);
    if (device.readUnkeptBytes())
        fail("recovery read back written bytes the fuzz device did not keep");
    if (!result.recovered)
        return;
    const MapList list = mapList(input, device.repeatedMapBytes());
    const bool tablesMayRunShort = result.soundSizesOverstated || list.unknownEntries
        || (input.family->closeAppendsTimecodeSample && list.full);
    checkClosedMovie(input.family, device, tablesMayRunShort);
}

void recoverAndCheck(const Input& input, qint64 mapBytes, qint64 writeCapacity, qint64 keptBytes)
{
    SynthesizedRecording device(
        input.family, input.record, input.map, mapBytes, input.mediaBytes, writeCapacity, keptBytes);
    device.open(QIODevice::ReadWrite | QIODevice::Unbuffered);
    checkRecovery(device, input, finish(input.family, device));
}

} // namespace RecoveryHarness
