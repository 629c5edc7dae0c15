#pragma once

#include <QElapsedTimer>
#include <QMainWindow>
#include <QString>
#include <QStringList>

namespace Ui {
class MainWindow;
}

// The one window: path, scan mode, Start and the log box that shows one run of FinalizeRun,
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

public slots:
    void output(const QString& text);
    void drivePathTextChanged(const QString& text);
    void scanModeChanged();
    void on_exitButton_clicked();
    void on_startButton_clicked();
    void on_browseButton_clicked();

private:
    // Puts the lines a run has logged since the box last showed them into the box, in one append.
    void showPendingLog();

    Ui::MainWindow* ui;
    bool m_runInProgress = false;
    QStringList m_pendingLog;
    QElapsedTimer m_sinceLogShown;
};

// The window that debugHandler writes to; null while no window exists.
extern MainWindow* mainWindowInstance;

// Application message handler: every message, whatever its type, goes to the window's log box.
void debugHandler(QtMsgType type, const QMessageLogContext& context, const QString& message);
