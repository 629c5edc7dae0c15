#pragma once

#include <QString>

class QIODevice;

// The sample tables of every track of a movie, read straight from the file's bytes (not through the
// reader) and held to what the strictest readers demand: each table's count fits its atom; 'stsc' runs
// start at chunk 1, rise, name sample description 1 and cover every chunk; 'stts', 'stsc' and 'stsz' count
// the same samples; a constant sound sample size is the description's frame size; every chunk lies in an
// 'mdat'. Returns the first problem found, in words ("track 2 'stsc': ..."), or an empty text.
QString checkSampleTables(QIODevice& file);
