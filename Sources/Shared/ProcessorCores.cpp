#include "ProcessorCores.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSet>
#include <QThread>

#include <algorithm>

namespace {

// The hardware threads sharing one CPU's core, as the kernel lists them ("0,4" or "0-1"): the same
// text for every sibling, so each core is counted once.
QByteArray coreSiblings(const QDir& cpu)
{
    for (const char* name : {"topology/core_cpus_list", "topology/thread_siblings_list"}) {
        QFile list(cpu.filePath(QLatin1String(name)));
        if (list.open(QIODevice::ReadOnly))
            return list.readAll().trimmed();
    }
    return {};
}

}

int ProcessorCores::physical(const QString& cpuFolder)
{
    // Qt counts the threads of this process's CPU affinity, so a container or taskset limit holds.
    const int threads = std::max(1, QThread::idealThreadCount());
    static const QRegularExpression cpuName(QStringLiteral("^cpu[0-9]+$"));
    const QDir folder(cpuFolder);
    QSet<QByteArray> cores;
    for (const QString& cpu : folder.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        if (!cpuName.match(cpu).hasMatch())
            continue;
        const QByteArray siblings = coreSiblings(QDir(folder.filePath(cpu)));
        if (siblings.isEmpty())
            continue;
        cores.insert(siblings);
    }
    if (cores.isEmpty())
        return threads;
    return std::clamp(int(cores.size()), 1, threads);
}
