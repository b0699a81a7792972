// SPDX-License-Identifier: MIT
// The in-memory path of LocalIndex::search must give exactly the ids, in exactly the order,
// of the FTS5 query it replaces. These tests compare the two on thousands of queries.
#include "searchtesthelpers.h"
#include "syntheticcatalog.h"

#include <random>

using namespace SearchTest;

namespace {

// Every keystroke of generated user queries plus random one- to three-word prefix queries,
// including the short prefixes that match most of the catalog.
QStringList generatedQueries(int typed, int random, std::uint64_t seed) {
    QStringList out;
    for (const QString& q : SyntheticCatalog::queries(typed, seed))
        out += SyntheticCatalog::keystrokes(q);
    const QStringList& words = SyntheticCatalog::vocabulary();
    std::mt19937_64 rng(seed);
    const auto pick = [&](std::uint64_t n) { return qsizetype(rng() % n); };
    for (int i = 0; i < random; ++i) {
        QStringList terms;
        const int count = 1 + int(pick(3));
        for (int t = 0; t < count; ++t) {
            // Skew towards frequent words, as people type them.
            const QString& w = words[pick(std::uint64_t(pick(std::uint64_t(words.size())) + 1))];
            terms.append(w.left(1 + pick(std::uint64_t(w.size()))));
        }
        out.append(terms.join(QLatin1Char(' ')));
    }
    return out;
}

testing::AssertionResult sameAsPlainQuery(LocalIndex& index, const QStringList& queries,
                                          std::initializer_list<int> limits) {
    int fast = 0;
    for (const QString& q : queries) {
        for (const int limit : limits) {
            const QStringList got = index.search(q, limit);
            fast += index.lastSearchWasFast() ? 1 : 0;
            const QStringList want = index.searchPlain(q, limit);
            if (got != want)
                return testing::AssertionFailure()
                       << "query \"" << q.toStdString() << "\" limit " << limit << ": got "
                       << got.join(QLatin1Char(',')).left(400).toStdString() << " want "
                       << want.join(QLatin1Char(',')).left(400).toStdString();
        }
    }
    if (fast == 0)
        return testing::AssertionFailure() << "no query took the in-memory path";
    return testing::AssertionSuccess() << fast << " answered from memory";
}

} // namespace

TEST(FtsMirror, MatchesTheFts5QueryOnARealisticCatalog) {
    const MemeList memes = SyntheticCatalog::generate(2000, 7);
    auto index = indexWith(memes);
    ASSERT_TRUE(index);
    const QStringList queries = generatedQueries(200, 1200, 7);
    ASSERT_GT(queries.size(), 3000);
    EXPECT_TRUE(sameAsPlainQuery(*index, queries, {60}));
    // Paging windows, one result, and everything.
    EXPECT_TRUE(sameAsPlainQuery(*index, queries.mid(0, 300), {120, 180, 240, 1, 5000}));
}

