// SPDX-License-Identifier: MIT
#include "support/testenv.h"
#include "telemetry/deviceid.h"

#include <QRegularExpression>
#include <gtest/gtest.h>

TEST(DeviceID, HashesTheSerialOrKeepsAStoredFallbackAcrossRuns) {
    const QString path = TestEnv::freshDir() + QStringLiteral("/settings.json");
    QString fallback;
    {
        SettingsStore store(path);
        EXPECT_EQ(DeviceID::compute(QStringLiteral("ABC123"), store),
                  QStringLiteral("28ddba7d8f77fd0c473d481d6dccb538"));
        EXPECT_FALSE(store.contains(QStringLiteral("deviceIDFallback")));
        fallback = DeviceID::compute(std::nullopt, store);
        EXPECT_EQ(DeviceID::compute(QString(), store), fallback);
    }
    SettingsStore restarted(path);
    EXPECT_EQ(DeviceID::compute(std::nullopt, restarted), fallback);
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^[0-9a-f]{32}$")).match(fallback).hasMatch());
}
