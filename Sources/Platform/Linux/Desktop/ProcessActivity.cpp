#include "ProcessActivity.h"

#include <QFile>

#include <sys/syscall.h>

// /proc/<pid>/syscall holds the system call a blocked process waits in and its arguments
// ("0 0x0 …": read, file descriptor 0), or "running". The kernel lets a parent read its children's.
std::optional<bool> ProcessActivity::waitsOnStandardInput(qint64 pid)
{
    QFile file(QStringLiteral("/proc/%1/syscall").arg(pid));
    if (pid <= 0 || !file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QList<QByteArray> fields = file.readAll().simplified().split(' ');
    if (fields.value(0).isEmpty())
        return std::nullopt;
    bool isNumber = false, isDescriptor = false;
    const long call = fields[0].toLong(&isNumber);
    const qlonglong descriptor = fields.value(1).toLongLong(&isDescriptor, 0);
    return isNumber && isDescriptor && call == SYS_read && descriptor == 0;
}
