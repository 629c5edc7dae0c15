#include "finalize/EarlierFinish.h"

#include "finalize/QtMessageFilter.h"
#include "movie/MovieVerifier.h"
#include "movie/QuickTimeFile.h"

namespace EarlierFinish {

bool completes(Tern::QuickTimeFile& movie, const QString& path)
{
    if (!movie.looksFinished())
        return false;
    // The reader lists the tracks it learned; that listing is not the run's.
    const QtMessageFilter readerQuiet(QtMessageFilter::Drop::Everything);
    return verifyMovie(path).verified;
}

} // namespace EarlierFinish
