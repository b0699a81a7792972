// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QTextStream>

// --search-collections TEXT: the Collections tab's answer for TEXT as the picker would show
// it (the user's imports and the server's collections, the server asked first like at
// launch): its status line, then one line per collection. 1 when no collections are known.
int runCollectionSearchCommand(const QString& text, QTextStream& out);
