// SPDX-License-Identifier: MIT
#pragma once

#include <QLoggingCategory>

// orvane-server's own log lines: one per refused request or failed rebuild, saying why.
Q_DECLARE_LOGGING_CATEGORY(lcServer)
