#include "OutcomeView.h"

#include "ContextMenu.h"
#include "RunPacing.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QHeaderView>
#include <QLabel>
#include <QMenu>
#include <QSortFilterProxyModel>
#include <QStyle>
#include <QTabWidget>
#include <QTableView>
#include <QToolButton>

#include <algorithm>
#include <utility>

namespace {

// The widest a column grows to fit its texts, in average characters; wider texts are elided, and the tool
// tip and the saved file hold them whole.
const int kColumnMaxChars = 40;
// Pixels above and below a row's line of text.
const int kRowPadding = 8;

} // namespace

OutcomeView::OutcomeView(QWidget* window, const Widgets& widgets, std::function<void()> focusOutside)
    : QObject(window)
    , m_window(window)
    , m_widgets(widgets)
    , m_focusOutside(std::move(focusOutside))
{
    sortOutcomes();
    setUpTable();
    fitRows();
    fitColumns();
    offerCopy();
    putSaveButtonInTabBar();
    connect(m_widgets.tabs, &QTabWidget::currentChanged, this, &OutcomeView::followTab);
}

void OutcomeView::sortOutcomes()
{
    m_outcomes = new OutcomeTableModel(this);
    m_sortedOutcomes = new QSortFilterProxyModel(this);
    m_sortedOutcomes->setSourceModel(m_outcomes);
    m_sortedOutcomes->setSortRole(OutcomeTableModel::SortRole);
    m_sortedOutcomes->setSortCaseSensitivity(Qt::CaseInsensitive);
    m_sortedOutcomes->setSortLocaleAware(true);
}

void OutcomeView::setUpTable()
{
    QTableView* table = m_widgets.table;
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
}

void OutcomeView::offerCopy()
{
    QTableView* table = m_widgets.table;
    m_copyAction = new QAction(tr("&Copy"), table);
    m_copyAction->setShortcut(QKeySequence::Copy);
    m_copyAction->setShortcutContext(Qt::WidgetShortcut);
    connect(m_copyAction, &QAction::triggered, this, &OutcomeView::copySelected);
    table->addAction(m_copyAction);
    offerContextMenu(table, this, [this] { return createMenu(); });
}

void OutcomeView::putSaveButtonInTabBar()
{
    m_saveButton = new QToolButton(m_widgets.tabs);
    m_saveButton->setObjectName("saveOutcomesButton");
    m_saveButton->setDefaultAction(m_widgets.saveAction);
    m_widgets.saveAction->setIconText(m_widgets.saveAction->text()); // a button shows no "..." otherwise
    m_saveButton->setToolButtonStyle(Qt::ToolButtonTextOnly);
    m_saveButton->setFocusPolicy(Qt::StrongFocus);
    m_widgets.tabs->setCornerWidget(m_saveButton, Qt::TopRightCorner);
    m_saveButton->setVisible(m_widgets.tabs->currentWidget() == m_widgets.page);
}

void OutcomeView::followTab(int index)
{
    const bool files = m_widgets.tabs->widget(index) == m_widgets.page;
    // Where the tabs' own switch put it: on the page shown when it was on the page hidden.
    QWidget* focused = QApplication::focusWidget();
    const bool inFiles = focused && (m_widgets.page->isAncestorOf(focused) || focused == m_saveButton);
    m_saveButton->setVisible(files);
    if (files) {
        if (!inFiles)
            m_widgets.table->setFocus(Qt::TabFocusReason);
    } else if (inFiles || !focused || focused->focusPolicy() == Qt::NoFocus) {
        m_focusOutside();
    }
}

void OutcomeView::fitRows()
{
    // Rows a line of text high. The table asks no more height than its header, one row and the scroll bar,
    // so the Files tab asks about what the report does and the window's minimum stays where the report
    // puts it.
    QTableView* table = m_widgets.table;
    const int row = QFontMetrics(m_window->font()).lineSpacing() + kRowPadding;
    table->verticalHeader()->setMinimumSectionSize(row);
    table->verticalHeader()->setDefaultSectionSize(row);
    // At small widths the columns overflow, and the scroll bar below them takes its height from the row.
    const int scrollBar = table->style()->pixelMetric(QStyle::PM_ScrollBarExtent, nullptr, table);
    table->setMinimumHeight(
        table->horizontalHeader()->sizeHint().height() + row + scrollBar + 2 * table->frameWidth());
}

void OutcomeView::fitColumns()
{
    QTableView* table = m_widgets.table;
    table->resizeColumnsToContents();
    const int widest = kColumnMaxChars * table->fontMetrics().averageCharWidth();
    QHeaderView* header = table->horizontalHeader();
    for (int column = 0; column < header->count(); ++column) {
        if (header->sectionSize(column) > widest)
            header->resizeSection(column, widest);
    }
}

void OutcomeView::clear(const QString& root)
{
    m_outcomes->clear(root);
}

void OutcomeView::runStarted()
{
    m_runInProgress = true;
    showSummary();
    m_sinceShown.invalidate(); // the first file done shows at once
}

void OutcomeView::fileDone(const FileOutcome& outcome)
{
    // Rows join the table, and the summary and the tab's title are laid out anew, as often as the log is
    // shown: a row at a time would cost more than a file's turn on a card of thousands.
    m_doneOutcomes.append(outcome);
    if (isDueForShowing(m_sinceShown))
        showOutcomes();
}

void OutcomeView::runFinished()
{
    m_runInProgress = false;
    m_runEnded = true;
    showOutcomes();
    fitColumns();
}

void OutcomeView::showOutcomes()
{
    m_outcomes->add(m_doneOutcomes);
    m_doneOutcomes.clear();
    showSummary();
}

void OutcomeView::showSummary()
{
    const int files = m_outcomes->rowCount();
    QString summary;
    if (m_runInProgress)
        summary = files == 0 ? tr("No file done yet.") : tr("So far %1").arg(m_outcomes->summary());
    else if (m_runEnded)
        summary = m_outcomes->summary();
    else
        summary = tr("No run yet.");
    m_widgets.summary->setText(summary);
    const int tab = m_widgets.tabs->indexOf(m_widgets.page);
    m_widgets.tabs->setTabText(
        tab, m_runEnded || m_runInProgress ? tr("F&iles (%1)").arg(files) : tr("F&iles"));
    m_sinceShown.restart();
}

QMenu* OutcomeView::createMenu()
{
    auto* menu = new QMenu(m_window);
    m_copyAction->setEnabled(m_widgets.table->selectionModel()->hasSelection());
    menu->addAction(m_copyAction);
    menu->addSeparator();
    menu->addAction(m_widgets.saveAction);
    return menu;
}

void OutcomeView::copySelected()
{
    QModelIndexList rows = m_widgets.table->selectionModel()->selectedRows();
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
