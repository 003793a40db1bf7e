#pragma once

#include <QtGlobal>

#include <optional>

// What a running child process is doing at this instant, as the system reports it.
class ProcessActivity {
public:
    // Whether the process waits in a read of its standard input; nothing when the system does not say.
    static std::optional<bool> waitsOnStandardInput(qint64 pid);
};
