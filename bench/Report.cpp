// The benchmark's tables: medians of every measurement, the ratios against their targets, and the
// finalize time per frame-map entry by size.

#include "Cases.h"

#include <QStringList>

#include <cstdio>

namespace {

const double kFloorRatioTarget = 1.5;
const double kPeakRssTargetMb = 48;
const double kRemuxRatioTarget = 100;
const double kScanRatioTarget = 3;
const double kWindowRatioTarget = 2;
const double kInterchangeRatioTarget = 1.1;
const double kCopyToTmpfsRatioTarget = 1.1;
const double kCopyWithinBtrfsRatioTarget = 2;
// The per-entry cost between the two largest sizes may exceed the one below it by this much before
// it counts as growing (the difference of two medians is noisier than either).
const double kSlopeGrowthAllowed = 1.25;

QString grouped(qint64 n)
{
    QString digits = QString::number(n < 0 ? -n : n);
    for (int i = digits.size() - 3; i > 0; i -= 3)
        digits.insert(i, ',');
    return n < 0 ? "-" + digits : digits;
}

void line(QString text)
{
    while (text.endsWith(QLatin1Char(' ')))
        text.chop(1);
    std::printf("%s\n", qPrintable(text));
}

void row(const QString& caseName, const Measured& m)
{
    if (!m.usable()) {
        line(QString("%1  %2  %3")
                 .arg(caseName, -30)
                 .arg(m.label, -44)
                 .arg(m.note.isEmpty() ? "not run" : m.note));
        return;
    }
    const Usage u = m.median();
    const QString written
        = u.bytesWritten < 0 ? QString("n/a") : QString::number(u.bytesWritten / 1e6, 'f', 2);
    line(QString("%1  %2  %3 %4 %5 %6")
             .arg(caseName, -30)
             .arg(m.label, -44)
             .arg(u.wallMs, 9, 'f', 1)
             .arg(u.cpuMs, 9, 'f', 1)
             .arg(u.peakRssMb, 8, 'f', 1)
             .arg(written, 11));
}

QString verdict(bool met)
{
    return met ? "met" : "MISSED";
}

void ratio(const QString& name, double value, const QString& unit, const QString& target, bool met)
{
    line(QString("%1  %2  target %3  %4")
             .arg(name, -52)
             .arg(QString::number(value, 'f', 2) + unit, 10)
             .arg(target, -10)
             .arg(verdict(met)));
}

// A ratio shown for reference beside a judged one, with no target.
void referenceRatio(const QString& name, double value)
{
    line(QString("%1  %2").arg(name, -52).arg(QString::number(value, 'f', 2) + "x", 10));
}

// A ratio one of whose two measurements is unusable, with why.
void notMeasured(const QString& name, const QString& why)
{
    line(QString("%1  not measured: %2").arg(name, -52).arg(why));
}

void floorRatios(const QString& family, const Measured& finalize, const Measured& floor)
{
    if (!finalize.usable() || !floor.usable()) {
        line(QString("%1  not measured").arg(family + " finalize / floor, wall", -52));
        return;
    }
    const Usage f = finalize.median();
    const Usage b = floor.median();
    const double wall = f.wallMs / b.wallMs;
    ratio(family + " finalize / floor, wall", wall, "x", "<= 1.5x", wall <= kFloorRatioTarget);
    referenceRatio(family + " finalize / floor, CPU (for reference)", f.cpuMs / b.cpuMs);
    ratio(family + " finalize peak RSS", f.peakRssMb, " MB", "<= 48 MB", f.peakRssMb <= kPeakRssTargetMb);
}

// Case 3: how many times faster the finalize is than remuxing its result.
void remuxRatio(const Measured& finalize, const Measured& remux)
{
    if (!finalize.usable() || !remux.usable())
        return notMeasured("3 ffmpeg remux / finalize", finalize.note + remux.note);
    const double speedup = remux.median().wallMs / finalize.median().wallMs;
    ratio("3 ffmpeg remux / finalize, wall (times faster)", speedup, "x", ">= 100x",
        speedup >= kRemuxRatioTarget);
}

// Cases 4 and 5: the command line against find, the window against the command line; each only when
// both of its measurements are usable.
void scanRatios(const BenchResults& r)
{
    if (r.scanCli.usable() && r.find.usable()) {
        const double scan = r.scanCli.median().wallMs / r.find.median().wallMs;
        ratio("4 scan-only / find, wall", scan, "x", "<= 3x", scan <= kScanRatioTarget);
    }
    if (r.scanWindow.usable() && r.scanCli.usable()) {
        const double window = r.scanWindow.median().wallMs / r.scanCli.median().wallMs;
        ratio("5 window / command line, wall", window, "x", "<= 2x", window <= kWindowRatioTarget);
    }
}

// Case 7: the interchange finish against the default one.
void interchangeRatios(const Measured& interchange, const Measured& standard)
{
    if (!interchange.usable() || !standard.usable())
        return notMeasured("7 interchange / default finish", interchange.note + standard.note);
    const Usage i = interchange.median();
    const Usage d = standard.median();
    const double wall = i.wallMs / d.wallMs;
    ratio("7 interchange / default finish, wall", wall, "x", "<= 1.1x", wall <= kInterchangeRatioTarget);
    referenceRatio("7 interchange / default finish, CPU (for reference)", i.cpuMs / d.cpuMs);
}

// Case 8: a finish into a copy against its baseline, with the CPU ratio beside it for reference.
void copyRatio(
    const QString& name, const Measured& copy, const Measured& baseline, const QString& target, double limit)
{
    if (!copy.usable() || !baseline.usable())
        return notMeasured(name, copy.note + baseline.note);
    const Usage c = copy.median();
    const Usage b = baseline.median();
    const double wall = c.wallMs / b.wallMs;
    ratio(name + ", wall", wall, "x", target, wall <= limit);
    referenceRatio(name + ", CPU (for reference)", c.cpuMs / b.cpuMs);
}

// The way the copies of case 8 were made, as --json gave it in the warm-up run.
QString copyMethod(const QString& method)
{
    return "  copy method: " + (method.isEmpty() ? QString("unknown") : method);
}

// The marginal costs of the scaling table, one a measured size after the first, in microseconds an entry.
struct MarginalCosts
{
    QList<double> wall;
    QList<double> cpu;
};

void scalingHeading()
{
    line("");
    line("Case 6, scaling: Tern finalize by frame-map size (the largest is case 1's recording, timed again");
    line(
        "in turn with the others). The marginal cost is the extra time per extra entry from the size above;");
    line("it must not grow with size.");
    line(QString("%1 %2 %3 %4 %5 %6")
             .arg("entries", 12)
             .arg("wall ms", 10)
             .arg("CPU ms", 10)
             .arg("wall us/entry", 14)
             .arg("marginal wall us/entry", 23)
             .arg("marginal CPU us/entry", 22));
}

// The row of a measured size; with the marginal cost from `previous`, the row above, when that one was
// measured too (added to `marginal`).
void scalingRow(const ScalePoint& p, const ScalePoint* previous, MarginalCosts* marginal)
{
    const Usage u = p.finalize.median();
    QString wallSlope = "", cpuSlope = "";
    if (previous) {
        const Usage before = previous->finalize.median();
        const double added = double(p.entries) - double(previous->entries);
        const double w = (u.wallMs - before.wallMs) * 1000.0 / added;
        const double c = (u.cpuMs - before.cpuMs) * 1000.0 / added;
        marginal->wall << w;
        marginal->cpu << c;
        wallSlope = QString::number(w, 'f', 3);
        cpuSlope = QString::number(c, 'f', 3);
    }
    line(QString("%1 %2 %3 %4 %5 %6")
             .arg(grouped(p.entries), 12)
             .arg(u.wallMs, 10, 'f', 1)
             .arg(u.cpuMs, 10, 'f', 1)
             .arg(u.wallMs * 1000.0 / p.entries, 14, 'f', 3)
             .arg(wallSlope, 23)
             .arg(cpuSlope, 22));
}

// Whether the marginal cost grows between the two largest sizes, when there are two to compare.
void slopeVerdict(const MarginalCosts& marginal)
{
    if (marginal.cpu.size() < 2)
        return;
    // Judged on CPU time, which the disk's write-back does not blur; wall time is shown beside it.
    const double top = marginal.cpu.last();
    const double below = marginal.cpu[marginal.cpu.size() - 2];
    const bool met = top <= below * kSlopeGrowthAllowed;
    line(QString("Slope at the largest size: %1 us/entry CPU (%2 wall), below it %3 us/entry CPU: %4")
             .arg(top, 0, 'f', 3)
             .arg(marginal.wall.last(), 0, 'f', 3)
             .arg(below, 0, 'f', 3)
             .arg(met ? "not growing, met" : "GROWING, MISSED"));
}

void scalingTable(const QList<ScalePoint>& points)
{
    scalingHeading();
    const ScalePoint* previous = nullptr;
    MarginalCosts marginal;
    for (const ScalePoint& p : points) {
        if (!p.finalize.usable()) {
            line(QString("%1 %2").arg(grouped(p.entries), 12).arg(p.finalize.note));
            previous = nullptr;
            continue;
        }
        scalingRow(p, previous, &marginal);
        previous = &p;
    }
    slopeVerdict(marginal);
}

void introduction(const BenchResults& r)
{
    line("");
    line(QString(
        "Clipward benchmarks: medians of %1 runs (%2 for cases 3 and 8) after one untimed warm-up, each "
        "case side by side with its baseline.")
             .arg(r.quickReps)
             .arg(r.reps));
    line("Wall: fork to exit. CPU: user + system. Peak RSS: ru_maxrss. Written: /proc/<pid>/io write_bytes.");
}

// The median of every measurement, each case's baseline in the row below it.
void mediansTable(const BenchResults& r)
{
    line("");
    line(QString("%1  %2  %3 %4 %5 %6")
             .arg("case", -30)
             .arg("measurement", -44)
             .arg("wall ms", 9)
             .arg("CPU ms", 9)
             .arg("RSS MB", 8)
             .arg("written MB", 11));
    row(QString("1 Tern, %1 entries").arg(grouped(r.ternEntries)), r.ternFinalize);
    row(QString("  index %1 bytes").arg(grouped(r.ternIndexBytes)), r.ternFloor);
    row(QString("2 Heron, %1 entries").arg(grouped(r.heronEntries)), r.heronFinalize);
    row(QString("  index %1 bytes").arg(grouped(r.heronIndexBytes)), r.heronFloor);
    row(QString("3 dense, %1 GB").arg(r.denseBytes / 1e9, 0, 'f', 2), r.denseFinalize);
    row(QString("  %1 entries").arg(grouped(r.denseEntries)), r.remux);
    row(QString("4 card, %1 files").arg(grouped(r.cardFiles)), r.find);
    row(QString("  in %1 folders").arg(grouped(r.cardFolders)), r.scanCli);
    row(QString("5 same card, %1 in progress").arg(grouped(r.cardInProgress)), r.scanWindow);
    row("7 case 1's recording", r.interchangeFinalize);
    row(QString("  index %1 bytes").arg(grouped(r.interchangeIndexBytes)), r.defaultFinalize);
    row(QString("8 case 3's, into a tmpfs"), r.copyToTmpfs);
    row(copyMethod(r.tmpfsCopyMethod), r.cpToTmpfs);
    row(QString("8 case 3's, within btrfs"), r.copyWithinBtrfs);
    row(copyMethod(r.btrfsCopyMethod), r.inPlaceOnBtrfs);
}

void ratiosTable(const BenchResults& r)
{
    line("");
    line("Ratios (of medians) and targets:");
    floorRatios("1 Tern", r.ternFinalize, r.ternFloor);
    floorRatios("2 Heron", r.heronFinalize, r.heronFloor);
    remuxRatio(r.denseFinalize, r.remux);
    scanRatios(r);
    interchangeRatios(r.interchangeFinalize, r.defaultFinalize);
    copyRatio("8 copy on a tmpfs / cp", r.copyToTmpfs, r.cpToTmpfs, "<= 1.1x", kCopyToTmpfsRatioTarget);
    copyRatio("8 copy within btrfs / in place", r.copyWithinBtrfs, r.inPlaceOnBtrfs, "<= 2x",
        kCopyWithinBtrfsRatioTarget);
}

} // namespace

void printReport(const BenchResults& r)
{
    introduction(r);
    mediansTable(r);
    ratiosTable(r);
    scalingTable(r.scaling);
    std::fflush(stdout);
}
