#pragma once

#include <QtGlobal>

// While it lives, messages that Qt's own classes print about a failure Clipward handles itself (a file
// position that cannot be set, a device that is not open) are dropped; every other message goes on to
// the handler installed before, unchanged. The procedure's own line says what happened, in the user's
// terms. One filter at a time, on the thread that runs the finish.
class QtMessageFilter
{
public:
    QtMessageFilter();
    ~QtMessageFilter();
    QtMessageFilter(const QtMessageFilter&) = delete;
    QtMessageFilter& operator=(const QtMessageFilter&) = delete;

    // Whether `message` is one of Qt's own notices ("QFile::at: Cannot set file position ...").
    static bool fromQtItself(const QString& message);

private:
    static void handle(QtMsgType type, const QMessageLogContext& context, const QString& message);
};
