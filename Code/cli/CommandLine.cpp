// clipward-cli's command line: its options with their help text, the usage text made of them, and which
// options go together.

#include "cli/CommandLine.h"

#include "finalize/FinalizeRun.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>

#include <algorithm>

namespace {

using Mode = CliCommand::Mode;

// Every option with its help text, in the order the usage text lists them. A line break in a help text
// goes on at the start of the usage text's next line, under the text's first line.
struct CliOptions {
    const QCommandLineOption scanOnly{"scan-only",
                                      "only list the files that need finalizing; change nothing"};
    const QCommandLineOption interchange{"interchange",
                                         "finish movies in the form every common player and editor reads\n"
                                         "right (16-bit sound as 'sowt', the start timecode as readers\n"
                                         "count it, each track as long as its own media) and cut a\n"
                                         "repaired WAV's sound to whole sample frames; given finished\n"
                                         "movies (FILE.mov), rewrite the index of each that Clipward\n"
                                         "finished into that form"};
    const QCommandLineOption json{"json",
                                  "print one JSON object per in-progress file as it is done and a\n"
                                  "summary object to stdout (JSON Lines); the report goes to stderr"};
    const QCommandLineOption output{"output",
                                    "copy each recording on PATH to the same place below the folder DIR\n"
                                    "and finish the copy there, each copy checked by hash (xxHash64);\n"
                                    "the card is only read: nothing on it is written or renamed",
                                    "DIR"};
    const QCommandLineOption overwrite{"overwrite",
                                       "with --output, replace a finished copy already in DIR (without\n"
                                       "it such a recording is left as it is)"};
    const QCommandLineOption verify{"verify",
                                    "read every frame and sound sample of each finished movie FILE and\n"
                                    "check that each lies inside the file and its media; one line per file"};
    const QCommandLineOption restore{"restore",
                                     "take each movie Clipward finished (FILE.mov) back to the file its\n"
                                     "recorder left, under its in-progress name (.zqv), and give each\n"
                                     "file Clipward gave up (FILE.nrv, FILE.nra) its in-progress name\n"
                                     "back; any other file is refused and left as it is"};
    const QCommandLineOption info{"info",
                                  "show what each recording FILE holds and what a finish would make\n"
                                  "of it, changing nothing; with --json as one JSON object per FILE"};
    const QCommandLineOption help{QStringList{"h", "help"}, "show this text"};
    const QCommandLineOption version{"version", "show the version"};

    QList<QCommandLineOption> all() const
    {
        return {scanOnly, interchange, json, output, overwrite, verify, restore, info, help, version};
    }

