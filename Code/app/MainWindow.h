#pragma once

#include "OutcomeTableModel.h"
#include "finalize/CopyProgress.h"

#include <QElapsedTimer>
#include <QMainWindow>
#include <QString>

#include <functional>
#include <memory>

class OutcomeView;
class QAction;
class QIODevice;
class QKeySequence;
class QLineEdit;
class QMenu;
class QTemporaryFile;

namespace Ui {
class MainWindow;
}

// The one window: path, scan mode, finish style, copies, Start and the log box that shows one run of
// FinalizeRun, together with every message logged through the framework while the window exists.
//
// Its member definitions are kept by concern: MainWindow.cpp sets the window up and runs; MainWindowLog.cpp
// is the log box; MainWindowSaving.cpp is Save Log... and Save Outcomes...; MainWindowKeyboard.cpp is the
// keyboard's way around; MainWindowCopies.cpp is finishing copies into a folder. The Files tab is an
// OutcomeView of its own.
class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

    void setRunning(bool running);
    QString getDrive(const QString& path);
    int checkDrive(const QString& path, bool);

    // The typed path as the run and Browse take it: a relative path is taken from the folder the program
    // started in, whatever folder is current.
    QString typedPath() const;
    // Where Browse opens: the typed folder when there is one, else the picker's own default.
    QString browseStartFolder() const;

    // The whole report of the last run, every line in order (also those that fell out of the box); before
    // any run, what the box shows. False with the system's words in `error` when the file cannot be written.
    bool saveLogTo(const QString& path, QString* error = nullptr);
    // The log box's menu: Copy, Select All, Save Log..., Save Outcomes...
    QMenu* createLogMenu();
    // For the window tests, which trigger the action as the menus and the shortcut do.
    QAction* saveLogAction() const { return m_saveLogAction; }
    // The Files tab's rows of the last run, in `format`: written to a file beside `path` and renamed over it
    // when whole, so a failed save leaves no file and an earlier one as it was. False with the system's
    // words in `error` when it cannot be written.
    bool saveOutcomesTo(const QString& path, OutcomeTableModel::Format format, QString* error = nullptr);
    // The same in the form the name asks for (OutcomeTableModel::formatFor).
    bool saveOutcomesTo(const QString& path, QString* error = nullptr);
    // Save Outcomes... (the menus, the Files tab's button and Ctrl+Shift+S); off until a run has ended.
    // For the window tests, like the two accessors below: the window itself uses its members.
    QAction* saveOutcomesAction() const { return m_saveOutcomesAction; }
    // The outcome of each in-progress file of the last run, in the order the run met them.
    const OutcomeTableModel* outcomeTable() const;
    // Shrinks the window into `available` (a screen's free area) where it is larger, down to the minimum
    // its layouts need at the current font, and moves it inside; done at the first showing.
    void fitIntoScreenArea(const QRect& available);
    // Whether the box keeps the last line in view: true until the user scrolls away from the end. For the
    // window tests.
    bool followsLog() const { return m_followLog; }

protected:
    // While a run is going the window stays: closing it would hide a run that goes on changing the card.
    void closeEvent(QCloseEvent* event) override;
    // The first showing fits the window into the screen's available area.
    void showEvent(QShowEvent* event) override;
    // A new font or style lays the scan modes out anew.
    void changeEvent(QEvent* event) override;
    // Alt with a letter that is no mnemonic would type the letter into a text field: it is eaten.
    bool eventFilter(QObject* watched, QEvent* event) override;

public slots:
    void output(const QString& text);
    void drivePathTextChanged(const QString& text);
    void scanModeChanged();
    // Remembers the finish style for the next session.
    void finishStyleChanged(bool interchange);
    void on_exitButton_clicked();
    void on_startButton_clicked();
    void on_browseButton_clicked();
    // Asks where, then saves the last run's report there (Save Log... and Ctrl+S).
    void saveLog();
    // Asks where and in which form (CSV or JSON Lines), then saves the last run's outcomes there.
    void saveOutcomes();

