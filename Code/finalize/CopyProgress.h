#pragma once

#include <QString>
#include <QtGlobal>

// Where a run that finishes copies is: the copy under way and the whole run. The recordings the run will
// copy are counted, and their sizes summed, before the first is copied; a recording the run passes
// without copying (its copy's name taken, in use, ...) counts as done when its turn ends.
struct CopyProgress
{
    QString path; // the card's recording whose turn it is
    qint64 fileDone = 0; // bytes of it copied so far
    qint64 fileSize = 0;
    bool fileEnded = false; // its turn is over: copied and finished, or passed
    int fileNumber = 0; // counted from 1, of fileCount
    int fileCount = 0;
    qint64 runDone = 0; // bytes of the run's recordings copied or passed so far
    qint64 runSize = 0;
};
