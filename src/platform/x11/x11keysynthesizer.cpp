// SPDX-License-Identifier: MIT
#include "platform/x11/x11keysynthesizer.h"

#include "platform/platformlog.h"
#include "platform/x11/qtxcb.h"

#include <QGuiApplication>
#include <QPointer>
#include <QTimer>
#include <X11/keysym.h>
#include <cstdlib>
#include <memory>
#include <xcb/xcb_keysyms.h>
#include <xcb/xtest.h>

namespace {

constexpr int pollMs = 5;
// Keycodes of the physical keys under the evdev driver, for layouts without a Latin "v".
constexpr xcb_keycode_t evdevV = 55, evdevControlL = 37, evdevShiftL = 50;

} // namespace

X11KeySynthesizer::X11KeySynthesizer() {
    const QtXcb xcb = QtXcb::get();
    if (!xcb.connection)
        return;
    m_connection = xcb.connection;
    m_root = xcb.root;
    const xcb_query_extension_reply_t* xtest = xcb_get_extension_data(m_connection, &xcb_test_id);
    m_available = xtest && xtest->present;
    m_symbols = xcb_key_symbols_alloc(m_connection);
    m_poll.setSingleShot(true);
    m_poll.setInterval(pollMs);
    QObject::connect(&m_poll, &QTimer::timeout, [this] { poll(); });
    if (!m_available)
        qCWarning(lcPlatform)
            << "the X server has no XTEST extension: pasting falls back to copying";
}

X11KeySynthesizer::~X11KeySynthesizer() {
    if (m_symbols)
        xcb_key_symbols_free(m_symbols);
}

bool X11KeySynthesizer::modifiersHeld() const {
    std::unique_ptr<xcb_query_pointer_reply_t, decltype(&std::free)> reply(
        xcb_query_pointer_reply(m_connection, xcb_query_pointer(m_connection, m_root), nullptr),
        &std::free);
    constexpr std::uint16_t modifiers =
        XCB_MOD_MASK_SHIFT | XCB_MOD_MASK_CONTROL | XCB_MOD_MASK_1 | XCB_MOD_MASK_4;
    return reply && (reply->mask & modifiers);
}

xcb_keycode_t X11KeySynthesizer::keycodeOf(std::uint32_t keysym, xcb_keycode_t fallback) {
    std::unique_ptr<xcb_keycode_t, decltype(&std::free)> codes(
        xcb_key_symbols_get_keycode(m_symbols, keysym), &std::free);
    return codes && codes.get()[0] != XCB_NO_SYMBOL ? codes.get()[0] : fallback;
}

void X11KeySynthesizer::fake(std::uint8_t type, xcb_keycode_t key) {
    xcb_test_fake_input(m_connection, type, key, XCB_CURRENT_TIME, m_root, 0, 0, 0);
    xcb_flush(m_connection);
}

void X11KeySynthesizer::press(bool withShift) {
    // The keymap may have changed since start-up (another layout): read it fresh.
    xcb_key_symbols_free(m_symbols);
    m_symbols = xcb_key_symbols_alloc(m_connection);
    const xcb_keycode_t control = keycodeOf(XK_Control_L, evdevControlL);
    const xcb_keycode_t shift = keycodeOf(XK_Shift_L, evdevShiftL);
    const xcb_keycode_t v = keycodeOf(XK_v, evdevV);
    fake(XCB_KEY_PRESS, control);
    if (withShift)
        fake(XCB_KEY_PRESS, shift);
    fake(XCB_KEY_PRESS, v);
    fake(XCB_KEY_RELEASE, v);
    if (withShift)
        fake(XCB_KEY_RELEASE, shift);
    fake(XCB_KEY_RELEASE, control);
    // A round trip, so the events are in the server's queue before anyone looks.
    std::free(xcb_get_input_focus_reply(m_connection, xcb_get_input_focus(m_connection), nullptr));
}

void X11KeySynthesizer::sendPaste(bool withShift, int maxWaitMs, QObject* context,
                                  std::function<void(bool sent)> done) {
    if (m_pending)
        finish(false);
    m_pending = Pending{withShift, maxWaitMs, context, std::move(done), {}};
    m_pending->waited.start();
    if (!m_available) {
        QTimer::singleShot(0, context, [this] { finish(false); });
        return;
    }
    poll();
}

// Polls on the GUI thread's timer: each check is one short round trip to the server.
void X11KeySynthesizer::poll() {
    if (!m_pending)
        return;
    if (!m_pending->context) {
        m_pending.reset();
        return;
    }
    const bool timedOut = m_pending->waited.elapsed() >= m_pending->maxWaitMs;
    if (modifiersHeld() && !timedOut) {
        m_poll.start();
        return;
    }
    if (timedOut)
        qCInfo(lcPlatform) << "modifier keys still held after" << m_pending->maxWaitMs
                           << "ms; pasting anyway";
    press(m_pending->withShift);
    finish(true);
}

void X11KeySynthesizer::finish(bool sent) {
    m_poll.stop();
    std::optional<Pending> pending = std::move(m_pending);
    m_pending.reset();
    if (pending && pending->context)
        pending->done(sent);
}
