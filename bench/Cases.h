#pragma once

#include "Measure.h"

#include <QList>
#include <QString>

struct BenchOptions
{
    QString work; // inputs and scratch files; made if missing
    int reps = 7; // timed runs of the 4 GB case, three times as many of the others; one warm-up each
    bool keep = false; // keep the inputs afterwards (the 4 GB recording is always removed)
    QString self; // this program, which also runs the floor
};

// One thing measured `reps` times.
struct Measured
{
    QString label;
    QList<Usage> runs;
    bool failed = false;
    QString note; // why it failed or was skipped

    Usage median() const { return medianOf(runs); }
    bool usable() const { return !failed && !runs.isEmpty(); }
};

struct ScalePoint
{
    quint32 entries = 0;
    QString folder; // holds the recording, A001.zqv
    Measured finalize;
};

struct BenchResults
{
    int reps = 0; // runs of case 3
    int quickReps = 0; // runs of every other case
    // 1 and 2: near-capacity recordings against the floor.
    quint32 ternEntries = 0, heronEntries = 0;
    qint64 ternIndexBytes = 0, heronIndexBytes = 0;
    Measured ternFinalize, ternFloor, heronFinalize, heronFloor;
    // 3: a dense recording of real frames against remuxing the finished file.
    qint64 denseBytes = 0;
    quint32 denseEntries = 0;
    Measured denseFinalize, remux;
    // 4 and 5: a card, scan-only, against find; the window against the command line.
    int cardFiles = 0, cardFolders = 0, cardInProgress = 0;
    Measured find, scanCli, scanWindow;
    // 6: finalize time by frame-map size (the largest is case 1's recording).
    QList<ScalePoint> scaling;
    // 7: case 1's recording finished in the interchange form against the default finish.
    qint64 interchangeIndexBytes = 0;
    Measured interchangeFinalize, defaultFinalize;
    // 8: case 3's recording finished into a copy on a tmpfs against cp of it there; and within one btrfs
    // into a copy there against the finish in place there. The methods are those --json gave the copies.
    Measured copyToTmpfs, cpToTmpfs, copyWithinBtrfs, inPlaceOnBtrfs;
    QString tmpfsCopyMethod, btrfsCopyMethod;
};

// Steps the cases share.
// A line on stderr, with the seconds since the benchmark started.
void progress(const QString& text);
// Whether the file at `log` holds `text`.
bool logSays(const QString& log, const QString& text);
// clipward-cli with `args`, its stdout in `log` (and its stderr in `errorLog` when given: a copy then draws
// no progress line on a terminal), measured.
Usage runCli(const QStringList& args, const QString& log, const QString& errorLog = QString());
// Whether the report at `log` finalized its file and gave none up.
bool finalizedIn(const QString& log);
// Marks `m` failed, with why, and says so.
void fail(Measured* m, const QString& note);
// Two measurements that take turns going first (first, second; second, first; ...), so neither always
// runs on the other's page cache and write-back: whether the first of them runs at step `r`.
bool firstRunsAt(int r);

// Case 8: the unfinished 4 GB recording at `recording` (case 3's) finished into copies, each against its
// baseline. Needs root and btrfs for its second half; says why where a half cannot run.
void runCopyCases(const BenchOptions& o, const QString& recording, BenchResults* r);

// Makes the inputs, runs every case and prints the tables. Returns 0 when every case ran, whether or
// not its target was met.
int runBenchmarks(const BenchOptions& options);

// The tables of medians, ratios against their targets, and the scaling slope.
void printReport(const BenchResults& results);
