// SPDX-License-Identifier: MIT
#pragma once

#include "platform/globalhotkey.h"

// For desktops where no backend can grab keys yet: registration always fails.
class NullGlobalHotkey : public GlobalHotkey {
    Q_OBJECT
public:
    using GlobalHotkey::GlobalHotkey;
    bool registerCombo(const HotKeyCombo&) override { return false; }
    void unregister() override {}
    std::optional<HotKeyCombo> registered() const override { return std::nullopt; }
    bool canRegister() const override { return false; }
};
