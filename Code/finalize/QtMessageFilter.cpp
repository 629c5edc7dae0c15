#include "finalize/QtMessageFilter.h"

#include <QString>

namespace {

QtMessageHandler previousHandler = nullptr;

// The classes a finish reaches through Qt; they report misuse and refused positions in this form.
const char* const kQtNoticePrefixes[] = { "QFile::", "QFileDevice::", "QIODevice::", "QDataStream::" };

} // namespace

QtMessageFilter::QtMessageFilter()
{
    previousHandler = qInstallMessageHandler(&QtMessageFilter::handle);
}

QtMessageFilter::~QtMessageFilter()
{
    qInstallMessageHandler(previousHandler);
    previousHandler = nullptr;
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
    if (fromQtItself(message))
        return;
    if (previousHandler)
        previousHandler(type, context, message);
}
