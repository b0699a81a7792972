// SPDX-License-Identifier: MIT
#include "insert/terminalpaste.h"

#include <QStringList>

namespace {

// Window classes of terminal emulators, compared without case. Add new ones here.
const QStringList terminalClasses = {
    QStringLiteral("Alacritty"),
    QStringLiteral("Eterm"),
    QStringLiteral("foot"),
    QStringLiteral("footclient"),
    QStringLiteral("Gnome-terminal"),
    QStringLiteral("Guake"),
    QStringLiteral("kgx"),
    QStringLiteral("kitty"),
    QStringLiteral("konsole"),
    QStringLiteral("Lxterminal"),
    QStringLiteral("Mate-terminal"),
    QStringLiteral("org.gnome.Console"),
    QStringLiteral("org.gnome.Ptyxis"),
    QStringLiteral("qterminal"),
    QStringLiteral("Sakura"),
    QStringLiteral("st-256color"),
    QStringLiteral("Terminator"),
    QStringLiteral("Terminology"),
    QStringLiteral("Tilix"),
    QStringLiteral("URxvt"),
    QStringLiteral("wezterm"),
    QStringLiteral("org.wezfurlong.wezterm"),
    QStringLiteral("Xfce4-terminal"),
    QStringLiteral("XTerm"),
    QStringLiteral("Yakuake"),
    QStringLiteral("com.mitchellh.ghostty"),
};

} // namespace

namespace TerminalPaste {

bool isTerminalClass(const QString& windowClass) {
    return !windowClass.isEmpty() && terminalClasses.contains(windowClass, Qt::CaseInsensitive);
}

bool needsShift(const QString& windowClass, bool focusIsTerminal) {
    return focusIsTerminal || isTerminalClass(windowClass);
}

} // namespace TerminalPaste
