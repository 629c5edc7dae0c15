#include "finalize/Finalize.h"

#include "finalize/CardAccess.h"
#include "finalize/CardFile.h"
#include "finalize/FinishPrediction.h"
#include "finalize/QtMessageFilter.h"

#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QtEndian>

#include <algorithm>
#include <vector>

namespace {
// getFileType's code for a file whose family cannot be read; the families' own codes are theirs.
const int kFamilyUnreadable = 2;

ushort asciiLower(ushort c)
{
    return c >= 'A' && c <= 'Z' ? ushort(c + ('a' - 'A')) : c;
}

// One wildcard pattern as QDir matches a name against it: the regular expression QDir builds from it.
// A pattern that is "*" and then plain ASCII text, like the recorder's "*.zqv", matches exactly the names
// that end in that text; as long as those last characters of a name are ASCII that is decided here
// (ASCII letters compared without case unless case counts) and the expression is not run.
struct NameFilter
{
    QRegularExpression expression;
    QString suffix; // the text after "*" for a pattern of that form, else empty
    bool caseSensitive = false;

    bool matches(const QString& name) const
    {
        if (!suffix.isEmpty()) {
            if (name.size() < suffix.size())
                return false;
            const int start = name.size() - suffix.size();
            bool decided = true;
            for (int i = 0; i < suffix.size() && decided; ++i) {
                const ushort c = name.at(start + i).unicode();
                const ushort want = suffix.at(i).unicode();
                if (c >= 0x80)
                    decided = false; // beyond ASCII the expression's own case rules decide
                else if (c != want && (caseSensitive || asciiLower(c) != asciiLower(want)))
                    return false;
            }
            if (decided)
                return true;
        }
        return expression.match(name).hasMatch();
    }
};

// The text after a leading "*" when the rest holds no wildcard and only ASCII, else empty.
QString plainSuffixOf(const QString& filter)
{
    if (filter.size() < 2 || filter.at(0) != QLatin1Char('*'))
        return QString();
    const QString rest = filter.mid(1);
    for (const QChar c : rest) {
        if (c.unicode() >= 0x80 || QStringLiteral("*?[]\\/").contains(c))
            return QString();
    }
    return rest;
}

// The patterns, compiled once for as long as they and their case rule stay the same. QDir compiles (and,
// once they are used a few times, JIT-compiles) fresh expressions on every listing, which made that the
// main cost of walking a card of thousands of folders.
const QVector<NameFilter>& compiledNameFilters(const QStringList& filters, bool caseSensitive)
{
    static QStringList compiledFor;
    static bool compiledCaseSensitive = false;
    static QVector<NameFilter> compiled;
    if (filters != compiledFor || caseSensitive != compiledCaseSensitive
        || compiled.size() != filters.size()) {
        compiled.clear();
        for (const QString& filter : filters) {
            NameFilter f;
            f.expression = QRegularExpression(QRegularExpression::wildcardToRegularExpression(filter),
                                              caseSensitive ? QRegularExpression::NoPatternOption
                                                            : QRegularExpression::CaseInsensitiveOption);
            f.suffix = plainSuffixOf(filter);
            f.caseSensitive = caseSensitive;
            compiled << f;
        }
        compiledFor = filters;
        compiledCaseSensitive = caseSensitive;
    }
    return compiled;
}

// dir.entryList(filters): the same names in the same order. The folder's entries are read with the
// directory's own attribute filters, kept when a pattern matches (folders too, unless all folders are
// asked for), then sorted as QDir sorts by name: std::sort over the lower-cased names, compared as
// plain strings, in directory order. Any other sort order is left to QDir itself.
QStringList entriesMatching(const QDir& dir, const QStringList& filters)
{
    const QDir::SortFlags sorting = dir.sorting();
    if (filters.isEmpty() || (sorting != QDir::Name && sorting != (QDir::Name | QDir::IgnoreCase)))
        return dir.entryList(filters);

    const QDir::Filters attributes = dir.filter();
    const QVector<NameFilter>& patterns
        = compiledNameFilters(filters, attributes.testFlag(QDir::CaseSensitive));
    struct Entry
    {
        QString key;
        QString name;
    };
    std::vector<Entry> entries;
    QDirIterator it(dir.path(), attributes);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        const QString name = info.fileName();
        if (!(attributes.testFlag(QDir::AllDirs) && info.isDir())) {
            const bool matched = std::any_of(patterns.begin(), patterns.end(),
                                             [&name](const NameFilter& f) { return f.matches(name); });
            if (!matched)
                continue;
        }
        entries.push_back({sorting.testFlag(QDir::IgnoreCase) ? name.toLower() : name, name});
    }
    if (entries.size() > 1) {
        std::sort(entries.begin(), entries.end(),
                  [](const Entry& a, const Entry& b) { return a.key.compare(b.key) < 0; });
    }
    QStringList names;
    names.reserve(int(entries.size()));
    for (const Entry& entry : entries)
        names << entry.name;
    return names;
}

