#include "Cases.h"

#include "Inputs.h"
#include "movie/HeronQuickTimeFile.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QStandardPaths>

#include <cstdio>

namespace {

const quint32 kNearCapacityEntries = 2700000;
const quint32 kScaleEntries[] = { 1000, 10000, 100000, 1000000 };
const qint64 kDenseBytes = 4000000000LL;
const int kDistinctFrames = 8;
const int kCardFolders = 2000;
const int kFilesPerFolder = 10;

QElapsedTimer g_clock;

// The cases that take well under a second run three times as often as the 4 GB one: on a shared machine
// their medians need the extra runs to settle.
int quickReps(const BenchOptions& o)
{
    return 3 * o.reps;
}

} // namespace

void progress(const QString& text)
{
    std::fprintf(stderr, "[%6.1f s] %s\n", g_clock.elapsed() / 1000.0, qPrintable(text));
    std::fflush(stderr);
}

bool logSays(const QString& log, const QString& text)
{
    QFile file(log);
    return file.open(QIODevice::ReadOnly) && file.readAll().contains(text.toUtf8());
}

Usage runCli(const QStringList& args, const QString& log, const QString& errorLog)
{
    ChildCommand command;
    command.program = CLIPWARD_CLI_PATH;
    command.arguments = args;
    command.stdoutPath = log;
    command.stderrPath = errorLog;
    return measureChild(command);
}

bool finalizedIn(const QString& log)
{
    return logSays(log, "Finalized") && !logSays(log, "Unrecoverable");
}

void fail(Measured* m, const QString& note)
{
    m->failed = true;
    m->note = note;
    progress("FAILED: " + m->label + ": " + note);
}

bool firstRunsAt(int r)
{
    return (r + r / 2) % 2 == 0;
}

