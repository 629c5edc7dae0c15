#pragma once

#include <QString>

namespace Tern {
class QuickTimeFile;
}

// A finish killed after it patched the 'mdat' header but before the rename leaves a complete movie under
// the in-progress name. Such a file is recognised by its layout and checked end to end by the movie
// reader; a file that passes is renamed as finished, not rebuilt and not given up.
namespace EarlierFinish {

// Whether `movie` (open on the file at `path`) is a whole movie this library finished. The reader's own
// messages are kept out of the log.
bool completes(Tern::QuickTimeFile& movie, const QString& path);

} // namespace EarlierFinish
