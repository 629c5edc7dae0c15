#pragma once

// The window's Files tab, one class over two files: tst_outcome_table.cpp fills, shows, sorts and clears
// the table; tst_outcome_table_saving.cpp saves it as CSV or JSON Lines.

#include "MainWindow.h"
#include "support/WidgetLookup.h"
#include "support/WindowTest.h"

#include <QObject>
#include <QTableView>
#include <QTemporaryDir>

#include <memory>

// The Files tab's table.
inline QTableView* table(MainWindow& window)
{
    return child<QTableView>(&window, "outcomeTable");
}

class TestOutcomeTable : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void beforeAnyRun();
    void everyOutcomeInWords();
    void finishedCardAgreesWithTheCommandLine();
    void scanOnlyAgreesWithTheCommandLine();
    void rowsComeAsTheFilesAreDone();
    void nextStartClearsTheTable();
    void sortsByAnyColumn();
    void savesCsvAndJsonLines();
    void saveThroughTheDialog();
    void failedSaveSaysWhyAndLeavesNothing();
    void writerReportsAFailingDevice();
    void keyboardReachesTheFiles();
    void filesTabFitsSmallWindows_data();
    void filesTabFitsSmallWindows();

private:
    QTemporaryDir m_settingsDir;

    std::unique_ptr<MainWindow> makeWindow() { return TestSupport::shownActiveWindow(); }
};
