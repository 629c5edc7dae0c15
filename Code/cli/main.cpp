// clipward-cli: the same run as the window's Start button, printed to stdout line by line; and the check
// of finished movies through the movie reader.

#include "cli/InfoCommand.h"
#include "finalize/FinalizeRun.h"
#include "finalize/LogText.h"
#include "movie/MovieVerifier.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QFileInfo>
#include <QStringList>

#include <cstdio>

namespace {

const int kExitOk = 0;
const int kExitUnrecoverable = 1;
const int kExitUsage = 2;
const int kExitSomethingLeft = 3;

// With --json the report's lines go to stderr and stdout carries only JSON.
FILE* g_lines = stdout;

void printLine(const QString& text)
{
    const QByteArray bytes = logLineText(text).toUtf8();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), g_lines);
    std::fputc('\n', g_lines);
}

// One JSON object on a line of stdout, written out at once so a script sees each file as it is done.
void printJson(const QJsonObject& object)
{
    const QByteArray bytes = QJsonDocument(object).toJson(QJsonDocument::Compact);
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

// Every library and procedure message reaches the output, whatever its type, as in the window.
void messageToStdout(QtMsgType, const QMessageLogContext&, const QString& message)
{
    printLine(message);
}

const char* const kUsage =
    "Usage: clipward-cli [--scan-only] [--interchange] [--json] PATH\n"
    "       clipward-cli --interchange FILE.mov...\n"
    "       clipward-cli --verify FILE...\n"
    "       clipward-cli --restore FILE...\n"
    "       clipward-cli --info [--json] FILE...\n"
    "Finds recordings left unfinished on PATH (a drive or folder) and finalizes them,\n"
    "printing the same report as the Clipward window.\n"
    "\n"
    "  --scan-only   only list the files that need finalizing; change nothing\n"
    "  --interchange finish movies in the form every common player and editor reads\n"
    "                right (16-bit sound as 'sowt', the start timecode as readers\n"
    "                count it, each track as long as its own media) and cut a\n"
    "                repaired WAV's sound to whole sample frames; given finished\n"
    "                movies (FILE.mov), rewrite the index of each that Clipward\n"
    "                finished into that form\n"
    "  --json        print one JSON object per in-progress file as it is done and a\n"
    "                summary object to stdout (JSON Lines); the report goes to stderr\n"
    "  --verify      read every frame and sound sample of each finished movie FILE and\n"
    "                check that each lies inside the file and its media; one line per file\n"
    "  --restore     take each movie Clipward finished (FILE.mov) back to the file its\n"
    "                recorder left, under its in-progress name (.zqv), and give each\n"
    "                file Clipward gave up (FILE.nrv, FILE.nra) its in-progress name\n"
    "                back; any other file is refused and left as it is\n"
    "  --info        show what each recording FILE holds and what a finish would make\n"
    "                of it, changing nothing; with --json as one JSON object per FILE\n"
    "  --help        show this text\n"
    "  --version     show the version\n"
    "\n"
    "Exit status: 0 no file unrecoverable and nothing left, 1 at least one file\n"
    "unrecoverable, 2 PATH missing or wrong arguments, 3 no file unrecoverable but\n"
    "something was left as it is: a file in use by another run, one that could not\n"
    "be written, read or finished for want of room, or a folder that could not be\n"
    "read (the report says which). With --verify: 0 every FILE verified, 1 at least\n"
    "one did not, 2 no FILE given. With --interchange FILE...: 0 every FILE rewritten,\n"
    "1 at least one refused, 3 none refused but one was left as it is; the same with\n"
    "--restore FILE.... With --info: 0 every FILE a movie or WAV that could be read,\n"
    "1 at least one missing, unreadable or no recording, 2 no FILE given.\n";

int usageError(const QString& reason)
{
    std::fprintf(stderr, "clipward-cli: %s\n%s", reason.toUtf8().constData(), kUsage);
    return kExitUsage;
}

// 1 when a file was unrecoverable or refused, else 3 when something was left as it is, else 0.
int exitStatus(const FinalizeRun::Summary& summary)
{
    if (summary.badCount != 0)
        return kExitUnrecoverable;
    return summary.somethingLeft() ? kExitSomethingLeft : kExitOk;
}

// Verifies each movie, printing the reader's messages and one summary line per file.
int verifyFiles(const QStringList& files)
{
    qInstallMessageHandler(messageToStdout);
    int failed = 0;
    for (const QString& file : files) {
        const MovieVerification result = verifyMovie(file);
        printLine(verificationSummary(file, result));
        if (!result.verified)
            ++failed;
    }
    std::fflush(stdout);
    return failed != 0 ? kExitUnrecoverable : kExitOk;
}

// Runs `job` over the given finished or given-up files, a line per file and the counts; the exit status
// follows the counts.
int runOnFiles(FinalizeRun::Summary (FinalizeRun::*job)(const QStringList&), const QStringList& files,
               Tern::FinishStyle style = Tern::FinishStyle::Recorder)
{
    qInstallMessageHandler(messageToStdout);
    FinalizeRun run(false, style);
    QObject::connect(&run, &FinalizeRun::output, &printLine);
    const FinalizeRun::Summary summary = (run.*job)(files);
    std::fflush(stdout);
    return exitStatus(summary);
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("Clipward");
    QCoreApplication::setApplicationVersion(CLIPWARD_VERSION);
    QCoreApplication::setOrganizationName("Clipward");

    bool scanOnly = false;
    bool verify = false;
    bool interchange = false;
    bool json = false;
    bool restore = false;
    bool info = false;
    QStringList paths;
    const QStringList args = QCoreApplication::arguments().mid(1);
    for (const QString& arg : args) {
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return kExitOk;
        }
        if (arg == "--version") {
            std::printf("clipward-cli %s\n", CLIPWARD_VERSION);
            return kExitOk;
        }
        if (arg == "--scan-only")
            scanOnly = true;
        else if (arg == "--verify")
            verify = true;
        else if (arg == "--interchange")
            interchange = true;
        else if (arg == "--json")
            json = true;
        else if (arg == "--restore")
            restore = true;
        else if (arg == "--info")
            info = true;
        else if (arg.startsWith("--"))
            return usageError(QString("unknown option %1").arg(arg));
        else
            paths.append(arg);
    }
    if (info) {
        if (scanOnly || verify || interchange || restore)
            return usageError("--info takes only --json");
        if (paths.isEmpty())
            return usageError("no FILE given");
        return infoFiles(paths, json);
    }
    if (restore) {
        if (scanOnly || verify || interchange || json)
            return usageError("--restore takes no other option");
        if (paths.isEmpty())
            return usageError("no FILE given");
        return runOnFiles(&FinalizeRun::restore, paths);
    }
    if (verify) {
        if (scanOnly)
            return usageError("--verify and --scan-only cannot be combined");
        if (interchange)
            return usageError("--verify and --interchange cannot be combined");
        if (paths.isEmpty())
            return usageError("no FILE given");
        return verifyFiles(paths);
    }
    // Finished movies to rewrite: a file, or more than one path (a run takes one folder).
    if (interchange && (paths.size() > 1 || (paths.size() == 1 && QFileInfo(paths.first()).isFile()))) {
        if (scanOnly)
            return usageError("--scan-only lists recordings on a PATH; it does not take finished movies");
        return runOnFiles(&FinalizeRun::rewriteForInterchange, paths, Tern::FinishStyle::Interchange);
    }
    if (paths.size() != 1)
        return usageError(paths.isEmpty() ? "no PATH given" : "give exactly one PATH");

    if (json)
        g_lines = stderr;
    qInstallMessageHandler(messageToStdout);
    FinalizeRun run(scanOnly, interchange ? Tern::FinishStyle::Interchange : Tern::FinishStyle::Recorder);
    QObject::connect(&run, &FinalizeRun::output, &printLine);
    if (json) {
        run.setLearnFacts(true);
        QObject::connect(&run, &FinalizeRun::fileDone,
                         [](const FileOutcome& outcome) { printJson(outcome.toJson()); });
    }
    const QDateTime started = QDateTime::currentDateTimeUtc();
    const FinalizeRun::Summary summary = run.run(paths.first());
    std::fflush(g_lines);
    if (json) {
        QJsonObject options{{"path", paths.first()}, {"scan_only", scanOnly}, {"interchange", interchange}};
        QJsonObject counts{{"finalized", scanOnly ? 0 : summary.goodCount},
                           {"needing_finishing", scanOnly ? summary.goodCount : 0},
                           {"unrecoverable", summary.badCount},
                           {"left", summary.leftCount},
                           {"unreadable_folders", summary.unreadableFolderCount}};
        printJson(QJsonObject{{"type", "summary"},
                              {"schema", FileOutcome::s_jsonSchema},
                              {"program", "clipward-cli"},
                              {"version", CLIPWARD_VERSION},
                              {"path_exists", summary.pathExists},
                              {"started", started.toString(Qt::ISODateWithMs)},
                              {"ended", QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs)},
                              {"options", options},
                              {"counts", counts}});
    }

    if (!summary.pathExists) {
        std::fprintf(stderr, "clipward-cli: path does not exist: %s\n", paths.first().toUtf8().constData());
        return kExitUsage;
    }
    return exitStatus(summary);
}
