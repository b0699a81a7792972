// SPDX-License-Identifier: MIT
#pragma once

#include <QAction>
#include <QMenu>
#include <QStringList>
#include <ostream>

// Lets GoogleTest print texts as text in failure messages.
inline void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}

// The texts of a menu's items, separators left out, in order.
inline QStringList titles(const QMenu* menu) {
    QStringList out;
    for (const QAction* action : menu->actions())
        if (!action->isSeparator())
            out.append(action->text());
    return out;
}
