// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <functional>

// Types the paste shortcut into whatever window has the keyboard, as if the user had.
// GUI thread only.
class KeySynthesizer {
public:
    virtual ~KeySynthesizer() = default;
    // Whether this desktop lets the program send synthetic key presses at all.
    virtual bool isAvailable() const = 0;
    // Waits (at most `maxWaitMs`) until the user holds no modifier key, so a still-held
    // Ctrl, Alt or Shift does not turn the shortcut into another one, then presses Ctrl+V
    // (Ctrl+Shift+V with `withShift`). Calls `done(sent)` on `context`'s thread.
    virtual void sendPaste(bool withShift, int maxWaitMs, QObject* context,
                           std::function<void(bool sent)> done) = 0;
};
