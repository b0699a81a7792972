// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>
#include <QStringView>

// The one word rule shared by the index, the rankers and the pick counts: case and
// diacritics folded with no locale, split at every character that is neither a letter nor
// a number, empty pieces dropped. "Don't-stop 2x" gives don, t, stop, 2x; "Café" gives cafe.
namespace TextFold {
QStringList tokens(QStringView text);
// The tokens joined with single spaces ("  Hello,   World!! " gives "hello world").
QString key(QStringView text);
} // namespace TextFold
