#pragma once

// The main window's tests, one class over two files: tst_mainwindow.cpp drives the form, the path/mode
// rules, the log box and the message handler; tst_mainwindow_runs.cpp makes whole runs, compared line by
// line with what clipward-cli prints for the same folder, and watches the controls during a run.

#include "MainWindow.h"

#include <QObject>
#include <QTemporaryDir>

#include <memory>

// A start path that cannot exist; its folder gives the drive "/n".
const char* const kMissingPath = "/nonexistent-clipward-test/CARD";

class TestMainWindow : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void formTree();
    void formTextsAndGeometry();
    void formFileValuesReplacedAtRunTime();
    void stateAfterConstruction();
    void iconFileLayout();
    void emptyPathDisablesStart();
    void changingScanModeClearsOutput();
    void browsePutsPickedFolderIntoPath();
    void missingPathRun_data();
    void missingPathRun();
    void scanOnlyRunOverTree();
    void runMatchesCli_data();
    void runMatchesCli();
    void longRunKeepsItsLatest4000Lines();
    void finalizeRunMatchesCli();
    void controlsDisabledDuringRun();
    void interchangeChoiceIsRemembered();
    void interchangeFinishDeclaresSowt();
    void interchangeChoiceLeavesScanOnlyAlone();
    void logKeepsLatest4000Lines();
    void oneTrailingNewlineDropped();
    void outputProcessesPendingEvents();
    void debugHandlerRoutesEveryMessageType();
    void exitButtonEndsTheProgramWithStatusZero();
    void handlerGoneWithWindow();
    void getDriveAndCheckDrive();
    void setRunningTogglesControls();
    void closeRequestDuringARunIsRefused();
    void relativePathIsTakenFromTheStartFolder();
    void runGivesTheCurrentFolderBack();
    void browseOpensAtTheTypedFolder();

private:
    QTemporaryDir m_settingsDir;
    std::unique_ptr<MainWindow> makeWindow();
};
