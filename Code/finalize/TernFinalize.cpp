// Finishing one interrupted Tern movie: check the in-progress layout, load the recorder's settings,
// configure the movie object from them, rebuild the index, and rename the file.

#include "finalize/CardFile.h"
#include "finalize/CopyOnWriteFile.h"
#include "finalize/EarlierFinish.h"
#include "finalize/Finalize.h"
#include "finalize/FinishPrediction.h"
#include "finalize/SettingsCheck.h"
#include "movie/QuickTimeFile.h"
#include "movie/StableStorage.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>

const char* Finalize::ternStepText(TernStep step)
{
    switch (step) {
    case TernStep::Finalized:
        break;
    case TernStep::FinishedEarlier:
        return "was finished by an earlier run cut short, verified!";
    case TernStep::Corrupted:
        return "recovery failed, corrupted file!";
    case TernStep::NoSettings:
        return "recovery failed, couldn't get any recovery settings!";
    case TernStep::InvalidSettings:
        return "recovery failed, invalid recovery settings!";
    case TernStep::RebuildFailed:
        return "recovery failed, no frame map or finalization failed!";
    }
    return nullptr;
}

// The line logged for a step's end: "********************* PATH WORDS" and a newline.
static QByteArray stepLine(Finalize::TernStep step)
{
    return QByteArray("********************* %s ") + Finalize::ternStepText(step) + '\n';
}

Finalize::TernStep Finalize::finishTernMovie(Tern::QuickTimeFile& movie, const QString& path,
                                             Tern::FinishStyle style)
{
    const QByteArray name = path.toLocal8Bit();
    const bool unfinished = movie.verifyHeader();
    if (!unfinished && EarlierFinish::completes(movie, path)) {
        qDebug(stepLine(TernStep::FinishedEarlier).constData(), name.constData());
        return TernStep::FinishedEarlier;
    }
    if (!unfinished)
        return TernStep::Corrupted;
    qDebug("********************* %s needs to be restored!\n", name.constData());
    movie.initFile(nullptr);
    Tern::RecoverySettings* settings = movie.loadSavedSettings();
    if (!settings)
        return TernStep::NoSettings;
    if (!SettingsCheck::usable(movie.family(), *settings))
        return TernStep::InvalidSettings;
    settings->copyInto(movie);
    movie.finishStyle = style;
    return movie.recover() ? TernStep::Finalized : TernStep::RebuildFailed;
}

// Renames a recording the procedure is done with and returns the name it has now. Only a failed rebuild
// gives the file up (".nrv"); a file that could not be opened or started on is counted unrecoverable yet
// renamed ".mov", unchanged. That is deliberate and kept: the procedure has always named such files so,
// and the tests of its lines and names hold it. An old ".nrv" is replaced, an old ".mov" is not.
// "Invalid output file." names a file that is gone or does not end in ".zqv" (the lower-case test in
// ternFinish let an upper-case one through).
static QString renameFinished(const QString& path, bool rebuildFailed)
{
    if (!QFile::exists(path) || !path.endsWith(".zqv"))
        return QStringLiteral("Invalid output file.");
    QString newName = path;
    if (rebuildFailed) {
        newName.replace(".zqv", ".nrv");
        if (QFile::exists(newName))
            QFile::remove(newName);
    } else {
        newName.replace(".zqv", ".mov");
    }
    if (QFile::rename(path, newName)) {
        StableStorage::syncFolder(QFileInfo(newName).absolutePath());
    } else {
        // Through the logging stream itself: each item followed by a blank, the paths quoted and escaped.
        qDebug() << "Failed to rename file: " << path << " -> " << newName;
    }
    return newName;
}

unsigned int Finalize::ternDoFinalize(QString path)
{
    return keep(ternFinish(path));
}

Finalize::FileFinish Finalize::ternFinish(const QString& path)
{
    FileFinish finish;
    finish.family = &Tern::ternFamily;
    CardFile file(path);
    qDebug("doing tern finalize");

    if (!path.toLower().endsWith(".zqv"))
        return finish;

    const QByteArray name = path.toLocal8Bit();
    // A failure the card caused (a refused read or write) is told by the driver's line instead: the
    // recording itself may be whole.
    const auto logFailure = [&file, &name](const char* format) {
        if (file.mediumFailure().isEmpty())
            qDebug(format, name.constData());
    };
    finish.code = FileFinish::s_unrecoverable;
    bool rebuildFailed = false;
    Tern::QuickTimeFile* movie = nullptr;

    // Unbuffered: the index writer buffers itself.
    if (!file.openToChange()) {
        logFailure("********************* %s recovery failed, can't open the file!\n");
    } else {
        movie = new Tern::QuickTimeFile(file);
        const TernStep step = finishTernMovie(*movie, path, finishStyle);
        if (step == TernStep::Finalized || step == TernStep::FinishedEarlier) {
            finish.code = FileFinish::s_finalized;
            if (step == TernStep::Finalized)
                file.flush();
        } else {
            rebuildFailed = step == TernStep::RebuildFailed;
            if (rebuildFailed)
                file.noteFailedClose(*movie);
            logFailure(stepLine(step).constData());
        }
    }
    delete movie;
    if (file.isOpen())
        file.close();
    if (leftForTheCard(file, finish.finished()))
        return finish;
    finish.outputName = renameFinished(path, rebuildFailed);
    return finish;
}

FinishPrediction Finalize::predictTernFinish(CopyOnWriteFile& view, const QString& path)
{
    FinishPrediction p;
    Tern::QuickTimeFile movie(view);
    const TernStep step = finishTernMovie(movie, path, Tern::FinishStyle::Recorder);
    // Tern gives the file up (renamed ".nrv") only when the rebuild itself fails; a recording it cannot
    // start on is counted unrecoverable and renamed ".mov" unchanged.
    p.outcome = QStringLiteral("given up");
    p.extension = QStringLiteral(".mov");
    if (const char* words = ternStepText(step))
        p.reason = QString::fromLatin1(words);
    switch (step) {
    case TernStep::Finalized:
    case TernStep::FinishedEarlier:
        p.finalized(QStringLiteral(".mov"));
        break;
    case TernStep::Corrupted:
        p.noOpenHeader(movie.family());
        break;
    case TernStep::NoSettings:
        p.why = QStringLiteral("the settings record cannot be read");
        break;
    case TernStep::InvalidSettings:
        p.why = "the settings give " + SettingsCheck::refusal(movie.family(), *movie.loadSavedSettings());
        break;
    case TernStep::RebuildFailed:
        p.recoveryFailed(movie, view, p.reason);
        p.replacesExisting = true; // an older ".nrv" is replaced
        break;
    }
    return p;
}
