// SPDX-License-Identifier: MIT
#include "platform/x11/x11globalhotkey.h"

#include "platform/keycodes.h"
#include "platform/platformlog.h"
#include "platform/x11/qtxcb.h"

#include <QGuiApplication>
#include <X11/keysym.h>
#include <xcb/xcb.h>
#include <xcb/xcb_keysyms.h>
// The XKB header names a struct field `explicit`, which C++ reserves.
#define explicit explicit_
#include <xcb/xkb.h>
#undef explicit

namespace {

std::uint16_t xModifiers(std::uint32_t mods) {
    std::uint16_t x = 0;
    if (mods & HotKeyCombo::controlMask)
        x |= XCB_MOD_MASK_CONTROL;
    if (mods & HotKeyCombo::altMask)
        x |= XCB_MOD_MASK_1;
    if (mods & HotKeyCombo::shiftMask)
        x |= XCB_MOD_MASK_SHIFT;
    if (mods & HotKeyCombo::superMask)
        x |= XCB_MOD_MASK_4;
    return x;
}

constexpr std::uint16_t relevantModifiers =
    XCB_MOD_MASK_CONTROL | XCB_MOD_MASK_1 | XCB_MOD_MASK_SHIFT | XCB_MOD_MASK_4;

} // namespace

X11GlobalHotkey::X11GlobalHotkey(QObject* parent) : GlobalHotkey(parent) {
    const QtXcb xcb = QtXcb::get();
    if (!xcb.connection)
        return;
    m_connection = xcb.connection;
    m_root = xcb.root;
    m_symbols = xcb_key_symbols_alloc(m_connection);
    selectKeymapEvents();
    qGuiApp->installNativeEventFilter(this);
}

void X11GlobalHotkey::selectKeymapEvents() {
    const xcb_query_extension_reply_t* xkb = xcb_get_extension_data(m_connection, &xcb_xkb_id);
    if (!xkb || !xkb->present)
        return;
    xcb_xkb_use_extension_reply_t* use = xcb_xkb_use_extension_reply(
        m_connection,
        xcb_xkb_use_extension(m_connection, XCB_XKB_MAJOR_VERSION, XCB_XKB_MINOR_VERSION), nullptr);
    const bool supported = use && use->supported;
    free(use);
    if (!supported)
        return;
    // Only these bits are touched, so whatever else the connection's owner (Qt) selected stays.
    constexpr std::uint16_t events =
        XCB_XKB_EVENT_TYPE_NEW_KEYBOARD_NOTIFY | XCB_XKB_EVENT_TYPE_MAP_NOTIFY;
    constexpr std::uint16_t mapParts =
        XCB_XKB_MAP_PART_KEY_TYPES | XCB_XKB_MAP_PART_KEY_SYMS | XCB_XKB_MAP_PART_MODIFIER_MAP;
    xcb_generic_error_t* error = xcb_request_check(
        m_connection, xcb_xkb_select_events_checked(m_connection, XCB_XKB_ID_USE_CORE_KBD, events,
                                                    0, events, mapParts, mapParts, nullptr));
    if (error) {
        qCWarning(lcPlatformX11) << "XkbSelectEvents failed:" << error->error_code;
        free(error);
        return;
    }
    m_xkbFirstEvent = xkb->first_event;
}

X11GlobalHotkey::~X11GlobalHotkey() {
    if (!m_connection)
        return;
    qGuiApp->removeNativeEventFilter(this);
    ungrab();
    xcb_key_symbols_free(m_symbols);
}

bool X11GlobalHotkey::registerCombo(const HotKeyCombo& combo) {
    const std::optional<HotKeyCombo> previous = m_combo;
    unregister();
    if (!m_connection)
        return false;
    m_combo = combo;
    if (grab())
        return true;
    // Refused: the shortcut that worked goes on working rather than leaving none.
    m_combo = previous;
    if (m_combo && !grab())
        m_combo.reset();
    return false;
}

void X11GlobalHotkey::unregister() {
    ungrab();
    m_combo.reset();
}

std::uint16_t X11GlobalHotkey::numLockMask() {
    // NumLock sits on whichever modifier the keymap assigns it (usually Mod2).
    const xcb_keycode_t* numLock = xcb_key_symbols_get_keycode(m_symbols, XK_Num_Lock);
    xcb_get_modifier_mapping_reply_t* reply = xcb_get_modifier_mapping_reply(
        m_connection, xcb_get_modifier_mapping(m_connection), nullptr);
    std::uint16_t mask = 0;
    if (reply && numLock) {
        const xcb_keycode_t* map = xcb_get_modifier_mapping_keycodes(reply);
        const int perModifier = reply->keycodes_per_modifier;
        for (int mod = 0; mod < 8 && !mask; ++mod)
            for (int i = 0; i < perModifier; ++i)
                for (const xcb_keycode_t* k = numLock; *k != XCB_NO_SYMBOL; ++k)
                    if (map[mod * perModifier + i] == *k)
                        mask = std::uint16_t(1u << mod);
    }
    free(reply);
    free(const_cast<xcb_keycode_t*>(numLock));
    return mask;
}

