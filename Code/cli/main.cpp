// clipward-cli: the same run as the window's Start button, printed to stdout line by line; and the check
// of finished movies through the movie reader.

#include "cli/CommandLine.h"
#include "cli/CopyProgressLine.h"
#include "cli/InfoCommand.h"
#include "finalize/FinalizeRun.h"
#include "finalize/LogText.h"
#include "movie/MovieVerifier.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

#include <cstdio>
#include <unistd.h>

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

int usageError(const QString& reason)
{
    std::fprintf(stderr, "clipward-cli: %s\n%s", reason.toUtf8().constData(), usageText().constData());
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

// The run's summary as the last JSON object on stdout.
void printSummaryJson(const CliCommand& command, const FinalizeRun::Summary& summary,
                      const QDateTime& started)
{
    const QString path = command.paths.first();
    const bool scanOnly = command.scanOnly;
    QJsonObject options{{"path", path}, {"scan_only", scanOnly}, {"interchange", command.interchange},
        {"output", command.outputFolder.isEmpty() ? QJsonValue() : QJsonValue(command.outputFolder)},
        {"overwrite", command.overwrite}};
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

// The window's run on the one PATH; with --json each file's outcome and the summary as JSON on stdout.
int runOnPath(const CliCommand& command)
{
    const QString path = command.paths.first();
    if (command.json)
        g_lines = stderr;
    qInstallMessageHandler(messageToStdout);
    FinalizeRun run(command.scanOnly,
                    command.interchange ? Tern::FinishStyle::Interchange : Tern::FinishStyle::Recorder);
    QObject::connect(&run, &FinalizeRun::output, &printLine);
    run.setOutput(command.outputFolder, command.overwrite);
    CopyProgressLine progress;
    if (!command.outputFolder.isEmpty() && isatty(fileno(stderr)))
        QObject::connect(&run, &FinalizeRun::copyProgress, &progress, &CopyProgressLine::show);
    if (command.json) {
        run.setLearnFacts(true);
        QObject::connect(&run, &FinalizeRun::fileDone,
                         [](const FileOutcome& outcome) { printJson(outcome.toJson()); });
    }
    const QDateTime started = QDateTime::currentDateTimeUtc();
    const FinalizeRun::Summary summary = run.run(path);
    std::fflush(g_lines);
    if (command.json)
        printSummaryJson(command, summary, started);

    if (!summary.pathExists) {
        std::fprintf(stderr, "clipward-cli: path does not exist: %s\n", path.toUtf8().constData());
        return kExitUsage;
    }
    return exitStatus(summary);
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("Clipward");
    QCoreApplication::setApplicationVersion(CLIPWARD_VERSION);
    QCoreApplication::setOrganizationName("Clipward");

    const CliCommand command = parseCommandLine(QCoreApplication::arguments());
    switch (command.mode) {
    case CliCommand::Mode::Help:
        std::fputs(usageText().constData(), stdout);
        return kExitOk;
    case CliCommand::Mode::Version:
        std::printf("clipward-cli %s\n", CLIPWARD_VERSION);
        return kExitOk;
    case CliCommand::Mode::UsageError:
        return usageError(command.usageError);
    case CliCommand::Mode::Run:
        return runOnPath(command);
    case CliCommand::Mode::RewriteForInterchange:
        return runOnFiles(&FinalizeRun::rewriteForInterchange, command.paths, Tern::FinishStyle::Interchange);
    case CliCommand::Mode::Verify:
        return verifyFiles(command.paths);
    case CliCommand::Mode::Restore:
        return runOnFiles(&FinalizeRun::restore, command.paths);
    case CliCommand::Mode::Info:
        return infoFiles(command.paths, command.json);
    }
    return kExitUsage;
}
