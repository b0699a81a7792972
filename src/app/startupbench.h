// SPDX-License-Identifier: MIT
#pragma once

#include <QTextStream>
#include <chrono>

// `orvane --startup-bench`: how long a launch takes until the picker answers a query from the
// catalog on disk, through the loader, index and model the app uses, never waiting for the
// server. Prints each step's time since `launched` (taken first thing in main()); exits 1
// when there is no catalog on disk yet.
int runStartupBench(QTextStream& out, std::chrono::steady_clock::time_point launched);
