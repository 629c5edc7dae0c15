#pragma once

#include "finalize/FinalizeRun.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QtGlobal>

class QObject;

// Collects every message logged while it lives (any type), as the front ends receive them; the handler
// that was installed before is put back on destruction. Captures nest: the latest one collects, and the
// one around it collects again once it is gone. A capture made with Drop keeps nothing: for runs whose
// messages are expected by the hundred and would only crowd the test log.
class MessageCapture
{
public:
    enum Keeping { Keep, Drop };

    explicit MessageCapture(Keeping keeping = Keep);
    ~MessageCapture();
    MessageCapture(const MessageCapture&) = delete;
    MessageCapture& operator=(const MessageCapture&) = delete;

    void record(const QString& text) { m_messages << text; } // a line that did not go through the log
    const QStringList& messages() const { return m_messages; } // as logged
    QStringList lines() const;                                 // one trailing newline dropped, as shown
    void clear() { m_messages.clear(); }                       // forgets what it has collected so far

    // Runs `call` with every message it logs dropped; returns what it returns.
    template <typename Call>
    static auto quietly(Call call) -> decltype(call())
    {
        const MessageCapture dropping(Drop);
        return call();
    }

private:
    static void handle(QtMsgType, const QMessageLogContext&, const QString& message);
    static MessageCapture* s_active;
    const Keeping m_keeping;
    MessageCapture* const m_outer;
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
// The lines of runDriver over `folder` holding one file that the `family` procedure ("Tern", "Heron")
// takes: the folder scanned, the procedure started, its `messages`, and last the path the file was left
// at (`left`) with how it went (`outcome`: "Finalized", "Unrecoverable").
QStringList oneFileRunLines(const QString& folder, const QString& family, const QStringList& messages,
                            const QString& left, const QString& outcome);
// Writes `bytes` to `path`, bytes the `family` procedure cannot finish, and runs the driver over the folder
// of `path`: the run gives the lines of oneFileRunLines with `messages`, the file left at `left` as
// "Unrecoverable", and `left` still holds `bytes`.
void checkLeftUnrecoverable(const QString& path, const QByteArray& bytes, const QString& family,
                            const QStringList& messages, const QString& left);

// One press of Start over `path` (the run both front ends present): its lines and library messages in
// time order, as the log box shows them, and its summary.
QStringList runFinalizeRun(const QString& path, bool scanOnly, FinalizeRun::Summary* summary = nullptr);