namespace {

// One finalize of the recording in `folder` by clipward-cli, in the interchange form when asked; false
// unless it reports the file finished.
bool finalizeOnce(const QString& folder, const QString& log, Usage* usage, bool interchange = false)
{
    *usage = runCli(interchange ? QStringList { "--interchange", folder } : QStringList { folder }, log);
    return usage->ok && finalizedIn(log);
}

// Captures the recording at `zqv` and finalizes it once, untimed, in the interchange form when asked: the
// warm-up checks the run, warms the caches and tells how many bytes the finalize appends, in `indexBytes`.
// Puts the recording back afterwards. False, with `m` failed, when any step does not work.
bool captureAndWarmUp(const QString& zqv, const QString& log, bool interchange,
    Inputs::ReusableRecording* recording, qint64* indexBytes, Measured* m)
{
    Usage usage;
    if (!recording->capture(zqv)) {
        fail(m, "cannot read " + zqv);
        return false;
    }
    if (!finalizeOnce(QFileInfo(zqv).absolutePath(), log, &usage, interchange)) {
        const QString command = interchange ? "clipward-cli --interchange" : "clipward-cli";
        fail(m, command + " did not finalize " + zqv);
        return false;
    }
    *indexBytes = recording->appendedBytes();
    if (!recording->restore()) {
        fail(m, "cannot put back " + zqv);
        return false;
    }
    return true;
}

// Cases 1 and 2: the finalize of a near-capacity recording, then the floor writing as many bytes.
void finalizeAgainstFloor(const BenchOptions& o, const QString& zqv, qint64 mapPos, Measured* cli,
    Measured* floor, qint64* indexBytes)
{
    const QString folder = QFileInfo(zqv).absolutePath();
    const QString log = o.work + "/cli.log";
    Inputs::ReusableRecording recording;
    Usage usage;
    if (!captureAndWarmUp(zqv, log, false, &recording, indexBytes, cli))
        return;

    const QString floorOut = o.work + "/floor.out";
    ChildCommand command;
    command.program = o.self;
    command.arguments
        = QStringList { "floor", zqv, QString::number(mapPos), QString::number(*indexBytes), floorOut };
    for (int r = 0; r < 2 * quickReps(o); ++r) {
        if (firstRunsAt(r)) {
            if (!finalizeOnce(folder, log, &usage))
                return fail(cli, "clipward-cli did not finalize " + zqv);
            cli->runs << usage;
            if (!recording.restore())
                return fail(cli, "cannot put back " + zqv);
        } else {
            const Usage floorUsage = measureChild(command);
            QFile::remove(floorOut + ".done");
            if (!floorUsage.ok)
                return fail(floor, "the floor run failed");
            floor->runs << floorUsage;
        }
    }
}

// Case 7: case 1's recording finished in the interchange form, then in the default one, taking turns as
// case 1 and its floor do.
void interchangeAgainstDefault(
    const BenchOptions& o, const QString& zqv, Measured* interchange, Measured* standard, qint64* indexBytes)
{
    const QString folder = QFileInfo(zqv).absolutePath();
    const QString log = o.work + "/cli.log";
    Inputs::ReusableRecording recording;
    Usage usage;
    if (!captureAndWarmUp(zqv, log, true, &recording, indexBytes, interchange))
        return;
    for (int r = 0; r < 2 * quickReps(o); ++r) {
        const bool inInterchange = firstRunsAt(r);
        Measured* m = inInterchange ? interchange : standard;
        if (!finalizeOnce(folder, log, &usage, inInterchange))
            return fail(m, "clipward-cli did not finalize " + zqv);
        m->runs << usage;
        if (!recording.restore())
            return fail(m, "cannot put back " + zqv);
    }
}

// Case 3: the dense recording finalized, then the finished file remuxed by ffmpeg.
void finalizeAgainstRemux(const BenchOptions& o, const QString& zqv, Measured* cli, Measured* remux)
{
    const QString folder = QFileInfo(zqv).absolutePath();
    const QString log = o.work + "/cli.log";
    const QString remuxed = o.work + "/remuxed.mov";
    Inputs::ReusableRecording recording;
    Usage usage;
    if (!recording.capture(zqv) || !finalizeOnce(folder, log, &usage) || !recording.restore())
        return fail(cli, "clipward-cli did not finalize " + zqv);
    for (int r = 0; r < o.reps; ++r) {
        if (!finalizeOnce(folder, log, &usage))
            return fail(cli, "clipward-cli did not finalize " + zqv);
        cli->runs << usage;

        ChildCommand ffmpeg;
        ffmpeg.program = "ffmpeg";
        ffmpeg.arguments = QStringList { "-v", "error", "-y", "-i", recording.finishedPath(), "-map", "0:v",
            "-map", "0:a", "-c", "copy", remuxed };
        const Usage remuxUsage = measureChild(ffmpeg);
        QFile::remove(remuxed); // before its dirty pages reach the disk and slow the next finalize
        if (!remuxUsage.ok)
            return fail(remux, "ffmpeg could not remux the finished file");
        remux->runs << remuxUsage;
        if (!recording.restore())
            return fail(cli, "cannot put back " + zqv);
    }
}

// Cases 4 and 5: find, the command line and the window over the same card, all scan-only.
void scanCard(const BenchOptions& o, const QString& card, BenchResults* r)
{
    ChildCommand find;
    find.program = "find";
    find.arguments = QStringList { card, "-iname", "*.zq?", "-o", "-iname", "*.nr?" };
    ChildCommand window;
    window.program = CLIPWARD_WINDOW_DRIVER_PATH;
    window.arguments = QStringList { "--scan-only", card };
    window.stdoutPath = o.work + "/window.log";
    // Offscreen whether or not there is a display, so every run measures the same thing.
    const QString runtime = o.work + "/runtime";
    QDir().mkpath(runtime);
    QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    window.environment << "QT_QPA_PLATFORM=offscreen"
                       << "XDG_RUNTIME_DIR=" + runtime;
    const QString cliLog = o.work + "/scan.log";
    const QString summary = QString("%1 file(s) require finalizing.").arg(r->cardInProgress * 9 / 10);

    for (int rep = -1; rep < quickReps(o); ++rep) { // rep -1: the untimed warm-up
        // Each of the three goes first in turn.
        Usage f, c, w;
        for (int turn = 0; turn < 3; ++turn) {
            switch ((rep + 1 + turn) % 3) {
            case 0:
                f = measureChild(find);
                break;
            case 1:
                c = runCli({ "--scan-only", card }, cliLog);
                break;
            default:
                w = measureChild(window);
                break;
            }
        }
        if (!f.ok)
            return fail(&r->find, "find failed");
        if (!logSays(cliLog, summary))
            return fail(&r->scanCli, "clipward-cli did not report \"" + summary + "\"");
        if (!w.ok)
            return fail(&r->scanWindow, "the window did not show the summary");
        if (rep >= 0) {
            r->find.runs << f;
            r->scanCli.runs << c;
            r->scanWindow.runs << w;
        }
    }
}

// Case 6: Tern recordings of growing frame maps, each finalized and put back in turn.
void scaling(const BenchOptions& o, QList<ScalePoint>* points)
{
    QList<Inputs::ReusableRecording> recordings;
    QStringList folders;
    for (ScalePoint& p : *points) {
        const QString folder = p.folder;
        Inputs::ReusableRecording recording;
        Usage usage;
        if (!recording.capture(folder + "/A001.zqv") || !finalizeOnce(folder, o.work + "/cli.log", &usage)
            || !recording.restore())
            fail(&p.finalize, "clipward-cli did not finalize " + folder);
        recordings << recording;
        folders << folder;
    }
    for (int rep = 0; rep < quickReps(o); ++rep) {
        for (int i = 0; i < points->size(); ++i) {
            ScalePoint& p = (*points)[i];
            if (p.finalize.failed)
                continue;
            Usage usage;
            if (!finalizeOnce(folders[i], o.work + "/cli.log", &usage) || !recordings[i].restore())
                fail(&p.finalize, "clipward-cli did not finalize " + folders[i]);
            else
                p.finalize.runs << usage;
        }
    }
}

bool makeSparse(const QString& path, RecordingPlan::Family family, quint32 entries, quint32* written)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    const RecordingResult result = Inputs::writeProResRecording(path, family, entries);
    if (!result.ok) {
        progress("cannot write " + path + ": " + result.error);
        return false;
    }
    *written = result.videoFrames + result.soundChunks + result.timecodeSamples;
    progress(QString("wrote %1: %2 frame-map entries, %3 GB sparse")
                 .arg(path)
                 .arg(*written)
                 .arg(double(result.fileSize) / 1e9, 0, 'f', 1));
    return true;
}

