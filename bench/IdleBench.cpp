// An idle Voxaria must cost nothing: no timer or polling wakes it, and it stays small.
// Starts the real app (under the harness or a desktop), lets it settle, then counts every context
// switch of every thread over ten seconds and reads its resident memory.
#include "ProcessStats.h"

#include <QCoreApplication>
#include <QProcess>
#include <QTemporaryDir>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (qEnvironmentVariableIsEmpty("DISPLAY")) {
        std::fprintf(stderr, "IdleBench needs an X display: run it through scripts/with-harness.sh\n");
        return 1;
    }
    QTemporaryDir home;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.path());
    env.insert(QStringLiteral("XDG_DATA_HOME"), home.path());
    QProcess voxaria;
    voxaria.setProcessEnvironment(env);
    voxaria.setProcessChannelMode(QProcess::ForwardedChannels);
    voxaria.start(QStringLiteral(VOXARIA_APP_BINARY));
    if (!voxaria.waitForStarted()) {
        std::fprintf(stderr, "cannot start %s\n", VOXARIA_APP_BINARY);
        return 1;
    }
    const ProcessStats::IdleCost idle = ProcessStats::idleCost(voxaria.processId());
    voxaria.terminate();
    voxaria.waitForFinished();
    std::printf("idle voxaria: %lld wake-ups (context switches, all threads) in 10 s (target 0)\n", idle.wakeups);
    std::printf("idle voxaria: resident memory %.1f MB (target <= 60 MB)\n", idle.residentKb / 1024.0);
    return 0;
}
