#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

// What is inside a recording, read without changing it (opened read-only, never written, renamed or
// locked for writing): clipward-cli --info. One description per file, as JSON; the text form is rendered
// from it, so both carry the same facts. README.md lists every field.
//
// A movie shows its family, layout, the recorder's settings record field by field, the frame map summed
// up, where the recorded end lies against the file's size, the tracks the movie reader learns of a
// finished one; a WAV its RIFF, 'fmt ', 'bext', iXML and 'data' values and declared sizes. For a file a
// run would finish (or one given up, as if under its in-progress name) the finish procedure itself is run
// on a copy-on-write view of the file, and what it gave is shown: outcome, reason, new name, the tracks
// of the finished movie or the repaired sizes.
namespace RecordingInfo {

// The description of the file at `path` (made absolute).
QJsonObject describe(const QString& path);

// Whether the description is of a recording Clipward knows (a movie or a WAV), read as such; false for a
// file that is missing, unreadable, or something else (its `reason` says what).
bool known(const QJsonObject& description);

// The description as indented "label: value" lines, every field in it, in a fixed order.
QStringList textLines(const QJsonObject& description);

} // namespace RecordingInfo
