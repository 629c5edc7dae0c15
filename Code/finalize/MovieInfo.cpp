// What a movie holds, for clipward-cli --info: the recorder's reserved region (settings record and frame
// map) read straight from the file, the layout, and the tracks of a finished movie; and what a finish
// would give, found by running the family's procedure on a copy-on-write view of the file.

#include "finalize/CardFile.h"
#include "finalize/CopyOnWriteFile.h"
#include "finalize/Finalize.h"
#include "finalize/QtMessageFilter.h"
#include "finalize/RecordingInfoParts.h"
#include "finalize/SettingsCheck.h"
#include "movie/HeronQuickTimeFile.h"
#include "movie/MovieFamily.h"
#include "movie/QuickTimeFile.h"
#include "movie/RecoverySettings.h"
#include "movie/SampleTableCheck.h"

#include <QFile>
#include <QtEndian>

#include <limits>
#include <vector>

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
        return first == QuickTimeFile::s_datPos;
    if (first < 8 || !file.seek(first))
        return false;
    const QByteArray next = file.read(8);
    return next.size() == 8 && be32At(next, 4) == fourCC("udta")
        && be32At(next, 0) == QuickTimeFile::s_datPos - first;
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
    const qint64 start = QuickTimeFile::s_movieDataStartOffset;
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
QJsonObject recordedEndObject(quint64 position, qint64 fileSize, bool inProgress)
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
    if (end < QuickTimeFile::s_movieDataStartOffset)
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

// What a procedure did on the view: the outcome as a run reports it, its words, and the name it gives.
struct Prediction
{
    QString outcome; // "finalized", "given up", "left for the card", "unreadable"
    QString reason; // the procedure's own line, or what stopped it
    QString why; // what in the recording made it so, when more can be said
    QString extension; // the new extension; empty when the file keeps its name
    bool replacesExisting = false; // whether a file of the new name is replaced
    bool finished = false; // the view holds the finished movie
};

// What stopped recover() on the view, told from the state it left the movie in.
QString whyRecoveryFailed(QuickTimeFile& movie, CopyOnWriteFile& view)
{
    const MovieFamily& family = movie.family();
    const quint32 counted = movie.videoFrames() + movie.audioFrames() + movie.timecodeSamples;
    if (counted < family.minimumChunks)
        return QString(
            "%1 chunks in the frame map (%2 video, %3 sound, %4 timecode); a %5 recording needs %6")
            .arg(counted)
            .arg(movie.videoFrames())
            .arg(movie.audioFrames())
            .arg(movie.timecodeSamples)
            .arg(family.name)
            .arg(family.minimumChunks);
    const QString settings = Tern::indexRefusal(
        movie.videoFramesPerChunk, movie.audioTracks, movie.audioBytesPerSample, movie.recordedEndPosition);
    if (!settings.isEmpty())
        return "the settings give " + settings;
    const quint64 end = movie.recordedEndPosition;
    if (end != 0 && qint64(end) > view.size() && !view.seek(qint64(end)))
        return QString("the recorded end (%1) lies where no file on this card reaches").arg(end);
    if (!movie.indexFitsAtomSizes())
        return QStringLiteral("the index would not fit atoms with 32-bit sizes");
    return QStringLiteral("the index could not be written");
}

// A failure the card caused, in the words a run's line gives it; empty when the recording caused it.
QString cardFailure(const QuickTimeFile& movie, const CopyOnWriteFile& view)
{
    if (!view.readFailure().isEmpty())
        return QString("the card could not be read (%1)").arg(view.readFailure());
    if (!view.writeFailure().isEmpty())
        return view.writeFailure();
    return CardFile::failedCloseReason(movie);
}

void recoveryFailed(QuickTimeFile& movie, CopyOnWriteFile& view, const QString& procedureLine, Prediction* p)
{
    const QString card = cardFailure(movie, view);
    if (!card.isEmpty()) {
        p->outcome = QStringLiteral("left for the card");
        p->reason = card;
        p->extension.clear(); // the file keeps its name and bytes for a later run
        return;
    }
    p->outcome = QStringLiteral("given up");
    p->reason = procedureLine;
    p->why = whyRecoveryFailed(movie, view);
    p->extension = QStringLiteral(".nrv");
}

const char* const kNoOpenHeader = "no open 'mdat' header at %1 and not a whole movie Clipward finished";

