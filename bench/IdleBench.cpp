// An idle Voxaria must cost nothing: no timer or polling wakes it, and it stays small.
// Starts the real app (under the harness or a desktop), lets it settle, then counts every context
// switch of every thread over ten seconds and reads its resident memory.
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <cstdio>

namespace {

qint64 statusField(const QString& statusPath, const QByteArray& field)
{
    QFile status(statusPath);
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(field + ':'))
            return line.mid(field.size() + 1).trimmed().split(' ').first().toLongLong();
    }
    return 0;
}

// Wake-ups of the whole process: the context switches of all its threads.
qint64 contextSwitches(qint64 pid)
{
    qint64 total = 0;
    const QString tasks = QStringLiteral("/proc/%1/task").arg(pid);
    for (const QString& task : QDir(tasks).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QString status = tasks + QLatin1Char('/') + task + QStringLiteral("/status");
        total += statusField(status, "voluntary_ctxt_switches") + statusField(status, "nonvoluntary_ctxt_switches");
    }
    return total;
}

}

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
    const qint64 pid = voxaria.processId();
    QThread::sleep(3);
    const QString status = QStringLiteral("/proc/%1/status").arg(pid);
    const qint64 before = contextSwitches(pid);
    QThread::sleep(10);
    const qint64 wakeups = contextSwitches(pid) - before;
    const qint64 rssKb = statusField(status, "VmRSS");
    voxaria.terminate();
    voxaria.waitForFinished();
    std::printf("idle voxaria: %lld wake-ups (context switches, all threads) in 10 s (target 0)\n", wakeups);
    std::printf("idle voxaria: resident memory %.1f MB (target <= 60 MB)\n", rssKb / 1024.0);
    return 0;
}
