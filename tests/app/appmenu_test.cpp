// SPDX-License-Identifier: MIT
#include "app/appdelegate.h"
#include "menutitles.h"
#include "support/testenv.h"

#include <QMenu>
#include <gtest/gtest.h>

namespace {

QMenu* submenu(const QMenu* menu, const QString& title) {
    for (const QAction* action : menu->actions())
        if (action->text() == title)
            return action->menu();
    return nullptr;
}

QStringList checked(const QMenu* menu) {
    QStringList out;
    for (const QAction* action : menu->actions())
        if (action->isChecked())
            out.append(action->text());
    return out;
}

// The menu as the user sees it, for the given environment and stored settings.
struct MenuUnderTest {
    explicit MenuUnderTest(QHash<QString, QString> environment) {
        // An unreachable server: the menu does not depend on the catalog.
        settings = TestEnv::installConfig(std::move(environment));
    }
    std::unique_ptr<QMenu> build() {
        app = std::make_unique<AppDelegate>(CommandLine{});
        app->start();
        auto menu = std::make_unique<QMenu>();
        app->buildMenu(menu.get());
        return menu;
    }
    std::shared_ptr<SettingsStore> settings;
    std::unique_ptr<AppDelegate> app;
};

} // namespace

TEST(AppMenu, DebugItemsOnlyWithShowDebug) {
    MenuUnderTest plain({{QStringLiteral("MEME_SERVER"), QStringLiteral("http://127.0.0.1:9")}});
    auto menu = plain.build();
    EXPECT_EQ(titles(menu.get()),
              (QStringList{"Hotkey", "Launch at login", "Image cache limit", "Reset picker size",
                           "Clear recent and most used…", "Quit"}));

    MenuUnderTest debug({{QStringLiteral("MEME_SERVER"), QStringLiteral("http://127.0.0.1:9")},
                         {QStringLiteral("MEME_DEBUG"), QStringLiteral("1")}});
    menu = debug.build();
    QMenu* debugMenu = submenu(menu.get(), QStringLiteral("Debug / A-B tests"));
    ASSERT_NE(debugMenu, nullptr);
    EXPECT_EQ(checked(submenu(debugMenu, QStringLiteral("Clipboard restore delay"))),
              QStringList{"600 ms"});
    EXPECT_EQ(checked(submenu(debugMenu, QStringLiteral("Drag payload"))),
              QStringList{"B: file URL + PNG"});
}

TEST(AppMenu, CacheLimitChecksTheStoredChoiceOnly) {
    MenuUnderTest m({{QStringLiteral("MEME_SERVER"), QStringLiteral("http://127.0.0.1:9")}});
    auto menu = m.build();
    EXPECT_EQ(checked(submenu(menu.get(), QStringLiteral("Image cache limit"))),
              QStringList{"500 MB"});
    m.settings->set(QStringLiteral("cacheMB"), 800);
    menu = std::make_unique<QMenu>();
    m.app->buildMenu(menu.get());
    EXPECT_TRUE(checked(submenu(menu.get(), QStringLiteral("Image cache limit"))).isEmpty());

    // Choosing writes the setting.
    submenu(menu.get(), QStringLiteral("Image cache limit"))->actions().at(2)->trigger();
    EXPECT_EQ(DebugFlags::cacheMB(), 2000);
}

TEST(AppMenu, HotkeyMenuMarksACustomShortcut) {
    MenuUnderTest m({{QStringLiteral("MEME_SERVER"), QStringLiteral("http://127.0.0.1:9")}});
    m.settings->set(QStringLiteral("hotKeyCode"), 0x0E);
    m.settings->set(QStringLiteral("hotKeyMods"), 0x1000 | 0x200);
    m.settings->set(QStringLiteral("hotKeyLabel"), "Ctrl+Shift+E");
    auto menu = m.build();
    QMenu* hotkey = submenu(menu.get(), QStringLiteral("Hotkey"));
    ASSERT_NE(hotkey, nullptr);
    EXPECT_EQ(checked(hotkey), QStringList{"Ctrl+Shift+E  (custom)"});
    EXPECT_TRUE(titles(hotkey).contains(QStringLiteral("Record custom shortcut…")));
}
