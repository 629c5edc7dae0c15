#include "finalize/EarlierFinish.h"

#include "finalize/QtMessageFilter.h"
#include "movie/MovieVerifier.h"
#include "movie/QuickTimeFile.h"

namespace EarlierFinish {

bool completes(Tern::QuickTimeFile& movie, const QString& path)
{
    if (!movie.looksFinished())
        return false;
    const QtMessageFilter readerQuiet(
        QtMessageFilter::Drop::Everything); // its track listing is not the run's
    return verifyMovie(path).verified;
}

} // namespace EarlierFinish
