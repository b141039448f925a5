#pragma once

// A small benchmark harness: run a piece of work several times and print the median.
// Figures are printed, never asserted.

#include <QElapsedTimer>
#include <QString>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

namespace Bench {

// CPU time of the whole process (all threads), in seconds.
inline double processCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

inline double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// Runs f() `runs` times (after one warm-up run) and returns the median wall time in ms.
template<typename F>
double medianMs(int runs, F &&f)
{
    f();
    std::vector<double> times;
    times.reserve(std::size_t(runs));
    for (int i = 0; i < runs; ++i) {
        QElapsedTimer timer;
        timer.start();
        f();
        times.push_back(double(timer.nsecsElapsed()) / 1e6);
    }
    return median(times);
}

// One result line: "<name>: <value> <unit>".
inline void report(const char *name, double value, const char *unit)
{
    std::printf("%-48s %12.3f %s\n", name, value, unit);
    std::fflush(stdout);
}

// The shared inputs (../shared/bench-data beside the repository), or an override.
inline QString dataDir()
{
    const QByteArray env = qgetenv("VERBOLT_BENCH_DATA");
    return env.isEmpty() ? QStringLiteral(VERBOLT_BENCH_DATA) : QString::fromLocal8Bit(env);
}

} // namespace Bench
