#pragma once

#include "finalize/FinalizeRun.h"

#include <QString>
#include <QStringList>
#include <QtGlobal>

class QObject;

// Collects every message logged while it lives (any type), as the front ends receive them; the handler
// that was installed before is put back on destruction. One capture at a time.
class MessageCapture
{
public:
    MessageCapture();
    ~MessageCapture();
    MessageCapture(const MessageCapture&) = delete;
    MessageCapture& operator=(const MessageCapture&) = delete;

    void record(const QString& text) { m_messages << text; } // a line that did not go through the log
    const QStringList& messages() const { return m_messages; } // as logged
    QStringList lines() const;                                 // one trailing newline dropped, as shown

private:
    static void handle(QtMsgType, const QMessageLogContext&, const QString& message);
    static MessageCapture* s_active;
    QtMessageHandler m_previous;
    QStringList m_messages;
};

// One driver run over `folders`: library messages and the driver's own lines in time order, as the
// log box shows them, and the counters.
struct DriverRun
{
    QStringList lines;
    int good = 0;
    int bad = 0;
};
DriverRun runDriver(const QStringList& folders, bool scanOnly = false);

// One press of Start over `path` (the run both front ends present): its lines and library messages in
// time order, as the log box shows them, and its summary.
QStringList runFinalizeRun(const QString& path, bool scanOnly, FinalizeRun::Summary* summary = nullptr);
