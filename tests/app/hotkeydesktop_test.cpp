// SPDX-License-Identifier: MIT
#include "app/hotkeyrecorder.h"
#include "menutitles.h"
#include "support/appondesktop.h"
#include "support/rivalgrab.h"
#include "userdata/userdata.h"

#include <QDir>
#include <QLabel>
#include <QMessageBox>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QSystemTrayIcon>
#include <QTimer>
#include <QToolButton>
#include <X11/keysym.h>

namespace {

using Desktop::click;
using Desktop::key;

// The window ids an X property lists, as xprop prints them.
QList<WId> windowsIn(const QStringList& xpropArgs) {
    QByteArray out;
    XvfbSession::run(QStringLiteral("xprop"), xpropArgs, &out);
    QList<WId> ids;
    const QString text = QString::fromUtf8(out);
    auto it =
        QRegularExpression(QStringLiteral("0x[0-9a-f]+")).globalMatch(text.mid(text.indexOf('#')));
    while (it.hasNext())
        ids.append(it.next().captured().toULongLong(nullptr, 16));
    return ids;
}

QString xprop(WId window, const char* property) {
    QByteArray out;
    XvfbSession::run(QStringLiteral("xprop"),
                     {QStringLiteral("-id"), QString::number(window), QLatin1String(property)},
                     &out);
    return QString::fromUtf8(out);
}

// Clicks ⋯ in the panel, then the items along `path` (submenus first). The menu runs an event
// loop of its own, so the returned timer clicks the items from inside it.
std::unique_ptr<QTimer> chooseInPanelMenu(QWidget* picker, QStringList path) {
    auto timer = std::make_unique<QTimer>();
    timer->setInterval(20);
    QObject::connect(timer.get(), &QTimer::timeout, [t = timer.get(), path]() mutable {
        auto* menu = qobject_cast<QMenu*>(QApplication::activePopupWidget());
        QAction* choice = menu && menu->isVisible() ? item(menu, path.first()) : nullptr;
        if (!choice || !click(menu->mapToGlobal(menu->actionGeometry(choice).center())))
            return;
        path.removeFirst();
        if (path.isEmpty())
            t->stop();
    });
    timer->start();
    for (QToolButton* button : picker->findChildren<QToolButton*>()) {
        if (button->text() == QStringLiteral("⋯")) {
            EXPECT_TRUE(click(button->mapToGlobal(button->rect().center())));
        }
    }
    return timer;
}

// The app without a tray: a tray host from an earlier test may still be going away.
class HotkeyOnTheDesktop : public AppOnTheDesktop {
protected:
    void SetUp() override {
        AppOnTheDesktop::SetUp();
        if (IsSkipped())
            return;
        ASSERT_TRUE(
            QTest::qWaitFor([] { return !QSystemTrayIcon::isSystemTrayAvailable(); }, 10000));
    }
};

const HotKeyCombo ctrlM{0x2E, 0x1000, QStringLiteral("Ctrl+M")};

} // namespace

TEST_F(HotkeyOnTheDesktop, TakenPresetKeepsTheWorkingShortcutAndIsNotStored) {
    RivalGrab rival(XK_m, XCB_MOD_MASK_CONTROL | XCB_MOD_MASK_1);
    startApp();
    panel().show();
    ASSERT_TRUE(panelHasKeyboard());

    QMenu menu;
    app->buildMenu(&menu);
    item(submenu(&menu, QStringLiteral("Hotkey")), QStringLiteral("Ctrl+Alt+M"))->trigger();
    EXPECT_TRUE(visibleToasts().contains(QStringLiteral(
        "Ctrl+Alt+M is already used by another program. Ctrl+M still opens the picker.")))
        << visibleToasts().join('|').toStdString();
    EXPECT_EQ(DebugFlags::hotKey(), ctrlM) << "the refused shortcut was stored";
    EXPECT_FALSE(TestEnv::readFile(settings->path()).contains("Ctrl+Alt+M")) << "stored on disk";
    QMenu again;
    app->buildMenu(&again);
    EXPECT_EQ(checked(submenu(&again, QStringLiteral("Hotkey"))), QStringList{"Ctrl+M"});

    // The old shortcut still opens the picker; over a window of our own, that window is not
    // remembered as the one to paste into.
    panel().hide();
    QWidget ours;
    ours.setWindowTitle(QStringLiteral("A window of ours"));
    ours.resize(200, 100);
    ours.show();
    ASSERT_TRUE(Desktop::xdotool({QStringLiteral("windowactivate"), QStringLiteral("--sync"),
                                  QString::number(ours.winId())}));
    QSignalSpy shown(&panel(), &PanelController::shown);
    ASSERT_TRUE(key("ctrl+m"));
    ASSERT_TRUE(shown.wait(5000));
    EXPECT_FALSE(panel().target().isValid())
        << "remembered our own window " << panel().target().window;
}

