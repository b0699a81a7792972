// SPDX-License-Identifier: MIT
#pragma once

// Filters the window system's events, while it lives, so that other programs cannot leave our
// clipboard and drags in a broken state.
class EventGuard {
public:
    virtual ~EventGuard() = default;
    // While a drag of ours runs, repairs wait: the drag needs the state as it is.
    virtual void setDragRunning(bool running) = 0;
};
