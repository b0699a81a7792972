// SPDX-License-Identifier: MIT
#pragma once

#include <xcb/xcb.h>
#include <xcb/xcb_keysyms.h>

// Another X client holding a shortcut, as a rival program would: its own connection, so the
// server refuses the same grab to anyone else until it goes.
class RivalGrab {
public:
    RivalGrab(xcb_keysym_t keysym, std::uint16_t modifiers) {
        m_connection = xcb_connect(nullptr, nullptr);
        const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(m_connection)).data->root;
        xcb_key_symbols_t* symbols = xcb_key_symbols_alloc(m_connection);
        xcb_keycode_t* codes = xcb_key_symbols_get_keycode(symbols, keysym);
        xcb_grab_key(m_connection, 1, root, modifiers, codes[0], XCB_GRAB_MODE_ASYNC,
                     XCB_GRAB_MODE_ASYNC);
        free(codes);
        xcb_key_symbols_free(symbols);
        // A round trip: the grab is in place once this returns.
        free(xcb_get_input_focus_reply(m_connection, xcb_get_input_focus(m_connection), nullptr));
    }
    ~RivalGrab() { xcb_disconnect(m_connection); }
    RivalGrab(const RivalGrab&) = delete;
    RivalGrab& operator=(const RivalGrab&) = delete;

private:
    xcb_connection_t* m_connection;
};
