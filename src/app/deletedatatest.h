// SPDX-License-Identifier: MIT
#pragma once

#include <QTextStream>

// `orvane --delete-data-test`: asks the configured API to forget this device's tags, as the
// menu's "Delete server data" does, and prints "delete-data-test: deleted", "… pending" or
// "… failed: why". Returns 0 unless it failed.
int runDeleteDataTest(QTextStream& out);
