// SPDX-License-Identifier: MIT
#include "platform/keycodes.h"
#include "platform/platformbackend.h"
#include "platform/x11/x11globalhotkey.h"
#include "support/desktop.h"
#include "support/xvfbsession.h"

#include <QSignalSpy>
#include <QTest>
#include <X11/keysym.h>
#include <xcb/xcb.h>
#include <xcb/xcb_keysyms.h>

namespace {

bool press(const char* keys) {
    return XvfbSession::run(QStringLiteral("xdotool"),
                            {QStringLiteral("key"), QLatin1String(keys)});
}

const HotKeyCombo ctrlM = HotKeyCombo::defaultCombo();
const HotKeyCombo ctrlAltK{0x28, HotKeyCombo::controlMask | HotKeyCombo::altMask,
                           QStringLiteral("Ctrl+Alt+K")};

// Another X client holding a shortcut, as a rival program would.
class RivalGrab {
public:
    explicit RivalGrab(xcb_keysym_t keysym, std::uint16_t modifiers) {
        m_connection = xcb_connect(nullptr, nullptr);
        m_root = xcb_setup_roots_iterator(xcb_get_setup(m_connection)).data->root;
        xcb_key_symbols_t* symbols = xcb_key_symbols_alloc(m_connection);
        xcb_keycode_t* codes = xcb_key_symbols_get_keycode(symbols, keysym);
        xcb_grab_key(m_connection, 1, m_root, modifiers, codes[0], XCB_GRAB_MODE_ASYNC,
                     XCB_GRAB_MODE_ASYNC);
        free(codes);
        xcb_key_symbols_free(symbols);
        free(xcb_get_input_focus_reply(m_connection, xcb_get_input_focus(m_connection), nullptr));
    }
    ~RivalGrab() { xcb_disconnect(m_connection); }

private:
    xcb_connection_t* m_connection;
    xcb_window_t m_root;
};

} // namespace

TEST(X11GlobalHotkey, PressIsDeliveredWhateverTheLockKeys) {
    GLIMMET_REQUIRE_DESKTOP();
    EXPECT_EQ(PlatformBackend::name(), QStringLiteral("x11"));
    auto hotkey = PlatformBackend::createGlobalHotkey();
    ASSERT_TRUE(hotkey->canRegister());
    ASSERT_TRUE(hotkey->registerCombo(ctrlM));
    QSignalSpy pressed(hotkey.get(), &GlobalHotkey::pressed);

    ASSERT_TRUE(press("ctrl+m"));
    ASSERT_TRUE(pressed.wait(5000));
    EXPECT_GT(pressed.first().first().toUInt(), 0u) << "the event time is kept";

    for (const char* lock : {"Num_Lock", "Caps_Lock"}) {
        pressed.clear();
        ASSERT_TRUE(press(lock));
        ASSERT_TRUE(press("ctrl+m"));
        EXPECT_TRUE(pressed.wait(5000)) << lock;
        ASSERT_TRUE(press(lock)); // back off
    }
}

TEST(X11GlobalHotkey, ReRegisteringReleasesTheOldShortcut) {
    GLIMMET_REQUIRE_DESKTOP();
    X11GlobalHotkey hotkey;
    ASSERT_TRUE(hotkey.registerCombo(ctrlM));
    ASSERT_TRUE(hotkey.registerCombo(ctrlAltK));
    QSignalSpy pressed(&hotkey, &GlobalHotkey::pressed);
    // X delivers in order: once the new shortcut's press is here, the old one's would be too.
    ASSERT_TRUE(press("ctrl+m"));
    ASSERT_TRUE(press("ctrl+alt+k"));
    ASSERT_TRUE(pressed.wait(5000));
    QTest::qWait(0);
    EXPECT_EQ(pressed.count(), 1);
    // Shift is part of the shortcut: Ctrl+Alt+Shift+K is another one.
    ASSERT_TRUE(press("ctrl+alt+shift+k"));
    ASSERT_TRUE(press("ctrl+alt+k"));
    EXPECT_TRUE(QTest::qWaitFor([&] { return pressed.count() >= 2; }, 5000));
    EXPECT_EQ(pressed.count(), 2);
}

TEST(X11GlobalHotkey, ShortcutHeldByAnotherProgramIsRefused) {
    GLIMMET_REQUIRE_DESKTOP();
    RivalGrab rival(XK_j, XCB_MOD_MASK_CONTROL | XCB_MOD_MASK_1);
    X11GlobalHotkey hotkey;
    QTest::ignoreMessage(QtWarningMsg, "XGrabKey failed: 10 (hotkey already taken?)");
    EXPECT_FALSE(hotkey.registerCombo(
        {0x26, HotKeyCombo::controlMask | HotKeyCombo::altMask, QStringLiteral("Ctrl+Alt+J")}));
    // Nothing half-grabbed is left behind: the same key with other modifiers still works.
    EXPECT_TRUE(hotkey.registerCombo(
        {0x26, HotKeyCombo::controlMask | HotKeyCombo::superMask, QStringLiteral("Ctrl+Super+J")}));
}

TEST(KeyCodes, LabelsUseLinuxModifierWordsInAFixedOrder) {
    using M = HotKeyCombo;
    EXPECT_EQ(KeyCodes::label(M::controlMask, 46), QStringLiteral("Ctrl+M"));
    EXPECT_EQ(KeyCodes::label(M::superMask | M::altMask | M::controlMask, 0x31),
              QStringLiteral("Ctrl+Alt+Super+Space"));
    EXPECT_EQ(KeyCodes::label(M::shiftMask | M::controlMask, 0x60),
              QStringLiteral("Ctrl+Shift+F5"));
    EXPECT_TRUE(KeyCodes::isFunctionKey(0x5A));  // F20
    EXPECT_FALSE(KeyCodes::isFunctionKey(0x7B)); // Left
    EXPECT_EQ(KeyCodes::byQtKey(Qt::Key_Backtab)->virtualCode, 0x30u);
}
