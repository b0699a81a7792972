// SPDX-License-Identifier: MIT
#include "app/appdelegate.h"
#include "app/hotkeyrecorder.h"
#include "app/panelcontroller.h"
#include "search/pickermodel.h"
#include "support/catalogfixture.h"
#include "support/desktop.h"
#include "support/testenv.h"
#include "support/xvfbsession.h"
#include "ui/pickerpanel.h"

#include <QGuiApplication>
#include <QLabel>
#include <QLineEdit>
#include <QSignalSpy>
#include <QTest>
#include <QWindow>

namespace {

bool xdotool(const QStringList& args) {
    return XvfbSession::run(QStringLiteral("xdotool"), args);
}
bool key(const char* keys) {
    return xdotool({QStringLiteral("key"), QLatin1String(keys)});
}

// The resident app, started in-process against a real catalog server on a private display.
class PickerOnTheDesktop : public testing::Test {
protected:
    void SetUp() override {
        QString why;
        if (!desktopAvailable(&why))
            GTEST_SKIP() << why.toStdString();
        ASSERT_TRUE(server.serveAsConfigured(QStringLiteral(ORVANE_SERVER_BINARY), 12, 5, &why))
            << why.toStdString();
        app = std::make_unique<AppDelegate>(CommandLine{});
        app->start();
        ASSERT_TRUE(QTest::qWaitFor([&] { return app->pickerModel().hasIndex(); }, 15000));
    }
    void TearDown() override { app.reset(); }

    PickerPanel& panel() { return *app->panelController().panel(); }
    QString statusLine() { return panel().findChild<QLabel*>(QStringLiteral("status"))->text(); }
    bool panelHasKeyboard() {
        return QTest::qWaitFor([&] { return app->panelController().panelHasKeyboard(); }, 5000);
    }

    CatalogFixture server;
    std::unique_ptr<AppDelegate> app;
};

} // namespace

TEST_F(PickerOnTheDesktop, HotkeyOpensTypingSearchesTabSwitchesEscHides) {
    PickerModel& model = app->pickerModel();
    ASSERT_TRUE(key("ctrl+m"));
    ASSERT_TRUE(panelHasKeyboard());

    ASSERT_TRUE(xdotool({QStringLiteral("type"), QStringLiteral("--delay"), QStringLiteral("30"),
                         QStringLiteral("cat")}));
    ASSERT_TRUE(QTest::qWaitFor([&] { return model.query() == QLatin1String("cat"); }, 5000));
    EXPECT_EQ(model.results().size(), 12);
    EXPECT_TRUE(model.results().first().description.startsWith(QLatin1String("a cat")));
    EXPECT_EQ(statusLine(), QStringLiteral("12 results · ↵ paste · drag to insert · Ctrl+D "
                                           "favorite · Ctrl+E caption · esc close"));

    ASSERT_TRUE(key("Tab"));
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return model.tab() == PickerModel::Tab::collections; }, 5000));
    ASSERT_TRUE(key("Tab"));
    EXPECT_TRUE(QTest::qWaitFor([&] { return model.tab() == PickerModel::Tab::recent; }, 5000));
    ASSERT_TRUE(key("shift+Tab"));
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return model.tab() == PickerModel::Tab::collections; }, 5000));

    ASSERT_TRUE(key("shift+Tab"));
    EXPECT_TRUE(QTest::qWaitFor([&] { return model.tab() == PickerModel::Tab::memes; }, 5000));

    ASSERT_TRUE(key("Escape"));
    EXPECT_TRUE(QTest::qWaitFor([&] { return !panel().isVisible(); }, 5000));
    // The hotkey brings it back, with the keyboard: typing replaces the selected query.
    ASSERT_TRUE(key("ctrl+m"));
    ASSERT_TRUE(panelHasKeyboard());
    ASSERT_TRUE(xdotool({QStringLiteral("type"), QStringLiteral("dog")}));
    EXPECT_TRUE(QTest::qWaitFor([&] { return model.query() == QLatin1String("dog"); }, 5000))
        << model.query().toStdString();
    EXPECT_EQ(model.results().size(), 5);
}

TEST_F(PickerOnTheDesktop, RecordedShortcutReplacesTheOldOne) {
    QSignalSpy shown(&app->panelController(), &PanelController::shown);
    app->recordHotKey();
    HotKeyRecorder& recorder = app->hotKeyRecorder();
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return recorder.panel() && recorder.panel()->isActiveWindow(); }, 5000));
    ASSERT_TRUE(key("ctrl+alt+k"));
    const HotKeyCombo expected{0x28, 0x1000 | 0x800, QStringLiteral("Ctrl+Alt+K")};
    ASSERT_TRUE(QTest::qWaitFor([&] { return app->registeredHotKey() == expected; }, 5000));
    EXPECT_EQ(DebugFlags::hotKey(), expected);

    // X delivers in order: once the new shortcut has opened the panel, the old one's press
    // would have been seen before it.
    ASSERT_TRUE(key("ctrl+m"));
    ASSERT_TRUE(key("ctrl+alt+k"));
    ASSERT_TRUE(shown.wait(5000));
    QTest::qWait(0);
    EXPECT_EQ(shown.count(), 1);
    EXPECT_TRUE(panel().isVisible());
}
