// SPDX-License-Identifier: MIT
#include "platform/x11/x11selectiontimeguard.h"

#include "platform/platformlog.h"
#include "platform/x11/qtxcb.h"

#include <QCoreApplication>
#include <QTimer>
#include <xcb/xcb.h>

namespace {

// Clock drift and events we did not see stay far below this; bad timestamps seen in the wild
// are days or weeks off.
constexpr std::int32_t toleranceMs = 10'000;
// Qt's clock is set a little behind the estimate of the server's: a clock behind is harmless
// (the next key press moves it on), one ahead makes the X server ignore our selection claims.
constexpr std::uint32_t marginMs = 100;

// X compares timestamps by their signed difference, since server time wraps after 49.7 days.
bool after(std::uint32_t a, std::uint32_t b) {
    return std::int32_t(a - b) > 0;
}

// The time of an event the X server stamped itself, or 0.
std::uint32_t serverStamp(const xcb_generic_event_t* event) {
    if (event->response_type & 0x80) // sent by a client: its time proves nothing
        return 0;
    switch (event->response_type) {
    case XCB_KEY_PRESS:
    case XCB_KEY_RELEASE:
    case XCB_BUTTON_PRESS:
    case XCB_BUTTON_RELEASE:
    case XCB_MOTION_NOTIFY:
    case XCB_ENTER_NOTIFY:
    case XCB_LEAVE_NOTIFY:
        // These share their layout up to the time field.
        return reinterpret_cast<const xcb_key_press_event_t*>(event)->time;
    case XCB_PROPERTY_NOTIFY:
        return reinterpret_cast<const xcb_property_notify_event_t*>(event)->time;
    default:
        return 0;
    }
}

void sendPropertyNote(xcb_connection_t* c, xcb_window_t window, xcb_atom_t atom,
                      std::uint32_t time) {
    xcb_property_notify_event_t note{};
    note.response_type = XCB_PROPERTY_NOTIFY;
    note.window = window;
    note.atom = atom;
    note.time = time;
    note.state = XCB_PROPERTY_DELETE;
    // An empty event mask sends it to the window's creator: Qt, and no one else.
    xcb_send_event(c, 0, window, XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<const char*>(&note));
}

} // namespace

X11SelectionTimeGuard::X11SelectionTimeGuard() {
    QCoreApplication::instance()->installNativeEventFilter(this);
}

X11SelectionTimeGuard::~X11SelectionTimeGuard() {
    if (QCoreApplication::instance())
        QCoreApplication::instance()->removeNativeEventFilter(this);
}

std::uint32_t X11SelectionTimeGuard::serverTimeNow() const {
    return m_serverTime + std::uint32_t(m_sinceServerTime.elapsed());
}

bool X11SelectionTimeGuard::nativeEventFilter(const QByteArray& eventType, void* message,
                                              qintptr*) {
    if (eventType != "xcb_generic_event_t")
        return false;
    const auto* event = static_cast<const xcb_generic_event_t*>(message);
    if (const std::uint32_t stamp = serverStamp(event)) {
        m_serverTime = stamp;
        m_sinceServerTime.start();
        return false;
    }
    if ((event->response_type & 0x7f) != XCB_SELECTION_REQUEST || !m_sinceServerTime.isValid())
        return false;
    const std::uint32_t time = reinterpret_cast<const xcb_selection_request_event_t*>(event)->time;
    if (time == XCB_CURRENT_TIME || std::int32_t(time - serverTimeNow()) <= toleranceMs)
        return false;
    if (m_logged++ < 3)
        qCInfo(lcPlatformX11) << "a selection request carries time" << time
                              << "ahead of the server's" << serverTimeNow()
                              << "; setting the clock back once no drag runs";
    if (!m_repairDue || after(time, m_badTime))
        m_badTime = time;
    if (!m_repairDue) {
        m_repairDue = true;
        repairSoon(0);
    }
    return false;
}

void X11SelectionTimeGuard::setDragRunning(bool running) {
    m_dragRunning = running;
    if (!running && m_repairDue)
        repairSoon(0);
}

void X11SelectionTimeGuard::repairSoon(int delayMs) {
    // Queued, so that Qt has taken the request's time before we undo it.
    QTimer::singleShot(delayMs, &m_clockWindow, [this] { repair(); });
}

void X11SelectionTimeGuard::repair() {
    if (m_dragRunning)
        return; // setDragRunning(false) comes back here
    const QtXcb xcb = QtXcb::get();
    if (!xcb.connection) {
        m_repairDue = false;
        return;
    }
    const std::uint32_t now = serverTimeNow() - marginMs;
    // A point after the bad time and before now on the 2^32 circle.
    const std::uint32_t distance = m_badTime - now;
    const std::uint32_t halfway = m_badTime + (0x80000000u - distance / 2);
    const xcb_atom_t atom = internAtom(xcb.connection, "_ORVANE_CLOCK");
    const auto window = xcb_window_t(m_clockWindow.winId());
    sendPropertyNote(xcb.connection, window, atom, halfway);
    sendPropertyNote(xcb.connection, window, atom, now);
    xcb_flush(xcb.connection);
    m_repairDue = false;
}
