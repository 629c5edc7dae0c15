#pragma once

#include <QString>
#include <QVector>

class QIODevice;

// Bytes [begin, end) of a file.
struct FileSpan
{
    quint64 begin = 0;
    quint64 end = 0;
    bool valid() const { return end > begin; }
};

// The top-level atoms of a movie file: where its 'moov' lies and the payload of every 'mdat'. False when
// an atom overruns the file or no 'moov' is among them.
bool readTopLevelAtoms(QIODevice& file, FileSpan* moov, QVector<FileSpan>* media);

// The sample tables of every track of a movie, read straight from the file's bytes (not through the
// reader) and held to what the strictest readers demand: each table's count fits its atom; 'stsc' runs
// start at chunk 1, rise, name sample description 1 and cover every chunk; 'stts', 'stsc' and 'stsz' count
// the same samples; a constant sound sample size is the description's frame size; every chunk lies in an
// 'mdat'. Returns the first problem found, in words ("track 2 'stsc': ..."), or an empty text.
QString checkSampleTables(QIODevice& file);
