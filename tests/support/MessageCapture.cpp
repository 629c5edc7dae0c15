#include "support/MessageCapture.h"

#include "finalize/Finalize.h"
#include "finalize/LogText.h"
#include "support/TestSupport.h"

#include <QFileInfo>
#include <QtTest>

MessageCapture* MessageCapture::s_active = nullptr;

MessageCapture::MessageCapture(Keeping keeping)
    : m_keeping(keeping)
    , m_outer(s_active)
    , m_previous(qInstallMessageHandler(&MessageCapture::handle))
{
    s_active = this;
}

MessageCapture::~MessageCapture()
{
    qInstallMessageHandler(m_previous);
    s_active = m_outer;
}

void MessageCapture::handle(QtMsgType, const QMessageLogContext&, const QString& message)
{
    if (s_active && s_active->m_keeping == Keep)
        s_active->m_messages << message;
}

QStringList MessageCapture::lines() const
{
    QStringList shown;
    for (const QString& message : m_messages)
        shown << logLineText(message);
    return shown;
}

DriverRun runDriver(const QStringList& folders, bool scanOnly)
{
    // Driver lines go into the same list as library messages, so the order is the order of events.
    DriverRun run;
    MessageCapture capture;
    Finalize driver;
    driver.scanOnly = scanOnly;
    QObject::connect(&driver, &Finalize::textOutput, [&capture](const QString& text) { capture.record(text); });
    driver.finalizeFolders(folders);
    run.lines = capture.lines();
    run.good = driver.goodCount;
    run.bad = driver.badCount;
    return run;
}

QStringList oneFileRunLines(const QString& folder, const QString& family, const QStringList& messages,
                            const QString& left, const QString& outcome)
{
    return QStringList{"Scanning folder: " + folder, "doing " + family.toLower() + " finalize"} + messages
        + QStringList{"     " + left + " (" + family + ") " + outcome};
}

void checkLeftUnrecoverable(const QString& path, const QByteArray& bytes, const QString& family,
                            const QStringList& messages, const QString& left)
{
    QVERIFY(TestSupport::writeFile(path, bytes));
    const QString folder = QFileInfo(path).path();
    const DriverRun run = runDriver({folder});
    QCOMPARE(run.lines, oneFileRunLines(folder, family, messages, left, "Unrecoverable"));
    QCOMPARE(TestSupport::readFile(left), bytes);
}

QStringList runFinalizeRun(const QString& path, bool scanOnly, FinalizeRun::Summary* summary)
{
    MessageCapture capture;
    FinalizeRun run(scanOnly);
    QObject::connect(&run, &FinalizeRun::output, [&capture](const QString& text) { capture.record(text); });
    const FinalizeRun::Summary result = run.run(path);
    if (summary)
        *summary = result;
    return capture.lines();
}
