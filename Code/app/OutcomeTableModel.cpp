#include "OutcomeTableModel.h"

#include <QDir>
#include <QFileInfo>
#include <QIODevice>
#include <QJsonDocument>
#include <QLocale>
#include <QStringList>

#include <algorithm>
#include <cmath>
#include <iterator>

namespace {

// The CSV's columns after the file's own: every fact either kind of recording has, under the names the
// JSON's "learned" object gives them, so a CSV and a JSON Lines file of one run say the same.
const char* const kLearnedColumns[]
    = { "video_frames", "sound_tracks", "samples_per_track", "frame_rate", "interlaced", "width", "height",
          "codec", "reel_name", "channels", "sample_rate", "bits_per_sample", "samples", "start_timecode" };
const char* const kFileColumns[] = { "path", "path_after", "family", "outcome", "reason" };

// "1 track", "2 tracks".
QString counted(qint64 count, const char* one, const char* many)
{
    return QString("%1 %2").arg(count).arg(QLatin1String(count == 1 ? one : many));
}

// A field of RFC 4180: quoted, with its quotes doubled, when it holds a separator, a quote or a line break.
QString csvField(const QString& text)
{
    if (!text.contains(QLatin1Char(',')) && !text.contains(QLatin1Char('"')) && !text.contains('\n')
        && !text.contains('\r'))
        return text;
    return QLatin1Char('"') + QString(text).replace(QLatin1String("\""), QLatin1String("\"\""))
        + QLatin1Char('"');
}

// One record of RFC 4180: the fields apart by commas, ended by CR LF.
QByteArray csvRecord(const QStringList& fields)
{
    return fields.join(QLatin1Char(',')).toUtf8() + "\r\n";
}

// A JSON value as a CSV field: null is empty, numbers as JSON writes them.
QString csvText(const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Bool:
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    case QJsonValue::Double: {
        const double number = value.toDouble();
        // Counts as whole numbers, however large; rates as short as they read back the same.
        if (number == std::floor(number) && std::fabs(number) < 9007199254740992.0)
            return QString::number(qint64(number));
        return QString::number(number, 'g', QLocale::FloatingPointShortest);
    }
    case QJsonValue::String:
        return value.toString();
    default:
        return QString();
    }
}

// A recording's details beyond the columns, for the row's tool tip.
QString detailsText(const RecordingFacts& facts)
{
    QStringList parts;
    if (facts.kind == RecordingFacts::Kind::Movie) {
        if (facts.width != 0 && facts.height != 0)
            parts << QString("%1x%2").arg(facts.width).arg(facts.height);
        if (!facts.codec.isEmpty())
            parts << facts.codec;
        if (facts.frameRate != 0)
            parts << QString("%1 %2").arg(facts.frameRate / 100.0).arg(facts.interlaced ? "fields/s" : "fps");
        if (!facts.reelName.isEmpty())
            parts << QString("reel %1").arg(facts.reelName);
    } else if (facts.kind == RecordingFacts::Kind::Sound) {
        parts << QString("%1 samples").arg(facts.samples);
    }
    if (facts.sampleRate != 0)
        parts << QString("%1 Hz %2-bit sound").arg(facts.sampleRate).arg(facts.bitsPerSample);
    return parts.join(QLatin1String(", "));
}

} // namespace

OutcomeTableModel::OutcomeTableModel(QObject* parent)
    : QAbstractTableModel(parent)
{
}

void OutcomeTableModel::clear(const QString& root)
{
    beginResetModel();
    m_outcomes.clear();
    // The folder above the started one, once: every Folder cell and every comparison of a sort by
    // folder is relative to it.
    m_rootParent = QFileInfo(QDir::cleanPath(root)).absolutePath();
    std::fill(std::begin(m_fateCounts), std::end(m_fateCounts), 0);
    endResetModel();
}

void OutcomeTableModel::add(const QVector<FileOutcome>& outcomes)
{
    if (outcomes.isEmpty())
        return;
    const int first = m_outcomes.size();
    beginInsertRows(QModelIndex(), first, first + outcomes.size() - 1);
    m_outcomes += outcomes;
    for (const FileOutcome& outcome : outcomes)
        ++m_fateCounts[int(outcome.fate)];
    endInsertRows();
}

