// SPDX-License-Identifier: MIT
#include "search/searchengine.h"
#include "searchtesthelpers.h"

using namespace SearchTest;

TEST(SearchEngine, WithoutTokensListsTheMostPopular) {
    const SearchEngine engine({meme(QStringLiteral("a"), {}, 5), meme(QStringLiteral("b"), {}, 9),
                               meme(QStringLiteral("c"), {}, std::nullopt),
                               meme(QStringLiteral("d"), {}, 5), meme(QStringLiteral("e"), {}, 0)});
    EXPECT_EQ(idsOf(engine.search(QStringLiteral("?!"), 3)), ids({"b", "a", "d"}));
    EXPECT_EQ(idsOf(engine.search(QString(), 10)), ids({"b", "a", "d", "c", "e"}));
    EXPECT_EQ(idsOf(engine.popular()), ids({"b", "a", "d", "c", "e"}));
    EXPECT_TRUE(engine.search(QStringLiteral("a"), 0).isEmpty());
}

TEST(SearchEngine, ScoresTheBestFieldOncePerQueryToken) {
    const SearchEngine engine({
        meme(QStringLiteral("keywords"), QStringLiteral("nothing"), 1000, {QStringLiteral("cat")}),
        meme(QStringLiteral("ocr"), QStringLiteral("Cat"), 0),
        // ocr and description: still 5, not 6; so equal to "ocr" and behind it by catalog order.
        meme(QStringLiteral("both"), QStringLiteral("cat"), 0, {}, QStringLiteral("cat cat cat")),
        meme(QStringLiteral("template"), QStringLiteral("x"), 0, {}, {}, QStringLiteral("Catalog")),
        meme(QStringLiteral("emotion"), QStringLiteral("x"), 2000, {}, {}, {},
             {QStringLiteral("catty")}),
    });
    EXPECT_EQ(idsOf(engine.search(QStringLiteral("ca"), 60)),
              ids({"ocr", "both", "template", "keywords", "emotion"}));
    // A repeated query token counts again, so the order holds; a token nobody has removes all.
    EXPECT_EQ(idsOf(engine.search(QStringLiteral("cat cat"), 60)),
              ids({"ocr", "both", "template", "keywords", "emotion"}));
    EXPECT_TRUE(engine.search(QStringLiteral("cat dog"), 60).isEmpty());
    EXPECT_EQ(idsOf(engine.search(QStringLiteral("ca"), 2)), ids({"ocr", "both"}));
}

TEST(SearchEngine, AddsTokenScoresAcrossFieldsAndFoldsLikeTheIndex) {
    const SearchEngine engine({
        meme(QStringLiteral("split"), QStringLiteral("the cat"), 0, {QStringLiteral("dog")}),
        meme(QStringLiteral("ocr-both"), QStringLiteral("cat dog"), 0),
        meme(QStringLiteral("cafe"), QStringLiteral("Un CAFÉ"), 0, {}, {}, {}, {},
             {QStringLiteral("don't stop")}),
    });
    // 5 + 5 = 10, then two 5 + 3 = 8 in catalog order.
    EXPECT_EQ(idsOf(engine.search(QStringLiteral("ca do"), 60)),
              ids({"ocr-both", "split", "cafe"}));
    EXPECT_EQ(idsOf(engine.search(QStringLiteral("cafe"), 60)), ids({"cafe"}));
    EXPECT_EQ(idsOf(engine.search(QStringLiteral("Café don't"), 60)), ids({"cafe"}));
    EXPECT_TRUE(engine.search(QStringLiteral("dont"), 60).isEmpty()) << "don't is two tokens";
}
