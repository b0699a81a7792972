// SPDX-License-Identifier: MIT
#include "platform/x11/x11windowactivator.h"

#include "platform/x11/qtxcb.h"

#include <QByteArray>
#include <QGuiApplication>
#include <QList>
#include <xcb/xcb.h>

X11WindowActivator::X11WindowActivator() {
    const QtXcb xcb = QtXcb::get();
    if (!xcb.connection)
        return;
    m_connection = xcb.connection;
    m_root = xcb.root;
    m_activeAtom = internAtom(m_connection, "_NET_ACTIVE_WINDOW");
    m_pidAtom = internAtom(m_connection, "_NET_WM_PID");
    m_wmStateAtom = internAtom(m_connection, "WM_STATE");
}

void X11WindowActivator::activate(WId window, quint32 timestamp) {
    if (!m_connection || !window)
        return;
    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = xcb_window_t(window);
    event.type = m_activeAtom;
    event.data.data32[0] = 2; // source: pager
    event.data.data32[1] = timestamp ? timestamp : XCB_CURRENT_TIME;
    event.data.data32[2] = 0;
    xcb_send_event(m_connection, 0, m_root,
                   XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT,
                   reinterpret_cast<const char*>(&event));
    xcb_flush(m_connection);
}

WId X11WindowActivator::activeWindow() const {
    if (!m_connection)
        return 0;
    xcb_get_property_reply_t* reply = xcb_get_property_reply(
        m_connection,
        xcb_get_property(m_connection, 0, m_root, m_activeAtom, XCB_ATOM_WINDOW, 0, 1), nullptr);
    WId window = 0;
    if (reply && xcb_get_property_value_length(reply) >= 4)
        window = *static_cast<xcb_window_t*>(xcb_get_property_value(reply));
    free(reply);
    return window;
}

WId X11WindowActivator::keyboardFocus() const {
    if (!m_connection)
        return 0;
    xcb_get_input_focus_reply_t* reply =
        xcb_get_input_focus_reply(m_connection, xcb_get_input_focus(m_connection), nullptr);
    const WId window = reply ? reply->focus : 0;
    free(reply);
    return window;
}

WId X11WindowActivator::windowUnderPointer() const {
    if (!m_connection)
        return 0;
    xcb_query_pointer_reply_t* reply =
        xcb_query_pointer_reply(m_connection, xcb_query_pointer(m_connection, m_root), nullptr);
    const xcb_window_t top =
        reply && reply->same_screen ? reply->child : xcb_window_t(XCB_WINDOW_NONE);
    free(reply);
    // Frames hold the program's window one or two levels down.
    constexpr int maxDepth = 3;
    return top == XCB_WINDOW_NONE ? 0 : clientWindow(top, maxDepth);
}

WId X11WindowActivator::clientWindow(std::uint32_t window, int depth) const {
    xcb_get_property_reply_t* state = xcb_get_property_reply(
        m_connection, xcb_get_property(m_connection, 0, window, m_wmStateAtom, XCB_ATOM_ANY, 0, 0),
        nullptr);
    const bool managed = state && state->type != XCB_ATOM_NONE;
    free(state);
    if (managed)
        return window;
    if (depth == 0)
        return 0;
    xcb_query_tree_reply_t* tree =
        xcb_query_tree_reply(m_connection, xcb_query_tree(m_connection, window), nullptr);
    if (!tree)
        return 0;
    const xcb_window_t* children = xcb_query_tree_children(tree);
    const int count = xcb_query_tree_children_length(tree);
    WId found = 0;
    // Top-most child first: that is the one the pointer sees.
    for (int i = count - 1; i >= 0 && !found; --i)
        found = clientWindow(children[i], depth - 1);
    free(tree);
    return found;
}

DesktopApp X11WindowActivator::describe(WId window) const {
    DesktopApp app;
    if (!m_connection || !window)
        return app;
    app.window = window;
    const auto w = xcb_window_t(window);
    const xcb_get_property_cookie_t pidCookie =
        xcb_get_property(m_connection, 0, w, m_pidAtom, XCB_ATOM_CARDINAL, 0, 1);
    const xcb_get_property_cookie_t classCookie =
        xcb_get_property(m_connection, 0, w, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 0, 64);
    if (xcb_get_property_reply_t* reply =
            xcb_get_property_reply(m_connection, pidCookie, nullptr)) {
        if (xcb_get_property_value_length(reply) >= 4)
            app.pid = *static_cast<std::uint32_t*>(xcb_get_property_value(reply));
        free(reply);
    }
    if (xcb_get_property_reply_t* reply =
            xcb_get_property_reply(m_connection, classCookie, nullptr)) {
        // "instance\0class\0": the identifier is the class.
        const QByteArray value(static_cast<const char*>(xcb_get_property_value(reply)),
                               xcb_get_property_value_length(reply));
        const QList<QByteArray> parts = value.split('\0');
        if (parts.size() >= 2)
            app.identifier = QString::fromUtf8(parts[1]);
        free(reply);
    }
    return app;
}
