#include "finalize/RecordingInfo.h"

#include "finalize/CardAccess.h"
#include "finalize/CopyOnWriteFile.h"
#include "finalize/RecordingInfoParts.h"
#include "finalize/RecordingLock.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QJsonArray>

#include <algorithm>
#include <cmath>

namespace {

using RecordingInfoParts::NameState;

NameState nameStateOf(const QString& path)
{
    const QString lower = path.toLower();
    if (lower.endsWith(".zqv") || lower.endsWith(".zqa"))
        return NameState::InProgress;
    if (lower.endsWith(".nrv") || lower.endsWith(".nra"))
        return NameState::GivenUp;
    if (lower.endsWith(".mov") || lower.endsWith(".wav"))
        return NameState::Finished;
    return NameState::Other;
}

QString nameStateText(NameState name)
{
    switch (name) {
    case NameState::InProgress:
        return QStringLiteral("in progress");
    case NameState::GivenUp:
        return QStringLiteral("given up");
    case NameState::Finished:
        return QStringLiteral("finished");
    case NameState::Other:
        break;
    }
    return QStringLiteral("no name a recorder or Clipward gives");
}

// Which finish procedure a run hands the file to by its name; for other names by what it holds: a movie
// still in progress, a WAV whose sizes were never filled in.
enum class Procedure { None, Movie, Sound };

Procedure procedureFor(const QString& path, const QJsonObject& info)
{
    const QString lower = path.toLower();
    if (lower.endsWith(".zqv") || lower.endsWith(".nrv"))
        return Procedure::Movie;
    if (lower.endsWith(".zqa") || lower.endsWith(".nra"))
        return Procedure::Sound;
    const QString kind = info.value("kind").toString();
    if (kind == QLatin1String("movie") && info.value("layout").toString().startsWith("in progress"))
        return Procedure::Movie;
    const QJsonValue dataSize = info.value("data").toObject().value("declared_size");
    if (kind == QLatin1String("wav") && !dataSize.isUndefined() && dataSize.toDouble() == 0)
        return Procedure::Sound;
    return Procedure::None;
}

// ---------------------------------------------------------------------------------------------------------
// The text form

// The order of each object's fields, by the key that holds the object ("" for the description itself;
// the items of an array by the array's key).
const QHash<QString, QStringList>& fieldOrder()
{
    static const QHash<QString, QStringList> order {
        { "",
            { "path", "name_says", "kind", "family", "reason", "in_use", "file_size", "layout", "settings",
                "frame_map", "recorded_end", "written_by_clipward", "tracks", "riff", "chunks",
                "audio_reader", "fmt", "bext", "ixml", "data", "finish" } },
        { "settings",
            { "at", "bytes", "user_data_1", "timecode", "drop_frame", "user_data_2", "frame_rate",
                "user_data_5", "sound_tracks", "bytes_per_sample", "sample_rate", "user_data_9", "width",
                "height", "interlaced", "video_codec_id", "video_codec_type", "prores_variant", "codec",
                "first_chunk_samples", "last_chunk_samples", "recorded_end_position",
                "chunk_counts_in_record", "samples_per_chunk", "frames_per_chunk", "reel_name" } },
        { "frame_map",
            { "at", "capacity", "entries", "video", "sound", "timecode", "unknown", "ends_with_zero",
                "read_whole", "first_entry_at", "last_entry_at", "last_entry_bytes", "media_end" } },
        { "recorded_end", { "position", "bytes_to_file_end", "where" } },
        { "tracks",
            { "kind", "format", "codec", "samples", "time_scale", "sample_duration", "rate", "duration",
                "width", "height", "interlaced", "channels", "bits_per_sample", "byte_order",
                "start_timecode", "reel_name", "interleave_index", "channel_index", "name" } },
        { "riff", { "form", "declared_size", "declared_end" } },
        { "chunks", { "id", "at", "size" } },
        { "fmt",
            { "format_tag", "format", "channels", "sample_rate", "byte_rate", "block_align",
                "bits_per_sample" } },
        { "bext",
            { "description", "originator", "originator_reference", "origination_date", "origination_time",
                "time_reference", "version", "speed", "start_timecode", "user_bits", "media" } },
        { "ixml",
            { "bytes", "state", "free_room", "current_filename", "project", "scene", "take", "tape",
                "circled", "note", "original_filename", "file_uid", "track_count", "tracks" } },
        { "data", { "at", "declared_size", "bytes_to_file_end", "sample_frames_to_file_end", "state" } },
        { "finish",
            { "run_takes_it", "under_this_name", "method", "family", "outcome", "reason", "why", "name_after",
                "blocked_by", "appended_bytes", "riff_size_after", "data_size_after", "sizes_changed",
                "tracks" } },
    };
    return order;
}

QStringList orderedKeys(const QJsonObject& object, const QString& holder)
{
    const QStringList order = fieldOrder().value(holder);
    QStringList keys = object.keys(); // alphabetical: the order of any field not listed
    std::stable_sort(keys.begin(), keys.end(), [&order](const QString& a, const QString& b) {
        const int ia = order.indexOf(a);
        const int ib = order.indexOf(b);
        return (ia < 0 ? order.size() : ia) < (ib < 0 ? order.size() : ib);
    });
    return keys;
}

QString label(const QString& key)
{
    static const QHash<QString, QString> names { { "ixml", "iXML" }, { "fmt", "'fmt '" },
        { "bext", "'bext'" }, { "riff", "RIFF" }, { "data", "'data'" },
        { "prores_variant", "ProRes variant" }, { "written_by_clipward", "written by Clipward" } };
    return names.value(key, QString(key).replace('_', ' '));
}

// One value on one line: null as "none", booleans as yes and no, whole numbers without a fraction, line
// breaks inside text written as \r and \n.
QString scalarText(const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Null:
    case QJsonValue::Undefined:
        return QStringLiteral("none");
    case QJsonValue::Bool:
        return value.toBool() ? QStringLiteral("yes") : QStringLiteral("no");
    case QJsonValue::Double: {
        const double v = value.toDouble();
        return std::floor(v) == v ? QString::number(v, 'f', 0) : QString::number(v, 'g', 12);
    }
    default:
        return value.toString().replace('\r', "\\r").replace('\n', "\\n").replace('\t', "\\t");
    }
}