// A file an earlier run gave up. Case-sensitive on purpose: "clip.NRV" is listed by the wildcard but goes
// on to dispatch.
bool isGivenUpName(const QString& name)
{
    return name.endsWith(".nra") || name.endsWith(".nrv");
}

// The line for a file or folder that cannot be read: it is passed over, as it is.
QString cannotBeRead(const QString& path)
{
    return QString("     %1 cannot be read, left as it is\n").arg(path);
}

} // namespace

int Finalize::familyByFirstAtom(const QString& path, QIODevice::OpenMode mode)
{
    // Any name but a movie's is the sound-recording family's.
    if (!path.toLower().endsWith(".zqv"))
        return Tern::soundFileFamily().fileType;

    QFile file(path);
    if (!file.open(mode))
        return kFamilyUnreadable;
    const Tern::MovieFamily* family = Tern::familyOfRecording(file);
    return family ? family->fileType : kFamilyUnreadable;
}

// One that could not be read is named as a sound file's.
QString Finalize::familyNameOf(int type)
{
    const Tern::MovieFamily* family = Tern::familyOfFileType(type);
    return QLatin1String(family ? family->name : Tern::soundFileFamily().name);
}

Finalize::Finalize()
    : workBuffer(new unsigned short[QuickTimeFile::s_frameMapEntries])
    , scanOnly(false)
    , goodCount(0)
    , badCount(0)
    , isTern(0)
    , leftCount(0)
    , unreadableFolderCount(0)
{
    nameFilters << "*.zqv" << "*.zqa" << "*.nrv" << "*.nra";
}

Finalize::~Finalize()
{
    delete[] workBuffer;
}

bool Finalize::finalizeFolders(const QStringList& paths)
{
    goodCount = 0;
    badCount = 0;
    leftCount = 0;
    unreadableFolderCount = 0;
    finalizeFolderTree(paths);
    return true;
}

bool Finalize::finalizeFolderTree(const QStringList& paths)
{
    m_enclosingFolders.clear();
    for (const QString& path : paths) {
        QDir dir(QDir::toNativeSeparators(path));
        if (!dir.exists()) {
            // "Specfied" is the line's own spelling, kept on purpose: scripts and tests match it as it is.
            emit textOutput(QString("ERROR: Specfied path does not exist: %1\n").arg(dir.absolutePath()));
            return true; // later start paths are abandoned on purpose
        }
        // Walk by absolute path: a relative one would resolve against the new current directory.
        dir.makeAbsolute();
        m_startFolder = dir.absolutePath();
        m_outputCanonical = outputFolder.isEmpty() ? QString() : QDir(outputFolder).canonicalPath();
        // Said once, before anything is tried; each file's own line repeats why it is left alone.
        if (!outputFolder.isEmpty())
            emit textOutput(QString("Finished copies go to %1; nothing on the card is written.\n")
                                .arg(QDir(outputFolder).absolutePath()));
        else if (CardAccess::driveWriteProtected(dir.absolutePath()))
            emit textOutput("Drive is write-protected: no file can be finalized here.\n");
        else if (CardAccess::folderListable(dir.absolutePath())
            && !CardAccess::folderWritable(dir.absolutePath()))
            emit textOutput(QString("No permission to write in %1: its files cannot be finalized.\n")
                                .arg(dir.absolutePath()));
        QDir::setCurrent(dir.absolutePath());
        if (copiesRecordings()) {
            m_copyProgress = CopyProgress();
            walkTree(dir, [this](QDir& folder) { countCopies(folder); }, false);
        }
        finalizeFolderTree(dir);
    }
    return true;
}

