#include "WorkerThreads.h"

#include <QDeadlineTimer>

#include <algorithm>

WorkerThreads::WorkerThreads(std::chrono::milliseconds grace)
    : m_grace(grace)
{
}

WorkerThreads::~WorkerThreads()
{
    const QDeadlineTimer grace(m_grace);
    const auto running = [](const std::unique_ptr<Worker>& worker) { return !worker->finished; };
    while (!grace.hasExpired() && std::any_of(m_workers.begin(), m_workers.end(), running))
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    m_stop = true;
    for (const auto& worker : m_workers)
        worker->thread.join();
}

void WorkerThreads::start(std::function<void(const std::atomic<bool>& stop)> job)
{
    std::erase_if(m_workers, [](const std::unique_ptr<Worker>& worker) {
        const bool finished = worker->finished;
        if (finished)
            worker->thread.join();
        return finished;
    });
    auto worker = std::make_unique<Worker>();
    worker->thread = std::thread([job = std::move(job), &stop = m_stop, &finished = worker->finished] {
        job(stop);
        finished = true;
    });
    m_workers.push_back(std::move(worker));
}