// A Tern finish run on the view, told as a run would: the procedure's own line for a failed step, and
// what in the recording made it fail.
Prediction predictTern(CopyOnWriteFile& view, const QString& path)
{
    Prediction p;
    QuickTimeFile movie(view);
    const Finalize::TernStep step = Finalize::finishTernMovie(movie, path, Tern::FinishStyle::Recorder);
    // Tern gives the file up (renamed ".nrv") only when the rebuild itself fails; a recording it cannot
    // start on is counted unrecoverable and renamed ".mov" unchanged.
    p.outcome = QStringLiteral("given up");
    p.extension = QStringLiteral(".mov");
    if (const char* words = Finalize::ternStepText(step))
        p.reason = QString::fromLatin1(words);
    switch (step) {
    case Finalize::TernStep::Finalized:
        p.outcome = QStringLiteral("finalized");
        p.finished = true;
        break;
    case Finalize::TernStep::FinishedEarlier:
        p.outcome = QStringLiteral("finalized");
        p.finished = true;
        break;
    case Finalize::TernStep::Corrupted:
        p.why = QString(kNoOpenHeader).arg(QuickTimeFile::s_datPos);
        break;
    case Finalize::TernStep::NoSettings:
        p.why = QStringLiteral("the settings record cannot be read");
        break;
    case Finalize::TernStep::InvalidSettings:
        p.why = "the settings give " + SettingsCheck::refusal(movie.family(), *movie.loadSavedSettings());
        break;
    case Finalize::TernStep::RebuildFailed:
        recoveryFailed(movie, view, p.reason, &p);
        p.replacesExisting = true; // an older ".nrv" is replaced
        break;
    }
    return p;
}

// A Heron finish run on the view. Heron logs none of its steps; every failure gives the movie up.
Prediction predictHeron(CopyOnWriteFile& view, const QString& path)
{
    Prediction p;
    std::vector<quint16> frameMap(QuickTimeFile::s_frameMapEntries); // what the driver hands the movie
    ::QuickTimeFile movie(view, frameMap.data());
    p.outcome = QStringLiteral("given up");
    p.extension = QStringLiteral(".nrv");
    switch (Finalize::finishHeronMovie(movie, path, Tern::FinishStyle::Recorder)) {
    case Finalize::HeronStep::Finalized:
        p.outcome = QStringLiteral("finalized");
        p.extension = QStringLiteral(".mov");
        p.finished = true;
        break;
    case Finalize::HeronStep::FinishedEarlier:
        p.outcome = QStringLiteral("finalized");
        p.reason = QStringLiteral("finished by an earlier run cut short, verified");
        p.extension = QStringLiteral(".mov");
        p.finished = true;
        break;
    case Finalize::HeronStep::NotInProgress:
        p.reason = QStringLiteral("not laid out as an unfinished recording");
        p.why = QString(kNoOpenHeader).arg(QuickTimeFile::s_datPos);
        break;
    case Finalize::HeronStep::NoSettings:
        p.reason = QStringLiteral("the settings record cannot be read");
        break;
    case Finalize::HeronStep::RebuildFailed:
        recoveryFailed(movie, view, QStringLiteral("the index could not be rebuilt"), &p);
        break;
    }
    return p;
}

} // namespace

namespace RecordingInfoParts {

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
    const qint64 fileSize = file.size();
    info->insert("family", region || inProgress ? QJsonValue(family.name) : QJsonValue());
    QString layout = QStringLiteral("other");
    if (inProgress)
        layout = QStringLiteral("in progress: the 'mdat' header is open and no index follows");
    else if (finishedHere)
        layout = QStringLiteral("finished as Clipward finishes a recording");
    else if (atoms)
        layout = QStringLiteral("a movie with an index");
    else if (region)
        layout = QString("the reserved region, but no open 'mdat' header at %1")
                     .arg(Tern::QuickTimeFile::s_datPos);
    info->insert("layout", layout);

    if (region || inProgress) {
        RecoverySettings s;
        const bool record = file.seek(family.recoverySettingsPos)
            && s.fromBytes(file.read(family.recoveryRecord->size), *family.recoveryRecord);
        info->insert("settings", record ? QJsonValue(settingsObject(s, family)) : QJsonValue());
        info->insert("frame_map", frameMapObject(file, family));
        info->insert("recorded_end",
            record ? QJsonValue(recordedEndObject(s.recordedEndPosition, fileSize, inProgress))
                   : QJsonValue());
    }
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
    QJsonObject finish;
    startFinish(&finish, name);
    // Whatever the library says on the way is the finish's, not this description's.
    const QtMessageFilter quiet(QtMessageFilter::Drop::Everything);
    CopyOnWriteFile view(path);
    if (!openFinishView(view, &finish))
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
    const Prediction p = family == &Tern::ternFamily ? predictTern(view, path) : predictHeron(view, path);
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