bool Finalize::finalizeFolderTree(QDir& dir)
{
    walkTree(dir, [this](QDir& folder) { finalizeFolder(folder); }, true);
    return true;
}

void Finalize::walkTree(QDir& dir, const std::function<void(QDir&)>& visit, bool tellSkips)
{
    const QString resolved = dir.canonicalPath();
    const bool output = !resolved.isEmpty() && resolved == m_outputCanonical; // copies are not walked
    if (isSkipFolder(dir) || output || (!resolved.isEmpty() && m_enclosingFolders.contains(resolved))) {
        if (tellSkips)
            emit textOutput(QString("Skipping folder: %1\n").arg(dir.absolutePath()));
        return;
    }
    m_enclosingFolders.insert(resolved);
    visit(dir);

    QStringList subfolders = dir.entryList(QDir::AllDirs);
    subfolders.removeAll(".");
    subfolders.removeAll("..");
    for (const QString& name : subfolders) {
        if (!dir.cd(name))
            continue;
        walkTree(dir, visit, tellSkips);
        dir.cdUp();
    }
    m_enclosingFolders.remove(resolved);
}

bool Finalize::isSkipFolder(QDir& dir)
{
    for (const QString& skip : skipFolders) {
        if (dir == QDir(skip))
            return true;
    }
    return false;
}

bool Finalize::finalizeFolder(QDir& dir)
{
    emit textOutput(QString("Scanning folder: %1\n").arg(dir.absolutePath()));
    if (!CardAccess::folderListable(dir.absolutePath())) {
        emit textOutput(cannotBeRead(dir.absolutePath()));
        ++unreadableFolderCount;
        return true;
    }

    const QStringList names = entriesMatching(dir, nameFilters);
    for (const QString& name : names) {
        const bool copyTurn = copiesRecordings() && !isGivenUpName(name);
        if (copyTurn)
            beginCopyTurn(dir.absoluteFilePath(name));
        FileOutcome outcome = finalizeFile(dir, name);
        if (copyTurn)
            endCopyTurn();
        if (learnFacts && outcome.fate != FileOutcome::Fate::Gone)
            outcome.facts =
                RecordingFacts::of(outcome.copyPath.isEmpty() ? outcome.pathAfter : outcome.copyPath);
        report(outcome);
    }
    return true;
}

void Finalize::countCopies(QDir& dir)
{
    if (!CardAccess::folderListable(dir.absolutePath()))
        return;
    for (const QString& name : entriesMatching(dir, nameFilters)) {
        if (isGivenUpName(name))
            continue;
        ++m_copyProgress.fileCount;
        m_copyProgress.runSize += QFileInfo(dir.filePath(name)).size();
    }
}

void Finalize::beginCopyTurn(const QString& path)
{
    CopyProgress& progress = m_copyProgress;
    progress.path = path;
    progress.fileDone = 0;
    progress.fileSize = QFileInfo(path).size();
    progress.fileEnded = false;
    ++progress.fileNumber;
    // A recording that came after the count, or grew since, widens the run.
    progress.fileCount = qMax(progress.fileCount, progress.fileNumber);
    progress.runSize = qMax(progress.runSize, progress.runDone + progress.fileSize);
    emit copyProgress(progress);
}

void Finalize::endCopyTurn()
{
    CopyProgress& progress = m_copyProgress;
    progress.runDone += progress.fileSize;
    progress.fileDone = progress.fileSize;
    progress.fileEnded = true;
    emit copyProgress(progress);
}

namespace {

// The outcome of a file whose lock was not taken, told by why; false when the lock is held.
bool leftUnlocked(RecordingLock::State state, FileOutcome* outcome)
{
    switch (state) {
    case RecordingLock::State::Held:
        return false;
    case RecordingLock::State::InUse:
        outcome->fate = FileOutcome::Fate::InUse;
        outcome->reason = QStringLiteral("in use by another run");
        break;
    case RecordingLock::State::Gone:
        outcome->fate = FileOutcome::Fate::Gone;
        outcome->reason = QStringLiteral("no longer there");
        break;
    case RecordingLock::State::Unreadable:
        outcome->fate = FileOutcome::Fate::Unreadable;
        outcome->reason = QStringLiteral("cannot be read");
        break;
    }
    return true;
}

} // namespace

