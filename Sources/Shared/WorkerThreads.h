#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

// Short-lived threads that belong to an object, one job each. Finished ones are joined when the next
// starts; when the owner goes, the rest get `grace` to finish, are then told to stop (each job looks
// at the flag it is handed) and are joined, so none outlives its owner. Started from one thread.
class WorkerThreads {
public:
    explicit WorkerThreads(std::chrono::milliseconds grace = std::chrono::milliseconds(0));
    ~WorkerThreads();
    WorkerThreads(const WorkerThreads&) = delete;
    WorkerThreads& operator=(const WorkerThreads&) = delete;

    void start(std::function<void(const std::atomic<bool>& stop)> job);

private:
    struct Worker {
        std::thread thread;
        std::atomic<bool> finished = false;
    };

    std::chrono::milliseconds m_grace;
    std::vector<std::unique_ptr<Worker>> m_workers;
    std::atomic<bool> m_stop = false;
};
