// SPDX-License-Identifier: MIT
#pragma once

#include "platform/desktopapp.h"

#include <QtGui/qwindowdefs.h>

// Asks the window manager to give a window the keyboard, and tells which windows have it or
// the pointer. Needed because window managers refuse focus requests from a program that got
// no input of its own (ours came through a global shortcut). GUI thread only.
class WindowActivator {
public:
    virtual ~WindowActivator() = default;
    // `timestamp` is the desktop time of the user action that caused it (0: current time).
    virtual void activate(WId window, quint32 timestamp) = 0;
    // The window the window manager calls active (it may still name a window that was just
    // hidden), or 0 when unknown.
    virtual WId activeWindow() const = 0;
    // The window that receives key presses right now, or 0 when unknown.
    virtual WId keyboardFocus() const = 0;
    // The owner of a top-level window: its process and class; invalid for window 0.
    virtual DesktopApp describe(WId window) const = 0;
    // The top-level window of a program under the mouse pointer, or 0 when unknown.
    virtual WId windowUnderPointer() const = 0;
    DesktopApp frontmost() const { return describe(activeWindow()); }
    DesktopApp underPointer() const { return describe(windowUnderPointer()); }
};
