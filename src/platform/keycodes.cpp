// SPDX-License-Identifier: MIT
#include "platform/keycodes.h"

#include "catalog/hotkeycombo.h"

#include <Qt>
#include <X11/keysym.h>
#include <array>

namespace {

using KeyCodes::Key;

constexpr std::array<Key, 76> keys = {{
    {0x00, XK_a, Qt::Key_A, "A"},
    {0x01, XK_s, Qt::Key_S, "S"},
    {0x02, XK_d, Qt::Key_D, "D"},
    {0x03, XK_f, Qt::Key_F, "F"},
    {0x04, XK_h, Qt::Key_H, "H"},
    {0x05, XK_g, Qt::Key_G, "G"},
    {0x06, XK_z, Qt::Key_Z, "Z"},
    {0x07, XK_x, Qt::Key_X, "X"},
    {0x08, XK_c, Qt::Key_C, "C"},
    {0x09, XK_v, Qt::Key_V, "V"},
    {0x0B, XK_b, Qt::Key_B, "B"},
    {0x0C, XK_q, Qt::Key_Q, "Q"},
    {0x0D, XK_w, Qt::Key_W, "W"},
    {0x0E, XK_e, Qt::Key_E, "E"},
    {0x0F, XK_r, Qt::Key_R, "R"},
    {0x10, XK_y, Qt::Key_Y, "Y"},
    {0x11, XK_t, Qt::Key_T, "T"},
    {0x12, XK_1, Qt::Key_1, "1"},
    {0x13, XK_2, Qt::Key_2, "2"},
    {0x14, XK_3, Qt::Key_3, "3"},
    {0x15, XK_4, Qt::Key_4, "4"},
    {0x16, XK_6, Qt::Key_6, "6"},
    {0x17, XK_5, Qt::Key_5, "5"},
    {0x18, XK_equal, Qt::Key_Equal, "="},
    {0x19, XK_9, Qt::Key_9, "9"},
    {0x1A, XK_7, Qt::Key_7, "7"},
    {0x1B, XK_minus, Qt::Key_Minus, "-"},
    {0x1C, XK_8, Qt::Key_8, "8"},
    {0x1D, XK_0, Qt::Key_0, "0"},
    {0x1E, XK_bracketright, Qt::Key_BracketRight, "]"},
    {0x1F, XK_o, Qt::Key_O, "O"},
    {0x20, XK_u, Qt::Key_U, "U"},
    {0x21, XK_bracketleft, Qt::Key_BracketLeft, "["},
    {0x22, XK_i, Qt::Key_I, "I"},
    {0x23, XK_p, Qt::Key_P, "P"},
    {0x24, XK_Return, Qt::Key_Return, "Return"},
    {0x25, XK_l, Qt::Key_L, "L"},
    {0x26, XK_j, Qt::Key_J, "J"},
    {0x27, XK_apostrophe, Qt::Key_Apostrophe, "'"},
    {0x28, XK_k, Qt::Key_K, "K"},
    {0x29, XK_semicolon, Qt::Key_Semicolon, ";"},
    {0x2A, XK_backslash, Qt::Key_Backslash, "\\"},
    {0x2B, XK_comma, Qt::Key_Comma, ","},
    {0x2C, XK_slash, Qt::Key_Slash, "/"},
    {0x2D, XK_n, Qt::Key_N, "N"},
    {0x2E, XK_m, Qt::Key_M, "M"},
    {0x2F, XK_period, Qt::Key_Period, "."},
    {0x30, XK_Tab, Qt::Key_Tab, "Tab"},
    {0x31, XK_space, Qt::Key_Space, "Space"},
    {0x32, XK_grave, Qt::Key_QuoteLeft, "`"},
    // The key that erases backwards (Backspace on most Linux keyboards) keeps its stored name.
    {0x33, XK_BackSpace, Qt::Key_Backspace, "Delete"},
    {0x35, XK_Escape, Qt::Key_Escape, "Escape"},
    {0x7A, XK_F1, Qt::Key_F1, "F1"},
    {0x78, XK_F2, Qt::Key_F2, "F2"},
    {0x63, XK_F3, Qt::Key_F3, "F3"},
    {0x76, XK_F4, Qt::Key_F4, "F4"},
    {0x60, XK_F5, Qt::Key_F5, "F5"},
    {0x61, XK_F6, Qt::Key_F6, "F6"},
    {0x62, XK_F7, Qt::Key_F7, "F7"},
    {0x64, XK_F8, Qt::Key_F8, "F8"},
    {0x65, XK_F9, Qt::Key_F9, "F9"},
    {0x6D, XK_F10, Qt::Key_F10, "F10"},
    {0x67, XK_F11, Qt::Key_F11, "F11"},
    {0x6F, XK_F12, Qt::Key_F12, "F12"},
    {0x69, XK_F13, Qt::Key_F13, "F13"},
    {0x6B, XK_F14, Qt::Key_F14, "F14"},
    {0x71, XK_F15, Qt::Key_F15, "F15"},
    {0x6A, XK_F16, Qt::Key_F16, "F16"},
    {0x40, XK_F17, Qt::Key_F17, "F17"},
    {0x4F, XK_F18, Qt::Key_F18, "F18"},
    {0x50, XK_F19, Qt::Key_F19, "F19"},
    {0x5A, XK_F20, Qt::Key_F20, "F20"},
    {0x7B, XK_Left, Qt::Key_Left, "Left"},
    {0x7C, XK_Right, Qt::Key_Right, "Right"},
    {0x7D, XK_Down, Qt::Key_Down, "Down"},
    {0x7E, XK_Up, Qt::Key_Up, "Up"},
}};

template <typename Match> std::optional<Key> find(Match match) {
    for (const Key& k : keys)
        if (match(k))
            return k;
    return std::nullopt;
}

} // namespace

namespace KeyCodes {

std::optional<Key> byVirtualCode(std::uint32_t code) {
    return find([code](const Key& k) { return k.virtualCode == code; });
}

std::optional<Key> byQtKey(int qtKey) {
    // Shift+Tab arrives as Backtab.
    if (qtKey == Qt::Key_Backtab)
        qtKey = Qt::Key_Tab;
    if (qtKey == Qt::Key_Enter)
        qtKey = Qt::Key_Return;
    return find([qtKey](const Key& k) { return k.qtKey == qtKey; });
}

bool isFunctionKey(std::uint32_t virtualCode) {
    const auto key = byVirtualCode(virtualCode);
    return key && key->keysym >= XK_F1 && key->keysym <= XK_F20;
}

QString label(std::uint32_t modifiers, std::uint32_t virtualCode) {
    QString text;
    if (modifiers & HotKeyCombo::controlMask)
        text += QStringLiteral("Ctrl+");
    if (modifiers & HotKeyCombo::altMask)
        text += QStringLiteral("Alt+");
    if (modifiers & HotKeyCombo::shiftMask)
        text += QStringLiteral("Shift+");
    if (modifiers & HotKeyCombo::superMask)
        text += QStringLiteral("Super+");
    const auto key = byVirtualCode(virtualCode);
    return text +
           (key ? QString::fromLatin1(key->name) : QStringLiteral("Key %1").arg(virtualCode));
}

} // namespace KeyCodes
