// SPDX-License-Identifier: MIT
#pragma once

#include "platform/windowactivator.h"

#include <cstdint>

struct xcb_connection_t;

// _NET_ACTIVE_WINDOW requests sent as a pager would (source 2), which EWMH window managers
// honour without their focus-stealing checks.
class X11WindowActivator : public WindowActivator {
public:
    X11WindowActivator();
    void activate(WId window, quint32 timestamp) override;
    WId activeWindow() const override;
    WId keyboardFocus() const override;
    DesktopApp describe(WId window) const override;
    WId windowUnderPointer() const override;

private:
    // `window` itself or the first window below it that the window manager manages (it has
    // WM_STATE): pointer queries name the window manager's frame around the program's window.
    WId clientWindow(std::uint32_t window, int depth) const;

    xcb_connection_t* m_connection = nullptr;
    std::uint32_t m_root = 0;
    std::uint32_t m_activeAtom = 0;
    std::uint32_t m_pidAtom = 0;
    std::uint32_t m_wmStateAtom = 0;
};
