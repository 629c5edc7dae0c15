#pragma once

#include "OutcomeTableModel.h"

#include <QElapsedTimer>
#include <QObject>
#include <QVector>

#include <functional>

class QAction;
class QLabel;
class QMenu;
class QSortFilterProxyModel;
class QTabWidget;
class QTableView;
class QToolButton;
class QWidget;

// The window's Files tab: the outcome of each in-progress file of the last run in a table sorted by any
// column, the summary line above it and the tab's title, which say how far the table goes, the table's
// menu (Copy, Save Outcomes...), Save Outcomes... as a button in the tab bar while the tab shows, and the
// keyboard's way in and out of the tab.
class OutcomeView : public QObject
{
    Q_OBJECT

public:
    // The form's widgets the tab is made of, and Save Outcomes..., which the window's menus share.
    struct Widgets {
        QTabWidget* tabs;
        QWidget* page; // the Files tab's page among `tabs`
        QLabel* summary;
        QTableView* table;
        QAction* saveAction;
    };

    // `window` holds the tab: its font sizes the rows, and it parents the menus. `focusOutside` puts the
    // focus where a keyboard user goes on when the tab is left while the focus is in it.
    OutcomeView(QWidget* window, const Widgets& widgets, std::function<void()> focusOutside);

    const OutcomeTableModel* model() const { return m_outcomes; }
    // Save Outcomes... in the tab bar.
    QToolButton* saveButton() const { return m_saveButton; }
    // Some run has ended: the table holds its outcomes.
    bool runEnded() const { return m_runEnded; }

    // Empties the table for a run started on `root`.
    void clear(const QString& root);
    // A run has begun: the summary says so, and the first file done shows at once.
    void runStarted();
    // A file's turn is over: its row joins the table with the next showing.
    void fileDone(const FileOutcome& outcome);
    // The run is over: the rest of its rows join the table, and the columns fit them.
    void runFinished();

    // Rows and the table's minimum height follow the window's font.
    void fitRows();

private:
    // The table shows the outcomes through a model that sorts them.
    void sortOutcomes();
    // Rows selected whole, read and never edited, in the run's order until a header is clicked.
    void setUpTable();
    // Copy (Ctrl+C) in the table and its menu.
    void offerCopy();
    // Save Outcomes... in the tab bar's free end, shown with the Files tab: no height is taken from the log.
    void putSaveButtonInTabBar();
    // Chosen by the keyboard or a click, the Files tab takes the focus into its table; leaving it gives the
    // focus back to where a keyboard user goes on, never into the report.
    void followTab(int index);
    // Each column as wide as its texts need, up to a limit that keeps the columns behind it in reach.
    void fitColumns();
    // The files done since the table was last shown join it.
    void showOutcomes();
    // The summary line and the tab's title say how far the table goes.
    void showSummary();
    // The table's menu: Copy, Save Outcomes...
    QMenu* createMenu();
    // The selected rows as the table shows them, a line each with the cells apart by tabs.
    void copySelected();

    QWidget* const m_window;
    const Widgets m_widgets;
    const std::function<void()> m_focusOutside;
    OutcomeTableModel* m_outcomes = nullptr;
    QSortFilterProxyModel* m_sortedOutcomes = nullptr; // what the table shows
    QAction* m_copyAction = nullptr;
    QToolButton* m_saveButton = nullptr;
    bool m_runInProgress = false;
    bool m_runEnded = false;
    QVector<FileOutcome> m_doneOutcomes; // done since the table was last shown
    QElapsedTimer m_sinceShown;
};