void render(const QJsonObject& object, const QString& holder, int depth, QStringList* lines)
{
    const QString indent(4 * depth, ' ');
    for (const QString& key : orderedKeys(object, holder)) {
        if (holder.isEmpty() && key == QLatin1String("path"))
            continue; // the heading
        const QJsonValue value = object.value(key);
        if (value.isObject()) {
            *lines << indent + label(key) + ':';
            render(value.toObject(), key, depth + 1, lines);
        } else if (value.isArray()) {
            const QJsonArray items = value.toArray();
            if (items.isEmpty())
                *lines << indent + label(key) + ": none";
            const QString item = label(key).endsWith('s') ? label(key).chopped(1) : label(key);
            for (int i = 0; i < items.size(); ++i) {
                if (items.at(i).isObject()) {
                    *lines << indent + QString("%1 %2:").arg(item).arg(i + 1);
                    render(items.at(i).toObject(), key, depth + 1, lines);
                } else {
                    *lines << indent + QString("%1 %2: %3").arg(item).arg(i + 1).arg(scalarText(items.at(i)));
                }
            }
        } else {
            *lines << indent + label(key) + ": " + scalarText(value);
        }
    }
}

} // namespace

namespace RecordingInfoParts {

QJsonValue nameAfterFinish(const QString& path, NameState name, const QString& inProgress,
    const QString& extension, bool replacesExisting)
{
    if (name != NameState::InProgress) {
        const QFileInfo info(path);
        return info.dir().filePath(info.completeBaseName() + extension);
    }
    // The procedures rename only a name ending in the lower-case extension, replacing it wherever it
    // occurs in the path, and a rename onto an existing name fails unless the procedure removes that first.
    if (!path.endsWith(inProgress))
        return QJsonValue();
    const QString target = QString(path).replace(inProgress, extension);
    if (QFileInfo::exists(target) && !replacesExisting)
        return QJsonValue();
    return target;
}

PredictedFinish::PredictedFinish(const QString& path, NameState name)
    : m_quiet(QtMessageFilter::Drop::Everything)
    , m_view(path)
{
    m_fields.insert("run_takes_it", name == NameState::InProgress);
    QString run;
    switch (name) {
    case NameState::InProgress:
        run = QStringLiteral("a run finishes it as follows");
        break;
    case NameState::GivenUp:
        run = QStringLiteral("a run counts it given up earlier and leaves it; under its in-progress name a "
                             "finish would go as follows");
        break;
    default:
        run = QStringLiteral("a run does not list this name; under its in-progress name a finish would go as "
                             "follows");
        break;
    }
    m_fields.insert("under_this_name", run);
    m_fields.insert("method", "the finish itself, run on a copy-on-write view of the file");
    m_opened = m_view.openView();
    if (!m_opened) {
        m_fields.insert("outcome", "unreadable");
        m_fields.insert("reason", m_view.errorString());
    }
}

QJsonValue writeBlock(const QString& path)
{
    const QFileInfo info(path);
    CardAccess::WriteBlock block = CardAccess::WriteBlock::None;
    if (CardAccess::driveWriteProtected(info.absolutePath()))
        block = CardAccess::WriteBlock::DriveWriteProtected;
    else if (!info.isWritable())
        block = CardAccess::WriteBlock::FileNotWritable;
    else if (!CardAccess::folderWritable(info.absolutePath()))
        block = CardAccess::WriteBlock::FolderNotWritable;
    return block == CardAccess::WriteBlock::None ? QJsonValue() : QJsonValue(CardAccess::reasonText(block));
}

} // namespace RecordingInfoParts

