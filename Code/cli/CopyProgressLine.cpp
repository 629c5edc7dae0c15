#include "cli/CopyProgressLine.h"

#include <QFileInfo>

#include <cstdio>

namespace {

const double kMegabyte = 1e6;

} // namespace

CopyProgressLine::CopyProgressLine()
{
    m_sinceStart.start();
}

void CopyProgressLine::show(const QString& path, qint64 done, qint64 total)
{
    const qint64 runBytes = m_bytesBefore + done;
    const double seconds = qMax<qint64>(1, m_sinceStart.elapsed()) / 1000.0;
    const int percent = total > 0 ? int(done * 100 / total) : 100;
    const QString line = QString("copying %1: %2 % of %3 MB | run: %4 file(s) copied, %5 MB, %6 MB/s")
                             .arg(QFileInfo(path).fileName())
                             .arg(percent)
                             .arg(total / kMegabyte, 0, 'f', 1)
                             .arg(m_filesDone)
                             .arg(runBytes / kMegabyte, 0, 'f', 1)
                             .arg(runBytes / kMegabyte / seconds, 0, 'f', 1);
    // "\r" and "erase to the end of the line": the line is written over in place.
    std::fprintf(stderr, "\r\033[K%s", line.toLocal8Bit().constData());
    if (done >= total) {
        m_bytesBefore += total;
        ++m_filesDone;
        std::fprintf(stderr, "\r\033[K");
    }
    std::fflush(stderr);
}
