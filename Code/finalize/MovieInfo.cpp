// What a movie holds, for clipward-cli --info: the recorder's reserved region (settings record and frame
// map) read straight from the file, the layout, and the tracks of a finished movie; and what a finish
// would give, found by running the family's procedure on a copy-on-write view of the file.

#include "finalize/CopyOnWriteFile.h"
#include "finalize/Finalize.h"
#include "finalize/FinishPrediction.h"
#include "finalize/RecordingInfoParts.h"
#include "movie/MovieFamily.h"
#include "movie/QuickTimeFile.h"
#include "movie/RecoverySettings.h"
#include "movie/SampleTableCheck.h"

#include <QFile>
#include <QtEndian>

#include <limits>

namespace {

using Tern::fourCC;
using Tern::MovieFamily;
using Tern::QuickTimeFile;
using Tern::RecoverySettings;

quint32 be32At(const QByteArray& bytes, int at)
{
    return qFromBigEndian<quint32>(reinterpret_cast<const uchar*>(bytes.constData()) + at);
}

// Whether the file starts with the reserved region a recorder of `family` writes: Heron's one 'ftyp' up to
// the 'mdat' header, or Tern's 'ftyp' and a 'udta' spanning the rest.
bool hasReservedRegion(QFile& file, const MovieFamily& family)
{
    if (!file.seek(0))
        return false;
    const QByteArray head = file.read(8);
    if (head.size() != 8 || be32At(head, 4) != fourCC("ftyp"))
        return false;
    const quint32 first = be32At(head, 0);
    if (!family.regionInUserData)
        return first == family.movieDataHeaderPos;
    if (first < 8 || !file.seek(first))
        return false;
    const QByteArray next = file.read(8);
    return next.size() == 8 && be32At(next, 4) == fourCC("udta")
        && be32At(next, 0) == family.movieDataHeaderPos - first;
}

// Every field of the record as stored; the timecode also as text, the codec by name, the frame rate (kept
// in hundredths) in frames per second. A Heron record has no chunk counts: its recorder's fixed ones.
QJsonObject settingsObject(const RecoverySettings& s, const MovieFamily& family)
{
    const bool counts = family.recoveryRecord->hasChunkCounts;
    QJsonObject o;
    o.insert("at", family.recoverySettingsPos);
    o.insert("bytes", family.recoveryRecord->size);
    o.insert("user_data_1", qint64(s.userData1));
    o.insert("timecode", RecordingFacts::timecodeText(s.timecode, s.dropFrame != 0));
    o.insert("drop_frame", int(s.dropFrame));
    o.insert("user_data_2", qint64(s.userData2));
    o.insert("frame_rate", s.frameRate / 100.0);
    o.insert("user_data_5", qint64(s.userData5));
    o.insert("sound_tracks", qint64(s.audioTracks));
    o.insert("bytes_per_sample", qint64(s.audioBytesPerSample));
    o.insert("sample_rate", qint64(s.audioSampleRate));
    o.insert("user_data_9", qint64(s.userData9));
    o.insert("width", int(s.width));
    o.insert("height", int(s.height));
    o.insert("interlaced", qint64(s.interlaced));
    o.insert("video_codec_id", qint64(s.videoCodecId));
    o.insert("video_codec_type", qint64(s.videoCodecType));
    o.insert("prores_variant", qint64(s.proResVariant));
    const QString codec = RecordingFacts::codecName(s, family);
    o.insert("codec", codec.isEmpty() ? QJsonValue() : QJsonValue(codec));
    o.insert("first_chunk_samples", qint64(s.firstChunkSamples));
    o.insert("last_chunk_samples", qint64(s.lastChunkSamples));
    o.insert("recorded_end_position",
        s.recordedEndPosition != 0 ? QJsonValue(qint64(s.recordedEndPosition)) : QJsonValue());
    o.insert("chunk_counts_in_record", counts);
    o.insert("samples_per_chunk", qint64(family.samplesPerChunk(s)));
    o.insert("frames_per_chunk", qint64(family.framesPerChunk(s)));
    o.insert("reel_name", s.reelNameText());
    return o;
}

// The frame map walked as recover() walks it: entries up to the first 0 (or the map's capacity), counted
// by type, each chunk where the blocks of the entries before it put it from the media start.
QJsonObject frameMapObject(QFile& file, const MovieFamily& family)
{
    QJsonObject o;
    o.insert("at", family.recoveryFrameMapPos);
    o.insert("capacity", qint64(QuickTimeFile::s_frameMapEntries));
    const QuickTimeFile::SavedFrameMapCounts map = QuickTimeFile::countSavedFrameMap(file, family);
    const quint32 entries = map.entries;
    o.insert("entries", qint64(entries));
    o.insert("video", qint64(map.video));
    o.insert("sound", qint64(map.sound));
    o.insert("timecode", qint64(map.timecode));
    o.insert("unknown", qint64(map.unknown));
    o.insert("ends_with_zero", entries < map.readable);
    o.insert("read_whole", map.readable == QuickTimeFile::s_frameMapEntries);
    const qint64 start = family.movieDataStartOffset;
    const int shift = QuickTimeFile::s_blockShift;
    o.insert("first_entry_at", entries != 0 ? QJsonValue(start) : QJsonValue());
    const qint64 lastAt = start + qint64(map.lastBlocksBefore << shift);
    o.insert("last_entry_at", entries != 0 ? QJsonValue(lastAt) : QJsonValue());
    o.insert("last_entry_bytes", entries != 0 ? QJsonValue(qint64(map.lastBlocks) << shift) : QJsonValue());
    o.insert("media_end", start + qint64(map.blocks << shift));
    return o;
}

// Where the recorded end lies against the file's size; read for a file still in progress, or for a
// finished one (whose index follows the media).
QJsonObject recordedEndObject(quint64 position, qint64 fileSize, bool inProgress, qint64 mediaStart)
{
    QJsonObject o;
    if (position == 0) {
        o.insert("position", QJsonValue());
        o.insert("bytes_to_file_end", QJsonValue());
        o.insert("where", inProgress ? "none recorded: the media run to the file's end" : "none recorded");
        return o;
    }
    const qint64 end = qint64(qMin<quint64>(position, quint64(std::numeric_limits<qint64>::max())));
    const qint64 behind = fileSize - end;
    o.insert("position", end);
    o.insert("bytes_to_file_end", behind);
    QString where;
    if (end < mediaStart)
        where = QStringLiteral("inside the reserved region, before the media start");
    else if (behind == 0)
        where = QStringLiteral("at the file's end");
    else if (behind > 0 && !inProgress)
        where = QString("%1 bytes before the file's end").arg(behind);
    else if (behind > 0)
        where = QString("%1 bytes before the file's end: they stay outside the movie").arg(behind);
    else
        where = QString("%1 bytes beyond the file's end: the file is shorter than the recorder wrote")
                    .arg(-behind);
    o.insert("where", where);
    return o;
}

// ---------------------------------------------------------------------------------------------------------
// Predicting a finish

} // namespace

