// SPDX-License-Identifier: MIT
#pragma once

#include "platform/eventguard.h"

#include <QAbstractNativeEventFilter>
#include <QElapsedTimer>
#include <QWindow>
#include <cstdint>

// Keeps Qt's idea of the X server time honest. Qt adopts the timestamp of every selection
// request it receives, and some programs send nonsense there (pcmanfm asks for a drag's data
// with the wall clock in seconds, weeks ahead of the server's millisecond clock). From then on
// each clipboard write carries a time "in the future", the X server ignores it, and every paste
// fails until the app restarts.
//
// The request itself must reach Qt untouched: Qt answers a drag's data requests only when their
// time matches the one it last sent, which after the first such request is the bad one. So once
// no drag of ours runs, Qt's clock is walked back to the server's through two
// property notes sent to a window of our own: Qt only ever moves its clock forward, modulo 2^32,
// and a time halfway round the circle is "after" the bad one and "before" the real one.
class X11SelectionTimeGuard : public EventGuard, public QAbstractNativeEventFilter {
public:
    // Installs itself on the application; removed again when destroyed.
    X11SelectionTimeGuard();
    ~X11SelectionTimeGuard() override;
    X11SelectionTimeGuard(const X11SelectionTimeGuard&) = delete;
    X11SelectionTimeGuard& operator=(const X11SelectionTimeGuard&) = delete;

    void setDragRunning(bool running) override;
    bool nativeEventFilter(const QByteArray& eventType, void* message, qintptr* result) override;

private:
    std::uint32_t serverTimeNow() const;
    void repairSoon(int delayMs);
    void repair();

    std::uint32_t m_serverTime = 0;
    QElapsedTimer m_sinceServerTime;
    // The furthest bad time Qt has taken on, while a repair is due.
    std::uint32_t m_badTime = 0;
    bool m_repairDue = false;
    bool m_dragRunning = false;
    int m_logged = 0;
    // Receives the property notes that walk Qt's clock back; never shown.
    QWindow m_clockWindow;
};
