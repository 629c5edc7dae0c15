#include "finalize/QtMessageFilter.h"

#include <QString>

#include <cstdio>

namespace {

// Filters nest: the outermost installs the handler and puts back the one it found; each restores the
// kind of dropping that was in force when it began.
int depth = 0;
QtMessageHandler outerHandler = nullptr;
QtMessageFilter::Drop dropping = QtMessageFilter::Drop::QtNotices;

// The classes a finish reaches through Qt; they report misuse and refused positions in this form.
const char* const kQtNoticePrefixes[] = {"QFile::", "QFileDevice::", "QIODevice::", "QDataStream::"};

} // namespace

QtMessageFilter::QtMessageFilter(Drop drop)
    : m_previousDrop(dropping)
{
    if (depth++ == 0)
        outerHandler = qInstallMessageHandler(&QtMessageFilter::handle);
    dropping = drop;
}

QtMessageFilter::~QtMessageFilter()
{
    dropping = m_previousDrop;
    if (--depth == 0) {
        qInstallMessageHandler(outerHandler);
        outerHandler = nullptr;
    }
}

bool QtMessageFilter::fromQtItself(const QString& message)
{
    for (const char* prefix : kQtNoticePrefixes) {
        if (message.startsWith(QLatin1String(prefix)))
            return true;
    }
    return false;
}

void QtMessageFilter::handle(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (dropping == Drop::Everything || fromQtItself(message))
        return;
    if (outerHandler)
        outerHandler(type, context, message);
    else
        std::fprintf(stderr, "%s\n", message.toLocal8Bit().constData()); // as Qt's default would
}
