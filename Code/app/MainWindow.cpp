#include "MainWindow.h"
#include "ui_MainWindow.h"

#include "finalize/FinalizeRun.h"
#include "finalize/LogText.h"

#include <QAbstractTextDocumentLayout>
#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QCloseEvent>
#include <QCoreApplication>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QGroupBox>
#include <QHeaderView>
#include <QKeyEvent>
#include <QMenu>
#include <QMetaObject>
#include <QSaveFile>
#include <QScreen>
#include <QScrollBar>
#include <QSettings>
#include <QSortFilterProxyModel>
#include <QStatusBar>
#include <QTabBar>
#include <QTemporaryFile>
#include <QTextCursor>
#include <QTextDocument>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>
#include <cstdlib>

MainWindow* mainWindowInstance = nullptr;

namespace {

// How long the status bar tells that a file was saved.
const int kSavedMessageMs = 10000;

// The log box keeps the latest lines of a long run; older ones fall off the top.
const int kMaxLogLines = 4000;

// The handler that was active before the window installed its own, put back when it goes.
QtMessageHandler previousHandler = nullptr;

// A run can log thousands of lines a second. The box's own append lays out and shapes each new line to
// scroll to it, and every repaint lays out what is in view; during a run the lines go into its document
// directly, where they are laid out only once shown, and the box is scrolled and repainted at most this
// often (milliseconds). Events are still processed after every line.
const qint64 kRunLogInterval = 33;

// The scan-mode group's minimum height in the form.
const int kScanModeGroupMinimumHeight = 70;

// Whether Start finishes in the interchange form; remembered from one session to the next.
const char* const kInterchangeKey = "finish/interchange";

// The widest a column of the Files tab grows to fit its texts, in average characters; wider texts are
// elided, and the tool tip and the saved file hold them whole.
const int kOutcomeColumnMaxChars = 40;
// Pixels above and below a row's line of text in the Files tab.
const int kOutcomeRowPadding = 8;

// The save dialog's choices; a name without a suffix takes the chosen one's.
const char* const kCsvFilter = QT_TRANSLATE_NOOP("MainWindow", "CSV files (*.csv)");
const char* const kJsonLinesFilter = QT_TRANSLATE_NOOP("MainWindow", "JSON Lines files (*.jsonl)");

} // namespace

// The icon resource lives in this static library and nothing else references it, so it is registered
// here. Outside any namespace: Q_INIT_RESOURCE declares the generated function in the enclosing one.
static void initResources()
{
    Q_INIT_RESOURCE(resources);
}

void debugHandler(QtMsgType, const QMessageLogContext&, const QString& message)
{
    if (mainWindowInstance)
        QMetaObject::invokeMethod(mainWindowInstance, "output", Qt::AutoConnection, Q_ARG(QString, message));
}

