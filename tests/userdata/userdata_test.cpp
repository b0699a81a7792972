// SPDX-License-Identifier: MIT
#include "userdata/userdata.h"
#include "support/testenv.h"

#include <QSignalSpy>
#include <gtest/gtest.h>

namespace {

QString freshFile() { return TestEnv::freshDir() + QStringLiteral("/userdata.json"); }

QStringList ids(std::initializer_list<const char*> list) {
    QStringList out;
    for (const char* s : list)
        out.append(QString::fromLatin1(s));
    return out;
}

nlohmann::json savedJson(UserData& data) {
    QSignalSpy saved(&data, &UserData::saved);
    if (!saved.wait(5000))
        return nullptr;
    return nlohmann::json::parse(TestEnv::readFile(data.path()).toStdString(), nullptr, false);
}

} // namespace

TEST(UserData, RecentsAreNewestFirstUniqueAndCapped) {
    UserData data(freshFile());
    for (const char* id : {"a", "b", "c", "d", "e", "f"})
        data.recordPick(QString::fromLatin1(id), QString());
    EXPECT_EQ(data.recents(), ids({"f", "e", "d", "c", "b", "a"}));
    data.recordPick(QStringLiteral("c"), QString());
    EXPECT_EQ(data.recents(), ids({"c", "f", "e", "d", "b", "a"}));

    for (int i = 0; i < 31; ++i)
        data.recordPick(QStringLiteral("x%1").arg(i), QString());
    EXPECT_EQ(data.recents().size(), UserData::maxRecents);
    EXPECT_EQ(data.recents().first(), QStringLiteral("x30"));
    EXPECT_FALSE(data.recents().contains(QStringLiteral("x0")));
    EXPECT_EQ(data.uses().value(QStringLiteral("x0")), 1) << "uses outlive recents";
}

TEST(UserData, PicksCountPerNormalisedQuery) {
    UserData data(freshFile());
    data.recordPick(QStringLiteral("m1"), QStringLiteral("Cat!"));
    data.recordPick(QStringLiteral("m1"), QStringLiteral("cat"));
    data.recordPick(QStringLiteral("m1"), QStringLiteral("  CAT  "));
    data.recordPick(QStringLiteral("m1"), QStringLiteral("?!"));
    EXPECT_EQ(data.pickCount(QStringLiteral("cat"), QStringLiteral("m1")), 3);
    EXPECT_EQ(data.picks().size(), 1) << "punctuation-only queries record no pick entry";
    EXPECT_EQ(data.uses().value(QStringLiteral("m1")), 4);
    EXPECT_EQ(UserData::key(u"Café au LAIT"), QStringLiteral("cafe au lait"));
}

TEST(UserData, MostUsedOrdersByCountThenRecency) {
    UserData data(freshFile());
    for (const char* id : {"old", "old", "a", "a", "b", "b", "b", "once"})
        data.recordPick(QString::fromLatin1(id), QString());
    for (int i = 0; i < 30; ++i) // push "old" out of recents
        data.recordPick(QStringLiteral("f%1").arg(i), QString());
    data.recordPick(QStringLiteral("a"), QString());
    data.recordPick(QStringLiteral("a"), QString());
    data.recordPick(QStringLiteral("b"), QString());
    data.recordPick(QStringLiteral("c"), QString());
    data.recordPick(QStringLiteral("c"), QString());
    data.recordPick(QStringLiteral("c"), QString());
    data.recordPick(QStringLiteral("c"), QString());
    // a 4, b 4, c 4, old 2: c and b are more recent than a.
    EXPECT_EQ(data.mostUsedIDs(2, 200), ids({"c", "b", "a", "old"}));
    EXPECT_EQ(data.mostUsedIDs(2, 2), ids({"c", "b"}));
    EXPECT_EQ(data.mostUsedIDs(1, 200).size(), 35);
    EXPECT_EQ(data.mostUsedIDs(1, 0), QStringList());
}

TEST(UserData, FavouritesToggleAndSurviveClearing) {
    UserData data(freshFile());
    EXPECT_TRUE(data.toggleFavorite(QStringLiteral("a")));
    EXPECT_TRUE(data.toggleFavorite(QStringLiteral("b")));
    EXPECT_EQ(data.favorites(), ids({"b", "a"}));
    EXPECT_FALSE(data.toggleFavorite(QStringLiteral("b")));
    EXPECT_TRUE(data.toggleFavorite(QStringLiteral("b")));
    EXPECT_EQ(data.favorites(), ids({"b", "a"}));

    data.recordPick(QStringLiteral("a"), QStringLiteral("cat"));
    data.clearHistory();
    EXPECT_TRUE(data.recents().isEmpty());
    EXPECT_TRUE(data.uses().isEmpty());
    EXPECT_TRUE(data.picks().isEmpty());
    EXPECT_EQ(data.favorites(), ids({"b", "a"}));
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
}

TEST(UserData, FileWithoutUsesIsMigratedFromPicks) {
    const QString path = freshFile();
    TestEnv::writeFile(path, R"({"favorites":["f"],"recents":["a","b"],
        "picks":{"cat":{"a":2,"b":1},"dog":{"a":3}}})");
    UserData data(path);
    EXPECT_EQ(data.uses().value(QStringLiteral("a")), 5);
    EXPECT_EQ(data.uses().value(QStringLiteral("b")), 1);
    EXPECT_EQ(data.favorites(), ids({"f"}));

    data.recordPick(QStringLiteral("b"), QStringLiteral("cat"));
    const auto written = savedJson(data);
    ASSERT_TRUE(written.is_object());
    EXPECT_EQ(written["uses"]["a"], 5);
    EXPECT_EQ(written["picks"]["cat"]["b"], 2);
}

TEST(UserData, MalformedFileStartsEmptyAndIsReplacedByTheNextSave) {
    for (const QByteArray& bad : {QByteArray("{\"favorites\": ["), QByteArray("[]"),
                                 QByteArray(R"({"favorites":[1],"recents":[],"picks":{}})"),
                                 QByteArray(R"({"favorites":[],"recents":[],"picks":{"q":{"a":"x"}}})"),
                                 QByteArray(R"({"favorites":[],"recents":[],"picks":{},"uses":[]})")}) {
        const QString path = freshFile();
        TestEnv::writeFile(path, bad);
        UserData data(path);
        EXPECT_TRUE(data.favorites().isEmpty() && data.recents().isEmpty() && data.uses().isEmpty())
            << bad.toStdString();
        EXPECT_EQ(TestEnv::readFile(path), bad) << "left in place";
        data.toggleFavorite(QStringLiteral("x"));
        const auto written = savedJson(data);
        ASSERT_TRUE(written.is_object()) << bad.toStdString();
        EXPECT_EQ(written["favorites"], nlohmann::json({"x"}));
    }
}

TEST(UserData, UnwritableFolderKeepsDataInMemory) {
    UserData data(QStringLiteral("/proc/glimmet-denied/userdata.json"));
    QSignalSpy saved(&data, &UserData::saved);
    data.recordPick(QStringLiteral("a"), QStringLiteral("q"));
    ASSERT_TRUE(saved.wait(5000));
    EXPECT_FALSE(saved.first().first().toBool());
    EXPECT_EQ(data.recents(), ids({"a"}));
}