TEST(FtsMirror, BreaksTiesLikeSqliteAndFoldsTextBeyondAsciiAlike) {
    MemeList memes = {
        meme(QStringLiteral("u1"), QStringLiteral("Crème BRÛLÉE für alle"), 3),
        meme(QStringLiteral("u2"), QStringLiteral("Ελληνικά γράμματα"), 1,
             {QStringLiteral("ΣΟΦΙΑ")}),
        meme(QStringLiteral("u3"), QStringLiteral("日本語のテキスト"), 2),
        meme(QStringLiteral("u4"), QStringLiteral("naïve ﬁle straße İstanbul"), 0),
        meme(QStringLiteral("u5"), QStringLiteral("emoji 😀 party 🎉 time"), 5),
        meme(QStringLiteral("u6"), QStringLiteral("x\u0301y and ǅemal"), 4),
        meme(QStringLiteral("u7"), QStringLiteral("2x speed 4k 1080p"), 9),
    };
    // Few words, short fields and four popularity values: most rows share bm25 exactly.
    std::mt19937_64 rng(11);
    const char* const words[] = {"cat", "car", "cart", "dog", "do", "done", "zebra", "café"};
    for (int i = 0; i < 1500; ++i) {
        const auto w = [&] { return QString::fromUtf8(words[rng() % std::size(words)]); };
        const std::optional<std::int64_t> pop =
            rng() % 5 == 0 ? std::nullopt : std::optional<std::int64_t>(std::int64_t(rng() % 4));
        memes.append(
            meme(QStringLiteral("t%1").arg(i), w(), pop, {w()}, w() + QLatin1Char(' ') + w()));
    }
    auto index = indexWith(memes);
    ASSERT_TRUE(index);
    const QStringList queries = ids(
        {"c",          "ca",    "cat",       "d",       "do",     "dog",      "z",     "cafe",
         "ca do",      "do ca", "c c",       "cat cat", "d ca z", "car cart", "caf",   "CAFÉ",
         "x",          "creme", "CRÈME brû", "fur",     "für",    "ελλ",      "σοφ",   "日本",
         "テ",         "naive", "fi",        "ﬁ",       "stra",   "straße",   "istan", "i̇stanbul",
         "party time", "xy",    "ǆ",         "dze",     "2x",     "4",        "1080"});
    EXPECT_TRUE(sameAsPlainQuery(*index, queries, {1, 60, 120, 700, 2000}));
}

TEST(FtsMirror, FollowsTheTableThroughRebuildsReopeningAndOutsideWrites) {
    const QString path = freshIndexPath();
    const QStringList queries = generatedQueries(40, 200, 3);
    {
        auto index = LocalIndex::open(path);
        ASSERT_TRUE(index);
        index->rebuild(SyntheticCatalog::generate(800, 1), QString(64, QLatin1Char('1')));
        // A second rebuild replaces the rows of the first.
        index->rebuild(SyntheticCatalog::generate(900, 2), QString(64, QLatin1Char('2')));
        EXPECT_TRUE(sameAsPlainQuery(*index, queries, {60, 180}));
        // Writes behind the index's back are seen before the next answer.
        ASSERT_TRUE(index->exec(QStringLiteral("DELETE FROM fts WHERE rowid % 3 = 0")));
        EXPECT_TRUE(sameAsPlainQuery(*index, queries, {60, 180}));
    }
    // A fresh connection reads its mirror back from the table.
    auto reopened = LocalIndex::open(path);
    ASSERT_TRUE(reopened);
    ASSERT_TRUE(reopened->loadCached());
    EXPECT_TRUE(sameAsPlainQuery(*reopened, queries, {60, 180}));

    // And a write from another connection to the same file.
    auto other = LocalIndex::open(path);
    ASSERT_TRUE(other);
    other->rebuild(SyntheticCatalog::generate(500, 4), QString(64, QLatin1Char('4')));
    // rebuild() returns before the commit; this connection sees the write once it is in.
    other->waitUntilCommitted();
    EXPECT_TRUE(sameAsPlainQuery(*reopened, queries, {60, 180}));

    // A mirror read ahead on a connection of its own answers, unless the table changed
    // after it was asked for: through this connection, or through another one.
    for (const bool writeHere : {false, true}) {
        auto launched = LocalIndex::open(path);
        ASSERT_TRUE(launched);
        launched->readMirrorAhead();
        if (writeHere) {
            ASSERT_TRUE(launched->exec(QStringLiteral("DELETE FROM fts WHERE rowid % 2 = 0")));
        } else {
            other->rebuild(SyntheticCatalog::generate(600, 5), QString(64, QLatin1Char('5')));
            other->waitUntilCommitted();
        }
        EXPECT_TRUE(sameAsPlainQuery(*launched, queries, {60})) << "written here: " << writeHere;
    }
    auto unchanged = LocalIndex::open(path);
    ASSERT_TRUE(unchanged);
    unchanged->readMirrorAhead();
    EXPECT_TRUE(sameAsPlainQuery(*unchanged, queries, {60}));
    EXPECT_TRUE(unchanged->lastSearchWasFast());
}