MainWindow::MainWindow(QWidget* parent)
    : QMainWindow(parent)
    , ui(new Ui::MainWindow)
    , m_startFolder(QDir::currentPath())
{
    initResources();
    ui->setupUi(this);
    ui->progressBar->reset();
    ui->scanAndFinalize->setChecked(true);
    ui->startButton->setEnabled(false);
    ui->outputWindow->setMaximumBlockCount(kMaxLogLines);
    // The report is read, selected and copied, never edited; Tab leaves it, and only a click enters it.
    ui->outputWindow->setReadOnly(true);
    ui->outputWindow->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    ui->outputWindow->setTabChangesFocus(true);
    ui->outputWindow->setFocusPolicy(Qt::ClickFocus);
    ui->outputWindow->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(ui->outputWindow, &QWidget::customContextMenuRequested, this, [this](const QPoint& at) {
        QMenu* menu = createLogMenu();
        menu->setAttribute(Qt::WA_DeleteOnClose);
        menu->popup(ui->outputWindow->viewport()->mapToGlobal(at));
    });
    m_saveLogAction = new QAction(tr("Save Log..."), this);
    m_saveLogAction->setShortcut(QKeySequence::Save);
    connect(m_saveLogAction, &QAction::triggered, this, &MainWindow::saveLog);
    addAction(m_saveLogAction);
    m_saveOutcomesAction = new QAction(tr("Save Outcomes..."), this);
    m_saveOutcomesAction->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_S));
    m_saveOutcomesAction->setEnabled(false);
    m_saveOutcomesAction->setToolTip(
        tr("Saves the Files tab as CSV or JSON Lines (%1)")
            .arg(m_saveOutcomesAction->shortcut().toString(QKeySequence::NativeText)));
    connect(m_saveOutcomesAction, &QAction::triggered, this, &MainWindow::saveOutcomes);
    addAction(m_saveOutcomesAction);
    // Like a terminal: the box follows the end until the user scrolls away from it, and again once they
    // scroll back; a resize or new lines keep the end in view while it follows.
    QScrollBar* scroll = ui->outputWindow->verticalScrollBar();
    connect(scroll, &QAbstractSlider::actionTriggered, this,
            [this, scroll](int) { m_followLog = scroll->sliderPosition() >= scroll->maximum(); });
    connect(scroll, &QAbstractSlider::rangeChanged, this, [this, scroll](int, int maximum) {
        if (m_followLog)
            scroll->setValue(maximum);
    });
    // The busy bar shows only during a run, keeping its place; the status strip only with a message.
    QSizePolicy barPolicy = ui->progressBar->sizePolicy();
    barPolicy.setRetainSizeWhenHidden(true);
    ui->progressBar->setSizePolicy(barPolicy);
    ui->progressBar->hide();
    statusBar()->hide();
    connect(statusBar(), &QStatusBar::messageChanged, this,
            [this](const QString& message) { statusBar()->setVisible(!message.isEmpty()); });
    layOutScanModes();
    setWindowTitle(QString("%1 version %2")
                       .arg(QCoreApplication::applicationName(), QCoreApplication::applicationVersion()));
    ui->descriptionLabel->setText(
        QString("%1 will scan through a drive/path, rebuilding files that did not properly close.")
            .arg(QCoreApplication::applicationName()));
    connect(ui->drivePathEdit, &QLineEdit::textChanged, this, &MainWindow::drivePathTextChanged);
    connect(ui->scanAndFinalize, &QRadioButton::toggled, this, &MainWindow::scanModeChanged);
    ui->interchangeFinish->setChecked(QSettings().value(kInterchangeKey, false).toBool());
    connect(ui->interchangeFinish, &QCheckBox::toggled, this, &MainWindow::finishStyleChanged);
    setUpOutcomeTable();

    setUpKeyboard();

    mainWindowInstance = this;
    previousHandler = qInstallMessageHandler(debugHandler);
}

void MainWindow::setUpKeyboard()
{
    // Alt and the underlined letter. The form file keeps the texts as designed, without the marks (its
    // own test reads them there); the marked texts replace them here.
    ui->scanAndFinalize->setText(tr("Scan and &finalize files."));
    ui->scanOnly->setText(tr("Scan &only, do not finalize."));
    ui->interchangeFinish->setText(tr("Finish for every &player (interchange)"));
    ui->label->setText(tr("&Drive/ path to scan:"));
    ui->label->setBuddy(ui->drivePathEdit);
    ui->browseButton->setText(tr("&Browse..."));
    ui->startButton->setText(tr("&Start"));
    ui->exitButton->setText(tr("E&xit"));

    setTabOrder(ui->drivePathEdit, ui->browseButton);
    setTabOrder(ui->browseButton, ui->scanAndFinalize);
    setTabOrder(ui->scanAndFinalize, ui->scanOnly);
    setTabOrder(ui->scanOnly, ui->interchangeFinish);
    setTabOrder(ui->interchangeFinish, ui->startButton);
    setTabOrder(ui->startButton, ui->exitButton);
    // The Files tab's table and button follow Exit while the tab is shown. The tabs themselves take no
    // focus, so the chain is the same as without them while the report shows; Alt+R and Alt+I choose them.
    setTabOrder(ui->exitButton, ui->outcomeTable);
    setTabOrder(ui->outcomeTable, m_saveOutcomesButton);
    ui->runViews->setFocusPolicy(Qt::NoFocus);
    ui->runViews->tabBar()->setFocusPolicy(Qt::NoFocus);

    // Enter in the path field, or on Start when it has the focus, starts a run.
    ui->startButton->setAutoDefault(true);
    connect(ui->drivePathEdit, &QLineEdit::returnPressed, this, &MainWindow::startIfEnabled);
    ui->drivePathEdit->installEventFilter(this);
    ui->drivePathEdit->setFocus();
}

