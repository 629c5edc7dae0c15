// clipward: the desktop window.

#include "MainWindow.h"

#include <QApplication>

int main(int argc, char* argv[])
{
    QApplication app(argc, argv);
    QApplication::setApplicationName("Clipward");
    QApplication::setApplicationVersion(CLIPWARD_VERSION);
    QApplication::setOrganizationName("Clipward");

    MainWindow window;
    window.show();
    return app.exec();
}
