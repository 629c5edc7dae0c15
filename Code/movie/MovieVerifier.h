#pragma once

#include <QString>
#include <QVector>

// An end-to-end check of a finished movie through the movie reader: the tracks are learned, then every
// video frame and every sound sample of every track is located through the reader's seeks and read
// through its read operations, and each must lie inside the file and inside an 'mdat' atom. In a movie
// this library wrote, where the reader follows the maker atom's frame map, the index's own tables must
// also put every frame and sound sample at the same place.
struct MovieVerification
{
    bool verified = false;
    int tracks = 0;
    quint32 videoFrames = 0; // frames read
    QVector<quint64> soundSamples; // samples read, per sound track
    QString failure; // what stopped the check, when it did not verify
};

// Verifies the movie at `path`. The learned tracks are logged (the reader's track dump).
MovieVerification verifyMovie(const QString& path);

// The one line that reports a verification, e.g.
// "     A001.mov: 4 tracks, 31 video frames, samples per sound track 59520 59520, verified".
QString verificationSummary(const QString& path, const MovieVerification& result);