TEST_F(HotkeyOnTheDesktop, NoShortcutAndNoTraySaysHowToReachTheApp) {
    RivalGrab rival(XK_m, XCB_MOD_MASK_CONTROL);
    startApp();
    QMessageBox* box = nullptr;
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            for (QWidget* w : QApplication::topLevelWidgets())
                if (auto* b = qobject_cast<QMessageBox*>(w); b && b->isVisible())
                    box = b;
            return box != nullptr;
        },
        5000))
        << "nothing tells the user the app cannot be reached";
    EXPECT_EQ(box->text(), QStringLiteral("Ctrl+M is already used by another program, so no "
                                          "shortcut opens Orvane."));
    EXPECT_EQ(box->informativeText(), QStringLiteral("Run orvane again to open the picker, then "
                                                     "choose another shortcut under Hotkey in its "
                                                     "⋯ menu."));
    box->close();
}

TEST_F(HotkeyOnTheDesktop, RecorderTakesTheCurrentShortcutAndSaysWhyKeysAreRefused) {
    RivalGrab rival(XK_j, XCB_MOD_MASK_CONTROL | XCB_MOD_MASK_1);
    startApp();
    panel().show();
    ASSERT_TRUE(panelHasKeyboard());
    QSignalSpy shown(&panel(), &PanelController::shown);
    const auto chooser = chooseInPanelMenu(
        panel().panel(), {QStringLiteral("Hotkey"), QStringLiteral("Record custom shortcut…")});
    HotKeyRecorder& recorder = app->hotKeyRecorder();
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return recorder.panel() && recorder.panel()->isActiveWindow(); }, 5000));

    // A fixed-size dialog whose prompt shows as three whole lines.
    QWidget* window = recorder.panel();
    EXPECT_EQ(window->minimumSize(), window->maximumSize());
    const QString allowed = xprop(window->winId(), "_NET_WM_ALLOWED_ACTIONS");
    EXPECT_TRUE(allowed.contains(QLatin1String("_NET_WM_ACTION_CLOSE"))) << allowed.toStdString();
    EXPECT_FALSE(allowed.contains(QLatin1String("MAXIMIZE"))) << allowed.toStdString();
    // Openbox keeps minimising in its window menu, but draws only the buttons asked for.
    const QStringList motif = xprop(window->winId(), "_MOTIF_WM_HINTS").section('=', 1).split(',');
    ASSERT_GE(motif.size(), 3);
    EXPECT_EQ(motif[2].trimmed().toUInt(nullptr, 16) & (0x20 | 0x40), 0u)
        << "minimise or maximise button";
    const QString prompt = QStringLiteral("Press the shortcut you want.\nUse Ctrl, Alt or Super "
                                          "with a key (or an F-key).\nEsc cancels.");
    const QLabel* label = nullptr;
    for (const QLabel* l : window->findChildren<QLabel*>())
        if (l->text() == prompt)
            label = l;
    ASSERT_NE(label, nullptr);
    for (const QString& line : prompt.split('\n'))
        EXPECT_LE(label->fontMetrics().horizontalAdvance(line), label->contentsRect().width())
            << line.toStdString();

    const std::pair<const char*, QString> refusals[] = {
        {"Home", QStringLiteral("Home is not available for shortcuts.")},
        {"shift+k", QStringLiteral("Shift+K needs Ctrl, Alt or Super; only F-keys work alone.")},
        {"ctrl+KP_1", QStringLiteral("Keypad keys are not available for shortcuts.")},
        {"ctrl+alt+j",
         QStringLiteral("Ctrl+Alt+J is already used by another program. Try another.")},
    };
    for (const auto& [keys, why] : refusals) {
        ASSERT_TRUE(key(keys));
        EXPECT_TRUE(QTest::qWaitFor([&] { return recorder.message() == why; }, 5000))
            << keys << ": " << recorder.message().toStdString();
    }
    EXPECT_TRUE(recorder.isRecording());

    // The current shortcut is recorded, not taken by the picker, and works again afterwards.
    ASSERT_TRUE(key("ctrl+m"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !recorder.isRecording(); }, 5000));
    EXPECT_EQ(shown.count(), 0) << "the shortcut opened the picker while recording";
    EXPECT_EQ(app->registeredHotKey(), ctrlM);
    EXPECT_TRUE(visibleToasts().contains(QStringLiteral("Shortcut set to Ctrl+M.")))
        << visibleToasts().join('|').toStdString();
    panel().hide();
    ASSERT_TRUE(key("ctrl+m"));
    EXPECT_TRUE(shown.wait(5000));

    // A new shortcut recorded replaces the old one, and is stored. X delivers in order: once
    // the new shortcut has opened the panel, the old one's press would have been seen before.
    app->recordHotKey();
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return recorder.panel() && recorder.panel()->isActiveWindow(); }, 5000));
    ASSERT_TRUE(key("ctrl+alt+k"));
    const HotKeyCombo ctrlAltK{0x28, 0x1000 | 0x800, QStringLiteral("Ctrl+Alt+K")};
    ASSERT_TRUE(QTest::qWaitFor([&] { return app->registeredHotKey() == ctrlAltK; }, 5000));
    EXPECT_EQ(DebugFlags::hotKey(), ctrlAltK);
    panel().hide();
    shown.clear();
    ASSERT_TRUE(key("ctrl+m"));
    ASSERT_TRUE(key("ctrl+alt+k"));
    ASSERT_TRUE(shown.wait(5000));
    QTest::qWait(0);
    EXPECT_EQ(shown.count(), 1);
}

