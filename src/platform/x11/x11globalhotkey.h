// SPDX-License-Identifier: MIT
#pragma once

#include "platform/globalhotkey.h"

#include <QAbstractNativeEventFilter>
#include <QList>
#include <optional>

struct xcb_connection_t;
struct _XCBKeySymbols;

// Grabs the shortcut on the X root window: every keycode that produces the key, once per
// lock-key variant (none, NumLock, CapsLock, both), so it works whatever locks are on.
// Regrabs after keyboard-mapping changes: core MappingNotify, and the XKB keymap events that
// an XKB-aware connection such as Qt's gets instead when the layout changes.
class X11GlobalHotkey : public GlobalHotkey, public QAbstractNativeEventFilter {
    Q_OBJECT
public:
    explicit X11GlobalHotkey(QObject* parent = nullptr);
    ~X11GlobalHotkey() override;

    bool registerCombo(const HotKeyCombo& combo) override;
    void unregister() override;
    std::optional<HotKeyCombo> registered() const override { return m_combo; }
    bool canRegister() const override { return m_connection != nullptr; }

    bool nativeEventFilter(const QByteArray& eventType, void* message, qintptr* result) override;

private:
    bool grab();
    void ungrab();
    std::uint16_t numLockMask();
    void selectKeymapEvents();
    void keymapChanged();

    xcb_connection_t* m_connection = nullptr;
    std::uint32_t m_root = 0;
    _XCBKeySymbols* m_symbols = nullptr;
    std::optional<HotKeyCombo> m_combo;
    QList<std::uint8_t> m_keycodes;
    std::uint16_t m_modifiers = 0;
    // The XKB extension's first event code; 0 where the server has no XKB.
    std::uint8_t m_xkbFirstEvent = 0;
};
