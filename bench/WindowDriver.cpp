// clipward-bench-window: the window's run measured as a user gets it. Builds the main window, types the
// path, picks the scan mode, presses Start and waits for the summary, then prints the log's last lines.
// Run it with QT_QPA_PLATFORM=offscreen on a machine without a display.
//
//     clipward-bench-window [--scan-only] PATH

#include "MainWindow.h"

#include <QApplication>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QTimer>

#include <cstdio>

namespace {

template <typename T> T* child(QWidget* window, const char* name)
{
    T* found = window->findChild<T*>(name);
    if (!found)
        std::fprintf(stderr, "clipward-bench-window: the window has no %s\n", name);
    return found;
}

} // namespace

int main(int argc, char* argv[])
{
    QApplication app(argc, argv);
    QApplication::setApplicationName("Clipward");
    QApplication::setApplicationVersion(CLIPWARD_VERSION);
    QApplication::setOrganizationName("Clipward");

    QStringList args = QApplication::arguments().mid(1);
    const bool scanOnly = args.removeAll("--scan-only") > 0;
    if (args.size() != 1) {
        std::fprintf(stderr, "usage: clipward-bench-window [--scan-only] PATH\n");
        return 2;
    }

    MainWindow window;
    window.show();
    auto* path = child<QLineEdit>(&window, "drivePathEdit");
    auto* mode = child<QRadioButton>(&window, scanOnly ? "scanOnly" : "scanAndFinalize");
    auto* start = child<QPushButton>(&window, "startButton");
    auto* log = child<QPlainTextEdit>(&window, "outputWindow");
    if (!path || !mode || !start || !log)
        return 2;
    path->setText(args.first());
    mode->click();

    // Start is pressed from the event loop once the window is up, as a user would; the run is
    // synchronous inside the click, so the summary is in the log when click() returns.
    int exitCode = 1;
    QTimer::singleShot(0, [&] {
        start->click();
        const QStringList lines = log->toPlainText().split('\n');
        const QString tail = lines.mid(qMax(0, lines.size() - 3)).join('\n');
        std::printf("%d lines kept in the log\n%s\n", log->blockCount(), tail.toUtf8().constData());
        // The mode's closing line.
        const QString& last = lines.last();
        const bool finalizeSummary = last.endsWith(" file(s) have been successfully finalized.")
            || last == "No unfinalized files found.";
        const bool summarised
            = scanOnly ? last == "Run again with Scan Mode set to 'Scan and Finalize'" : finalizeSummary;
        exitCode = summarised && start->isEnabled() ? 0 : 1;
        app.quit();
    });
    app.exec();
    return exitCode;
}