// The recording of case 1, which cases 6 and 7 reuse.
QString ternRecording(const BenchOptions& o)
{
    return o.work + "/tern/A001.zqv";
}

// The label of every measurement, as the report shows it.
void labelMeasurements(BenchResults* r)
{
    r->ternFinalize.label = "clipward-cli finalize";
    r->ternFloor.label = "floor: read map, write index";
    r->heronFinalize.label = r->ternFinalize.label;
    r->heronFloor.label = r->ternFloor.label;
    r->denseFinalize.label = "clipward-cli finalize";
    r->remux.label = "ffmpeg -c copy of the finished file";
    r->find.label = "find CARD -iname '*.zq?' -o -iname '*.nr?'";
    r->scanCli.label = "clipward-cli --scan-only";
    r->scanWindow.label = "window (offscreen), scan only";
    r->interchangeFinalize.label = "clipward-cli --interchange finalize";
    r->defaultFinalize.label = "clipward-cli finalize";
    r->copyToTmpfs.label = "clipward-cli --output TMPFS FOLDER";
    r->cpToTmpfs.label = "cp RECORDING TMPFS";
    r->copyWithinBtrfs.label = "clipward-cli --output DIR FOLDER, one btrfs";
    r->inPlaceOnBtrfs.label = "clipward-cli FOLDER (in place), same btrfs";
}

// Cases 1, 7 and 2, in that order: case 7 runs while case 1's recording is at hand and in the page cache.
void runNearCapacityCases(const BenchOptions& o, BenchResults* r)
{
    const QString tern = ternRecording(o);
    const QString heron = o.work + "/heron/B001.zqv";
    if (makeSparse(tern, RecordingPlan::Tern, kNearCapacityEntries, &r->ternEntries)) {
        progress("case 1: Tern near capacity");
        finalizeAgainstFloor(o, tern, recorderOf(RecordingPlan::Tern).family->recoveryFrameMapPos,
            &r->ternFinalize, &r->ternFloor, &r->ternIndexBytes);
    } else {
        fail(&r->ternFinalize, "no input");
    }
    if (r->ternEntries != 0 && !r->ternFinalize.failed) {
        progress("case 7: case 1's recording, interchange finish against the default");
        interchangeAgainstDefault(
            o, tern, &r->interchangeFinalize, &r->defaultFinalize, &r->interchangeIndexBytes);
    } else {
        fail(&r->interchangeFinalize, "case 1 did not run");
    }
    if (makeSparse(heron, RecordingPlan::Heron, kNearCapacityEntries, &r->heronEntries)) {
        progress("case 2: Heron near capacity");
        finalizeAgainstFloor(o, heron, recorderOf(RecordingPlan::Heron).family->recoveryFrameMapPos,
            &r->heronFinalize, &r->heronFloor, &r->heronIndexBytes);
    } else {
        fail(&r->heronFinalize, "no input");
    }
}

