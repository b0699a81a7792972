// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <cstdint>
#include <optional>

// Stored shortcuts use classic virtual key codes (46 = M) so defaults and saved values stay
// stable across platforms; this table maps them to X keysyms, Qt keys and display names.
namespace KeyCodes {

struct Key {
    std::uint32_t virtualCode;
    std::uint32_t keysym;
    int qtKey;
    const char* name;
};

std::optional<Key> byVirtualCode(std::uint32_t code);
std::optional<Key> byQtKey(int qtKey);
bool isFunctionKey(std::uint32_t virtualCode);

inline constexpr std::uint32_t escape = 0x35;

// "Ctrl+Alt+Shift+Super+" (those held, in that order) followed by the key's name.
QString label(std::uint32_t modifiers, std::uint32_t virtualCode);

} // namespace KeyCodes
