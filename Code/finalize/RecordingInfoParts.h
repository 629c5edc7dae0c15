#pragma once

// The pieces RecordingInfo puts together: what a movie and a WAV hold, and what a finish of each would
// give, each as a JSON object. Internal to the finalize layer.

#include "finalize/CopyOnWriteFile.h"
#include "finalize/QtMessageFilter.h"
#include "finalize/RecordingFacts.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

class QFile;
class QIODevice;

namespace RecordingInfoParts {

// What the file's name says a run would do with it.
enum class NameState {
    InProgress, // .zqv, .zqa (in any case): a run finishes it
    GivenUp, // .nrv, .nra: a run passes it over as given up earlier
    Finished, // .mov, .wav
    Other,
};

// The name a finish gives the file: `extension` (".mov", ".nrv", ".wav", ".nra") in place of the
// in-progress one (`inProgress`, ".zqv" or ".zqa"), replaced as the procedures replace it. Null when the
// file keeps its name: one the procedure does not rename (the extension not in lower case), or a name
// already taken that the procedure does not replace. For a file not under its in-progress name, the name
// it would get under it.
QJsonValue nameAfterFinish(const QString& path, NameState name, const QString& inProgress,
    const QString& extension, bool replacesExisting);

// A prediction in the making: its first fields (whether a run finishes the file under its present name,
// what a run does with it there, how the prediction is made) and the copy-on-write view of the file, with
// the library's messages dropped while it lives (what the library says is the finish's, not the
// description's). When the view cannot be opened, the fields say so and opened() is false.
class PredictedFinish
{
public:
    PredictedFinish(const QString& path, NameState name);
    bool opened() const { return m_opened; }
    CopyOnWriteFile& view() { return m_view; }
    QJsonObject& fields() { return m_fields; }

private:
    const QtMessageFilter m_quiet; // first: on before the view opens, off after it closes
    CopyOnWriteFile m_view;
    QJsonObject m_fields;
    bool m_opened = false;
};

// The words for where a card or folder stops a finish of `path` before it starts ("the drive is
// write-protected", ...), found without opening the file for writing; null when nothing does.
QJsonValue writeBlock(const QString& path);

// A movie: its family, layout, the reserved region's settings record and frame map, the recorded end
// against the file's size, and the tracks a reader learns of a finished one. False when the file is no
// movie: `reason` then says what it is instead.
bool describeMovie(QFile& file, QJsonObject* info, QString* reason);
// What the family's finish procedure would do with the movie at `path` met under its in-progress name,
// found by running it on a copy-on-write view of the file.
QJsonObject predictMovieFinish(const QString& path, NameState name);

// A WAV: the RIFF header, chunk list, 'fmt ', 'bext', iXML and 'data' values. False when the file is no
// RIFF/WAVE: `reason` then says what it is.
bool describeSound(QFile& file, QJsonObject* info, QString* reason);
// What the audio finish would do with the file at `path` met under its in-progress name, likewise.
QJsonObject predictSoundFinish(const QString& path, NameState name);

// The tracks the movie reader learns from the movie on `device`, each with its kind, format, samples,
// time scale, rate and duration, frame size or channels and bits, and start timecode.
QJsonArray movieTracks(QIODevice& device, bool* writtenByClipward = nullptr);

} // namespace RecordingInfoParts
