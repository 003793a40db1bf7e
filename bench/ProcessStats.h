#pragma once

// What /proc tells about another process: how often its threads woke up, how much memory it holds.

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QHash>
#include <QString>
#include <QThread>

namespace ProcessStats {

// A numeric field ("VmRSS", "voluntary_ctxt_switches"...) of a /proc status file, 0 when absent.
inline qint64 statusField(const QString& statusPath, const QByteArray& field)
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

// Wake-ups so far of each thread of a process (its context switches), by thread id.
inline QHash<QString, qint64> contextSwitches(qint64 pid)
{
    QHash<QString, qint64> switches;
    const QString tasks = QStringLiteral("/proc/%1/task").arg(pid);
    for (const QString& task : QDir(tasks).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QString status = tasks + QLatin1Char('/') + task + QStringLiteral("/status");
        switches.insert(task, statusField(status, "voluntary_ctxt_switches") + statusField(status, "nonvoluntary_ctxt_switches"));
    }
    return switches;
}

inline qint64 residentKb(qint64 pid)
{
    return statusField(QStringLiteral("/proc/%1/status").arg(pid), "VmRSS");
}

// Pages only this process wrote to (its heap, stacks and data), the part of the resident memory
// that shared libraries and files mapped read-only do not make up.
inline qint64 privateDirtyKb(qint64 pid)
{
    return statusField(QStringLiteral("/proc/%1/smaps_rollup").arg(pid), "Private_Dirty");
}

// What a process costs while nobody uses it: measured after it settled for 3 s, over 10 s.
struct IdleCost {
    qint64 wakeups;
    qint64 residentKb;
};

inline IdleCost idleCost(qint64 pid)
{
    QThread::sleep(3);
    const QHash<QString, qint64> before = contextSwitches(pid);
    QThread::sleep(10);
    // Counted per thread: a thread that ended meanwhile must not take its earlier wake-ups along.
    qint64 wakeups = 0;
    const QHash<QString, qint64> after = contextSwitches(pid);
    for (auto thread = after.cbegin(); thread != after.cend(); ++thread)
        wakeups += thread.value() - before.value(thread.key(), 0);
    return {wakeups, residentKb(pid)};
}

}
