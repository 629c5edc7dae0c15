#pragma once

#include "finalize/CopyProgress.h"
#include "finalize/FileOutcome.h"
#include "finalize/RecordingLock.h"
#include "finalize/VerifiedCopy.h"
#include "movie/HeronQuickTimeFile.h"

#include <QDir>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>

#include <functional>

class AudioFile;
class CardFile;
class CopyOnWriteFile;
struct FinishPrediction;

// Driver of one run: walks the start folders depth-first, picks out the recorder's in-progress
// files by name and either reports them (scan-only) or hands each to its family's procedure.
class Finalize : public QObject
{
    Q_OBJECT

public:
    Finalize();
    ~Finalize() override;

    bool finalizeFolders(const QStringList& paths);
    bool finalizeFolderTree(const QStringList& paths);
    bool finalizeFolderTree(QDir& dir);
    // The walk: `visit` is called for `dir` and each folder below it, depth-first; skip folders, the
    // output folder and links back into the walk are passed over (with a line, when `tellSkips`).
    void walkTree(QDir& dir, const std::function<void(QDir&)>& visit, bool tellSkips);
    bool isSkipFolder(QDir& dir);
    bool finalizeFolder(QDir& dir);
    int getFileType(QString path);
    unsigned int doFinalize(QString path);
    unsigned int ternDoFinalize(QString path);
    unsigned int heronDoFinalize(QString path);
    // Copies the recorder's settings into a Heron movie before recovery (RecoverySettings::copyInto).
    static void setQuickTimeFileInfo(QuickTimeFile::RecoverySettings* settings, QuickTimeFile* movie);

    // What a family procedure did to one file, returned to the driver: its result code (0 finished), the
    // family whose procedure ran (null when none did) and the name it gave the file (empty when it named
    // none). The procedures above return the code and keep the family and the name in isTern and
    // outputFileName as well.
    struct FileFinish
    {
        static constexpr unsigned int s_finalized = 0;
        static constexpr unsigned int s_unrecoverable = 31; // what a procedure returns for any failure
        bool finished() const { return code == s_finalized; }
        unsigned int code = 0;
        const Tern::MovieFamily* family = nullptr;
        QString outputName;
    };
    FileFinish finishFile(const QString& path);

    // The steps of each family's movie finish on an open file, up to the rename: check the in-progress
    // layout (or an earlier finish cut short), load and check the settings, rebuild the index. The
    // procedures run them on the card's file; clipward-cli --info runs them on a copy-on-write view to
    // tell what a finish would do. The Tern steps log the procedure's progress lines.
    enum class TernStep { Finalized, FinishedEarlier, Corrupted, NoSettings, InvalidSettings, RebuildFailed };
    static TernStep finishTernMovie(
        Tern::QuickTimeFile& movie, const QString& path, Tern::FinishStyle style);
    // The words of the line the Tern procedure logs for a step's end, after the stars and the path ("recovery
    // failed, corrupted file!"); null for a movie finished now.
    static const char* ternStepText(TernStep step);
    enum class HeronStep { Finalized, FinishedEarlier, NotInProgress, NoSettings, RebuildFailed };
    static HeronStep finishHeronMovie(QuickTimeFile& movie, const QString& path, Tern::FinishStyle style);
    // The audio finish: the header read, then the sizes repaired; the audio library's result code.
    static unsigned int finishHeronSound(AudioFile& audio, Tern::FinishStyle style);

    // What the procedure of `family` would do to the recording on `view` (at `path`), the card untouched.
    static FinishPrediction predictFinish(const Tern::MovieFamily& family, CopyOnWriteFile& view,
        const QString& path);

    // Rewrites the index of a movie Clipward finished (in either form) into the interchange form; a
    // rewrite cut short is completed. LeftForTheCard sets notFinishedReason.
    enum class Rewrite { Rewritten, NotFinishedByClipward, Failed, InUse, LeftForTheCard };
    Rewrite rewriteForInterchange(const QString& path);

    // Takes a movie Clipward finished or gave up, or a WAV it gave up, back to the in-progress file its
    // recorder left, under the in-progress name (set in `restoredPath`); a restore cut short is completed.
    // The reason for every result but Restored is in notFinishedReason.
    enum class Restore { Restored, Refused, InUse, LeftForTheCard };
    Restore restore(const QString& path, QString* restoredPath);

    // Frame-map storage (QuickTimeFile::s_frameMapEntries entries) handed to the movie objects of a family
    // that keeps its map in the caller's storage.
    unsigned short* workBuffer;
    QString outputFileName;
    QStringList skipFolders;
    QStringList nameFilters;
    bool scanOnly;
    // Whether each outcome carries what its file holds (read after the file's turn; costs a read of the
    // reserved region per movie).
    bool learnFacts = false;
    // When not empty, every recording is copied to the same place below this folder as it has below the
    // start folder and the copy is finished there; the card's files are only read. A copy's name already
    // taken in this folder is left alone unless `overwrite`.
    QString outputFolder;
    bool overwrite = false;
    // Test use only: changes the bytes a copy is hashed by, to show that a copy which does not hash as
    // the card's file is refused (VerifiedCopy::Options::corruptCopyHashInput).
    std::function<void(char* data, qint64 size)> copyHashTamper;
    // The form finished movies get (and whether a repaired WAV's sound is cut to whole frames).
    Tern::FinishStyle finishStyle = Tern::FinishStyle::Recorder;
    int goodCount;
    int badCount;
    int isTern;

