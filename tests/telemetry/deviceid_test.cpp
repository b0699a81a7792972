// SPDX-License-Identifier: MIT
#include "telemetry/deviceid.h"
#include "support/testenv.h"

#include <QRegularExpression>
#include <gtest/gtest.h>

TEST(DeviceID, HashesTheMachineSerialWithThePrefix) {
    SettingsStore store(TestEnv::freshDir() + QStringLiteral("/settings.json"));
    EXPECT_EQ(DeviceID::compute(QStringLiteral("ABC123"), store),
              QStringLiteral("28ddba7d8f77fd0c473d481d6dccb538"));
    EXPECT_FALSE(store.contains(QStringLiteral("deviceIDFallback")));
}

TEST(DeviceID, WithoutSerialAStoredFallbackIsKeptAcrossRuns) {
    const QString path = TestEnv::freshDir() + QStringLiteral("/settings.json");
    QString first;
    {
        SettingsStore store(path);
        first = DeviceID::compute(std::nullopt, store);
        EXPECT_EQ(DeviceID::compute(QString(), store), first);
    }
    SettingsStore restarted(path);
    EXPECT_EQ(DeviceID::compute(std::nullopt, restarted), first);
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^[0-9a-f]{32}$")).match(first).hasMatch());
}
