#pragma once

#include <QString>

// Whether a clone holds nothing of its own: the file system shows every block of `copy` as the very block
// of `source` at the same place in the file (Linux: FIEMAP gives the same extents, each marked shared, none
// whose place on the disk it cannot tell, none compressed or inline). Then the copy's bytes are the
// source's without reading either. False wherever that cannot be told (other systems, a file system
// without FIEMAP, a copy with a block of its own).
namespace SharedBlocks {

bool everyBlockShared(int sourceFd, int copyFd);
// The same for two files by name.
bool everyBlockShared(const QString& source, const QString& copy);

} // namespace SharedBlocks
