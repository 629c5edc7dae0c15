// The tracks of a finished movie as clipward-cli --info shows them: what the movie reader learns of each
// (kind, samples, time scale, frame size, channels and bits, where its samples lie), and from each track's
// sample description what the reader does not keep: the data format, the video compressor's name, the
// timecode's frame count, drop-frame flag and reel name. The start timecode is read from the timecode
// track's first sample.

#include "finalize/QtMessageFilter.h"
#include "finalize/RecordingInfoParts.h"
#include "movie/QuickTimeFile.h"
#include "movie/SampleDescriptions.h"

#include <QIODevice>
#include <QVector>
#include <QtEndian>

namespace {

using Tern::fourCC;
using Tern::QuickTimeFile;
using Tern::QuickTimeTrackInfo;

const int kAtomHeader = 8;
const int kExtendedAtomHeader = 16;
// A 'trak' or 'stbl' holding more children than this is no movie any reader makes; the walk stops there.
const int kMaxChildren = 4096;
// Inside a sample description entry: its common part, then the kind's own fields.
const int kDescriptionCommon = int(Tern::QuickTimeSampleDescription::s_commonSize);
const int kCompressorNameAt = kDescriptionCommon + 34; // behind the video fields, a counted string
const int kCompressorNameBytes = Tern::QuickTimeVideoSampleDescription::s_compressorNameSize;
const int kTimecodeFieldsAt = kDescriptionCommon; // reserved, flags, time scale, frame duration, frames
const int kTimecodeFieldsBytes = 18;
const quint32 kDropFrameFlag = Tern::QuickTimeTimecodeSampleDescription::s_dropFrameFlag;
// 'stsc' table position as the reader records it: behind the atom header, version, flags and count.
const int kTableBehindHeader = 8;

struct AtomSpan
{
    qint64 offset = -1;
    qint64 size = 0;
    quint32 type = 0;
    int header = kAtomHeader;
    bool valid() const { return offset >= 0; }
    qint64 payload() const { return offset + header; }
    qint64 end() const { return offset + size; }
};

// The atom whose header is at `pos`, when all of it lies before `end`.
AtomSpan atomAt(QIODevice& device, qint64 pos, qint64 end)
{
    AtomSpan atom;
    uchar bytes[kExtendedAtomHeader];
    if (pos < 0 || pos + kAtomHeader > end || !device.seek(pos)
        || device.read(reinterpret_cast<char*>(bytes), kAtomHeader) != kAtomHeader)
        return atom;
    quint64 size = qFromBigEndian<quint32>(bytes);
    atom.type = qFromBigEndian<quint32>(bytes + 4);
    if (size == 1) {
        if (pos + kExtendedAtomHeader > end
            || device.read(reinterpret_cast<char*>(bytes + kAtomHeader), 8) != 8)
            return atom;
        size = qFromBigEndian<quint64>(bytes + kAtomHeader);
        atom.header = kExtendedAtomHeader;
    } else if (size == 0) {
        size = quint64(end - pos); // runs to the end of what holds it
    }
    if (size < quint64(atom.header) || size > quint64(end - pos))
        return atom;
    atom.offset = pos;
    atom.size = qint64(size);
    return atom;
}

QVector<AtomSpan> children(QIODevice& device, qint64 from, qint64 to, quint32 type)
{
    QVector<AtomSpan> found;
    for (int n = 0; n < kMaxChildren; ++n) {
        const AtomSpan atom = atomAt(device, from, to);
        if (!atom.valid())
            break;
        if (atom.type == type)
            found << atom;
        from = atom.end();
    }
    return found;
}

AtomSpan child(QIODevice& device, const AtomSpan& parent, quint32 type)
{
    const QVector<AtomSpan> found = children(device, parent.payload(), parent.end(), type);
    return found.isEmpty() ? AtomSpan() : found.first();
}

QByteArray bytesAt(QIODevice& device, qint64 pos, qint64 length)
{
    return device.seek(pos) ? device.read(length) : QByteArray();
}

QString fourCCText(quint32 code)
{
    QString text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const char c = char(code >> shift);
        text += c >= 0x20 && c < 0x7F ? QChar(c) : QChar('?');
    }
    return text;
}

// What a track's first sample description says beyond what the reader keeps.
struct TrackDescription
{
    quint64 tablePosition = 0; // of its 'stsc' entries: how the reader's track is found again
    quint32 format = 0;
    QString compressorName;
    bool timecode = false;
    quint32 timecodeFlags = 0;
    quint32 timecodeFrames = 0;
    QString reelName;
};