namespace RecordingInfo {

namespace {

// What is at the path when it is no file to describe ("missing", a folder...); false when it is a file.
bool describedAsNoFile(const QFileInfo& given, QJsonObject* info)
{
    if (!given.exists()) {
        info->insert("kind", "missing");
        info->insert("reason", "no such file");
        return true;
    }
    if (!given.isFile()) {
        info->insert("kind", "none");
        info->insert("reason", given.isDir() ? "a folder, not a file" : "not a regular file");
        return true;
    }
    return false;
}

// What the file holds, read as a WAV when it starts so, else as a movie.
void describeContents(QFile& file, QJsonObject* info)
{
    QString reason;
    const bool riff = file.peek(4) == "RIFF";
    bool described = false;
    if (riff) {
        described = RecordingInfoParts::describeSound(file, info, &reason);
        info->insert("kind", described ? "wav" : "none");
    } else {
        described = RecordingInfoParts::describeMovie(file, info, &reason);
        info->insert("kind", described ? "movie" : "none");
    }
    if (!described && !riff)
        reason = QString("%1 bytes that are neither a movie nor a RIFF/WAVE file: %2")
                     .arg(file.size())
                     .arg(reason);
    info->insert("reason", described ? QJsonValue() : QJsonValue(reason));
}

} // namespace

QJsonObject describe(const QString& givenPath)
{
    const QFileInfo given(givenPath);
    const QString path = given.absoluteFilePath();
    const NameState name = nameStateOf(path);
    QJsonObject info;
    info.insert("path", path);
    info.insert("name_says", nameStateText(name));
    info.insert("family", QJsonValue());
    if (describedAsNoFile(given, &info))
        return info;
    info.insert("file_size", given.size());
    // Shared, as a scan locks: a run that is finishing the file now holds it exclusively.
    const RecordingLock lock(path, RecordingLock::Mode::Shared);
    info.insert("in_use", lock.state() == RecordingLock::State::InUse);
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        info.insert("kind", "unreadable");
        info.insert("reason", file.errorString());
        return info;
    }
    describeContents(file, &info);
    file.close();

    switch (procedureFor(path, info)) {
    case Procedure::Movie:
        info.insert("finish", RecordingInfoParts::predictMovieFinish(path, name));
        break;
    case Procedure::Sound:
        info.insert("finish", RecordingInfoParts::predictSoundFinish(path, name));
        break;
    case Procedure::None:
        break;
    }
    return info;
}

bool known(const QJsonObject& description)
{
    const QString kind = description.value("kind").toString();
    return kind == QLatin1String("movie") || kind == QLatin1String("wav");
}

QStringList textLines(const QJsonObject& description)
{
    QStringList lines { description.value("path").toString() };
    render(description, QString(), 1, &lines);
    return lines;
}

} // namespace RecordingInfo
