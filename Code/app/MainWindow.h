#pragma once

#include <QElapsedTimer>
#include <QMainWindow>
#include <QString>

namespace Ui {
class MainWindow;
}

// The one window: path, scan mode, finish style, Start and the log box that shows one run of FinalizeRun,
// together with every message logged through the framework while the window exists.
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

protected:
    // While a run is going the window stays: closing it would hide a run that goes on changing the card.
    void closeEvent(QCloseEvent* event) override;

public slots:
    void output(const QString& text);
    void drivePathTextChanged(const QString& text);
    void scanModeChanged();
    // Remembers the finish style for the next session.
    void finishStyleChanged(bool interchange);
    void on_exitButton_clicked();
    void on_startButton_clicked();
    void on_browseButton_clicked();

private:
    // A line logged during a run: into the box's document at once, shown at most every kRunLogInterval.
    void appendDuringRun(const QString& line);
    // Repaints the box with everything appended so far, following the end unless the user scrolled away.
    void showLog();

    Ui::MainWindow* ui;
    const QString m_startFolder; // the current folder when the program started
    bool m_runInProgress = false;
    QElapsedTimer m_sinceLogShown;
    int m_shownBottom = 0; // the scroll bar's end when the box was last shown
};

// The window that debugHandler writes to; null while no window exists.
extern MainWindow* mainWindowInstance;

// Application message handler: every message, whatever its type, goes to the window's log box.
void debugHandler(QtMsgType type, const QMessageLogContext& context, const QString& message);
