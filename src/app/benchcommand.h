// SPDX-License-Identifier: MIT
#pragma once

#include <QTextStream>

// `orvane --bench`: types a few queries one character at a time against the built-in synthetic
// catalog and prints one "bench " line per ranker (SearchEngine, the local index as the app
// searches it, and the plain FTS5 query) with entries, keystrokes and the p50, p95 and maximum
// milliseconds per keystroke. Uses a temporary index file. Returns the process exit code.
int runRankingBench(QTextStream& out);
