#include "AppDelegate.h"
#include "Shared/Logging.h"

#include <QApplication>
#include <QSocketNotifier>

#include <csignal>
#include <unistd.h>

namespace {

int terminationPipe[2] = {-1, -1};

void onTerminationSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(terminationPipe[1], &byte, 1);
}

// Being ended from outside (logout, kill) goes through the normal quit, so a dictation under way
// is cancelled and its recording removed. The handler only writes to a pipe; the quit itself runs
// on the main thread.
void quitOnTerminationSignals(QApplication& app)
{
    if (::pipe(terminationPipe) != 0) {
        qCWarning(lcApp) << "cannot watch for termination signals; a dictation cut short may leave its recording";
        return;
    }
    auto* notifier = new QSocketNotifier(terminationPipe[0], QSocketNotifier::Read, &app);
    QObject::connect(notifier, &QSocketNotifier::activated, &app, [] {
        qCInfo(lcApp) << "asked to end";
        QApplication::quit();
    });
    struct sigaction action {};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : {SIGTERM, SIGINT, SIGHUP})
        sigaction(signal, &action, nullptr);
}

}

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
    quitOnTerminationSignals(app);
    return app.exec();
}
