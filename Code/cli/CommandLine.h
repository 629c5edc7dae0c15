#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// What clipward-cli's arguments ask it to do: one job and what it needs, or why the arguments are wrong.
struct CliCommand {
    enum class Mode {
        Help,                  // print the usage text to stdout
        Version,               // print the program's name and version to stdout
        UsageError,            // print `usageError` and the usage text to stderr
        Run,                   // finalize (or list) the recordings on the one PATH, as the window's Start
        RewriteForInterchange, // rewrite each finished movie FILE's index into the interchange form
        Verify,                // read and check each finished movie FILE
        Restore,               // take each FILE back to the in-progress file its recorder left
        Info                   // describe each recording FILE, changing nothing
    };

    Mode mode = Mode::UsageError;
    QString usageError;        // with Mode::UsageError: why the arguments are wrong
    QStringList paths;         // the one PATH of a run, or the FILEs of the other jobs
    bool scanOnly = false;     // a run only lists the files that need finalizing
    bool interchange = false;  // a run finishes movies in the interchange form
    bool json = false;         // a run or --info prints JSON Lines on stdout
    QString outputFolder;      // a run finishes copies below this folder; the card is only read
    bool overwrite = false;    // a run into copies replaces copies already in the output folder
};

// Reads the program's arguments (the program's own name first, as QCoreApplication::arguments() gives them).
CliCommand parseCommandLine(const QStringList& arguments);

// The usage text, printed for --help and after the reason for a usage error.
QByteArray usageText();