QString OutcomeTableModel::outcomeText(FileOutcome::Fate fate)
{
    switch (fate) {
    case FileOutcome::Fate::Finalized:
        return tr("Finalized");
    case FileOutcome::Fate::GivenUp:
        return tr("Given up");
    case FileOutcome::Fate::GivenUpEarlier:
        return tr("Given up before");
    case FileOutcome::Fate::NeedsFinishing:
        return tr("Needs finalizing");
    case FileOutcome::Fate::Gone:
        return tr("No longer there");
    case FileOutcome::Fate::InUse:
    case FileOutcome::Fate::Unreadable:
    case FileOutcome::Fate::NotWritable:
    case FileOutcome::Fate::LeftForTheCard:
    case FileOutcome::Fate::CopyExists:
        break;
    }
    // The reason column says what kept each of these from being finished; a later run can.
    return leftAsItIs(fate) ? tr("Left as it is") : QString();
}

bool OutcomeTableModel::leftAsItIs(FileOutcome::Fate fate)
{
    using Fate = FileOutcome::Fate;
    return fate == Fate::InUse || fate == Fate::Unreadable || fate == Fate::NotWritable
        || fate == Fate::LeftForTheCard || fate == Fate::CopyExists;
}

QString OutcomeTableModel::summary() const
{
    using Fate = FileOutcome::Fate;
    const auto count = [this](Fate fate) { return m_fateCounts[int(fate)]; };
    if (m_outcomes.isEmpty())
        return tr("No in-progress files found.");
    int left = 0;
    for (int fate = 0; fate < int(std::size(m_fateCounts)); ++fate)
        left += leftAsItIs(Fate(fate)) ? m_fateCounts[fate] : 0;
    QStringList parts;
    if (count(Fate::Finalized) != 0)
        parts << tr("%1 finalized").arg(count(Fate::Finalized));
    if (count(Fate::NeedsFinishing) != 0)
        parts << (count(Fate::NeedsFinishing) == 1
                ? tr("1 needs finalizing")
                : tr("%1 need finalizing").arg(count(Fate::NeedsFinishing)));
    if (count(Fate::GivenUp) != 0)
        parts << tr("%1 given up").arg(count(Fate::GivenUp));
    if (count(Fate::GivenUpEarlier) != 0)
        parts << tr("%1 given up before").arg(count(Fate::GivenUpEarlier));
    if (left != 0)
        parts << (left == 1 ? tr("1 left as it is") : tr("%1 left as they are").arg(left));
    if (count(Fate::Gone) != 0)
        parts << tr("%1 no longer there").arg(count(Fate::Gone));
    return tr("%1: %2.").arg(counted(m_outcomes.size(), "file", "files"), parts.join(QLatin1String(", ")));
}

QString OutcomeTableModel::beforeAndAfter(
    const FileOutcome& outcome, const QString& before, const QString& after)
{
    if (outcome.pathAfter == outcome.pathBefore)
        return before;
    return before + QString::fromUtf8(" \u2192 ") + after;
}

QString OutcomeTableModel::folderText(const FileOutcome& outcome) const
{
    // From the started folder's own name down ("CARD/DCIM/100CLIPS"), which the user recognises.
    const QString folder = QFileInfo(outcome.pathBefore).absolutePath();
    const QString relative = QDir(m_rootParent).relativeFilePath(folder);
    if (relative.isEmpty() || relative == QLatin1String(".") || relative.startsWith(QLatin1String("..")))
        return QDir::toNativeSeparators(folder);
    return QDir::toNativeSeparators(relative);
}

int OutcomeTableModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : m_outcomes.size();
}

int OutcomeTableModel::columnCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant OutcomeTableModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid() || index.row() >= m_outcomes.size())
        return QVariant();
    const FileOutcome& outcome = m_outcomes.at(index.row());
    if (role == Qt::ToolTipRole)
        return toolTip(outcome);
    if (role == Qt::TextAlignmentRole && index.column() == FramesColumn)
        return int(Qt::AlignRight | Qt::AlignVCenter);
    if (role == SortRole)
        return sortValue(outcome, index.column());
    if (role != Qt::DisplayRole)
        return QVariant();
    return displayText(outcome, index.column());
}