namespace RecordingInfoParts {

namespace {

// How the file is laid out, in words.
QString layoutText(bool inProgress, bool finishedHere, bool atoms, bool region, const MovieFamily& family)
{
    if (inProgress)
        return QStringLiteral("in progress: the 'mdat' header is open and no index follows");
    if (finishedHere)
        return QStringLiteral("finished as Clipward finishes a recording");
    if (atoms)
        return QStringLiteral("a movie with an index");
    if (region)
        return QString("the reserved region, but no open 'mdat' header at %1").arg(family.movieDataHeaderPos);
    return QStringLiteral("other");
}

// The reserved region's settings record, frame map and recorded end.
void insertRecoveryData(QFile& file, const MovieFamily& family, bool inProgress, QJsonObject* info)
{
    const qint64 fileSize = file.size();
    RecoverySettings s;
    const bool record = file.seek(family.recoverySettingsPos)
        && s.fromBytes(file.read(family.recoveryRecord->size), *family.recoveryRecord);
    info->insert("settings", record ? QJsonValue(settingsObject(s, family)) : QJsonValue());
    info->insert("frame_map", frameMapObject(file, family));
    const qint64 mediaStart = family.movieDataStartOffset;
    info->insert("recorded_end",
        record ? QJsonValue(recordedEndObject(s.recordedEndPosition, fileSize, inProgress, mediaStart))
               : QJsonValue());
}

} // namespace

bool describeMovie(QFile& file, QJsonObject* info, QString* reason)
{
    const MovieFamily* found = Tern::familyOfRecording(file);
    FileSpan moov;
    QVector<FileSpan> media;
    const bool atoms = readTopLevelAtoms(file, &moov, &media);
    if (!found || !file.seek(0)) {
        *reason = QStringLiteral("too short to be a movie");
        return false;
    }
    const MovieFamily& family = *found;
    const bool region = hasReservedRegion(file, family);
    // The layout checks read only the 'mdat' header and the end of the file, the same for both families.
    Tern::QuickTimeFile movie(file);
    const bool inProgress = movie.verifyHeader();
    const bool finishedHere = !inProgress && movie.looksFinished();
    if (!region && !inProgress && !atoms) {
        *reason = QStringLiteral("neither the reserved region of a recording nor a movie's 'moov' is in it");
        return false;
    }
    info->insert("family", region || inProgress ? QJsonValue(family.name) : QJsonValue());
    info->insert("layout", layoutText(inProgress, finishedHere, atoms, region, family));
    if (region || inProgress)
        insertRecoveryData(file, family, inProgress, info);
    if (atoms) {
        bool writtenByClipward = false;
        const QJsonArray tracks = movieTracks(file, &writtenByClipward);
        info->insert("written_by_clipward", writtenByClipward);
        info->insert("tracks", tracks);
    }
    return true;
}

QJsonObject predictMovieFinish(const QString& path, NameState name)
{
    PredictedFinish prediction(path, name);
    QJsonObject& finish = prediction.fields();
    CopyOnWriteFile& view = prediction.view();
    if (!prediction.opened())
        return finish;
    const MovieFamily* family = Tern::familyOfRecording(view);
    if (!family) {
        // The run counts it unrecoverable and renames nothing.
        finish.insert("family", QJsonValue());
        finish.insert("outcome", "given up");
        finish.insert("reason", "the file is too short to tell its family");
        finish.insert("name_after", QJsonValue());
        finish.insert("blocked_by", writeBlock(path));
        return finish;
    }
    const qint64 sizeBefore = view.size();
    const FinishPrediction p = Finalize::predictFinish(*family, view, path);
    finish.insert("family", family->name);
    finish.insert("outcome", p.outcome);
    finish.insert("reason", p.reason.isEmpty() ? QJsonValue() : QJsonValue(p.reason));
    finish.insert("why", p.why.isEmpty() ? QJsonValue() : QJsonValue(p.why));
    finish.insert("name_after",
        p.extension.isEmpty() ? QJsonValue()
                              : nameAfterFinish(path, name, ".zqv", p.extension, p.replacesExisting));
    finish.insert("blocked_by", writeBlock(path));
    if (p.finished) {
        finish.insert("appended_bytes", view.size() - sizeBefore);
        finish.insert("tracks", movieTracks(view));
    }
    return finish;
}

} // namespace RecordingInfoParts
