// SPDX-License-Identifier: MIT
#include "platform/keycodes.h"
#include "platform/platformbackend.h"
#include "platform/x11/x11globalhotkey.h"
#include "support/desktop.h"
#include "support/rivalgrab.h"

#include <QDeadlineTimer>
#include <QSignalSpy>
#include <QTest>
#include <X11/keysym.h>
#include <xcb/xcb.h>
#include <xcb/xcb_keysyms.h>

namespace {

using Desktop::key;

const HotKeyCombo ctrlM{0x2E, HotKeyCombo::controlMask, QStringLiteral("Ctrl+M")};
const HotKeyCombo ctrlAltK{0x28, HotKeyCombo::controlMask | HotKeyCombo::altMask,
                           QStringLiteral("Ctrl+Alt+K")};

// The keycode that types `keysym` in the current layout, as a newly started program reads it.
xcb_keycode_t keycodeFor(xcb_keysym_t keysym) {
    xcb_connection_t* connection = xcb_connect(nullptr, nullptr);
    xcb_key_symbols_t* symbols = xcb_key_symbols_alloc(connection);
    xcb_keycode_t* codes = xcb_key_symbols_get_keycode(symbols, keysym);
    const xcb_keycode_t code = codes ? codes[0] : xcb_keycode_t(0);
    free(codes);
    xcb_key_symbols_free(symbols);
    xcb_disconnect(connection);
    return code;
}

// Whether another client may grab this key: it may not while we hold it.
bool othersCanGrab(xcb_keycode_t code, std::uint16_t modifiers) {
    xcb_connection_t* connection = xcb_connect(nullptr, nullptr);
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
    xcb_generic_error_t* error = xcb_request_check(
        connection, xcb_grab_key_checked(connection, 1, root, modifiers, code, XCB_GRAB_MODE_ASYNC,
                                         XCB_GRAB_MODE_ASYNC));
    free(error);
    xcb_disconnect(connection); // releases the grab
    return error == nullptr;
}

bool setLayout(const char* layout) {
    return XvfbSession::run(QStringLiteral("setxkbmap"), {QLatin1String(layout)});
}

// Puts the US layout back for the tests that follow, whatever happened.
struct UsLayoutAfterwards {
    ~UsLayoutAfterwards() { setLayout("us"); }
};

// Presses until the hotkey fires: the regrab follows the layout change by an event round,
// and a press before it goes to the focused window instead.
bool pressUntilDelivered(const char* keys, QSignalSpy& pressed) {
    const QDeadlineTimer deadline(5000);
    while (!deadline.hasExpired()) {
        if (!key(keys))
            return false;
        if (pressed.wait(250))
            return true;
    }
    return false;
}

} // namespace

TEST(X11GlobalHotkey, PressIsDeliveredWhateverTheLockKeys) {
    GLIMMET_REQUIRE_DESKTOP();
    EXPECT_EQ(PlatformBackend::name(), QStringLiteral("x11"));
    auto hotkey = PlatformBackend::createGlobalHotkey();
    ASSERT_TRUE(hotkey->canRegister());
    ASSERT_TRUE(hotkey->registerCombo(ctrlM));
    QSignalSpy pressed(hotkey.get(), &GlobalHotkey::pressed);

    ASSERT_TRUE(key("ctrl+m"));
    ASSERT_TRUE(pressed.wait(5000));
    EXPECT_GT(pressed.first().first().toUInt(), 0u) << "the event time is kept";

    for (const char* lock : {"Num_Lock", "Caps_Lock"}) {
        pressed.clear();
        ASSERT_TRUE(key(lock));
        ASSERT_TRUE(key("ctrl+m"));
        EXPECT_TRUE(pressed.wait(5000)) << lock;
        ASSERT_TRUE(key(lock)); // back off
    }
}

// Letting go of the old shortcut on a change is checked where the app records a new one.
TEST(X11GlobalHotkey, ShiftIsPartOfTheShortcut) {
    GLIMMET_REQUIRE_DESKTOP();
    X11GlobalHotkey hotkey;
    ASSERT_TRUE(hotkey.registerCombo(ctrlAltK));
    QSignalSpy pressed(&hotkey, &GlobalHotkey::pressed);
    // X delivers in order: once the second press is here, the first one's would be too.
    ASSERT_TRUE(key("ctrl+alt+shift+k"));
    ASSERT_TRUE(key("ctrl+alt+k"));
    ASSERT_TRUE(pressed.wait(5000));
    QTest::qWait(0);
    EXPECT_EQ(pressed.count(), 1);
}

