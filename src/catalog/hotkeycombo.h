// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <cstdint>

// A global shortcut: a virtual key code, a modifier mask (Control 0x1000, Option/Alt 0x800,
// Shift 0x200, Command/Super 0x100) and the label the user sees.
struct HotKeyCombo {
    std::uint32_t keyCode = 0;
    std::uint32_t modifiers = 0;
    QString label;

    static constexpr std::uint32_t controlMask = 0x1000;
    static constexpr std::uint32_t altMask = 0x800;
    static constexpr std::uint32_t shiftMask = 0x200;
    static constexpr std::uint32_t superMask = 0x100;

    // Ctrl+M.
    static HotKeyCombo defaultCombo() { return {46, controlMask, QStringLiteral("Ctrl+M")}; }

    friend bool operator==(const HotKeyCombo&, const HotKeyCombo&) = default;
};
