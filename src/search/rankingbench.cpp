// SPDX-License-Identifier: MIT
#include "search/rankingbench.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <sys/resource.h>
#include <vector>

namespace RankingBench {

namespace {
double clockMs(clockid_t clock) {
    timespec t{};
    clock_gettime(clock, &t);
    return double(t.tv_sec) * 1e3 + double(t.tv_nsec) / 1e6;
}
} // namespace

double threadCpuMs() {
    return clockMs(CLOCK_THREAD_CPUTIME_ID);
}
double processCpuMs() {
    return clockMs(CLOCK_PROCESS_CPUTIME_ID);
}

double percentile(std::vector<double> values, double p) {
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const auto rank = std::size_t(std::ceil(p / 100.0 * double(values.size())));
    return values[std::clamp<std::size_t>(rank, 1, values.size()) - 1];
}

Result run(const QString& label, qsizetype entries, const QStringList& keystrokes,
           const std::function<void(const QString&)>& search) {
    std::vector<double> ms, cpu;
    ms.reserve(std::size_t(keystrokes.size()));
    cpu.reserve(std::size_t(keystrokes.size()));
    for (const QString& text : keystrokes) {
        const double cpuStart = threadCpuMs();
        const auto start = std::chrono::steady_clock::now();
        search(text);
        const auto end = std::chrono::steady_clock::now();
        cpu.push_back(threadCpuMs() - cpuStart);
        ms.push_back(std::chrono::duration<double, std::milli>(end - start).count());
    }
    Result r;
    r.label = label;
    r.entries = entries;
    r.keystrokes = keystrokes.size();
    r.p50Ms = percentile(ms, 50);
    r.p95Ms = percentile(ms, 95);
    r.maxMs = ms.empty() ? 0 : *std::max_element(ms.begin(), ms.end());
    r.cpuP50Ms = percentile(cpu, 50);
    r.cpuP95Ms = percentile(cpu, 95);
    return r;
}

QString line(const Result& r) {
    return QStringLiteral("bench %1: entries=%2 keystrokes=%3 p50=%4 p95=%5 max=%6 ms "
                          "(cpu p50=%7 p95=%8 ms)")
        .arg(r.label)
        .arg(r.entries)
        .arg(r.keystrokes)
        .arg(r.p50Ms, 0, 'f', 3)
        .arg(r.p95Ms, 0, 'f', 3)
        .arg(r.maxMs, 0, 'f', 3)
        .arg(r.cpuP50Ms, 0, 'f', 3)
        .arg(r.cpuP95Ms, 0, 'f', 3);
}

double peakRssMiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_maxrss) / 1024.0; // kilobytes on Linux
}

} // namespace RankingBench
