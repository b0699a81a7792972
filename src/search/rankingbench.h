// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>
#include <functional>
#include <vector>

// Per-keystroke timing shared by `orvane --bench` and the benchmark tool.
namespace RankingBench {
struct Result {
    QString label;
    qsizetype entries = 0;
    qsizetype keystrokes = 0;
    double p50Ms = 0;
    double p95Ms = 0;
    double maxMs = 0;
    // The same per keystroke in thread CPU time, which a busy machine does not inflate.
    double cpuP50Ms = 0;
    double cpuP95Ms = 0;
};

// Runs `search` once per text, in order, timing each call on the monotonic clock and in
// thread CPU time.
Result run(const QString& label, qsizetype entries, const QStringList& keystrokes,
           const std::function<void(const QString&)>& search);
// "bench <label>: entries=N keystrokes=K p50=… p95=… max=… ms (cpu p50=… p95=… ms)".
QString line(const Result& result);
// The nearest-rank percentile `p` (0-100) of `values`; 0 when empty.
double percentile(std::vector<double> values, double p);
// CPU time of the calling thread and of the whole process, in ms.
double threadCpuMs();
double processCpuMs();
// The process's peak resident set so far, in MiB.
double peakRssMiB();
} // namespace RankingBench
