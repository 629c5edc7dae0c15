// Save Log... and Save Outcomes...: the window's actions, the dialogs that ask where, the status bar's word
// on how it went, and the writing that leaves a file whole or not at all.

#include "MainWindow.h"

#include "OutcomeView.h"

#include <QAction>
#include <QFileDialog>
#include <QFileInfo>
#include <QSaveFile>
#include <QStatusBar>

namespace {

// How long the status bar tells that a file was saved.
const int kSavedMessageMs = 10000;

// The save dialog's choices; a name without a suffix takes the chosen one's.
const char* const kCsvFilter = QT_TRANSLATE_NOOP("MainWindow", "CSV files (*.csv)");
const char* const kJsonLinesFilter = QT_TRANSLATE_NOOP("MainWindow", "JSON Lines files (*.jsonl)");

} // namespace

void MainWindow::createSaveActions()
{
    m_saveLogAction = addWindowAction(tr("Save Log..."), QKeySequence::Save, &MainWindow::saveLog);
    m_saveOutcomesAction = addWindowAction(
        tr("Save Outcomes..."), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_S), &MainWindow::saveOutcomes);
    m_saveOutcomesAction->setEnabled(false);
    m_saveOutcomesAction->setToolTip(
        tr("Saves the Files tab as CSV or JSON Lines (%1)")
            .arg(m_saveOutcomesAction->shortcut().toString(QKeySequence::NativeText)));
}

QAction* MainWindow::addWindowAction(
    const QString& text, const QKeySequence& shortcut, void (MainWindow::*triggered)())
{
    auto* action = new QAction(text, this);
    action->setShortcut(shortcut);
    connect(action, &QAction::triggered, this, triggered);
    addAction(action);
    return action;
}

void MainWindow::saveLog()
{
    const QString path = QFileDialog::getSaveFileName(this, tr("Save Log"), QString(),
                                                      tr("Text files (*.txt);;All files (*)"));
    if (path.isEmpty())
        return;
    saveWithStatusMessage(path, [this, &path](QString* error) { return saveLogTo(path, error); },
                          tr("The log was saved to %1."), tr("The log could not be saved to %1: %2."));
}

bool MainWindow::saveLogTo(const QString& path, QString* error)
{
    if (error)
        error->clear();
    return saveWhole(path, [this, error](QIODevice& out) { return writeLog(out, error); }, error);
}

void MainWindow::saveOutcomes()
{
    QString filter = tr(kCsvFilter);
    QString path = QFileDialog::getSaveFileName(
        this, tr("Save Outcomes"), QString(), tr(kCsvFilter) + ";;" + tr(kJsonLinesFilter), &filter);
    if (path.isEmpty())
        return;
    // The name's own suffix decides; any other name takes the chosen filter's form.
    const bool jsonLines = filter == tr(kJsonLinesFilter);
    if (QFileInfo(path).suffix().isEmpty())
        path += jsonLines ? ".jsonl" : ".csv";
    const OutcomeTableModel::Format format = OutcomeTableModel::formatFor(
        path, jsonLines ? OutcomeTableModel::Format::JsonLines : OutcomeTableModel::Format::Csv);
    saveWithStatusMessage(path, [&](QString* error) { return saveOutcomesTo(path, format, error); },
                          tr("The outcomes were saved to %1."),
                          tr("The outcomes could not be saved to %1: %2."));
}

bool MainWindow::saveOutcomesTo(const QString& path, QString* error)
{
    return saveOutcomesTo(path, OutcomeTableModel::formatFor(path), error);
}

bool MainWindow::saveOutcomesTo(const QString& path, OutcomeTableModel::Format format, QString* error)
{
    const OutcomeTableModel* table = m_outcomeView->model();
    return saveWhole(path, [table, format](QIODevice& out) { return table->write(out, format); }, error);
}

bool MainWindow::saveWhole(const QString& path, const std::function<bool(QIODevice&)>& write, QString* error)
{
    // Written beside the target and renamed over it only when whole; never written in place, so a
    // failed save leaves any earlier file of the name as it was.
    QSaveFile out(path);
    out.setDirectWriteFallback(false);
    const bool saved = out.open(QIODevice::WriteOnly) && write(out) && out.commit();
    if (!saved && error && error->isEmpty())
        *error = out.errorString();
    return saved;
}

void MainWindow::saveWithStatusMessage(const QString& path, const std::function<bool(QString*)>& save,
                                       const QString& savedMessage, const QString& failedMessage)
{
    QString error;
    if (save(&error))
        statusBar()->showMessage(savedMessage.arg(path), kSavedMessageMs);
    else
        statusBar()->showMessage(failedMessage.arg(path, error));
}
