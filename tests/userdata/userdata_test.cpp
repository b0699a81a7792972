// SPDX-License-Identifier: MIT
#include "support/testenv.h"
#include "userdata/userdata.h"

#include <QProcess>
#include <QSignalSpy>
#include <csignal>
#include <gtest/gtest.h>

namespace {

QString freshFile() {
    return TestEnv::freshDir() + QStringLiteral("/userdata.json");
}

QStringList ids(std::initializer_list<const char*> list) {
    QStringList out;
    for (const char* s : list)
        out.append(QString::fromLatin1(s));
    return out;
}

void pickAll(UserData& data, std::initializer_list<const char*> list) {
    for (const char* id : list)
        data.recordPick(QString::fromLatin1(id), QString());
}

nlohmann::json fileJson(const QString& path) {
    return nlohmann::json::parse(TestEnv::readFile(path).toStdString(), nullptr, false);
}

// The next line the helper prints, or "" when it ends first.
QByteArray nextLine(QProcess& process) {
    while (!process.canReadLine())
        if (!process.waitForReadyRead(10000))
            return {};
    return process.readLine().trimmed();
}

} // namespace

TEST(UserData, RecentsAreUniqueAndCappedAndPicksCountPerNormalisedQuery) {
    UserData data(freshFile());
    pickAll(data, {"a", "b", "c", "d", "e", "f", "c"});
    EXPECT_EQ(data.recents(), ids({"c", "f", "e", "d", "b", "a"}));
    for (int i = 0; i < 31; ++i)
        data.recordPick(QStringLiteral("x%1").arg(i), QString());
    EXPECT_EQ(data.recents().size(), UserData::maxRecents);
    EXPECT_EQ(data.recents().first(), QStringLiteral("x30"));
    EXPECT_FALSE(data.recents().contains(QStringLiteral("x0")));
    EXPECT_EQ(data.uses().value(QStringLiteral("x0")), 1) << "uses outlive recents";

    for (const char* query : {"Cat!", "cat", "  CAT  ", "?!"})
        data.recordPick(QStringLiteral("m1"), QString::fromLatin1(query));
    EXPECT_EQ(data.pickCount(QStringLiteral("cat"), QStringLiteral("m1")), 3);
    EXPECT_EQ(data.picks().size(), 1) << "empty and punctuation-only queries record no pick";
    EXPECT_EQ(data.uses().value(QStringLiteral("m1")), 4);
    EXPECT_EQ(UserData::key(u"Café au LAIT"), QStringLiteral("cafe au lait"));
}

TEST(UserData, MostUsedOrdersByCountThenRecencyAndClearingKeepsFavourites) {
    UserData data(freshFile());
    pickAll(data, {"old", "old", "a", "a", "b", "b", "b", "once"});
    for (int i = 0; i < 30; ++i) // push "old" out of recents
        data.recordPick(QStringLiteral("f%1").arg(i), QString());
    pickAll(data, {"a", "a", "b", "c", "c", "c", "c"});
    // a 4, b 4, c 4, old 2: c and b are more recent than a.
    EXPECT_EQ(data.mostUsedIDs(2, 200), ids({"c", "b", "a", "old"}));
    EXPECT_EQ(data.mostUsedIDs(2, 2), ids({"c", "b"}));
    EXPECT_EQ(data.mostUsedIDs(1, 200).size(), 35);
    EXPECT_EQ(data.mostUsedIDs(1, 0), QStringList());

    EXPECT_TRUE(data.toggleFavorite(QStringLiteral("a")));
    EXPECT_TRUE(data.toggleFavorite(QStringLiteral("b")));
    EXPECT_FALSE(data.toggleFavorite(QStringLiteral("a")));
    EXPECT_TRUE(data.toggleFavorite(QStringLiteral("a")));
    EXPECT_EQ(data.favorites(), ids({"a", "b"})) << "newest first";
    data.recordPick(QStringLiteral("a"), QStringLiteral("cat"));
    data.clearHistory();
    EXPECT_TRUE(data.recents().isEmpty());
    EXPECT_TRUE(data.uses().isEmpty());
    EXPECT_TRUE(data.picks().isEmpty());
    EXPECT_EQ(data.favorites(), ids({"a", "b"}));
}

