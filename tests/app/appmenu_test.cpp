// SPDX-License-Identifier: MIT
#include "menutitles.h"
#include "support/appondesktop.h"

#include <QAbstractButton>
#include <QMessageBox>

namespace {

// The menu as the user opens it; it does not depend on the catalog.
class AppMenu : public AppOnTheDesktop {
protected:
    void start(QHash<QString, QString> environment = {}) {
        app.reset();
        environment.insert(QStringLiteral("MEME_SERVER"), QStringLiteral("http://127.0.0.1:9"));
        settings = TestEnv::installConfig(std::move(environment));
        startApp();
    }
    std::unique_ptr<QMenu> open() {
        auto menu = std::make_unique<QMenu>();
        app->buildMenu(menu.get());
        return menu;
    }
};

const QStringList endItems{"Reset picker size", "Clear recent and most used…", "About Orvane",
                           "Quit"};

} // namespace

TEST_F(AppMenu, ReadsTopToBottomWithAndWithoutTheDebugSwitch) {
    start();
    auto menu = open();
    EXPECT_EQ(titles(menu.get()),
              QStringList({"Import collection…", "My images…", "Hotkey", "Launch at login",
                           "Share anonymous usage (query → pick)", "Delete my data on our server…",
                           "Image cache limit"}) +
                  endItems);
    // Sharing is off until the user turns it on, and the choice is kept.
    QAction* share = item(menu.get(), QStringLiteral("Share anonymous usage (query → pick)"));
    ASSERT_NE(share, nullptr);
    EXPECT_FALSE(share->isChecked());
    share->trigger();
    EXPECT_TRUE(DebugFlags::settings().boolean(QStringLiteral("shareUsage")));

    start({{QStringLiteral("MEME_DEBUG"), QStringLiteral("1")}});
    menu = open();
    EXPECT_EQ(
        titles(menu.get()),
        QStringList({"Import collection…", "My images…", "Hotkey", "Launch at login",
                     "Share anonymous usage (query → pick)", "Delete my data on our server…",
                     "Cloud search: not configured", "Image cache limit", "Debug / A-B tests"}) +
            endItems);
    // An information line, not something to click.
    const QAction* cloud = item(menu.get(), QStringLiteral("Cloud search: not configured"));
    ASSERT_NE(cloud, nullptr);
    EXPECT_FALSE(cloud->isEnabled());
    QMenu* debug = submenu(menu.get(), QStringLiteral("Debug / A-B tests"));
    ASSERT_NE(debug, nullptr);
    EXPECT_EQ(
        titles(debug),
        (QStringList{"10,000-item stress index", "Activating panel (A/B)", "Drag payload",
                     "Paste payload", "Clipboard restore delay", "Semantic (hybrid) cloud search",
                     "Open metrics log", "Clear image cache"}));
    EXPECT_EQ(checked(submenu(debug, QStringLiteral("Clipboard restore delay"))),
              QStringList{"600 ms"});
    EXPECT_EQ(
        titles(submenu(debug, QStringLiteral("Drag payload"))),
        (QStringList{"A: file URL only", "B: file URL + PNG", "JPEG only (smallest, fastest)"}));
    EXPECT_EQ(checked(submenu(debug, QStringLiteral("Drag payload"))),
              QStringList{"B: file URL + PNG"});

    settings->set(QStringLiteral("searchURL"), "https://search.example.org/v1");
    EXPECT_EQ(titles(open().get()).at(6),
              QStringLiteral("Cloud search: https://search.example.org/v1"));
}

TEST_F(AppMenu, SubmenusTickTheStoredChoiceAndWriteTheChosenOne) {
    start();
    auto menu = open();
    QMenu* cache = submenu(menu.get(), QStringLiteral("Image cache limit"));
    EXPECT_EQ(titles(cache), (QStringList{"100 MB", "500 MB", "2000 MB"}));
    EXPECT_EQ(checked(cache), QStringList{"500 MB"});

    // A stored size that is no choice ticks none; a recorded shortcut is marked as custom.
    settings->set(QStringLiteral("cacheMB"), 800);
    settings->set(QStringLiteral("hotKeyCode"), 0x0E);
    settings->set(QStringLiteral("hotKeyMods"), 0x1000 | 0x200);
    settings->set(QStringLiteral("hotKeyLabel"), "Ctrl+Shift+E");
    menu = open();
    cache = submenu(menu.get(), QStringLiteral("Image cache limit"));
    EXPECT_TRUE(checked(cache).isEmpty());
    QMenu* hotkey = submenu(menu.get(), QStringLiteral("Hotkey"));
    EXPECT_EQ(titles(hotkey),
              (QStringList{"Ctrl+M", "Ctrl+Alt+M", "Ctrl+Shift+Space", "Ctrl+Alt+Space",
                           "Ctrl+Shift+E  (custom)", "Record custom shortcut…"}));
    EXPECT_EQ(checked(hotkey), QStringList{"Ctrl+Shift+E  (custom)"});

    ASSERT_NE(cache, nullptr);
    item(cache, QStringLiteral("2000 MB"))->trigger();
    EXPECT_EQ(settings->integer(QStringLiteral("cacheMB")), 2000);
}

TEST_F(AppMenu, AboutShowsTheVersionAboveTheOpenPanel) {
    start();
    panel().show();
    auto menu = open();
    QAction* about = item(menu.get(), QStringLiteral("About Orvane"));
    ASSERT_NE(about, nullptr);
    about->trigger();
    QMessageBox* box = nullptr;
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
            return box && box->isVisible();
        },
        5000));
    EXPECT_EQ(box->text(), QStringLiteral("Orvane 0.1.0"));
    EXPECT_EQ(box->parentWidget(), panel().panel());
    QStringList buttons;
    for (const QAbstractButton* button : box->buttons())
        buttons.append(button->text().remove(QLatin1Char('&')));
    EXPECT_EQ(buttons, QStringList{"OK"});
    box->close();
}
