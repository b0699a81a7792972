// SPDX-License-Identifier: MIT
#include "search/exploreorder.h"
#include "searchtesthelpers.h"

#include <algorithm>
#include <numeric>
#include <vector>

using namespace SearchTest;

namespace {

std::vector<int> upTo(int n) {
    std::vector<int> v(std::size_t(n), 0);
    std::iota(v.begin(), v.end(), 0);
    return v;
}

QHash<QString, Meme> catalog(int n) {
    QHash<QString, Meme> byID;
    for (int i = 0; i < n; ++i) {
        const QString id = QStringLiteral("m_%1").arg(i, 5, 10, QLatin1Char('0'));
        byID.insert(id, meme(id, QString()));
    }
    return byID;
}

} // namespace

// The daily mix must be the same on every machine, whatever its library's random sources.
TEST(ExploreOrder, ShuffleAndIdOrderArePinned) {
    // Computed independently from the SplitMix64 / Fisher-Yates definition.
    EXPECT_EQ(shuffled(upTo(10), 0), (std::vector<int>{8, 7, 6, 5, 3, 9, 2, 4, 1, 0}));
    EXPECT_EQ(shuffled(upTo(2), 1), (std::vector<int>{0, 1}));
    EXPECT_EQ(shuffled(QList<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, 42),
              (QList<int>{2, 3, 9, 7, 5, 8, 6, 4, 0, 1}));
    // U+FF5E sorts below U+1F600 by code point, above it in UTF-16.
    EXPECT_TRUE(
        ExploreOrder::codePointLess(QStringLiteral("a\uFF5E"), QStringLiteral("a\U0001F600")));
    EXPECT_FALSE(
        ExploreOrder::codePointLess(QStringLiteral("a\U0001F600"), QStringLiteral("a\uFF5E")));
    EXPECT_TRUE(ExploreOrder::codePointLess(QStringLiteral("ab"), QStringLiteral("abc")));
    EXPECT_FALSE(ExploreOrder::codePointLess(QStringLiteral("b"), QStringLiteral("b")));
}

TEST(ExploreOrder, HoldsForADayAndChangesWithTheDayOrTheCatalog) {
    QHash<QString, Meme> byID = catalog(500);
    const std::int64_t day = ExploreOrder::dayNumber(QDate(2024, 3, 1));
    EXPECT_EQ(day, 738948);
    EXPECT_EQ(ExploreOrder::dayNumber(QDate(2024, 3, 2)), day + 1);

    ExploreOrder explore;
    const QStringList first = explore.order(byID, day);
    EXPECT_EQ(ExploreOrder().order(byID, day), first) << "another model, same day";
    EXPECT_EQ(explore.order(byID, day), first);

    QStringList all(byID.keyBegin(), byID.keyEnd());
    all.sort();
    QStringList sorted = first;
    sorted.sort();
    EXPECT_EQ(sorted, all) << "every item exactly once";
    EXPECT_NE(first, all) << "not the id order";
    EXPECT_NE(explore.order(byID, day + 1), first);

    byID.insert(QStringLiteral("zz"), meme(QStringLiteral("zz"), QString()));
    EXPECT_TRUE(explore.order(byID, day + 1).contains(QStringLiteral("zz")))
        << "a grown catalog is mixed again the same day";
}
