// SPDX-License-Identifier: MIT
#include "catalog/debugflags.h"
#include "support/testenv.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <gtest/gtest.h>

using Env = QHash<QString, QString>;

TEST(DebugFlags, EndpointsFollowEnvironmentThenBuildKeysThenDefault) {
    TestEnv::installConfig();
    EXPECT_EQ(DebugFlags::apiURL(), DebugFlags::serverURL());
    EXPECT_FALSE(DebugFlags::hasCloudAPI());
    EXPECT_FALSE(DebugFlags::appKey());

    TestEnv::installConfig(Env{{"MEME_SERVER", "http://cdn.test:9000/base"}});
    EXPECT_EQ(DebugFlags::apiURL().toString(), QStringLiteral("http://cdn.test:9000/base"));
    EXPECT_FALSE(DebugFlags::hasCloudAPI());

    const Env info{{"MemeCDNBase", "http://info.test"},
                   {"MemeAPIBase", "http://api.info.test"},
                   {"MemeAppKey", "k1"}};
    TestEnv::installConfig({}, info);
    EXPECT_EQ(DebugFlags::serverURL().host(), QStringLiteral("info.test"));
    EXPECT_EQ(DebugFlags::apiURL().host(), QStringLiteral("api.info.test"));
    EXPECT_TRUE(DebugFlags::hasCloudAPI());
    EXPECT_EQ(DebugFlags::appKey(), QStringLiteral("k1"));

    // An empty variable still overrides the build key.
    TestEnv::installConfig(Env{{"MEME_APP_KEY", ""}, {"MEME_API", "http://e.test"}}, info);
    EXPECT_EQ(DebugFlags::appKey(), QString());
    EXPECT_EQ(DebugFlags::apiURL().host(), QStringLiteral("e.test"));
}

TEST(DebugFlags, ShowDebugNeedsExactlyOne) {
    TestEnv::installConfig(Env{{"MEME_DEBUG", "true"}});
    EXPECT_FALSE(DebugFlags::showDebug());
    TestEnv::installConfig(Env{{"MEME_DEBUG", "true"}}, Env{{"MemeDebug", "1"}});
    EXPECT_TRUE(DebugFlags::showDebug());
}

TEST(DebugFlagsDeathTest, MalformedSettingsAreFatalAndNameTheSource) {
    EXPECT_EXIT(
        {
            TestEnv::installConfig(Env{{"MEME_SERVER", ""}});
            DebugFlags::serverURL();
        },
        testing::ExitedWithCode(2), "MEME_SERVER is not a valid URL: \"\"");
    EXPECT_EXIT(
        {
            TestEnv::installConfig({}, Env{{"MemeAPIBase", "http://exa mple"}});
            DebugFlags::apiURL();
        },
        testing::ExitedWithCode(2), "MemeAPIBase is not a valid URL");
    EXPECT_EXIT(
        {
            auto store = TestEnv::installConfig();
            store->set(QStringLiteral("hotKeyCode"), 46);
            store->set(QStringLiteral("hotKeyMods"), -1);
            store->set(QStringLiteral("hotKeyLabel"), "x");
            DebugFlags::hotKey();
        },
        testing::ExitedWithCode(2), "hotKeyMods is out of range: -1");
}

// A value of the wrong type or out of the choices reads as if unset.
TEST(DebugFlags, MistypedSettingsReadAsTheirDefaults) {
    auto store = TestEnv::installConfig();
    store->set(QStringLiteral("cacheMB"), "800");
    store->set(QStringLiteral("restoreDelayMs"), 1.5);
    store->set(QStringLiteral("dragPayload"), "z");
    store->set(QStringLiteral("pastePayload"), "tiffOnly");
    store->set(QStringLiteral("hotKeyCode"), 49);
    EXPECT_EQ(DebugFlags::cacheMB(), 500);
    EXPECT_EQ(DebugFlags::restoreDelayMs(), 600);
    EXPECT_EQ(DebugFlags::dragPayload(), DragPayload::b);
    EXPECT_FALSE(DebugFlags::pastePayload());
    EXPECT_EQ(DebugFlags::hotKey(), HotKeyCombo::defaultCombo()) << "code without label";
}

TEST(DebugFlags, WritesAndTheInstallIDKeepTheirTypesAcrossARestartAndAnnounceThemselves) {
    const QString path = TestEnv::freshDir() + QStringLiteral("/settings.json");
    TestEnv::installConfig({}, {}, path);
    const QString installID = DebugFlags::installID();
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-"
                                                  "[0-9a-f]{4}-[0-9a-f]{12}$"))
                    .match(installID)
                    .hasMatch())
        << installID.toStdString();
    QSignalSpy changes(DebugFlags::notifier(), &DebugFlagsNotifier::didChange);

    const HotKeyCombo combo{0x31, HotKeyCombo::controlMask | HotKeyCombo::altMask,
                            QStringLiteral("Ctrl+Alt+Space")};
    DebugFlags::setHotKey(combo);
    DebugFlags::setCacheMB(2000);
    DebugFlags::setPastePayload(PastePayload::jpegOnly);
    DebugFlags::setDragPayload(DragPayload::a);
    DebugFlags::setValue(QStringLiteral("note"), "800");
    EXPECT_EQ(changes.count(), 5) << "one notification per write";

    auto reopened = TestEnv::installConfig({}, {}, path);
    EXPECT_EQ(DebugFlags::installID(), installID);
    EXPECT_EQ(DebugFlags::hotKey(), combo);
    EXPECT_EQ(DebugFlags::cacheMB(), 2000);
    EXPECT_EQ(DebugFlags::pastePayload(), PastePayload::jpegOnly);
    EXPECT_EQ(DebugFlags::dragPayload(), DragPayload::a);
    EXPECT_TRUE(reopened->value(QStringLiteral("cacheMB"))->is_number_integer());
    EXPECT_EQ(reopened->string(QStringLiteral("note")), QStringLiteral("800"));
    EXPECT_FALSE(reopened->integer(QStringLiteral("note")));

    DebugFlags::removeValue(QStringLiteral("cacheMB"));
    EXPECT_EQ(DebugFlags::cacheMB(), 500);
}

TEST(SettingsStore, MalformedFileStartsEmptyAndIsReplacedOnWrite) {
    const QString path = TestEnv::freshDir() + QStringLiteral("/settings.json");
    TestEnv::writeFile(path, "{ not json");
    SettingsStore store(path);
    EXPECT_FALSE(store.contains(QStringLiteral("cacheMB")));
    EXPECT_EQ(TestEnv::readFile(path), QByteArray("{ not json")) << "left in place until a write";
    store.set(QStringLiteral("cacheMB"), 100);
    EXPECT_EQ(SettingsStore(path).integer(QStringLiteral("cacheMB")), 100);
}
