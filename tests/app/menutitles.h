// SPDX-License-Identifier: MIT
// Reading a menu as the user sees it: its texts, in order, and which choices are ticked.
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

inline QAction* item(const QMenu* menu, const QString& title) {
    for (QAction* action : menu->actions())
        if (action->text() == title)
            return action;
    return nullptr;
}

inline QMenu* submenu(const QMenu* menu, const QString& title) {
    const QAction* action = item(menu, title);
    return action ? action->menu() : nullptr;
}

inline QStringList checked(const QMenu* menu) {
    QStringList out;
    if (menu)
        for (const QAction* action : menu->actions())
            if (action->isChecked())
                out.append(action->text());
    return out;
}