void readTimecodeDescription(QIODevice& device, qint64 entry, qint64 entryEnd, TrackDescription* track)
{
    const QByteArray fields = bytesAt(device, entry + kTimecodeFieldsAt, kTimecodeFieldsBytes);
    if (fields.size() != kTimecodeFieldsBytes)
        return;
    const auto* at = reinterpret_cast<const uchar*>(fields.constData());
    track->timecode = true;
    track->timecodeFlags = qFromBigEndian<quint32>(at + 4);
    track->timecodeFrames = at[16];
    // The reel name rides behind the fields as a 'name' atom: text length, language, text.
    const QVector<AtomSpan> names
        = children(device, entry + kTimecodeFieldsAt + kTimecodeFieldsBytes, entryEnd, fourCC("name"));
    if (names.isEmpty() || names.first().size < kAtomHeader + 4)
        return;
    const QByteArray name = bytesAt(device, names.first().payload(), names.first().size - kAtomHeader);
    const int length = qMin(
        int(qFromBigEndian<quint16>(reinterpret_cast<const uchar*>(name.constData()))), name.size() - 4);
    track->reelName = QString::fromLatin1(name.mid(4, length));
}

QVector<TrackDescription> trackDescriptions(QIODevice& device)
{
    QVector<TrackDescription> tracks;
    const qint64 fileEnd = device.size();
    const QVector<AtomSpan> movies = children(device, 0, fileEnd, fourCC("moov"));
    if (movies.isEmpty())
        return tracks;
    const AtomSpan& moov = movies.first();
    for (const AtomSpan& trak : children(device, moov.payload(), moov.end(), fourCC("trak"))) {
        const AtomSpan stbl = child(
            device, child(device, child(device, trak, fourCC("mdia")), fourCC("minf")), fourCC("stbl"));
        const AtomSpan stsc = stbl.valid() ? child(device, stbl, fourCC("stsc")) : AtomSpan();
        const AtomSpan stsd = stbl.valid() ? child(device, stbl, fourCC("stsd")) : AtomSpan();
        if (!stsc.valid() || !stsd.valid())
            continue;
        TrackDescription track;
        track.tablePosition = quint64(stsc.payload() + kTableBehindHeader);
        const qint64 entry = stsd.payload() + 8; // behind version, flags and the entry count
        const QByteArray head = bytesAt(device, entry, kDescriptionCommon);
        if (head.size() == kDescriptionCommon) {
            const auto* at = reinterpret_cast<const uchar*>(head.constData());
            const qint64 entryEnd = qMin(stsd.end(), entry + qint64(qFromBigEndian<quint32>(at)));
            track.format = qFromBigEndian<quint32>(at + 4);
            if (track.format == fourCC("tmcd")) {
                readTimecodeDescription(device, entry, entryEnd, &track);
            } else if (entry + kCompressorNameAt + kCompressorNameBytes <= entryEnd) {
                const QByteArray name = bytesAt(device, entry + kCompressorNameAt, kCompressorNameBytes);
                if (name.size() == kCompressorNameBytes)
                    track.compressorName = QString::fromLatin1(name.mid(1, qMin(int(uchar(name[0])), 31)));
            }
        }
        tracks << track;
    }
    return tracks;
}

// The packed word of frame number `frame` counted at `fps` whole frames a second from 00:00:00:00; with
// drop-frame counting the numbers it skips (2 a minute at 30, 4 at 60, none in every tenth minute) are
// put back first.
quint32 timecodeOfFrameNumber(quint64 frame, quint32 fps, bool dropFrame)
{
    if (fps == 0)
        return 0;
    if (dropFrame) {
        const quint64 dropped = (fps + 7) / 15;
        const quint64 perMinute = quint64(fps) * 60 - dropped;
        const quint64 perTenMinutes = quint64(fps) * 600 - 9 * dropped;
        const quint64 tens = frame / perTenMinutes;
        const quint64 rest = frame % perTenMinutes;
        frame += 9 * dropped * tens + (rest > dropped ? dropped * ((rest - dropped) / perMinute) : 0);
    }
    const quint64 seconds = frame / fps;
    return quint32(
        ((seconds / 3600) % 256) << 24 | ((seconds / 60) % 60) << 16 | (seconds % 60) << 8 | (frame % fps));
}

