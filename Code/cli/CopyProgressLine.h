#pragma once

#include "finalize/CopyProgress.h"

#include <QElapsedTimer>
#include <QObject>
#include <QString>

// The progress of a run into copies on a terminal's stderr: one line rewritten in place with the copy
// under way (its name, its number in the run, how much of it is done and how fast) and the whole run's
// share done, cleared as soon as the copy is whole so that the report's lines read as without it.
class CopyProgressLine : public QObject
{
    Q_OBJECT

public slots:
    void show(const CopyProgress& progress);

private:
    // The line's text for `progress`, `seconds` after the copy under way began.
    static QString text(const CopyProgress& progress, double seconds);

    QString m_path; // of the copy under way
    QElapsedTimer m_sinceCopyBegan;
    bool m_shown = false; // a line is on the terminal
};
