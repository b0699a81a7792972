// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <xcb/xcb.h>

// Qt's own connection to the X server and the default screen's root window; the connection
// is null when Qt does not run on X11.
struct QtXcb {
    xcb_connection_t* connection = nullptr;
    xcb_window_t root = 0;

    static QtXcb get();
};

// The atom of `name` (created when missing), or XCB_ATOM_NONE when the server does not answer.
inline xcb_atom_t internAtom(xcb_connection_t* c, const char* name) {
    xcb_intern_atom_reply_t* reply = xcb_intern_atom_reply(
        c, xcb_intern_atom(c, 0, std::uint16_t(std::strlen(name)), name), nullptr);
    const xcb_atom_t atom = reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
    std::free(reply);
    return atom;
}
