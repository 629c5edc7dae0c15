#pragma once

#include "finalize/CopyProgress.h"
#include "finalize/FileOutcome.h"
#include "movie/QuickTimeFile.h"

#include <QObject>
#include <QString>

#include <functional>

// One press of Start: the report header, the driver's walk and the summary, as a sequence of
// texts on `output`. The window and the command line both present exactly this sequence.
// Library messages logged meanwhile go through the installed message handler, in time order.
class FinalizeRun : public QObject
{
    Q_OBJECT

public:
    struct Summary
    {
        bool pathExists = false;
        int goodCount = 0;
        int badCount = 0;
        int leftCount = 0; // files left as they were: in use, not writable, unreadable, no room
        int unreadableFolderCount = 0; // folders passed over because they could not be listed

        // Something was passed over that a later run, or a run elsewhere, could still do.
        bool somethingLeft() const { return leftCount != 0 || unreadableFolderCount != 0; }
    };

    explicit FinalizeRun(bool scanOnly, Tern::FinishStyle style = Tern::FinishStyle::Recorder);
    // Each outcome on fileDone carries what its file holds.
    void setLearnFacts(bool learn) { m_learnFacts = learn; }
    // Finish copies below `folder` instead of the card's files (Finalize::outputFolder); an empty folder
    // finishes in place.
    void setOutput(const QString& folder, bool overwrite)
    {
        m_outputFolder = folder;
        m_overwrite = overwrite;
    }

    // The process's current directory is the same after the run as before it: the walk makes the start
    // folder current, and a card that stays anyone's current directory cannot be ejected.
    Summary run(const QString& path);

    // Rewrites the index of each movie Clipward finished into the interchange form: one line per file and
    // the counts. goodCount counts the movies rewritten, badCount those refused, leftCount those the card
    // or another run kept from it.
    Summary rewriteForInterchange(const QStringList& files);

    // Takes each movie Clipward finished or gave up, and each WAV it gave up, back to the in-progress state
    // its recorder left, under its in-progress name: one line per file and the counts. goodCount counts
    // the files restored, badCount those refused, leftCount those the card or another run kept from it.
    Summary restore(const QStringList& files);

    // Whether `folder`, as an output folder for copies, is `path` or lies below it, where the walk would
    // meet the copies.
    static bool outputInsidePath(const QString& path, const QString& folder);

    // First two characters of the absolute path of the folder holding `path` ("/V" for /Volumes/CARD).
    static QString driveOf(const QString& path);

signals:
    void output(const QString& text);
    // What happened to each in-progress file, right after its line.
    void fileDone(const FileOutcome& outcome);
    // Finishing into copies: how far the copy under way and the whole run have come.
    void copyProgress(const CopyProgress& progress);

private:
    // A command on given files: `treat` does it to each (its absolute path) and gives the file's line and
    // the count it adds to; the closing lines say how many were not `verb` and left, then `doneLine` with
    // the count of those done.
    struct FileLine
    {
        QString text;
        int Summary::*count;
    };
    Summary eachGivenFile(const QStringList& files, const char* verb, const QString& doneLine,
        const std::function<FileLine(const QString& path)>& treat);

    // A run's opening lines (drive, mode) and closing lines (counts).
    void announce(const QStringList& paths);
    void closeRun(const Summary& summary);

    bool m_scanOnly;
    Tern::FinishStyle m_style;
    bool m_learnFacts = false;
    QString m_outputFolder;
    bool m_overwrite = false;
};