void MainWindow::setUpOutcomeTable()
{
    m_outcomes = new OutcomeTableModel(this);
    m_sortedOutcomes = new QSortFilterProxyModel(this);
    m_sortedOutcomes->setSourceModel(m_outcomes);
    m_sortedOutcomes->setSortRole(OutcomeTableModel::SortRole);
    m_sortedOutcomes->setSortCaseSensitivity(Qt::CaseInsensitive);
    m_sortedOutcomes->setSortLocaleAware(true);

    QTableView* table = ui->outcomeTable;
    table->setModel(m_sortedOutcomes);
    table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    table->setSelectionBehavior(QAbstractItemView::SelectRows);
    table->setSelectionMode(QAbstractItemView::ExtendedSelection);
    table->setTabKeyNavigation(false);
    table->setAlternatingRowColors(true);
    table->setWordWrap(false);
    table->setTextElideMode(Qt::ElideMiddle);
    table->setCornerButtonEnabled(false);
    table->verticalHeader()->hide();
    table->verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    table->horizontalHeader()->setStretchLastSection(true);
    table->horizontalHeader()->setHighlightSections(false);
    // In the run's order until the user clicks a column's header; a second click turns the order round.
    table->horizontalHeader()->setSortIndicator(-1, Qt::AscendingOrder);
    table->setSortingEnabled(true);
    fitOutcomeRows();
    fitOutcomeColumns();

    m_copyOutcomesAction = new QAction(tr("&Copy"), table);
    m_copyOutcomesAction->setShortcut(QKeySequence::Copy);
    m_copyOutcomesAction->setShortcutContext(Qt::WidgetShortcut);
    connect(m_copyOutcomesAction, &QAction::triggered, this, &MainWindow::copySelectedOutcomes);
    table->addAction(m_copyOutcomesAction);
    table->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(table, &QWidget::customContextMenuRequested, this, [this, table](const QPoint& at) {
        QMenu* menu = createOutcomeMenu();
        menu->setAttribute(Qt::WA_DeleteOnClose);
        menu->popup(table->viewport()->mapToGlobal(at));
    });

    // Save Outcomes... in the tab bar's free end, shown with the Files tab: no height is taken from the log.
    m_saveOutcomesButton = new QToolButton(ui->runViews);
    m_saveOutcomesButton->setObjectName("saveOutcomesButton");
    m_saveOutcomesButton->setDefaultAction(m_saveOutcomesAction);
    m_saveOutcomesAction->setIconText(m_saveOutcomesAction->text()); // a button shows no "..." otherwise
    m_saveOutcomesButton->setToolButtonStyle(Qt::ToolButtonTextOnly);
    m_saveOutcomesButton->setFocusPolicy(Qt::StrongFocus);
    ui->runViews->setCornerWidget(m_saveOutcomesButton, Qt::TopRightCorner);
    m_saveOutcomesButton->setVisible(ui->runViews->currentWidget() == ui->filesPage);

    // Chosen by the keyboard or a click, the Files tab takes the focus into its table; leaving it gives
    // the focus back to where a keyboard user goes on, never into the report.
    connect(ui->runViews, &QTabWidget::currentChanged, this, [this](int index) {
        const bool files = ui->runViews->widget(index) == ui->filesPage;
        // Where the tabs' own switch put it: on the page shown when it was on the page hidden.
        QWidget* focused = QApplication::focusWidget();
        const bool inFiles
            = focused && (ui->filesPage->isAncestorOf(focused) || focused == m_saveOutcomesButton);
        m_saveOutcomesButton->setVisible(files);
        if (files) {
            if (!inFiles)
                ui->outcomeTable->setFocus(Qt::TabFocusReason);
        } else if (inFiles || !focused || focused->focusPolicy() == Qt::NoFocus) {
            if (ui->startButton->isEnabled())
                ui->startButton->setFocus(Qt::TabFocusReason);
            else
                ui->drivePathEdit->setFocus(Qt::TabFocusReason);
        }
    });
}

