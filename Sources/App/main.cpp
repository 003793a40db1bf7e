#include "AppDelegate.h"
#include "History/HistoryStore.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/LinuxServices.h"
#include "Platform/SessionInfo.h"
#include "Shared/AppPaths.h"
#include "Shared/Logging.h"
#include "Shared/Preferences/Settings.h"
#include "Shared/QtTranslations.h"

#include <QApplication>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
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
    struct sigaction action { };
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : {SIGTERM, SIGINT, SIGHUP})
        sigaction(signal, &action, nullptr);
}

void printLine(const QString& line)
{
    std::fprintf(stderr, "%s\n", line.toUtf8().constData());
}

// `voxaria --press` / `voxaria --release`, run by a compositor key binding: the command goes to the
// running program, and this process ends. It never dictates, nor takes the single-instance lock.
int sendKeyCommand(int argc, char** argv, bool pressed)
{
    QCoreApplication app(argc, argv);
    QString error;
    if (LinuxPlatform::sendToRunningProgram(pressed ? CommandSocket::Command::press : CommandSocket::Command::release, &error))
        return 0;
    printLine(QStringLiteral("O Voxaria não está em execução (ou não recebe atalhos do compositor): ") + error);
    return 1;
}

// Started while Voxaria runs: the running copy shows its window or its menu, so a program whose
// tray icon cannot be seen stays within reach; this copy ends either way.
void bringRunningCopyForward()
{
    QString error;
    if (LinuxPlatform::sendToRunningProgram(CommandSocket::Command::show, &error))
        qCInfo(lcApp) << "the running Voxaria came forward";
    else
        qCWarning(lcApp).noquote() << "the running Voxaria did not answer:" << error;
}

}

int main(int argc, char** argv)
{
    if (argc > 1) {
        const bool press = argc == 2 && std::strcmp(argv[1], "--press") == 0;
        const bool release = argc == 2 && std::strcmp(argv[1], "--release") == 0;
        if (!press && !release) {
            printLine(QStringLiteral("uso: voxaria [--press | --release]"));
            return 2;
        }
        return sendKeyCommand(argc, argv, press);
    }
    // Checked before Qt, which would end the process with a message of its own.
    const SessionInfo session = SessionInfo::current();
    if (!session.hasDisplay()) {
        printLine(QStringLiteral("O Voxaria precisa de uma sessão gráfica (X11 ou Wayland)."));
        return 1;
    }
    LinuxPlatform::preferXWaylandForWindows(session);

    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Voxaria"));
    QApplication::setDesktopFileName(AppPaths::applicationId());
    installQtTranslations();
    // A tray utility: closing a window never ends it; only "Sair do Voxaria" does.
    QApplication::setQuitOnLastWindowClosed(false);
    qCInfo(lcApp).noquote() << "windows through" << QGuiApplication::platformName();

    Settings settings(AppPaths::settingsFile());
    LinuxPlatform platform(session, [&settings] { return settings.hotKey(); });
    const PlatformServices services = LinuxServices::make();
    HistoryStore history(HistoryStore::defaultFileLocation());
    ModelDownloader downloader(services.alerts);
    std::optional<AppDelegate> delegate;
    // The program starts on the event loop once the session's key source is chosen.
    platform.whenReady([&] {
        if (!delegate.emplace(platform, services, settings, history, downloader).applicationDidFinishLaunching()) {
            bringRunningCopyForward();
            QCoreApplication::exit(0);
            return;
        }
        quitOnTerminationSignals(app);
    });
    return app.exec();
}
