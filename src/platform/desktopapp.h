// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QtGui/qwindowdefs.h>

// A top-level window of another program and what the desktop says about its owner.
struct DesktopApp {
    WId window = 0;
    qint64 pid = 0;
    // The class part of WM_CLASS ("Mousepad", "chromium"), or empty.
    QString identifier;

    bool isValid() const { return window != 0; }
};