void MainWindow::fitOutcomeRows()
{
    // Rows a line of text high. The table asks no more height than its header and one row, so the Files
    // tab asks about what the report does and the window's minimum stays where the report puts it.
    QTableView* table = ui->outcomeTable;
    const int row = QFontMetrics(font()).lineSpacing() + kOutcomeRowPadding;
    table->verticalHeader()->setMinimumSectionSize(row);
    table->verticalHeader()->setDefaultSectionSize(row);
    table->setMinimumHeight(table->horizontalHeader()->sizeHint().height() + row + 2 * table->frameWidth());
}

void MainWindow::fitOutcomeColumns()
{
    QTableView* table = ui->outcomeTable;
    table->resizeColumnsToContents();
    const int widest = kOutcomeColumnMaxChars * table->fontMetrics().averageCharWidth();
    QHeaderView* header = table->horizontalHeader();
    for (int column = 0; column < header->count(); ++column) {
        if (header->sectionSize(column) > widest)
            header->resizeSection(column, widest);
    }
}

void MainWindow::fileDone(const FileOutcome& outcome)
{
    // Rows join the table, and the summary and the tab's title are laid out anew, as often as the log is
    // shown: a row at a time would cost more than a file's turn on a card of thousands.
    m_doneOutcomes.append(outcome);
    if (!m_sinceOutcomesShown.isValid() || m_sinceOutcomesShown.hasExpired(kRunLogInterval))
        showOutcomes();
}

void MainWindow::showOutcomes()
{
    m_outcomes->add(m_doneOutcomes);
    m_doneOutcomes.clear();
    showOutcomeSummary();
}

void MainWindow::showOutcomeSummary()
{
    const int files = m_outcomes->rowCount();
    QString summary;
    if (m_runInProgress)
        summary = files == 0 ? tr("No file done yet.") : tr("So far %1").arg(m_outcomes->summary());
    else if (m_runEnded)
        summary = m_outcomes->summary();
    else
        summary = tr("No run yet.");
    ui->outcomeSummary->setText(summary);
    const int tab = ui->runViews->indexOf(ui->filesPage);
    ui->runViews->setTabText(
        tab, m_runEnded || m_runInProgress ? tr("F&iles (%1)").arg(files) : tr("F&iles"));
    m_sinceOutcomesShown.restart();
}

QMenu* MainWindow::createOutcomeMenu()
{
    auto* menu = new QMenu(this);
    m_copyOutcomesAction->setEnabled(ui->outcomeTable->selectionModel()->hasSelection());
    menu->addAction(m_copyOutcomesAction);
    menu->addSeparator();
    menu->addAction(m_saveOutcomesAction);
    return menu;
}

void MainWindow::copySelectedOutcomes()
{
    QModelIndexList rows = ui->outcomeTable->selectionModel()->selectedRows();
    std::sort(rows.begin(), rows.end(),
        [](const QModelIndex& a, const QModelIndex& b) { return a.row() < b.row(); });
    QStringList lines;
    for (const QModelIndex& row : rows) {
        QStringList cells;
        for (int column = 0; column < m_sortedOutcomes->columnCount(); ++column)
            cells << m_sortedOutcomes->index(row.row(), column).data().toString();
        lines << cells.join('\t');
    }
    if (!lines.isEmpty())
        QApplication::clipboard()->setText(lines.join('\n') + '\n');
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
    QString error;
    if (saveOutcomesTo(path, format, &error))
        statusBar()->showMessage(tr("The outcomes were saved to %1.").arg(path), kSavedMessageMs);
    else
        statusBar()->showMessage(tr("The outcomes could not be saved to %1: %2.").arg(path, error));
}

bool MainWindow::saveOutcomesTo(const QString& path, QString* error)
{
    return saveOutcomesTo(path, OutcomeTableModel::formatFor(path), error);
}

