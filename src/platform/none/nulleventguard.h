// SPDX-License-Identifier: MIT
#pragma once

#include "platform/eventguard.h"

// Nothing to guard where the platform plugin keeps its own state right.
class NullEventGuard : public EventGuard {
public:
    void setDragRunning(bool) override {}
};
