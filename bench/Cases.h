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
};

// Makes the inputs, runs every case and prints the tables. Returns 0 when every case ran, whether or
// not its target was met.
int runBenchmarks(const BenchOptions& options);

// The tables of medians, ratios against their targets, and the scaling slope.
void printReport(const BenchResults& results);