bool MainWindow::saveOutcomesTo(const QString& path, OutcomeTableModel::Format format, QString* error)
{
    return saveWhole(path, [this, format](QIODevice& out) { return m_outcomes->write(out, format); }, error);
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

void MainWindow::layOutScanModes()
{
    auto* modes = new QVBoxLayout(ui->scanModeGroup);
    modes->setObjectName("scanModeLayout");
    for (QWidget* choice : {static_cast<QWidget*>(ui->scanAndFinalize), static_cast<QWidget*>(ui->scanOnly),
                            static_cast<QWidget*>(ui->interchangeFinish)})
        modes->addWidget(choice);
    // Styled now, so their sizes are known before the window first shows.
    ui->scanModeGroup->ensurePolished();
    for (QWidget* choice : ui->scanModeGroup->findChildren<QWidget*>())
        choice->ensurePolished();
    keepScanModesWhole();
}

bool MainWindow::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == ui->drivePathEdit && event->type() == QEvent::KeyPress) {
        const auto* key = static_cast<QKeyEvent*>(event);
        if ((key->modifiers() & Qt::AltModifier) && !(key->modifiers() & Qt::ControlModifier)
            && !key->text().isEmpty())
            return true;
    }
    return QMainWindow::eventFilter(watched, event);
}

void MainWindow::keepScanModesWhole()
{
    // The form's minimum height is a floor; the choices at the window's font, as styled, may need more.
    QGroupBox* group = ui->scanModeGroup;
    const int needed = qMax(kScanModeGroupMinimumHeight, group->layout()->totalMinimumSize().height());
    if (group->minimumHeight() != needed)
        group->setMinimumHeight(needed);
}

void MainWindow::changeEvent(QEvent* event)
{
    QMainWindow::changeEvent(event);
    if (event->type() == QEvent::FontChange || event->type() == QEvent::StyleChange) {
        keepScanModesWhole();
        fitOutcomeRows();
    }
}

void MainWindow::showEvent(QShowEvent* event)
{
    QMainWindow::showEvent(event);
    if (m_fittedToScreen)
        return;
    m_fittedToScreen = true;
    if (const QScreen* where = screen())
        fitIntoScreenArea(where->availableGeometry());
}

void MainWindow::fitIntoScreenArea(const QRect& available)
{
    // The frame the window manager adds counts; the layouts' minimum at this font is never undercut.
    const QSize frame = frameGeometry().size() - geometry().size();
    const QSize wanted = size().boundedTo(available.size() - frame).expandedTo(minimumSizeHint());
    if (wanted != size())
        resize(wanted);
    const QRect outer = frameGeometry();
    const int left = qBound(
        available.left(), outer.left(), qMax(available.left(), available.right() + 1 - outer.width()));
    const int top = qBound(
        available.top(), outer.top(), qMax(available.top(), available.bottom() + 1 - outer.height()));
    if (QPoint(left, top) != outer.topLeft())
        move(left, top);
}

void MainWindow::startIfEnabled()
{
    if (ui->startButton->isEnabled())
        ui->startButton->click();
}

void MainWindow::recordLine(const QString& line)
{
    if (m_runRecord && m_runRecord->isOpen()) {
        m_runRecord->write(line.toUtf8());
        m_runRecord->write("\n", 1);
    }
}

void MainWindow::saveLog()
{
    const QString path = QFileDialog::getSaveFileName(this, tr("Save Log"), QString(),
                                                      tr("Text files (*.txt);;All files (*)"));
    if (path.isEmpty())
        return;
    QString error;
    if (saveLogTo(path, &error))
        statusBar()->showMessage(tr("The log was saved to %1.").arg(path), kSavedMessageMs);
    else
        statusBar()->showMessage(tr("The log could not be saved to %1: %2.").arg(path, error));
}

