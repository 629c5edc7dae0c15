#pragma once

#include "movie/HeronQuickTimeFile.h"

#include <QDir>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>

// Driver of one run: walks the start folders depth-first, picks out the recorder's in-progress
// files by name and either reports them (scan-only) or hands each to its family's procedure.
class Finalize : public QObject
{
    Q_OBJECT

public:
    // Frame-map storage handed to every Heron movie object: 2,736,000 16-bit entries.
    static constexpr int s_workBufferEntries = 2736000;

    Finalize();
    ~Finalize() override;

    bool finalizeFolders(const QStringList& paths);
    bool finalizeFolderTree(const QStringList& paths);
    bool finalizeFolderTree(QDir& dir);
    bool isSkipFolder(QDir& dir);
    bool finalizeFolder(QDir& dir);
    int getFileType(QString path);
    unsigned int doFinalize(QString path);
    unsigned int ternDoFinalize(QString path);
    unsigned int heronDoFinalize(QString path);
    void setQuickTimeFileInfo(QuickTimeFile::RecoverySettings* settings, QuickTimeFile* movie);

    unsigned short* workBuffer;
    QString outputFileName;
    QStringList skipFolders;
    QStringList nameFilters;
    bool scanOnly;
    int goodCount;
    int badCount;
    int isTern;

signals:
    void textOutput(const QString& text);

private:
    // Canonical paths of the folders the walk is inside of, from the start path down: a folder link that
    // leads back into one of them would loop, so it is reported as skipped instead. Links elsewhere,
    // to a sibling for example, are walked like folders.
    QSet<QString> m_enclosingFolders;
};