FileOutcome Finalize::finalizeFile(QDir& dir, const QString& name)
{
    FileOutcome outcome;
    outcome.pathBefore = dir.absoluteFilePath(name);
    outcome.pathAfter = outcome.pathBefore;
    const QString& path = outcome.pathBefore;
    if (isGivenUpName(name)) {
        outcome.fate = FileOutcome::Fate::GivenUpEarlier;
        outcome.reason = QStringLiteral("given up by an earlier run");
        return outcome;
    }
    // Held from before the header is read until after the rename, so no other run touches the file
    // meanwhile. A scan only reads, and shares it with other scans; so does a finish into a copy.
    const bool onlyRead = scanOnly || !outputFolder.isEmpty();
    const RecordingLock lock(path, onlyRead ? RecordingLock::Mode::Shared : RecordingLock::Mode::Exclusive);
    if (leftUnlocked(lock.state(), &outcome))
        return outcome;
    if (!outputFolder.isEmpty()) {
        if (scanOnly) {
            outcome.family = familyNameOf(familyByFirstAtom(path, QIODevice::ReadOnly));
            outcome.fate = FileOutcome::Fate::NeedsFinishing;
        } else {
            copyAndFinish(&outcome);
        }
        return outcome;
    }
    const CardAccess::WriteBlock block = CardAccess::writeBlockFor(path);
    if (block != CardAccess::WriteBlock::None) {
        // Read only: the file cannot be opened for writing, which getFileType asks for.
        outcome.family = familyNameOf(familyByFirstAtom(path, QIODevice::ReadOnly));
        outcome.fate = FileOutcome::Fate::NotWritable;
        outcome.reason = CardAccess::reasonText(block);
        return outcome;
    }
    if (scanOnly) {
        outcome.family = familyNameOf(getFileType(path));
        outcome.fate = FileOutcome::Fate::NeedsFinishing;
        return outcome;
    }
    finishInto(dir, &outcome);
    return outcome;
}

Finalize::FileFinish Finalize::finishAndJudge(const QString& path, FileOutcome* outcome)
{
    notFinishedReason.clear();
    const FileFinish finish = finishFile(path);
    // A file no procedure ran on is told under the previous file's family and name, as the driver's
    // members still hold them: the line for it has always read so.
    outcome->family = QLatin1String((finish.family ? finish.family : m_lastFamily)->name);
    if (!notFinishedReason.isEmpty()) {
        outcome->fate = FileOutcome::Fate::LeftForTheCard;
        outcome->reason = notFinishedReason;
    } else if (finish.finished()) {
        outcome->fate = FileOutcome::Fate::Finalized;
    } else {
        outcome->fate = FileOutcome::Fate::GivenUp;
        outcome->reason = QStringLiteral("the recording could not be finished");
    }
    return finish;
}

void Finalize::finishInto(QDir& dir, FileOutcome* outcome)
{
    const QString& path = outcome->pathBefore;
    const FileFinish finish = finishAndJudge(path, outcome);
    if (outcome->fate == FileOutcome::Fate::LeftForTheCard)
        return;
    // The line names the file as the procedure tells it; where that name is not a file (a procedure
    // that renamed nothing), the file is still at its old path.
    const QString& named = finish.outputName.isEmpty() ? outputFileName : finish.outputName;
    outcome->reportedPath = dir.absoluteFilePath(named);
    outcome->pathAfter = QFileInfo::exists(outcome->reportedPath) ? outcome->reportedPath : path;
}

