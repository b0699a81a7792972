// SPDX-License-Identifier: MIT
#include "search/exploreorder.h"
#include "search/fusedranking.h"
#include "searchtesthelpers.h"
#include "userdata/userdata.h"

using namespace SearchTest;

namespace {

// A catalog of `n` items that all match "cat", bm25-ranked in id order (i0 best).
struct Fixture {
    explicit Fixture(int n) : userData(TestEnv::freshDir() + QStringLiteral("/userdata.json")) {
        for (int i = 0; i < n; ++i) {
            // Decreasing popularity breaks the equal bm25 of identical texts.
            const Meme m = meme(QStringLiteral("i%1").arg(i), QStringLiteral("cat"), n - i);
            memes.append(m);
            byID.insert(m.id, m);
        }
        index = indexWith(memes);
    }
    MemeList rank(const QString& query, int window = 60) {
        const FusedRanking::Inputs inputs{
            *index,   byID,      window,
            userData, favorites, [this]() -> const QStringList& { return explore; }};
        return FusedRanking::rank(query, inputs);
    }

    MemeList memes;
    QHash<QString, Meme> byID;
    std::unique_ptr<LocalIndex> index;
    UserData userData;
    QSet<QString> favorites;
    QStringList explore;
};

} // namespace

TEST(FusedRanking, KeepsIndexOrderWithoutHistoryAndSkipsIdsTheCatalogNoLongerHas) {
    Fixture f(80);
    const QStringList got = idsOf(f.rank(QStringLiteral("cat")));
    EXPECT_EQ(got, f.index->search(QStringLiteral("cat"), 60));
    EXPECT_EQ(f.rank(QStringLiteral("cat"), 70).size(), 70);
    f.byID.remove(QStringLiteral("i2"));
    EXPECT_EQ(idsOf(f.rank(QStringLiteral("cat"), 5)), ids({"i0", "i1", "i3", "i4"}));
}

TEST(FusedRanking, PicksLiftUpToFiveAndFavouritesAFewPlaces) {
    Fixture f(60);
    for (int i = 0; i < 7; ++i)
        f.userData.recordPick(QStringLiteral("i50"), QStringLiteral("CAT!"));
    for (int i = 0; i < 5; ++i)
        f.userData.recordPick(QStringLiteral("i40"), QStringLiteral("cat"));
    f.userData.recordPick(QStringLiteral("i30"), QStringLiteral("cat"));
    f.userData.recordPick(QStringLiteral("i1"), QStringLiteral("dog")); // another query
    f.favorites.insert(QStringLiteral("i20"));

    // i40: 1/100 + 5 x 0.004; i50: 1/110 + 5 x 0.004, as seven picks count five (uncapped it
    // would lead). i20: 1/80 + 0.003 passes rank 5 and below; i30: 1/90 + 0.004 passes rank 7.
    EXPECT_EQ(idsOf(f.rank(QStringLiteral("cat"))).mid(0, 12),
              ids({"i40", "i50", "i0", "i1", "i2", "i3", "i4", "i20", "i5", "i6", "i30", "i7"}));
}

TEST(FusedRanking, EmptyQueryListsFavouritesRecentsThenTheDaysMix) {
    Fixture f(10);
    f.userData.recordPick(QStringLiteral("i5"), QString());
    f.userData.recordPick(QStringLiteral("gone"), QString());
    f.userData.recordPick(QStringLiteral("i3"), QString()); // recents: i3, gone, i5
    f.userData.toggleFavorite(QStringLiteral("i5"));
    f.userData.toggleFavorite(QStringLiteral("i8")); // favourites: i8, i5
    f.explore = ExploreOrder().order(f.byID, 738948);

    const QStringList head = ids({"i8", "i5", "i3"});
    QStringList want = head;
    for (const QString& id : f.explore)
        if (!want.contains(id) && want.size() < 6)
            want.append(id);
    EXPECT_EQ(idsOf(f.rank(QStringLiteral("  ?! "), 6)), want);
    EXPECT_EQ(f.rank(QString(), 60).size(), 10) << "each item once, the whole catalog";
    // More favourites and recents than the window: all of them, and nothing else.
    EXPECT_EQ(idsOf(f.rank(QString(), 2)), head);
}