// Case 6: its largest recording is case 1's, measured again here in turn with the smaller ones.
void runScalingCase(const BenchOptions& o, BenchResults* r)
{
    for (quint32 entries : kScaleEntries) {
        ScalePoint p;
        p.finalize.label = "clipward-cli finalize";
        p.folder = QString("%1/scale-%2").arg(o.work).arg(entries);
        if (!makeSparse(p.folder + "/A001.zqv", RecordingPlan::Tern, entries, &p.entries))
            fail(&p.finalize, "no input");
        r->scaling << p;
    }
    if (r->ternEntries != 0) {
        ScalePoint largest;
        largest.entries = r->ternEntries;
        largest.folder = QFileInfo(ternRecording(o)).absolutePath();
        largest.finalize.label = "clipward-cli finalize";
        r->scaling << largest;
    }
    progress("case 6: scaling");
    scaling(o, &r->scaling);
}

// Cases 4 and 5: a card written for them, then scanned.
void runCardCases(const BenchOptions& o, BenchResults* r)
{
    const QString card = o.work + "/card";
    r->cardFolders = kCardFolders;
    r->cardFiles = kCardFolders * kFilesPerFolder;
    r->cardInProgress = Inputs::writeCard(card, kCardFolders, kFilesPerFolder);
    if (r->cardInProgress < 0) {
        fail(&r->scanCli, "cannot write the card");
    } else {
        progress(
            QString("cases 4 and 5: card of %1 files in %2 folders").arg(r->cardFiles).arg(r->cardFolders));
        scanCard(o, card, r);
    }
}

// Cases 3 and 8, run last: they need ffmpeg and 4 GB of disk for the recording as long as they run (case 8
// more, see runCopyCases), and the recording is removed afterwards.
void runDenseCases(const BenchOptions& o, BenchResults* r)
{
    const QString dense = o.work + "/dense/C001.zqv";
    if (QStandardPaths::findExecutable("ffmpeg").isEmpty()) {
        fail(&r->denseFinalize, "ffmpeg is not installed");
        fail(&r->copyToTmpfs, "no input: ffmpeg is not installed");
        fail(&r->copyWithinBtrfs, "no input: ffmpeg is not installed");
        return;
    }
    QDir().mkpath(o.work + "/dense");
    QString error;
    progress("encoding ProRes frames with ffmpeg");
    const QList<QByteArray> frames = Inputs::encodeProResFrames(o.work, kDistinctFrames, &error);
    const RecordingResult written
        = frames.isEmpty() ? RecordingResult() : Inputs::writeDenseRecording(dense, frames, kDenseBytes);
    if (!written.ok) {
        fail(&r->denseFinalize, frames.isEmpty() ? error : written.error);
    } else {
        r->denseBytes = written.fileSize;
        r->denseEntries = written.videoFrames + written.soundChunks + written.timecodeSamples;
        progress(QString("case 3: dense recording of %1 bytes").arg(r->denseBytes));
        finalizeAgainstRemux(o, dense, &r->denseFinalize, &r->remux);
    }
    runCopyCases(o, dense, r);
    QDir(o.work + "/dense").removeRecursively();
    QFile::remove(o.work + "/frames.prores");
}

// The inputs' folders under the work folder, unless they are to be kept.
void removeInputs(const BenchOptions& o)
{
    if (o.keep)
        return;
    for (const QString& name : QDir(o.work).entryList(QDir::Dirs | QDir::NoDotAndDotDot))
        QDir(o.work + "/" + name).removeRecursively();
}

// Whether every measurement ran, whether or not it met its target.
bool everyCaseRan(const BenchResults& r)
{
    bool allRan = true;
    for (const Measured* m : { &r.ternFinalize, &r.ternFloor, &r.heronFinalize, &r.heronFloor,
             &r.denseFinalize, &r.remux, &r.find, &r.scanCli, &r.scanWindow, &r.interchangeFinalize,
             &r.defaultFinalize, &r.copyToTmpfs, &r.cpToTmpfs, &r.copyWithinBtrfs, &r.inPlaceOnBtrfs })
        allRan = allRan && !m->failed;
    for (const ScalePoint& p : qAsConst(r.scaling))
        allRan = allRan && !p.finalize.failed;
    return allRan;
}

} // namespace

int runBenchmarks(const BenchOptions& o)
{
    g_clock.start();
    BenchResults r;
    r.reps = o.reps;
    r.quickReps = quickReps(o);
    if (!QDir().mkpath(o.work)) {
        progress("cannot make " + o.work);
        return 1;
    }
    labelMeasurements(&r);

    runNearCapacityCases(o, &r);
    runScalingCase(o, &r);
    runCardCases(o, &r);
    runDenseCases(o, &r);

    removeInputs(o);
    progress("done");
    printReport(r);
    return everyCaseRan(r) ? 0 : 1;
}