QString OutcomeTableModel::toolTip(const FileOutcome& outcome)
{
    const QString tip = beforeAndAfter(
        outcome, QDir::toNativeSeparators(outcome.pathBefore), QDir::toNativeSeparators(outcome.pathAfter));
    const QString details = detailsText(outcome.facts);
    return details.isEmpty() ? tip : tip + '\n' + details;
}

QVariant OutcomeTableModel::sortValue(const FileOutcome& outcome, int column) const
{
    const RecordingFacts& facts = outcome.facts;
    const bool movie = facts.kind == RecordingFacts::Kind::Movie;
    const bool sound = facts.kind == RecordingFacts::Kind::Sound;
    switch (column) {
    case FileColumn:
        return QFileInfo(outcome.pathBefore).fileName();
    case FramesColumn:
        return movie ? qint64(facts.videoFrames) : qint64(-1);
    case SoundColumn:
        return movie ? qint64(facts.soundTracks) : sound ? qint64(facts.channels) : qint64(-1);
    default:
        return displayText(outcome, column);
    }
}

QVariant OutcomeTableModel::displayText(const FileOutcome& outcome, int column) const
{
    const RecordingFacts& facts = outcome.facts;
    const bool movie = facts.kind == RecordingFacts::Kind::Movie;
    const bool sound = facts.kind == RecordingFacts::Kind::Sound;
    switch (column) {
    case FileColumn:
        return beforeAndAfter(
            outcome, QFileInfo(outcome.pathBefore).fileName(), QFileInfo(outcome.pathAfter).fileName());
    case OutcomeColumn:
        return outcomeText(outcome.fate);
    case ReasonColumn:
        return outcome.reason;
    case FamilyColumn:
        return outcome.family;
    case FramesColumn:
        return movie ? QString::number(facts.videoFrames) : QString();
    case SoundColumn:
        if (movie)
            return facts.soundTracks == 0 ? tr("none") : counted(facts.soundTracks, "track", "tracks");
        return sound ? counted(facts.channels, "channel", "channels") : QString();
    case TimecodeColumn:
        return facts.startTimecode;
    case FolderColumn:
        return folderText(outcome);
    }
    return QVariant();
}

QVariant OutcomeTableModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return QAbstractTableModel::headerData(section, orientation, role);
    switch (section) {
    case FileColumn:
        return tr("File");
    case OutcomeColumn:
        return tr("Outcome");
    case ReasonColumn:
        return tr("Reason");
    case FamilyColumn:
        return tr("Family");
    case FramesColumn:
        return tr("Frames");
    case SoundColumn:
        return tr("Sound");
    case TimecodeColumn:
        return tr("Timecode");
    case FolderColumn:
        return tr("Folder");
    }
    return QVariant();
}

OutcomeTableModel::Format OutcomeTableModel::formatFor(const QString& path, Format otherwise)
{
    const QString suffix = QFileInfo(path).suffix().toLower();
    if (suffix == QLatin1String("jsonl") || suffix == QLatin1String("ndjson")
        || suffix == QLatin1String("json"))
        return Format::JsonLines;
    return suffix == QLatin1String("csv") ? Format::Csv : otherwise;
}

bool OutcomeTableModel::write(QIODevice& device, Format format) const
{
    const auto put = [&device](const QByteArray& bytes) { return device.write(bytes) == bytes.size(); };
    if (format == Format::JsonLines) {
        for (const FileOutcome& outcome : m_outcomes) {
            if (!put(QJsonDocument(outcome.toJson()).toJson(QJsonDocument::Compact) + '\n'))
                return false;
        }
        return true;
    }
    // RFC 4180: a header row, and every record ends with CR LF.
    QStringList header;
    for (const char* name : kFileColumns)
        header << QLatin1String(name);
    for (const char* name : kLearnedColumns)
        header << QLatin1String(name);
    if (!put(csvRecord(header)))
        return false;
    for (const FileOutcome& outcome : m_outcomes) {
        const QJsonObject object = outcome.toJson();
        const QJsonObject learned = object.value(QLatin1String("learned")).toObject();
        QStringList fields;
        for (const char* name : kFileColumns)
            fields << csvField(csvText(object.value(QLatin1String(name))));
        for (const char* name : kLearnedColumns)
            fields << csvField(csvText(learned.value(QLatin1String(name))));
        if (!put(csvRecord(fields)))
            return false;
    }
    return true;
}