bool MainWindow::saveLogTo(const QString& path, QString* error)
{
    if (error)
        error->clear();
    return saveWhole(path, [this, error](QIODevice& out) {
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
    }, error);
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

MainWindow::~MainWindow()
{
    // Messages logged after this point must not reach a window that is being destroyed.
    if (mainWindowInstance == this) {
        mainWindowInstance = nullptr;
        qInstallMessageHandler(previousHandler);
        previousHandler = nullptr;
    }
    delete ui;
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

void MainWindow::appendDuringRun(const QString& line)
{
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

    if (!m_sinceLogShown.isValid() || m_sinceLogShown.hasExpired(kRunLogInterval))
        showLog();
    else
        ui->outputWindow->setUpdatesEnabled(false);
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

void MainWindow::drivePathTextChanged(const QString& text)
{
    ui->startButton->setEnabled(!text.isEmpty());
    ui->outputWindow->clear();
}

void MainWindow::scanModeChanged()
{
    ui->outputWindow->clear();
}

void MainWindow::finishStyleChanged(bool interchange)
{
    QSettings().setValue(kInterchangeKey, interchange);
}

void MainWindow::on_exitButton_clicked()
{
    std::exit(0);
}

void MainWindow::on_startButton_clicked()
{
    ui->outputWindow->clear();
    m_followLog = true;
    // The whole report goes to a file of its own as well: the box keeps only the last 4000 lines.
    m_runRecord.reset(new QTemporaryFile());
    if (!m_runRecord->open())
        m_runRecord.reset();

    // The Files tab lists this run's files only, each as soon as its turn is over.
    const QString path = typedPath();
    m_outcomes->clear(path);

    // output() pumps events during the run, so every control that could start another handler is off.
    showRunning(true);

    const Tern::FinishStyle style =
        ui->interchangeFinish->isChecked() ? Tern::FinishStyle::Interchange : Tern::FinishStyle::Recorder;
    FinalizeRun run(!ui->scanAndFinalize->isChecked(), style);
    // The table shows what each file holds: one read of its settings after its turn.
    run.setLearnFacts(true);
    connect(&run, &FinalizeRun::output, this, &MainWindow::output);
    connect(&run, &FinalizeRun::fileDone, this, &MainWindow::fileDone);
    m_runInProgress = true;
    showOutcomeSummary();
    m_sinceOutcomesShown.invalidate(); // the first file done shows at once
    m_sinceLogShown.invalidate();
    run.run(path);
    m_runInProgress = false;
    m_runEnded = true;
    showOutcomes();
    fitOutcomeColumns();
    showLog();
    if (m_runRecord)
        m_runRecord->flush();
    statusBar()->clearMessage();

    showRunning(false);
    // The focus goes back where a keyboard user continues, never into the report.
    if (!ui->drivePathEdit->hasFocus() && !ui->startButton->hasFocus())
        ui->startButton->setFocus();
}

void MainWindow::showRunning(bool running)
{
    ui->scanModeGroup->setEnabled(!running); // the interchange box with it
    ui->drivePathEdit->setEnabled(!running);
    ui->browseButton->setEnabled(!running);
    ui->startButton->setEnabled(!running);
    ui->exitButton->setEnabled(!running);
    m_saveOutcomesAction->setEnabled(!running && m_runEnded);
    ui->progressBar->setRange(0, running ? 0 : 100);
    ui->progressBar->setVisible(running);
}

void MainWindow::on_browseButton_clicked()
{
    const QString folder = QFileDialog::getExistingDirectory(
        this, tr("Drive/path to scan."), browseStartFolder(), QFileDialog::ShowDirsOnly);
    if (!folder.isEmpty())
        ui->drivePathEdit->setText(folder);
}

QString MainWindow::typedPath() const
{
    const QString text = ui->drivePathEdit->text();
    return text.isEmpty() ? text : QDir(m_startFolder).filePath(text);
}

QString MainWindow::browseStartFolder() const
{
    const QString path = typedPath();
    return !path.isEmpty() && QFileInfo(path).isDir() ? QDir::cleanPath(path) : QString();
}

void MainWindow::closeEvent(QCloseEvent* event)
{
    if (m_runInProgress) {
        event->ignore();
        statusBar()->showMessage(
            tr("The run is still going: the window can be closed when it has finished."));
        return;
    }
    QMainWindow::closeEvent(event);
}

void MainWindow::setRunning(bool running)
{
    showRunning(running);
}

QString MainWindow::getDrive(const QString& path)
{
    return FinalizeRun::driveOf(path);
}

int MainWindow::checkDrive(const QString&, bool)
{
    return 2;
}
