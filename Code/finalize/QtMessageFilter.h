#pragma once

#include <QtGlobal>

// While it lives, messages that Qt's own classes print about a failure Clipward handles itself (a file
// position that cannot be set, a device that is not open) are dropped, or every message is; the rest go on
// to the handler installed before, unchanged. The procedure's own line says what happened, in the user's
// terms. Filters nest; all on the thread that runs the finish.
class QtMessageFilter
{
public:
    enum class Drop {
        QtNotices, // Qt's own notices only
        Everything, // every message: a check whose own report the caller words itself
    };

    explicit QtMessageFilter(Drop drop = Drop::QtNotices);
    ~QtMessageFilter();
    QtMessageFilter(const QtMessageFilter&) = delete;
    QtMessageFilter& operator=(const QtMessageFilter&) = delete;

private:
    // Whether `message` is one of Qt's own notices ("QFile::at: Cannot set file position ...").
    static bool fromQtItself(const QString& message);
    static void handle(QtMsgType type, const QMessageLogContext& context, const QString& message);
    Drop m_previousDrop;
};
