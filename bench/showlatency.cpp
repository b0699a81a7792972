// SPDX-License-Identifier: MIT
// Measures how long the picker takes to appear after its shortcut: synthesises Ctrl+M with
// XTEST and times until the panel window is mapped, hides it again, and repeats.
//   orvane-show-latency --window ID [--runs 20]
// ID is the panel's X window (e.g. `xdotool search --name '^Orvane$'` after opening it once).
#include <X11/keysym.h>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>
#include <xcb/xcb.h>
#include <xcb/xcb_keysyms.h>
#include <xcb/xtest.h>

namespace {

using Clock = std::chrono::steady_clock;

xcb_keycode_t keycodeOf(xcb_key_symbols_t* symbols, xcb_keysym_t keysym) {
    xcb_keycode_t* codes = xcb_key_symbols_get_keycode(symbols, keysym);
    const xcb_keycode_t code = codes ? codes[0] : 0;
    free(codes);
    return code;
}

void pressCtrlM(xcb_connection_t* c, xcb_keycode_t ctrl, xcb_keycode_t m) {
    for (const auto& [type, key] : {std::pair{XCB_KEY_PRESS, ctrl},
                                    {XCB_KEY_PRESS, m},
                                    {XCB_KEY_RELEASE, m},
                                    {XCB_KEY_RELEASE, ctrl}})
        xcb_test_fake_input(c, std::uint8_t(type), key, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
    xcb_flush(c);
}

// Waits for a map (or unmap) of `window`; false after `timeoutMs`.
bool waitFor(xcb_connection_t* c, xcb_window_t window, std::uint8_t type, int timeoutMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (Clock::now() < deadline) {
        while (xcb_generic_event_t* event = xcb_poll_for_event(c)) {
            const std::uint8_t t = event->response_type & ~0x80;
            const bool hit =
                t == type &&
                (t == XCB_MAP_NOTIFY
                     ? reinterpret_cast<xcb_map_notify_event_t*>(event)->window
                     : reinterpret_cast<xcb_unmap_notify_event_t*>(event)->window) == window;
            free(event);
            if (hit)
                return true;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return false;
}

} // namespace

int main(int argc, char** argv) {
    xcb_window_t window = 0;
    int runs = 20;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (!std::strcmp(argv[i], "--window"))
            window = xcb_window_t(std::strtoul(argv[i + 1], nullptr, 0));
        else if (!std::strcmp(argv[i], "--runs"))
            runs = std::atoi(argv[i + 1]);
    }
    if (!window || runs < 1) {
        std::fprintf(stderr, "usage: orvane-show-latency --window ID [--runs N]\n");
        return 2;
    }
    xcb_connection_t* c = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(c)) {
        std::fprintf(stderr, "orvane-show-latency: cannot open the display\n");
        return 1;
    }
    const std::uint32_t mask = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(c, window, XCB_CW_EVENT_MASK, &mask);
    xcb_key_symbols_t* symbols = xcb_key_symbols_alloc(c);
    const xcb_keycode_t ctrl = keycodeOf(symbols, XK_Control_L);
    const xcb_keycode_t m = keycodeOf(symbols, XK_m);
    xcb_flush(c);

    std::vector<double> ms;
    for (int run = 0; run < runs; ++run) {
        const auto start = Clock::now();
        pressCtrlM(c, ctrl, m);
        if (!waitFor(c, window, XCB_MAP_NOTIFY, 5000)) {
            std::fprintf(stderr, "orvane-show-latency: the panel did not appear (run %d)\n",
                         run + 1);
            return 1;
        }
        ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        pressCtrlM(c, ctrl, m); // the shortcut toggles: hide again
        waitFor(c, window, XCB_UNMAP_NOTIFY, 5000);
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
    }
    std::sort(ms.begin(), ms.end());
    std::printf("show-latency: hotkey -> panel mapped over %d runs: median %.2f ms, p90 %.2f ms, "
                "min %.2f ms, max %.2f ms\n",
                runs, ms[ms.size() / 2], ms[std::min(ms.size() - 1, ms.size() * 9 / 10)],
                ms.front(), ms.back());
    xcb_key_symbols_free(symbols);
    xcb_disconnect(c);
    return 0;
}
