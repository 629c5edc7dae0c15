#pragma once

#include "finalize/RecordingFacts.h"

#include <QJsonObject>
#include <QString>

// What happened to one in-progress file a run met: the driver makes one for every such file and makes the
// report's line from it; scripts get it as JSON.
struct FileOutcome
{
    enum class Fate {
        Finalized,      // finished and renamed
        GivenUp,        // could not be finished: renamed to the given-up name
        GivenUpEarlier, // already under a given-up name (.nrv, .nra)
        NeedsFinishing, // a scan found it (scan only)
        InUse,          // another run holds it
        Gone,           // no longer there when its turn came
        Unreadable,     // it cannot be read
        NotWritable,    // the card, the folder or the file takes no writing
        LeftForTheCard, // the card or the system stopped the finish; the file keeps its name and bytes
        CopyExists,     // finishing into a copy: the copy's name is taken in the output folder
    };

    QString pathBefore;
    QString pathAfter; // where the file is after the run (the same path when nothing was renamed)
    QString family;    // "Tern" or "Heron"; empty when not told
    Fate fate = Fate::Finalized;
    QString reason; // in words, for every fate but Finalized and NeedsFinishing
    // The path the report's line names for a finished or given-up file: the procedure's own name for the
    // result, which is not always a file (kept as the report has always shown it).
    QString reportedPath;
    // Finishing into a copy: where the finished (or given-up) copy is, how it was copied ("clone",
    // "stream"), how its bytes were shown to be the card's ("hashed as written", "shared blocks": a clone
    // whose every block is the card's, "read back") and the xxHash64 of the recording's bytes as copied
    // (16 hex digits); empty otherwise.
    QString copyPath;
    QString copyMethod;
    QString copyCheck;
    QString mediaHash;
    // What the file holds, read after the run when the driver is asked to learn it.
    RecordingFacts facts;

    // The version of the JSON report's fields: raised only when a field's meaning changes.
    static constexpr int s_jsonSchema = 1;

    static QString fateName(Fate fate);
    QJsonObject toJson() const;
};
