#include "cli/CopyProgressLine.h"

#include <QFileInfo>

#include <cstdio>

namespace {

const double kMegabyte = 1e6;

int percentOf(qint64 done, qint64 size)
{
    return size > 0 ? int(qMin(done, size) * 100 / size) : 100;
}

} // namespace

QString CopyProgressLine::text(const CopyProgress& progress, double seconds)
{
    const double rate = seconds > 0 ? progress.fileDone / kMegabyte / seconds : 0.0;
    return QString("copying %1 (%2 of %3): %4 % of %5 MB, %6 MB/s | run: %7 % of %8 MB")
        .arg(QFileInfo(progress.path).fileName())
        .arg(progress.fileNumber)
        .arg(progress.fileCount)
        .arg(percentOf(progress.fileDone, progress.fileSize))
        .arg(progress.fileSize / kMegabyte, 0, 'f', 1)
        .arg(rate, 0, 'f', 1)
        .arg(percentOf(progress.runDone, progress.runSize))
        .arg(progress.runSize / kMegabyte, 0, 'f', 1);
}

void CopyProgressLine::show(const CopyProgress& progress)
{
    if (progress.path != m_path) {
        m_path = progress.path;
        m_sinceCopyBegan.start();
    }
    // "\r" and "erase to the end of the line": the line is written over in place, and gone once the copy
    // is whole, before the finish and the report say anything.
    const bool whole = progress.fileEnded || progress.fileDone >= progress.fileSize;
    if (whole) {
        if (m_shown)
            std::fprintf(stderr, "\r\033[K");
        m_shown = false;
    } else {
        const double seconds = m_sinceCopyBegan.nsecsElapsed() / 1e9;
        std::fprintf(stderr, "\r\033[K%s", text(progress, seconds).toLocal8Bit().constData());
        m_shown = true;
    }
    std::fflush(stderr);
}
