// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QTextStream>

// `orvane --query TEXT`: loads the catalog the way the picker does (disk, then the server),
// ranks TEXT and prints the results best first, one "id<TAB>description" line each.
// Runs the event loop until done; returns the process exit code.
int runQueryCommand(const QString& text, QTextStream& out);