bool X11GlobalHotkey::grab() {
    const auto key = KeyCodes::byVirtualCode(m_combo->keyCode);
    if (!key) {
        qCWarning(lcPlatformX11) << "no X key for virtual key code" << m_combo->keyCode;
        return false;
    }
    xcb_keycode_t* codes = xcb_key_symbols_get_keycode(m_symbols, key->keysym);
    for (xcb_keycode_t* k = codes; k && *k != XCB_NO_SYMBOL; ++k)
        m_keycodes.append(*k);
    free(codes);
    if (m_keycodes.isEmpty()) {
        qCWarning(lcPlatformX11) << "the keyboard has no key for" << key->name;
        return false;
    }
    m_modifiers = xModifiers(m_combo->modifiers);
    const std::uint16_t numLock = numLockMask();
    const std::uint16_t variants[] = {0, numLock, XCB_MOD_MASK_LOCK,
                                      std::uint16_t(numLock | XCB_MOD_MASK_LOCK)};
    QList<xcb_void_cookie_t> cookies;
    for (const std::uint8_t code : std::as_const(m_keycodes))
        for (const std::uint16_t lock : variants) // a repeated grab by us just replaces ours
            cookies.append(xcb_grab_key_checked(m_connection, 1, m_root, m_modifiers | lock, code,
                                                XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC));
    int errorCode = 0;
    for (const xcb_void_cookie_t cookie : std::as_const(cookies))
        if (xcb_generic_error_t* error = xcb_request_check(m_connection, cookie)) {
            errorCode = errorCode ? errorCode : error->error_code;
            free(error);
        }
    if (errorCode) {
        qCWarning(lcPlatformX11).noquote()
            << QStringLiteral("XGrabKey failed: %1 (hotkey already taken?)").arg(errorCode);
        ungrab();
        return false;
    }
    return true;
}

void X11GlobalHotkey::ungrab() {
    if (!m_connection)
        return;
    for (const std::uint8_t code : std::as_const(m_keycodes))
        xcb_ungrab_key(m_connection, code, m_root, XCB_MOD_MASK_ANY);
    m_keycodes.clear();
    xcb_flush(m_connection);
}

bool X11GlobalHotkey::nativeEventFilter(const QByteArray& eventType, void* message, qintptr*) {
    if (eventType != "xcb_generic_event_t")
        return false;
    auto* event = static_cast<xcb_generic_event_t*>(message);
    const std::uint8_t type = event->response_type & ~0x80;
    if (type == XCB_KEY_PRESS && m_combo) {
        auto* press = reinterpret_cast<xcb_key_press_event_t*>(event);
        qCDebug(lcPlatformX11) << "key press" << press->detail << "state" << press->state;
        if (press->root == m_root && m_keycodes.contains(press->detail) &&
            (press->state & relevantModifiers) == m_modifiers) {
            emit pressed(press->time);
            return true;
        }
    } else if (type == XCB_MAPPING_NOTIFY) {
        xcb_refresh_keyboard_mapping(m_symbols,
                                     reinterpret_cast<xcb_mapping_notify_event_t*>(event));
        keymapChanged();
    } else if (m_xkbFirstEvent && type == m_xkbFirstEvent) {
        // All XKB events share one code; the kind is in the second byte.
        const std::uint8_t kind = reinterpret_cast<xcb_xkb_map_notify_event_t*>(event)->xkbType;
        if (kind == XCB_XKB_NEW_KEYBOARD_NOTIFY || kind == XCB_XKB_MAP_NOTIFY) {
            // The cached core mapping knows nothing of XKB changes: fetch it afresh.
            xcb_key_symbols_free(m_symbols);
            m_symbols = xcb_key_symbols_alloc(m_connection);
            keymapChanged();
        }
    }
    return false;
}

void X11GlobalHotkey::keymapChanged() {
    // The layout changed: the key may now sit on other keycodes, NumLock on another modifier.
    if (!m_combo)
        return;
    ungrab();
    if (!grab())
        qCWarning(lcPlatformX11).noquote()
            << QStringLiteral("%1 no longer works after the keyboard layout changed")
                   .arg(m_combo->label);
}