    void addTo(QCommandLineParser& parser) const
    {
        parser.addOptions(all());
        parser.addPositionalArgument("PATH", "the drive or folder of a run, or the FILEs of the other jobs",
                                     "PATH | FILE...");
    }
};

// The usage text around the options' lines.
const char* const kUsageHead =
    "Usage: clipward-cli [--scan-only] [--interchange] [--json] PATH\n"
    "       clipward-cli --output DIR [--overwrite] [--scan-only] [--interchange] [--json] PATH\n"
    "       clipward-cli --interchange FILE.mov...\n"
    "       clipward-cli --verify FILE...\n"
    "       clipward-cli --restore FILE...\n"
    "       clipward-cli --info [--json] FILE...\n"
    "Finds recordings left unfinished on PATH (a drive or folder) and finalizes them,\n"
    "printing the same report as the Clipward window.\n"
    "\n";
const char* const kUsageTail =
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
// The column every option's help text starts at.
const int kHelpColumn = 16;

// Whether `argument` names `option` exactly: "--" and a long name, or "-" and a one-letter one.
bool names(const QCommandLineOption& option, const QString& argument)
{
    const QStringList optionNames = option.names();
    return std::any_of(optionNames.begin(), optionNames.end(), [&](const QString& name) {
        return argument == (name.size() == 1 ? "-" : "--") + name;
    });
}

bool namesAnOption(const CliOptions& options, const QString& argument)
{
    const QList<QCommandLineOption> all = options.all();
    return std::any_of(all.begin(), all.end(),
                       [&](const QCommandLineOption& option) { return names(option, argument); });
}

// Puts the arguments into `forParser` so that QCommandLineParser reads them as the program always has;
// returns the reason when an option is unknown. The program's own rules, kept on purpose where the
// parser's differ:
// - the first of --help, -h, --version and an unknown option decides, whatever follows it;
// - an argument starting with "--" must name an option exactly: "--", "--json=1" and "--h" are unknown
//   options, where the parser would end the options there, take a value or read -h;
// - any other argument is a PATH, also one starting with one dash ("-", "-x", "-hv"), which the parser
//   would read as short options: so the PATHs go to it after a "--".
QString readArguments(const CliOptions& options, const QStringList& arguments, QStringList* forParser)
{
    *forParser = QStringList{arguments.value(0)};
    QStringList paths;
    for (int at = 1; at < arguments.size(); ++at) {
        const QString& argument = arguments.at(at);
        const bool option = namesAnOption(options, argument);
        if (!option && argument.startsWith("--"))
            return "unknown option " + argument;
        if (!option) {
            paths << argument;
            continue;
        }
        *forParser << argument;
        if (names(options.help, argument) || names(options.version, argument))
            break;
        if (names(options.output, argument)) {
            if (++at == arguments.size())
                return "--output needs a folder (--output DIR)";
            *forParser << arguments.at(at);
        }
    }
    *forParser << "--" << paths;
    return QString();
}

CliCommand usageError(const QString& reason)
{
    CliCommand command;
    command.usageError = reason;
    return command;
}

CliCommand job(Mode mode, const QStringList& paths = QStringList(), bool json = false)
{
    CliCommand command;
    command.mode = mode;
    command.paths = paths;
    command.json = json;
    return command;
}

// A job on FILEs: at least one must be given.
CliCommand jobOnFiles(Mode mode, const QStringList& files, bool json = false)
{
    return files.isEmpty() ? usageError("no FILE given") : job(mode, files, json);
}

// A run into copies below `folder`: the folder must be given and must not lie inside the run's PATH, where
// the walk would meet the copies.
CliCommand withOutput(CliCommand run, const QString& folder, bool overwrite)
{
    if (folder.isEmpty())
        return usageError(overwrite ? "--overwrite goes with --output DIR" : "--output needs a folder");
    if (FinalizeRun::outputInsidePath(run.paths.first(), folder))
        return usageError("the output folder must not be inside PATH");
    run.outputFolder = QDir::cleanPath(QFileInfo(folder).absoluteFilePath());
    run.overwrite = overwrite;
    return run;
}

// Which job the parsed options and paths ask for, or why they do not go together.
CliCommand jobFor(const QCommandLineParser& parser, const CliOptions& options)
{
    const bool scanOnly = parser.isSet(options.scanOnly);
    const bool interchange = parser.isSet(options.interchange);
    const bool json = parser.isSet(options.json);
    const bool verify = parser.isSet(options.verify);
    const bool restore = parser.isSet(options.restore);
    const QStringList paths = parser.positionalArguments();
    const bool output = parser.isSet(options.output) || parser.isSet(options.overwrite);
    if (output && (parser.isSet(options.info) || restore || verify))
        return usageError("--output goes with a run on one PATH only");
    if (parser.isSet(options.info)) {
        if (scanOnly || verify || interchange || restore)
            return usageError("--info takes only --json");
        return jobOnFiles(Mode::Info, paths, json);
    }
    if (restore) {
        if (scanOnly || verify || interchange || json)
            return usageError("--restore takes no other option");
        return jobOnFiles(Mode::Restore, paths);
    }
    if (verify) {
        if (scanOnly)
            return usageError("--verify and --scan-only cannot be combined");
        if (interchange)
            return usageError("--verify and --interchange cannot be combined");
        return jobOnFiles(Mode::Verify, paths);
    }
    // Finished movies to rewrite: a file, or more than one path (a run takes one folder).
    if (interchange && (paths.size() > 1 || (paths.size() == 1 && QFileInfo(paths.first()).isFile()))) {
        if (scanOnly)
            return usageError("--scan-only lists recordings on a PATH; it does not take finished movies");
        if (output)
            return usageError("--output goes with a run on one PATH only");
        return job(Mode::RewriteForInterchange, paths);
    }
    if (paths.size() != 1)
        return usageError(paths.isEmpty() ? "no PATH given" : "give exactly one PATH");
    CliCommand run = job(Mode::Run, paths, json);
    run.scanOnly = scanOnly;
    run.interchange = interchange;
    if (output)
        return withOutput(run, parser.value(options.output), parser.isSet(options.overwrite));
    return run;
}

} // namespace

CliCommand parseCommandLine(const QStringList& arguments)
{
    const CliOptions options;
    QCommandLineParser parser;
    options.addTo(parser);
    QStringList forParser;
    const QString reason = readArguments(options, arguments, &forParser);
    if (!reason.isEmpty())
        return usageError(reason);
    if (!parser.parse(forParser)) // not reached: only options named exactly and PATHs after "--" come here
        return usageError(parser.errorText());
    if (parser.isSet(options.help))
        return job(Mode::Help);
    if (parser.isSet(options.version))
        return job(Mode::Version);
    return jobFor(parser, options);
}

QByteArray usageText()
{
    QString text = kUsageHead;
    const QString indent(kHelpColumn, ' ');
    for (const QCommandLineOption& option : CliOptions().all()) {
        QString name = "  --" + option.names().last();
        if (!option.valueName().isEmpty())
            name += ' ' + option.valueName();
        text += name.leftJustified(kHelpColumn - 1) + ' ' + option.description().replace('\n', '\n' + indent)
            + '\n';
    }
    return (text + kUsageTail).toUtf8();
}