TEST_F(HotkeyOnTheDesktop, ClearHistoryFromThePanelAsksAboveItAndReturnKeepsHistory) {
    const QByteArray history =
        R"({"favorites":[],"recents":["cat-1"],"picks":{},"uses":{"cat-1":3}})";
    QDir().mkpath(QFileInfo(UserData::defaultPath()).path());
    TestEnv::writeFile(UserData::defaultPath(), history);
    startApp();
    panel().show();
    ASSERT_TRUE(panelHasKeyboard());

    PickerPanel* picker = panel().panel();
    // The dialog runs an event loop of its own: a timer looks at it from inside.
    WId transientFor = 0;
    QList<qsizetype> stacking; // of the dialog and the panel, bottom first
    bool answered = false;
    QTimer driver;
    driver.setInterval(20);
    QObject::connect(&driver, &QTimer::timeout, [&] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (answered || !box || !box->isActiveWindow())
            return;
        EXPECT_EQ(box->text(), QStringLiteral("Clear recent and most used?"));
        transientFor = windowsIn({QStringLiteral("-id"), QString::number(box->winId()),
                                  QStringLiteral("WM_TRANSIENT_FOR")})
                           .value(0);
        const QList<WId> order =
            windowsIn({QStringLiteral("-root"), QStringLiteral("_NET_CLIENT_LIST_STACKING")});
        stacking = {order.indexOf(box->winId()), order.indexOf(picker->winId())};
        answered = key("Return"); // the picker's paste key must not clear
    });
    driver.start();
    const auto chooser = chooseInPanelMenu(picker, {QStringLiteral("Clear recent and most used…")});
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return answered && QApplication::activeModalWidget() == nullptr; }, 10000))
        << "the dialog did not come up or did not close";
    driver.stop();
    // It belonged to the panel and the window manager stacked it above.
    EXPECT_EQ(transientFor, picker->winId());
    ASSERT_EQ(stacking.size(), 2);
    EXPECT_GE(stacking[1], 0);
    EXPECT_GT(stacking[0], stacking[1]);
    EXPECT_EQ(app->userData().recents(), QStringList{"cat-1"});
    EXPECT_FALSE(app->userData().hasPendingWrite());
    EXPECT_EQ(TestEnv::readFile(UserData::defaultPath()), history);
}
