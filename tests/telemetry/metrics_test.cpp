// SPDX-License-Identifier: MIT
#include "telemetry/metrics.h"
#include "support/testenv.h"

#include <QRegularExpression>
#include <gtest/gtest.h>
#include <set>
#include <thread>

TEST(Metrics, LinesFromManyThreadsStayWhole) {
    const QString path = TestEnv::freshDir() + QStringLiteral("/logs/spike.jsonl");
    Metrics metrics(path);
    constexpr int threads = 8, perThread = 200;
    // Long fields make a torn write likely if lines were not written whole.
    const std::string padding(2000, 'x');
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i)
                metrics.write(QStringLiteral("search"), {{"thread", t}, {"i", i}, {"pad", padding}});
        });
    for (auto& w : workers)
        w.join();
    metrics.flush();

    const QList<QByteArray> lines = TestEnv::readFile(path).split('\n');
    ASSERT_EQ(lines.size(), threads * perThread + 1);
    EXPECT_TRUE(lines.last().isEmpty()) << "every line ends with a line feed";
    std::set<std::pair<int, int>> seen;
    for (qsizetype n = 0; n + 1 < lines.size(); ++n) {
        const auto line = nlohmann::json::parse(lines[n].toStdString(), nullptr, false);
        ASSERT_TRUE(line.is_object()) << lines[n].left(80).toStdString();
        seen.insert({line["thread"].get<int>(), line["i"].get<int>()});
    }
    EXPECT_EQ(seen.size(), size_t(threads * perThread));
}

TEST(Metrics, SortedKeysWithEventAndTimeWinningOverFields) {
    const QString path = TestEnv::freshDir() + QStringLiteral("/spike.jsonl");
    Metrics metrics(path);
    metrics.write(QStringLiteral("download_wait"),
                  {{"ok", true}, {"id", "m1"}, {"ms", 12.3}, {"event", "fake"}, {"t", "fake"}});
    metrics.flush();
    const QByteArray first = TestEnv::readFile(path);
    EXPECT_TRUE(QRegularExpression(QStringLiteral(
                                       "^\\{\"event\":\"download_wait\",\"id\":\"m1\",\"ms\":12\\.3,"
                                       "\"ok\":true,\"t\":\"\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ\"\\}\n$"))
                    .match(QString::fromUtf8(first))
                    .hasMatch())
        << first.toStdString();

    metrics.write(QStringLiteral("search"), {{"compute_ms", Metrics::ms(0.00123456)}});
    metrics.flush();
    const QByteArray both = TestEnv::readFile(path);
    EXPECT_TRUE(both.startsWith(first)) << "later events append";
    EXPECT_TRUE(both.contains("\"compute_ms\":1.2,")) << both.toStdString();
}
