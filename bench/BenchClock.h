#pragma once

// The clocks, waits and summaries the benchmarks read their figures from.

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <functional>
#include <vector>

namespace BenchClock {

// CLOCK_REALTIME compares with stamps other processes write; the CPU-time clocks count work done.
inline qint64 nanoseconds(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return qint64(now.tv_sec) * 1000000000 + now.tv_nsec;
}

inline double seconds(clockid_t clock)
{
    return double(nanoseconds(clock)) / 1e9;
}

// -1 for no values, so a run that measured nothing shows as such.
inline double median(std::vector<double> values)
{
    if (values.empty())
        return -1;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

inline double maximum(const std::vector<double>& values)
{
    return values.empty() ? -1 : *std::max_element(values.begin(), values.end());
}

// Runs the event loop until `done` or the timeout, without sleeping through what is measured.
inline void spinUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() < timeout.count()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        QThread::usleep(200);
    }
}

}
