#include "AppDelegate.h"

#include <QApplication>

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Voxaria"));
    QApplication::setDesktopFileName(Settings::applicationId());
    // A tray utility: closing a window never ends it; only "Sair do Voxaria" does.
    QApplication::setQuitOnLastWindowClosed(false);

    AppDelegate delegate;
    if (!delegate.applicationDidFinishLaunching())
        return 0;
    return app.exec();
}