TEST(X11GlobalHotkey, ShortcutHeldByAnotherProgramIsRefusedAndTheOldOneStays) {
    GLIMMET_REQUIRE_DESKTOP();
    RivalGrab rival(XK_j, XCB_MOD_MASK_CONTROL | XCB_MOD_MASK_1);
    X11GlobalHotkey hotkey;
    ASSERT_TRUE(hotkey.registerCombo(ctrlM));
    QSignalSpy pressed(&hotkey, &GlobalHotkey::pressed);
    QTest::ignoreMessage(QtWarningMsg, "XGrabKey failed: 10 (hotkey already taken?)");
    EXPECT_FALSE(hotkey.registerCombo(
        {0x26, HotKeyCombo::controlMask | HotKeyCombo::altMask, QStringLiteral("Ctrl+Alt+J")}));
    EXPECT_EQ(hotkey.registered(), ctrlM);
    ASSERT_TRUE(key("ctrl+m"));
    EXPECT_TRUE(pressed.wait(5000)) << "the shortcut that worked was let go";
    // Nothing half-grabbed is left behind: the same key with other modifiers still works.
    EXPECT_TRUE(hotkey.registerCombo(
        {0x26, HotKeyCombo::controlMask | HotKeyCombo::superMask, QStringLiteral("Ctrl+Super+J")}));
}

TEST(X11GlobalHotkey, LayoutChangeMovesTheGrabToTheKeyThatNowTypesTheLetter) {
    GLIMMET_REQUIRE_DESKTOP();
    if (!XvfbSession::available(QStringLiteral("setxkbmap")))
        GTEST_SKIP() << "setxkbmap is not installed";
    UsLayoutAfterwards restore;
    ASSERT_TRUE(setLayout("us"));
    X11GlobalHotkey hotkey;
    ASSERT_TRUE(hotkey.registerCombo(ctrlM));
    QSignalSpy pressed(&hotkey, &GlobalHotkey::pressed);
    const xcb_keycode_t usM = keycodeFor(XK_m);

    // On AZERTY, M sits where QWERTY has the semicolon, and QWERTY's M key types a comma.
    ASSERT_TRUE(setLayout("fr"));
    const xcb_keycode_t frM = keycodeFor(XK_m);
    ASSERT_NE(frM, 0);
    ASSERT_NE(frM, usM) << "setxkbmap did not change the layout";
    EXPECT_TRUE(pressUntilDelivered("ctrl+m", pressed)) << "Ctrl+M is dead after the change";
    EXPECT_FALSE(othersCanGrab(frM, XCB_MOD_MASK_CONTROL)) << "the new M key is not held";
    EXPECT_TRUE(othersCanGrab(usM, XCB_MOD_MASK_CONTROL)) << "the old key is still held";

    // And back: the first layout's key works again.
    pressed.clear();
    ASSERT_TRUE(setLayout("us"));
    ASSERT_EQ(keycodeFor(XK_m), usM);
    EXPECT_TRUE(pressUntilDelivered("ctrl+m", pressed));
    EXPECT_TRUE(othersCanGrab(frM, XCB_MOD_MASK_CONTROL));
}

TEST(KeyCodes, LabelsUseLinuxModifierWordsInAFixedOrder) {
    using M = HotKeyCombo;
    EXPECT_EQ(KeyCodes::label(M::controlMask, 46), QStringLiteral("Ctrl+M"));
    EXPECT_EQ(KeyCodes::label(M::superMask | M::altMask | M::controlMask, 0x31),
              QStringLiteral("Ctrl+Alt+Super+Space"));
    EXPECT_EQ(KeyCodes::label(M::shiftMask | M::controlMask, 0x60),
              QStringLiteral("Ctrl+Shift+F5"));
    EXPECT_EQ(KeyCodes::label(M::controlMask, 0x33), QStringLiteral("Ctrl+Delete"));
    EXPECT_TRUE(KeyCodes::isFunctionKey(0x5A));  // F20
    EXPECT_FALSE(KeyCodes::isFunctionKey(0x7B)); // Left
    EXPECT_EQ(KeyCodes::byQtKey(Qt::Key_Backtab)->virtualCode, 0x30u);
}