TEST(UserData, ABurstOfChangesIsOneWriteOfTheLastState) {
    UserData data(freshFile());
    QSignalSpy saved(&data, &UserData::saved);
    for (int i = 0; i < 20; ++i)
        data.recordPick(QStringLiteral("m%1").arg(i), QStringLiteral("dog"));
    data.toggleFavorite(QStringLiteral("m7"));
    EXPECT_TRUE(data.hasPendingWrite());
    EXPECT_FALSE(QFile::exists(data.path())) << "nothing is written during the burst";

    ASSERT_TRUE(saved.wait(5000));
    EXPECT_EQ(saved.count(), 1);
    EXPECT_TRUE(saved.first().first().toBool());
    EXPECT_FALSE(data.hasPendingWrite()) << "no second write is scheduled";

    UserData reloaded(data.path());
    EXPECT_EQ(reloaded.recents(), data.recents());
    EXPECT_EQ(reloaded.favorites(), ids({"m7"}));
    EXPECT_EQ(reloaded.pickCount(QStringLiteral("dog"), QStringLiteral("m19")), 1);
    EXPECT_EQ(reloaded.uses(), data.uses());

    // flush() writes a pending change at once; with nothing pending it writes nothing.
    data.toggleFavorite(QStringLiteral("m8"));
    data.flush();
    EXPECT_FALSE(data.hasPendingWrite());
    EXPECT_EQ(UserData(data.path()).favorites(), ids({"m8", "m7"}));
    EXPECT_EQ(saved.count(), 2);
    data.flush();
    EXPECT_EQ(saved.count(), 2);
}

TEST(UserData, DamagedFilesKeepEveryEntryThatDecodes) {
    const qint64 max = std::numeric_limits<qint64>::max();
    struct Case {
        const char* file;
        UserData::State expected;
    };
    const Case cases[] = {
        {R"({"favorites": [)", {}},
        {"[]", {}},
        {R"({"favorites":["a",1,"b"],"recents":"oops","picks":{"q":{"a":"x","b":2}},"uses":[]})",
         {ids({"a", "b"}), {}, {{"q", {{"b", 2}}}}, {{"b", 2}}}},
        {R"({"favorites":["f"],"recents":["a",null,"a","b"],"picks":[1],
             "uses":{"a":3,"b":-1,"c":1.5,"d":0,"e":"2"}})",
         {ids({"f"}), ids({"a", "b"}), {}, {{"a", 3}}}},
        {R"({"favorites":{"x":1},"recents":["r"],"picks":{"":{"a":1},"ok":{"a":1},"bad":5},
             "uses":{"a":7}})",
         {{}, ids({"r"}), {{"ok", {{"a", 1}}}}, {{"a", 7}}}},
        // Older files have no totals: they are the sums over the queries.
        {R"({"favorites":["f"],"recents":["a","b"],"picks":{"cat":{"a":2,"b":1},"dog":{"a":3}}})",
         {ids({"f"}),
          ids({"a", "b"}),
          {{"cat", {{"a", 2}, {"b", 1}}}, {"dog", {{"a", 3}}}},
          {{"a", 5}, {"b", 1}}}},
        // Counts past 64 bits saturate, and so do the sums that rebuild missing totals.
        {R"({"favorites":["f"],"recents":[],
             "picks":{"q":{"a":18446744073709551616,"b":18446744073709551615},"r":{"b":5}},
             "uses":{"a":99999999999999999999999999,"c":9223372036854775807,"d":1e400,"e":-1e999}})",
         {ids({"f"}),
          {},
          {{"q", {{"a", max}, {"b", max}}}, {"r", {{"b", 5}}}},
          {{"a", max}, {"b", max}, {"c", max}, {"d", max}}}},
    };
    for (const Case& c : cases) {
        const UserData::State got = UserData::decode(c.file);
        EXPECT_EQ(got.favorites, c.expected.favorites) << c.file;
        EXPECT_EQ(got.recents, c.expected.recents) << c.file;
        EXPECT_EQ(got.picks, c.expected.picks) << c.file;
        EXPECT_EQ(got.uses, c.expected.uses) << c.file;
    }

    // Through the file: left in place, then the next save keeps what decoded, and counts at
    // the maximum stay there.
    const QString path = freshFile();
    const QByteArray damaged = R"({"favorites":["f"],"recents":[],
        "picks":{"cat":{"a":9223372036854775807}},"uses":{"a":18446744073709551616,"b":"x"}})";
    TestEnv::writeFile(path, damaged);
    UserData data(path);
    EXPECT_EQ(TestEnv::readFile(path), damaged);
    data.recordPick(QStringLiteral("a"), QStringLiteral("Cat"));
    data.recordPick(QStringLiteral("a"), QStringLiteral("cat"));
    data.toggleFavorite(QStringLiteral("x"));
    data.flush();
    const auto written = fileJson(path);
    ASSERT_TRUE(written.is_object());
    EXPECT_EQ(written["favorites"], nlohmann::json({"x", "f"}));
    EXPECT_EQ(written["picks"], nlohmann::json({{"cat", {{"a", max}}}}));
    EXPECT_EQ(written["uses"], nlohmann::json({{"a", max}}));
}

