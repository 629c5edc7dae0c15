// The window's log box: what it shows of a run, how it follows the end, its menu, and the file that keeps
// a run's whole report.

#include "MainWindow.h"
#include "ui_MainWindow.h"

#include "ContextMenu.h"
#include "RunPacing.h"
#include "finalize/LogText.h"

#include <QAbstractTextDocumentLayout>
#include <QAction>
#include <QCoreApplication>
#include <QMenu>
#include <QScrollBar>
#include <QTemporaryFile>
#include <QTextCursor>
#include <QTextDocument>

namespace {

// The log box keeps the latest lines of a long run; older ones fall off the top.
const int kMaxLogLines = 4000;

} // namespace

void MainWindow::setUpLogBox()
{
    ui->outputWindow->setMaximumBlockCount(kMaxLogLines);
    // The report is read, selected and copied, never edited; Tab leaves it, and only a click enters it.
    ui->outputWindow->setReadOnly(true);
    ui->outputWindow->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    ui->outputWindow->setTabChangesFocus(true);
    ui->outputWindow->setFocusPolicy(Qt::ClickFocus);
    offerContextMenu(ui->outputWindow, this, [this] { return createLogMenu(); });
    followLogEnd();
}

void MainWindow::followLogEnd()
{
    // Like a terminal: the box follows the end until the user scrolls away from it, and again once they
    // scroll back; a resize or new lines keep the end in view while it follows.
    QScrollBar* scroll = ui->outputWindow->verticalScrollBar();
    connect(scroll, &QAbstractSlider::actionTriggered, this,
            [this, scroll](int) { m_followLog = scroll->sliderPosition() >= scroll->maximum(); });
    connect(scroll, &QAbstractSlider::rangeChanged, this, [this, scroll](int, int maximum) {
        if (m_followLog)
            scroll->setValue(maximum);
    });
}

QMenu* MainWindow::createLogMenu()
{
    auto* menu = new QMenu(this);
    QAction* copy = menu->addAction(tr("&Copy"), ui->outputWindow, &QPlainTextEdit::copy, QKeySequence::Copy);
    copy->setEnabled(ui->outputWindow->textCursor().hasSelection());
    menu->addAction(tr("Select &All"), ui->outputWindow, &QPlainTextEdit::selectAll, QKeySequence::SelectAll);
    menu->addSeparator();
    menu->addAction(m_saveLogAction);
    menu->addAction(m_saveOutcomesAction);
    return menu;
}

void MainWindow::output(const QString& text)
{
    const QString line = logLineText(text);
    if (m_runInProgress) {
        recordLine(line);
        appendDuringRun(line);
    } else {
        ui->outputWindow->appendPlainText(line);
    }
    // The run is synchronous on this thread: this is where the window repaints and the bar moves.
    QCoreApplication::processEvents();
}

void MainWindow::startRunReport()
{
    ui->outputWindow->clear();
    m_followLog = true;
    // The whole report goes to a file of its own as well: the box keeps only the last 4000 lines.
    m_runRecord.reset(new QTemporaryFile());
    if (!m_runRecord->open())
        m_runRecord.reset();
    m_sinceLogShown.invalidate(); // the run's first line shows at once
}

void MainWindow::endRunReport()
{
    showLog();
    if (m_runRecord)
        m_runRecord->flush();
}

void MainWindow::recordLine(const QString& line)
{
    if (m_runRecord && m_runRecord->isOpen()) {
        m_runRecord->write(line.toUtf8());
        m_runRecord->write("\n", 1);
    }
}

void MainWindow::appendDuringRun(const QString& line)
{
    // The box's own append lays out and shapes each new line to scroll to it, and every repaint lays out
    // what is in view: during a run the lines go into its document directly, where they are laid out only
    // once shown.
    // A new paragraph, as appendPlainText makes one: an empty document takes the text in its first block.
    // One edit, so the document's layout sees a new block (laid out when shown), not a changed one (laid
    // out at once).
    QTextDocument* document = ui->outputWindow->document();
    QTextCursor cursor(document);
    cursor.beginEditBlock();
    cursor.movePosition(QTextCursor::End);
    if (!document->isEmpty())
        cursor.insertBlock();
    cursor.insertText(line);
    cursor.endEditBlock();

    if (isDueForShowing(m_sinceLogShown))
        showLog();
    else
        ui->outputWindow->setUpdatesEnabled(false);
}

void MainWindow::showHeldLines()
{
    // Between showings the box's updates are off (appendDuringRun).
    if (!ui->outputWindow->updatesEnabled())
        showLog();
}

void MainWindow::showLog()
{
    // The box sizes its scroll bar from the last lines' layout whenever the document grows; between
    // showings that notice is held back, and given once here.
    QAbstractTextDocumentLayout* layout = ui->outputWindow->document()->documentLayout();
    layout->blockSignals(false);
    emit layout->documentSizeChanged(layout->documentSize());
    layout->blockSignals(m_runInProgress);
    ui->outputWindow->setUpdatesEnabled(true);
    QScrollBar* bar = ui->outputWindow->verticalScrollBar();
    if (m_followLog)
        bar->setValue(bar->maximum());
    ui->outputWindow->viewport()->update();
    m_sinceLogShown.restart();
}

bool MainWindow::writeLog(QIODevice& out, QString* error)
{
    if (!m_runRecord || !m_runRecord->isOpen()) {
        const QString shown = ui->outputWindow->toPlainText();
        const QByteArray bytes = (shown.isEmpty() ? shown : shown + '\n').toUtf8();
        return out.write(bytes) == bytes.size();
    }
    m_runRecord->flush();
    QFile record(m_runRecord->fileName());
    if (!record.open(QIODevice::ReadOnly)) {
        if (error)
            *error = record.errorString();
        return false;
    }
    while (!record.atEnd()) {
        const QByteArray piece = record.read(1 << 20);
        if (out.write(piece) != piece.size())
            return false;
    }
    return true;
}