    // Files left as they were because of the card or another run, not the recording (in use, not
    // writable, unreadable, no room): counted neither finalized nor unrecoverable.
    int leftCount;
    // Folders whose entries could not be listed, so whatever they hold was passed over.
    int unreadableFolderCount;
    // Set by a finalize procedure when the card or the system, not the recording, stopped the finish: the
    // reason for the line. The file then keeps its in-progress name and its bytes, for a later run.
    QString notFinishedReason;

signals:
    void textOutput(const QString& text);
    // Every in-progress file the run met, with what happened to it, right after its line.
    void fileDone(const FileOutcome& outcome);
    // Finishing into copies: how far the copy under way and the whole run have come.
    void copyProgress(const CopyProgress& progress);

private:
    // Each family's procedure; the driver hands a file to the one of the family getFileType finds.
    FileFinish ternFinish(const QString& path);
    FileFinish heronFinish(const QString& path);
    // And what it would do to a recording, its steps run on a copy-on-write view (clipward-cli --info).
    static FinishPrediction predictTernFinish(CopyOnWriteFile& view, const QString& path);
    static FinishPrediction predictHeronFinish(CopyOnWriteFile& view, const QString& path);
    struct FamilyProcedure
    {
        const Tern::MovieFamily* family;
        FileFinish (Finalize::*finish)(const QString& path);
        FinishPrediction (*predict)(CopyOnWriteFile& view, const QString& path);
    };
    static constexpr FamilyProcedure s_procedures[] = {
        {&Tern::ternFamily, &Finalize::ternFinish, &Finalize::predictTernFinish},
        {&Tern::heronFamily, &Finalize::heronFinish, &Finalize::predictHeronFinish},
    };
    static const FamilyProcedure* procedureOf(const Tern::MovieFamily* family);
    // Keeps what a procedure returned in isTern and outputFileName, as the driver's members tell it.
    unsigned int keep(const FileFinish& finish);
    // The family of the last procedure that ran (isTern's, as a family; Heron's before any ran).
    const Tern::MovieFamily* m_lastFamily = &Tern::heronFamily;

    // The steps of restore(): the refusals by name, then the take-back of a finished movie's bytes.
    static QString restoreRefusal(const QString& path, QString* restoredPath);
    Restore takeBackFinishedMovie(const QString& path);

    // The family code of the file at `path` by its name and first atom, opened with `mode`; its name.
    static int familyByFirstAtom(const QString& path, QIODevice::OpenMode mode);
    static QString familyNameOf(int type);

    // Finishing into a copy (outputFolder): where the copy of `path` goes, and the copy, its finish and
    // its rename there, told in `outcome`.
    QString copyPlaceOf(const QString& path) const;
    void copyAndFinish(FileOutcome* outcome);
    // True, with the outcome, when the copy's finished or given-up name is taken and not to be replaced.
    bool copyNameTaken(const QString& folder, const QString& workName, FileOutcome* outcome) const;
    // The verified copy of `path` at `copy`, its progress told on copyProgress.
    VerifiedCopy::Result verifiedCopy(const QString& path, const QString& copy);
    void finishCopy(const QString& copy, const QString& folder, FileOutcome* outcome);
    // Whether the run copies recordings: a finish into copies, not a scan.
    bool copiesRecordings() const { return !outputFolder.isEmpty() && !scanOnly; }
    // The recordings below `dir` a run into copies will copy, counted into m_copyProgress before the first.
    void countCopies(QDir& dir);
    // A recording's turn in a run into copies begins, and ends with its bytes counted as done.
    void beginCopyTurn(const QString& path);
    void endCopyTurn();
    CopyProgress m_copyProgress;
    QString m_startFolder; // the start folder of the walk, absolute
    QString m_outputCanonical; // the output folder as the walk compares folders, so it is never walked

    // One listed file: tried or left, and why. The report's line and the counts are made from it.
    FileOutcome finalizeFile(QDir& dir, const QString& name);
    // Runs the family's procedure on `path` and tells in `outcome` the family and whether it finished,
    // gave up, or was left for the card (notFinishedReason); the procedure's result for the caller.
    FileFinish finishAndJudge(const QString& path, FileOutcome* outcome);
    // The in-progress file's turn with its family's procedure, told in `outcome`.
    void finishInto(QDir& dir, FileOutcome* outcome);
    // The report's line for a file and the count it adds to (null: none), then both given with the outcome.
    QString reportLine(const FileOutcome& outcome) const;
    int* countFor(FileOutcome::Fate fate);
    void report(const FileOutcome& outcome);
    // True when the finish of `file` failed because of the card or the system, not the recording: the
    // reason is kept for the driver's line and the procedure leaves the file's name as it is.
    bool leftForTheCard(const CardFile& file, bool finished);

    // Canonical paths of the folders the walk is inside of, from the start path down: a folder link that
    // leads back into one of them would loop, so it is reported as skipped instead. Links elsewhere,
    // to a sibling for example, are walked like folders.
    QSet<QString> m_enclosingFolders;
};
