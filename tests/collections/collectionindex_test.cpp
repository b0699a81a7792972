// SPDX-License-Identifier: MIT
#include "collections/collectionindex.h"

#include <gtest/gtest.h>

namespace {

CollectionInfo collection(const char* id, const char* name, std::int64_t count,
                          QStringList keywords = {}, std::optional<QString> theme = {}) {
    CollectionInfo c;
    c.id = QString::fromUtf8(id);
    c.name = QString::fromUtf8(name);
    c.count = count;
    c.keywords = std::move(keywords);
    c.theme = std::move(theme);
    return c;
}

Meme sticker(const char* id, const char* collection, const char* text, std::optional<int> order) {
    Meme m;
    m.id = QString::fromUtf8(id);
    m.ocr_text = QString::fromUtf8(text);
    m.collection_id = QString::fromUtf8(collection);
    if (order)
        m.order = *order;
    return m;
}

QStringList ids(const CollectionList& list) {
    QStringList out;
    for (const CollectionInfo& c : list)
        out.append(c.id);
    return out;
}

QStringList ids(const MemeList& list) {
    QStringList out;
    for (const Meme& m : list)
        out.append(m.id);
    return out;
}

} // namespace

TEST(CollectionIndex, NameMatchesLeadThenLargerCollectionsEveryWordMustMatch) {
    const CollectionIndex index(
        {collection("mine", "Dog days", 500, {"big"}),
         collection("cats", "Cats", 10, {"dog", "fur"}), collection("big", "Big dogs", 50),
         collection("misc", "Misc", 80, {"doge"}, "pets"), collection("cafe", "Café Crème", 3),
         collection("birds", "Birds", 7)},
        {});

    EXPECT_EQ(ids(index.search(QString())),
              QStringList({"mine", "cats", "big", "misc", "cafe", "birds"}));
    EXPECT_EQ(ids(index.search(QStringLiteral("dog"))),
              QStringList({"mine", "big", "misc", "cats"}));
    // Both words in the name beat one in the name and one among the keywords, whatever the size.
    EXPECT_EQ(ids(index.search(QStringLiteral("BIG dog"))), QStringList({"big", "mine"}));
    EXPECT_EQ(ids(index.search(QStringLiteral("dog fur"))), QStringList({"cats"}));
    EXPECT_EQ(ids(index.search(QStringLiteral("  pets "))), QStringList({"misc"}));
    EXPECT_EQ(ids(index.search(QStringLiteral("cafe cre"))), QStringList({"cafe"}));
    EXPECT_TRUE(index.search(QStringLiteral("dog owl")).isEmpty());
    EXPECT_TRUE(index.search(QStringLiteral("dogs days")).isEmpty());
    EXPECT_EQ(index.collectionCount(), 6);
}

TEST(CollectionIndex, StickersKeepTheirPublishedOrderAndAreFoundById) {
    const CollectionIndex index(
        {collection("owls", "Owls", 3), collection("frogs", "Frogs", 1)},
        {sticker("o2", "owls", "wise owl", 2), sticker("o1", "owls", "sleepy owl", 1),
         sticker("o9", "owls", "owl without order", std::nullopt),
         sticker("f1", "frogs", "Sleepy frog", 1), sticker("loose", "", "no such set", 1)});

    const CollectionInfo owls = index.search(QStringLiteral("owls")).value(0);
    EXPECT_EQ(ids(index.stickers(owls, QString())), QStringList({"o1", "o2", "o9"}));
    EXPECT_EQ(ids(index.stickers(owls, QStringLiteral("sleep"))), QStringList({"o1"}));
    EXPECT_TRUE(index.stickers(owls, QStringLiteral("frog")).isEmpty());
    EXPECT_EQ(index.sticker(QStringLiteral("f1"))->ocr_text, QStringLiteral("Sleepy frog"));
    EXPECT_FALSE(index.sticker(QStringLiteral("nope")));
    EXPECT_EQ(index.stickerCount(), 5);
}