// The start timecode in the track's first sample: the recorder's packed word in a 512-byte sample of a
// movie Clipward finished in the recorder's form, else a frame number as every reader counts it.
QJsonValue startTimecode(
    QuickTimeFile& reader, QuickTimeTrackInfo& track, const TrackDescription& description)
{
    quint64 offset = 0;
    quint32 bytes = 0;
    if (!reader.tableChunkOffset(&track, 0, &offset) || !reader.tableSampleSize(&track, 0, &bytes)
        || bytes < 4)
        return QJsonValue();
    const QByteArray word = bytesAt(reader.device, qint64(offset), 4);
    if (word.size() != 4)
        return QJsonValue();
    const quint32 value = qFromBigEndian<quint32>(reinterpret_cast<const uchar*>(word.constData()));
    const bool dropFrame = (description.timecodeFlags & kDropFrameFlag) != 0;
    if (reader.writtenByRecorder && bytes == quint32(QuickTimeFile::s_timecodeSampleBytes))
        return RecordingFacts::timecodeText(value, dropFrame);
    return RecordingFacts::timecodeText(
        timecodeOfFrameNumber(value, description.timecodeFrames, dropFrame), dropFrame);
}

QString kindName(Tern::quicktime_frametype_t type)
{
    switch (type) {
    case Tern::quicktime_frametype_video:
        return QStringLiteral("video");
    case Tern::quicktime_frametype_sound:
        return QStringLiteral("sound");
    case Tern::quicktime_frametype_timecode:
        return QStringLiteral("timecode");
    default:
        return QStringLiteral("other");
    }
}

QJsonObject trackObject(QuickTimeFile& reader, QuickTimeTrackInfo& track, const TrackDescription* description)
{
    QJsonObject object;
    object.insert("kind", kindName(track.type));
    object.insert("format",
        description && description->format != 0 ? QJsonValue(fourCCText(description->format)) : QJsonValue());
    object.insert("samples", qint64(track.stszEntries));
    object.insert("time_scale", track.timeScale);
    object.insert("sample_duration", track.sampleDuration);
    const bool timed = track.timeScale > 0 && track.sampleDuration > 0;
    // A timecode sample lasts as long as what it times: it has no rate of its own.
    const bool rated = timed && track.type != Tern::quicktime_frametype_timecode;
    object.insert(
        "rate", rated ? QJsonValue(double(track.timeScale) / double(track.sampleDuration)) : QJsonValue());
    object.insert("duration",
        timed ? QJsonValue(double(track.stszEntries) * double(track.sampleDuration) / double(track.timeScale))
              : QJsonValue());
    switch (track.type) {
    case Tern::quicktime_frametype_video:
        object.insert("codec", description ? QJsonValue(description->compressorName) : QJsonValue());
        object.insert("width", int(reader.width));
        object.insert("height", int(reader.height));
        object.insert("interlaced", reader.interlaced != 0);
        break;
    case Tern::quicktime_frametype_sound:
        object.insert("channels", qint64(track.audioChannels));
        object.insert("bits_per_sample", qint64(8 * track.audioBytesPerSample));
        object.insert("byte_order", track.audioBigEndian ? "big-endian" : "little-endian");
        break;
    case Tern::quicktime_frametype_timecode:
        object.insert("start_timecode",
            description && description->timecode ? startTimecode(reader, track, *description) : QJsonValue());
        object.insert("reel_name",
            description && description->timecode ? QJsonValue(description->reelName) : QJsonValue());
        break;
    default:
        break;
    }
    return object;
}

} // namespace

namespace RecordingInfoParts {

QJsonArray movieTracks(QIODevice& device, bool* writtenByClipward)
{
    const QtMessageFilter readerQuiet(QtMessageFilter::Drop::Everything); // the reader lists what it learns
    const QVector<TrackDescription> descriptions = trackDescriptions(device);
    QuickTimeFile reader(device);
    reader.initFileRead(nullptr);
    if (writtenByClipward)
        *writtenByClipward = reader.writtenByRecorder;
    QJsonArray tracks;
    for (int i = 0; i < reader.trackCount; ++i) {
        QuickTimeTrackInfo& track = reader.tracks[i];
        const TrackDescription* description = nullptr;
        for (const TrackDescription& candidate : descriptions) {
            if (candidate.tablePosition == track.stscPos)
                description = &candidate;
        }
        tracks << trackObject(reader, track, description);
    }
    return tracks;
}

} // namespace RecordingInfoParts
