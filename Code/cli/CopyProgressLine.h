#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QString>

// The progress of a run into copies on a terminal's stderr: one line rewritten in place with the copy
// under way (its name, how much of it is done), the whole run's bytes and files so far and the rate,
// cleared when a copy ends so that the report's lines read as without it.
class CopyProgressLine : public QObject
{
    Q_OBJECT

public:
    CopyProgressLine();

public slots:
    void show(const QString& path, qint64 done, qint64 total);

private:
    QElapsedTimer m_sinceStart;
    qint64 m_bytesBefore = 0; // of the copies ended before this one
    int m_filesDone = 0;
};
