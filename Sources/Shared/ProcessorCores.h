#pragma once

#include <QString>

// How many cores this process may compute on, each counted once however many hardware threads
// (SMT siblings) it runs: two threads of one core share its arithmetic units, so a computation as
// dense as Whisper's gains nothing from the second and loses to the contention.
namespace ProcessorCores {

// The cores of the CPUs Linux describes under `cpuFolder` (its topology's core_cpus_list, or
// thread_siblings_list on older kernels), never more than the hardware threads this process may
// run on; those threads when the topology cannot be read. At least 1.
int physical(const QString& cpuFolder = QStringLiteral("/sys/devices/system/cpu"));

}
