// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

// Terminals keep Ctrl+V for the program running inside them and paste with Ctrl+Shift+V.
namespace TerminalPaste {
// Whether a window of this class (the class part of WM_CLASS) is a terminal emulator.
bool isTerminalClass(const QString& windowClass);
// Whether to add Shift to the paste shortcut.
bool needsShift(const QString& windowClass, bool focusIsTerminal);
} // namespace TerminalPaste
