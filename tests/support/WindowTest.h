#pragma once

// Setting up the window's tests: the application as the programs name it, its remembered choices in a
// folder of the test's own, and a window shown as a user meets it. For tests linking clipward_window.

#include "MainWindow.h"

#include <QApplication>
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

} // namespace TestSupport
