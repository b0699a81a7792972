// SPDX-License-Identifier: MIT
#pragma once

#include "platform/keysynthesizer.h"

#include <QTimer>

// Where the desktop offers no way to type for the user: pasting falls back to copying.
class NullKeySynthesizer : public KeySynthesizer {
public:
    bool isAvailable() const override { return false; }
    void sendPaste(bool, int, QObject* context, std::function<void(bool)> done) override {
        QTimer::singleShot(0, context, [done] { done(false); });
    }
};
