// SPDX-License-Identifier: MIT
#include "search/importeditems.h"

#include <gtest/gtest.h>

namespace {

Meme imported(const QString& id, const QString& collection, QStringList keywords = {},
              QString ocr = {}) {
    Meme m;
    m.id = id;
    m.template_ = collection;
    m.keywords = std::move(keywords);
    m.ocr_text = std::move(ocr);
    return m;
}

QStringList ids(const MemeList& memes) {
    QStringList out;
    for (const Meme& m : memes)
        out.append(m.id);
    return out;
}

} // namespace

TEST(ImportedItems, EveryWordPrefixMatchesTagsOrTheCollectionNameInCollectionOrder) {
    const ImportedItems items(
        {imported("a", "Café trip", {"flamingo", "beach"}), imported("b", "Café trip"),
         imported("c", "Work", {"flamingo"}, "NOPE, not today"), imported("d", "Work", {"beach"})});
    EXPECT_EQ(ids(items.search("cafe", 10)), QStringList({"a", "b"})) << "untagged by name";
    EXPECT_EQ(ids(items.search("FLAM", 10)), QStringList({"a", "c"}));
    EXPECT_EQ(ids(items.search("flam be", 10)), QStringList({"a"}));
    EXPECT_EQ(ids(items.search("nope today", 10)), QStringList({"c"}));
    EXPECT_EQ(ids(items.search("beach work", 10)), QStringList({"d"}));
    EXPECT_EQ(ids(items.search("trip", 1)), QStringList({"a"}));
    EXPECT_TRUE(items.search("flamingos", 10).isEmpty());
    EXPECT_TRUE(items.search("  ,", 10).isEmpty()) << "no words, no matches";
}
