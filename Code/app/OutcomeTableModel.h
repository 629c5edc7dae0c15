#pragma once

#include "finalize/FileOutcome.h"

#include <QAbstractTableModel>
#include <QString>
#include <QVector>

class QIODevice;

// The per-file outcomes of the window's last run, one row per in-progress file in the order the run met
// them: what the Files tab shows and what Save Outcomes... writes.
class OutcomeTableModel : public QAbstractTableModel
{
    Q_OBJECT

public:
    enum Column {
        FileColumn, // the name before, and the name after where the run renamed it
        OutcomeColumn, // in plain words
        ReasonColumn, // why, where there is a reason
        FamilyColumn, // Tern or Heron
        FramesColumn, // a movie's video frames
        SoundColumn, // a movie's sound tracks, a WAV's channels
        TimecodeColumn, // the start timecode
        FolderColumn, // the folder, from the started folder's own name down
        ColumnCount
    };
    // What a column sorts by: numbers as numbers, everything else by its text.
    static const int SortRole = Qt::UserRole;

    // The files a save writes: CSV with a header row, or JSON Lines with the objects clipward-cli --json
    // gives for files.
    enum class Format { Csv, JsonLines };

    explicit OutcomeTableModel(QObject* parent = nullptr);

    // Empties the table for a run started on `root` (the folder the Folder column counts from).
    void clear(const QString& root);
    // Rows at the end, in the order given.
    void add(const QVector<FileOutcome>& outcomes);
    const QVector<FileOutcome>& outcomes() const { return m_outcomes; }

    // One line: how many files, and how many of them came to each end ("3 files: 2 finalized, 1 given up").
    QString summary() const;
    // The outcome column's words for `fate`.
    static QString outcomeText(FileOutcome::Fate fate);

    // JSON Lines for a path ending in .jsonl, .ndjson or .json, CSV for one ending in .csv (any case);
    // `otherwise` for any other name.
    static Format formatFor(const QString& path, Format otherwise = Format::Csv);
    // Every row in the run's order; false when the device takes less than it is given.
    bool write(QIODevice& device, Format format) const;

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    int columnCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;

private:
    // The fates a later run can still finish: in use, unreadable, not writable, kept by the card.
    static bool leftAsItIs(FileOutcome::Fate fate);
    // `before`, and `after` behind an arrow when the run renamed the file.
    static QString beforeAndAfter(const FileOutcome& outcome, const QString& before, const QString& after);
    QString folderText(const FileOutcome& outcome) const;
    // The row's tool tip: the whole path before and after, and the recording's details beyond the columns.
    static QString toolTip(const FileOutcome& outcome);
    // What `column` sorts by: numbers as numbers, everything else by its text.
    QVariant sortValue(const FileOutcome& outcome, int column) const;
    // The text `column` shows.
    QVariant displayText(const FileOutcome& outcome, int column) const;

    QVector<FileOutcome> m_outcomes;
    QString m_rootParent; // the folder holding the run's start folder
    int m_fateCounts[int(FileOutcome::Fate::CopyExists) + 1] = {};
};
