// SPDX-License-Identifier: MIT
#pragma once

#include <QTextStream>

// `orvane --bench-prefetch`: replays the same key presses (Down through the results, then
// Enter) against a local server whose bandwidth is throttled, once with the image scheduler
// and once with a dozen unprioritised parallel prefetches, and prints "bench-prefetch:" lines
// comparing how long the user waits for the chosen image. Needs a running QCoreApplication
// (it spins nested event loops); returns the process exit code.
int runPrefetchBench(QTextStream& out);
