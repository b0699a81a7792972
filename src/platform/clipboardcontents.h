// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>

// One clipboard entry: each type (a MIME type such as "image/png") with its bytes, in the
// order the owner offers them.
using ClipboardItem = QList<QPair<QString, QByteArray>>;

// What a read of the clipboard found.
struct ClipboardContents {
    ClipboardItem types;
    // Someone owned the clipboard when it was read.
    bool owned = false;
    // False when the owner did not answer for some type in time, or the size limit was
    // reached: `types` then holds only what arrived.
    bool complete = true;
};
