// SPDX-License-Identifier: MIT
#include "platform/x11/qtxcb.h"

#include <QGuiApplication>

QtXcb QtXcb::get() {
    auto* x11 = qGuiApp ? qGuiApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    if (!x11 || !x11->connection())
        return {};
    QtXcb xcb;
    xcb.connection = x11->connection();
    xcb.root = xcb_setup_roots_iterator(xcb_get_setup(xcb.connection)).data->root;
    return xcb;
}