private:
    // The constructor's steps, in order.
    // Before any run: the first scan mode chosen, Start off until there is a path, the busy bar hidden.
    void setUpStartState();
    // The log box: read, selected and copied, never edited; its menu; following the end.
    void setUpLogBox();
    // Save Log... (Ctrl+S) and Save Outcomes... (Ctrl+Shift+S), the window's own.
    void createSaveActions();
    // The status strip shows only while there is a message.
    void setUpStatusStrip();
    // The scan-mode group lays its choices out by their size, so larger fonts never cut them off.
    void layOutScanModes();
    // The title and the description name the program and its version.
    void showProgramName();
    // The path and the choices, the finish style as the last session left it.
    void connectPathAndChoices();
    // The Files tab: the outcome of each file of the last run.
    void setUpFilesTab();
    // Finish copies: the check box and the folder, as the last session left them.
    void setUpCopyChoice();
    // The keyboard: mnemonics, the tab order, Enter to start, the path field focused.
    void setUpKeyboard();
    // Every message logged from now on goes to the log box.
    void routeMessagesToLog();

    // The scan modes: at least as tall as the form has them, and as their choices need.
    void keepScanModesWhole();
    // The description: wide enough that its wrapped lines are no taller than the scan modes.
    void keepDescriptionWhole();
    // Whether the busy bar and the controls show a run.
    void showRunning(bool running);

    // Start is on when there is a path, and a folder when copies are chosen.
    void updateStartButton();

    // Finishing copies (MainWindowCopies.cpp).
    // The folder field and its Browse are on while copies are chosen and no run is going.
    void showCopyChoice(bool running);
    // The folder the run finishes copies in, taken from the program's start folder like the path; empty
    // when the card's files are finished in place.
    QString copiesFolder() const;
    // True, with the reason in the status bar, when copies are chosen but no folder is given, or the folder
    // lies inside `path`, where the run would meet the copies: the run does not start.
    bool refuseCopiesFolder(const QString& path);
    void browseForCopiesFolder();
    // Asks for a folder with a picker titled `title`, opening at the folder typed in `field` when there is
    // one, and puts the choice into `field`.
    void askForFolder(QLineEdit* field, const QString& title);
    // A typed path as the run and the pickers take it: relative to the folder the program started in.
    QString fromStartFolder(const QString& text) const;
    // The bar shows the share of the run's bytes copied, and which copy of how many is under way.
    void showCopyProgress(const CopyProgress& progress);

    // The log box (MainWindowLog.cpp).
    // Like a terminal: the box follows the end until the user scrolls away from it, and again once back.
    void followLogEnd();
    // A run's report begins: an empty box that follows the end, and a file that keeps every line.
    void startRunReport();
    // The run is over: the box shows every line, and the file holds them.
    void endRunReport();
    // A line logged during a run: into the box's document at once, shown at most every interval.
    void appendDuringRun(const QString& line);
    // Repaints the box with everything appended so far, following the end unless the user scrolled away.
    void showLog();
    // Shows the lines held back for the next showing, if any, now.
    void showHeldLines();
    // Keeps a copy of a run's line outside the box, which holds only the last 4000.
    void recordLine(const QString& line);
    // The whole report of the last run, or before any run what the box shows, into `out`.
    bool writeLog(QIODevice& out, QString* error);

    // Saving (MainWindowSaving.cpp).
    // An action on the window that `shortcut` triggers from anywhere in it, calling `triggered`.
    QAction* addWindowAction(
        const QString& text, const QKeySequence& shortcut, void (MainWindow::*triggered)());
    // Saves what `write` writes to `path`, whole or not at all; false with the reason in `error`.
    static bool saveWhole(
        const QString& path, const std::function<bool(QIODevice&)>& write, QString* error = nullptr);
    // Runs `save` for `path` and says in the status bar how it went: `savedMessage` with the path for a
    // while, or `failedMessage` with the path and the reason until the next message.
    void saveWithStatusMessage(const QString& path, const std::function<bool(QString*)>& save,
                               const QString& savedMessage, const QString& failedMessage);

    // The keyboard (MainWindowKeyboard.cpp).
    // Alt and the underlined letter, on the texts that have one.
    void markMnemonics();
    // Tab goes through the controls in the order they are read.
    void chainTabOrder();
    // Starts a run as Start does, when Start is enabled.
    void startIfEnabled();
    // Start when it can start a run, else the path field: where a keyboard user goes on.
    void focusStartOrPath();

    Ui::MainWindow* ui;
    const QString m_startFolder; // the current folder when the program started
    bool m_runInProgress = false;
    QElapsedTimer m_sinceLogShown;
    bool m_followLog = true;
    bool m_fittedToScreen = false;
    std::unique_ptr<QTemporaryFile> m_runRecord; // the last run's report, a line at a time
    QAction* m_saveLogAction = nullptr;
    QAction* m_saveOutcomesAction = nullptr;
    OutcomeView* m_outcomeView = nullptr; // the Files tab
};

// The window that debugHandler writes to; null while no window exists.
extern MainWindow* mainWindowInstance;

// Application message handler: every message, whatever its type, goes to the window's log box.
void debugHandler(QtMsgType type, const QMessageLogContext& context, const QString& message);
