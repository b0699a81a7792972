// SPDX-License-Identifier: MIT
#pragma once

#include "platform/windowactivator.h"

// Where no backend can steer focus: Qt's own activation is all there is.
class NullWindowActivator : public WindowActivator {
public:
    void activate(WId, quint32) override {}
    WId activeWindow() const override { return 0; }
    WId keyboardFocus() const override { return 0; }
    DesktopApp describe(WId) const override { return {}; }
    WId windowUnderPointer() const override { return 0; }
};
