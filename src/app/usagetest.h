// SPDX-License-Identifier: MIT
#pragma once

#include <QTextStream>

// `orvane --usage-test`: a self-check of recents, most used and clearing on a temporary
// user-data file. Prints "loaded: recents …", "after 6 picks: recents …",
// "after clear: recents …"; returns 0 when every step behaved.
int runUsageTest(QTextStream& out);
