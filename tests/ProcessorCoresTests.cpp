#include "Shared/ProcessorCores.h"

#include "TestSupport.h"

#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <algorithm>

TEST(ProcessorCores, EachCoreCountsOnceHoweverManyThreadsItRunsAndNeverMoreThanThisProcessMayUse)
{
    const int threads = std::max(1, QThread::idealThreadCount());
    // A /sys/devices/system/cpu whose CPUs each have this topology file ("": none), beside folders that are no CPU.
    const struct {
        const char* name;
        const char* file;
        QStringList lists;
        int cores;
    } machines[] = {
        {"two threads per core, siblings apart", "core_cpus_list", {"0,2", "1,3", "0,2", "1,3"}, 2},
        {"two threads per core, siblings together", "core_cpus_list", {"0-1", "0-1", "2-3", "2-3", "4-5", "4-5"}, 3},
        {"one thread per core", "core_cpus_list", {"0", "1", "2", "3", "4", "5", "6", "7"}, 8},
        {"a kernel older than core_cpus_list", "thread_siblings_list", {"0-1", "0-1"}, 1},
        {"no topology", "core_cpus_list", {"", "", ""}, threads},
    };
    for (const auto& machine : machines) {
        SCOPED_TRACE(machine.name);
        QTemporaryDir root;
        for (int cpu = 0; cpu < machine.lists.size(); ++cpu)
            if (!machine.lists[cpu].isEmpty())
                TestSupport::writeFile(
                    root.filePath(QString("cpu%1/topology/%2").arg(cpu).arg(machine.file)), machine.lists[cpu].toUtf8() + '\n');
        TestSupport::writeFile(root.filePath("cpufreq/policy0/related_cpus"), "0 1\n");
        TestSupport::writeFile(root.filePath("cpuidle/current_driver"), "none\n");
        EXPECT_EQ(ProcessorCores::physical(root.path()), std::min(machine.cores, threads));
    }
    EXPECT_EQ(ProcessorCores::physical("/nonexistent"), threads);
    // This machine's own answer lies between one core and its hardware threads.
    EXPECT_GE(ProcessorCores::physical(), 1);
    EXPECT_LE(ProcessorCores::physical(), threads);
}
