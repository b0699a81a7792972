// SPDX-License-Identifier: MIT
#pragma once

#include "platform/keysynthesizer.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QTimer>
#include <optional>
#include <xcb/xcb.h>
#include <xcb/xcb_keysyms.h>

// Synthetic key presses through the XTEST extension, on Qt's own connection.
class X11KeySynthesizer : public KeySynthesizer {
public:
    X11KeySynthesizer();
    ~X11KeySynthesizer() override;
    bool isAvailable() const override { return m_available; }
    void sendPaste(bool withShift, int maxWaitMs, QObject* context,
                   std::function<void(bool sent)> done) override;

private:
    struct Pending {
        bool withShift;
        int maxWaitMs;
        QPointer<QObject> context;
        std::function<void(bool)> done;
        QElapsedTimer waited;
    };
    void poll();
    void finish(bool sent);
    bool modifiersHeld() const;
    xcb_keycode_t keycodeOf(std::uint32_t keysym, xcb_keycode_t fallback);
    void fake(std::uint8_t type, xcb_keycode_t key);
    void press(bool withShift);

    xcb_connection_t* m_connection = nullptr;
    xcb_window_t m_root = 0;
    xcb_key_symbols_t* m_symbols = nullptr;
    bool m_available = false;
    std::optional<Pending> m_pending;
    QTimer m_poll;
};