QString Finalize::reportLine(const FileOutcome& outcome) const
{
    const QString& path = outcome.pathBefore;
    // The family as the lines tag it: "(Tern)", and in a scan's lines "(tern)".
    const QString tag = QString("(%1)").arg(outcome.family);
    const QString scanTag = tag.toLower();
    switch (outcome.fate) {
    case FileOutcome::Fate::GivenUpEarlier:
        return QString("     %1 Unrecoverable\n").arg(path);
    case FileOutcome::Fate::InUse:
        return QString("     %1 in use by another run, left as it is\n").arg(path);
    case FileOutcome::Fate::Gone:
        // Most often another run finished it since this folder was listed: nothing is left to do.
        return QString("     %1 is no longer there, passed over\n").arg(path);
    case FileOutcome::Fate::Unreadable:
        return cannotBeRead(path);
    case FileOutcome::Fate::NotWritable:
        // A scan counts it as still needing its finish and says where that can be done.
        if (scanOnly)
            return QString("     %1 %2 Requires finalize, cannot be finalized here: %3\n")
                .arg(path, scanTag, outcome.reason);
        return QString("     %1 %2 Left as it is: %3\n").arg(path, tag, outcome.reason);
    case FileOutcome::Fate::NeedsFinishing:
        return QString("     %1 %2 Requires finalize\n").arg(path, scanTag);
    case FileOutcome::Fate::LeftForTheCard:
        return QString("     %1 not finished: %2.\n").arg(path, outcome.reason);
    case FileOutcome::Fate::CopyExists:
        return QString("     %1 not copied: %2.\n").arg(path, outcome.reason);
    case FileOutcome::Fate::Finalized:
        return QString("     %1 %2 Finalized\n").arg(outcome.reportedPath, tag);
    case FileOutcome::Fate::GivenUp:
        return QString("     %1 %2 Unrecoverable\n").arg(outcome.reportedPath, tag);
    }
    return QString();
}

int* Finalize::countFor(FileOutcome::Fate fate)
{
    switch (fate) {
    case FileOutcome::Fate::GivenUpEarlier:
    case FileOutcome::Fate::GivenUp:
        return &badCount;
    case FileOutcome::Fate::InUse:
    case FileOutcome::Fate::Unreadable:
    case FileOutcome::Fate::LeftForTheCard:
    case FileOutcome::Fate::CopyExists:
        return &leftCount;
    case FileOutcome::Fate::NotWritable:
        return scanOnly ? &goodCount : &leftCount;
    case FileOutcome::Fate::NeedsFinishing:
    case FileOutcome::Fate::Finalized:
        return &goodCount;
    case FileOutcome::Fate::Gone:
        break;
    }
    return nullptr;
}

void Finalize::report(const FileOutcome& outcome)
{
    emit textOutput(reportLine(outcome));
    if (int* count = countFor(outcome.fate))
        ++*count;
    emit fileDone(outcome);
}

int Finalize::getFileType(QString path)
{
    // Read-write, as the recorder's files are opened to be finished; a vanished file is not recreated.
    return familyByFirstAtom(path, QIODevice::ReadWrite | QIODevice::ExistingOnly);
}

unsigned int Finalize::doFinalize(QString path)
{
    return finishFile(path).code;
}

Finalize::FileFinish Finalize::finishFile(const QString& path)
{
    const QtMessageFilter qtNoticesDropped; // the procedures' own lines say what failed
    int type;
    {
        QFile unused(path); // constructed and dropped around the check, never opened
        type = getFileType(path);
    }
    if (const FamilyProcedure* procedure = procedureOf(Tern::familyOfFileType(type))) {
        const FileFinish finish = (this->*procedure->finish)(path);
        keep(finish);
        return finish;
    }
    // No procedure runs: outputFileName and isTern keep the previous file's values.
    FileFinish unread;
    unread.code = FileFinish::s_unrecoverable;
    return unread;
}

const Finalize::FamilyProcedure* Finalize::procedureOf(const Tern::MovieFamily* family)
{
    for (const FamilyProcedure& procedure : s_procedures) {
        if (procedure.family == family)
            return &procedure;
    }
    return nullptr;
}

FinishPrediction Finalize::predictFinish(const Tern::MovieFamily& family, CopyOnWriteFile& view,
    const QString& path)
{
    return procedureOf(&family)->predict(view, path);
}

unsigned int Finalize::keep(const FileFinish& finish)
{
    if (finish.family) {
        m_lastFamily = finish.family;
        isTern = finish.family == &Tern::ternFamily ? 1 : 0;
    }
    if (!finish.outputName.isEmpty())
        outputFileName = finish.outputName;
    return finish.code;
}

bool Finalize::leftForTheCard(const CardFile& file, bool finished)
{
    if (finished || file.mediumFailure().isEmpty())
        return false;
    notFinishedReason = file.mediumFailure(); // a later run, with the card in order, finishes it
    return true;
}
