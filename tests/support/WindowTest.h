#pragma once

// Setting up the window's tests: the application as the programs name it, its remembered choices in a
// folder of the test's own, and a window shown as a user meets it; a run started as a user starts it and
// its report as the log box shows it. For tests linking clipward_window.

#include "MainWindow.h"
#include "support/WidgetLookup.h"

#include <QApplication>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

namespace TestSupport {

// The names the programs set, and every QSettings in the process kept in `settings`, empty, never in the
// user's own settings. False when the folder could not be made.
inline bool useTestSettings(const QTemporaryDir& settings)
{
    QApplication::setApplicationName("Clipward");
    QApplication::setApplicationVersion(CLIPWARD_VERSION);
    QApplication::setOrganizationName("Clipward");
    if (!settings.isValid())
        return false;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, settings.path());
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, settings.path());
    QSettings().clear();
    return true;
}

// A new window, shown and made the active one.
inline std::unique_ptr<MainWindow> shownActiveWindow()
{
    std::unique_ptr<MainWindow> window(new MainWindow);
    window->show();
    QApplication::setActiveWindow(window.get());
    if (!QTest::qWaitForWindowActive(window.get()))
        qWarning("window not active");
    return window;
}

// The window's log box, and its text in lines.
inline QPlainTextEdit* logBox(MainWindow& window)
{
    return child<QPlainTextEdit>(&window, "outputWindow");
}

inline QStringList logLines(MainWindow& window)
{
    return logBox(window)->toPlainText().split('\n');
}

// Types the path into the field, chooses the scan mode and presses Start, as a user would.
inline void runOn(MainWindow& window, const QString& path, bool scanOnly)
{
    QLineEdit* edit = child<QLineEdit>(&window, "drivePathEdit");
    edit->clear();
    QTest::keyClicks(edit, path);
    QTest::mouseClick(
        child<QRadioButton>(&window, scanOnly ? "scanOnly" : "scanAndFinalize"), Qt::LeftButton);
    QTest::mouseClick(child<QPushButton>(&window, "startButton"), Qt::LeftButton);
}

} // namespace TestSupport