TEST(UserData, UnwritableFolderKeepsDataInMemory) {
    UserData data(QStringLiteral("/proc/glimmet-denied/userdata.json"));
    QSignalSpy saved(&data, &UserData::saved);
    data.recordPick(QStringLiteral("a"), QStringLiteral("q"));
    ASSERT_TRUE(saved.wait(5000));
    EXPECT_FALSE(saved.first().first().toBool());
    EXPECT_EQ(data.recents(), ids({"a"}));
}

TEST(UserData, TermAndIntSaveAChangeMadeJustBefore) {
    for (const int signal : {SIGTERM, SIGINT}) {
        // A slow machine may let the debounced write happen first; such a try proves nothing.
        bool signalledBeforeTheWrite = false;
        for (int attempt = 0; attempt < 3 && !signalledBeforeTheWrite; ++attempt) {
            const QString path = freshFile();
            QProcess helper;
            helper.start(QStringLiteral(USERDATA_QUITHELPER),
                         {path, QStringLiteral("pick"), QStringLiteral("picked")});
            ASSERT_EQ(nextLine(helper), "recorded");
            signalledBeforeTheWrite = !QFile::exists(path);
            ::kill(pid_t(helper.processId()), signal);
            ASSERT_TRUE(helper.waitForFinished(10000)) << signal;
            EXPECT_EQ(helper.exitStatus(), QProcess::NormalExit) << signal;
            EXPECT_EQ(helper.exitCode(), 0) << signal;
            const auto file = fileJson(path);
            ASSERT_TRUE(file.is_object()) << "no file after signal " << signal;
            EXPECT_EQ(file["recents"], nlohmann::json({"picked"})) << signal;
            EXPECT_EQ(file["picks"]["quit test"]["picked"], 1) << signal;
        }
        EXPECT_TRUE(signalledBeforeTheWrite) << signal;
    }
}

TEST(UserData, KillDuringASaveStormLeavesAWholeFile) {
    for (const int killAfter : {1, 7, 40, 150}) {
        const QString path = freshFile();
        QProcess helper;
        helper.start(QStringLiteral(USERDATA_QUITHELPER), {path, QStringLiteral("storm")});
        int saves = 0;
        while (saves < killAfter) {
            const QByteArray line = nextLine(helper);
            ASSERT_TRUE(line.startsWith("saved ")) << line.toStdString();
            saves = line.mid(6).toInt();
        }
        helper.kill();
        ASSERT_TRUE(helper.waitForFinished(10000));

        // The state after some save n >= the last one reported: m0..m(n-1) used once each.
        const auto file = fileJson(path);
        ASSERT_TRUE(file.is_object()) << killAfter;
        const auto& uses = file["uses"];
        ASSERT_TRUE(uses.is_object());
        const int n = int(uses.size());
        EXPECT_GE(n, saves);
        for (int i = 0; i < n; ++i)
            EXPECT_EQ(uses.value("m" + std::to_string(i), 0), 1) << i << " of " << n;
        EXPECT_EQ(file["recents"][0], "m" + std::to_string(n - 1));
        EXPECT_EQ(file["recents"].size(), size_t(std::min(n, UserData::maxRecents)));
    }
}
