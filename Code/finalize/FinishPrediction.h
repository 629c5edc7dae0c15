#pragma once

// What a family's finish would do to a recording, for clipward-cli --info: each procedure file runs its
// steps on a copy-on-write view of the file and tells the result here.

#include <QString>

class CopyOnWriteFile;

namespace Tern {
struct MovieFamily;
class QuickTimeFile;
} // namespace Tern

// What a procedure did on the view: the outcome as a run reports it, its words, and the name it gives.
struct FinishPrediction
{
    QString outcome; // "finalized", "given up", "left for the card", "unreadable"
    QString reason; // the procedure's own line, or what stopped it
    QString why; // what in the recording made it so, when more can be said
    QString extension; // the new extension; empty when the file keeps its name
    bool replacesExisting = false; // whether a file of the new name is replaced
    bool finished = false; // the view holds the finished movie

    // A finish that went through: "finalized", named `extension`.
    void finalized(const QString& newExtension);
    // Why a file whose 'mdat' header is not open was not taken as a recording in progress.
    void noOpenHeader(const Tern::MovieFamily& family);
    // recover() or the index write failed on the view: left for the card when the card caused it (the file
    // keeps its name), else given up with `procedureLine` and what in the recording made it fail.
    void recoveryFailed(Tern::QuickTimeFile& movie, CopyOnWriteFile& view, const QString& procedureLine);
};
