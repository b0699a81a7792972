// SPDX-License-Identifier: MIT
#include "catalog/catalogjson.h"

#include <gtest/gtest.h>

namespace {

nlohmann::json memeObject(const std::string& id = "m1") {
    return {{"id", id},           {"template", "Drake"},  {"ocr_text", "no yes"},
            {"description", "d"}, {"emotions", {"smug"}}, {"use_cases", {"choice"}},
            {"keywords", {"a"}},  {"thumb", "/t/1.webp"}, {"full", "/f/1.jpg"},
            {"width", 100},       {"height", 50},         {"bytes", 1234}};
}

QByteArray arrayOf(std::initializer_list<nlohmann::json> items) {
    return QByteArray::fromStdString(nlohmann::json(items).dump());
}

testing::AssertionResult rejectedAt(const QByteArray& document, const QString& where) {
    QString error;
    if (CatalogJson::decodeMemes(document, &error))
        return testing::AssertionFailure() << "document was accepted";
    if (!error.startsWith(where))
        return testing::AssertionFailure() << "error was " << error.toStdString();
    return testing::AssertionSuccess();
}

} // namespace

TEST(CatalogJson, OneBadElementRejectsTheWholeDocument) {
    auto missingBytes = memeObject("m2");
    missingBytes.erase("bytes");
    EXPECT_TRUE(rejectedAt(arrayOf({memeObject(), missingBytes}), "[1].bytes: missing"));

    auto wrongType = memeObject();
    wrongType["width"] = "100";
    EXPECT_TRUE(rejectedAt(arrayOf({wrongType}), "[0].width: not an integer"));

    auto badKeyword = memeObject();
    badKeyword["keywords"] = {"ok", 3};
    EXPECT_TRUE(rejectedAt(arrayOf({badKeyword}), "[0].keywords: element not a string"));

    auto nullRequired = memeObject();
    nullRequired["id"] = nullptr;
    EXPECT_TRUE(rejectedAt(arrayOf({nullRequired}), "[0].id: missing"));

    EXPECT_TRUE(rejectedAt("{\"id\":1}", "top level is not an array"));
    EXPECT_TRUE(rejectedAt("[{\"id\":", "not valid JSON"));
    EXPECT_TRUE(rejectedAt("[1]", "[0]: not an object"));
}

TEST(CatalogJson, IntegersMustBeJsonIntegersThatFitInt64) {
    auto max = memeObject();
    max["bytes"] = INT64_MAX;
    const auto ok = CatalogJson::decodeMemes(arrayOf({max}));
    ASSERT_TRUE(ok);
    EXPECT_EQ((*ok)[0].bytes, INT64_MAX);

    const QByteArray body = QByteArray::fromStdString(memeObject().dump());
    QByteArray tooBig = "[" + body;
    tooBig.replace("\"bytes\":1234", "\"bytes\":9223372036854775808");
    tooBig += "]";
    EXPECT_TRUE(rejectedAt(tooBig, "[0].bytes: integer out of range"));

    QByteArray fractional = "[" + body + "]";
    fractional.replace("\"bytes\":1234", "\"bytes\":12.5");
    EXPECT_TRUE(rejectedAt(fractional, "[0].bytes: not an integer"));

    QByteArray negative = "[" + body + "]";
    negative.replace("\"width\":100", "\"width\":-3");
    EXPECT_TRUE(CatalogJson::decodeMemes(negative));
}

TEST(CatalogJson, NullOptionalsAreAbsentAndNotWrittenAndEveryFieldRoundTrips) {
    auto withNull = memeObject();
    withNull["popularity"] = nullptr;
    withNull["unknown_key"] = {{"nested", true}};
    const auto a = CatalogJson::decodeMemes(arrayOf({withNull}));
    const auto b = CatalogJson::decodeMemes(arrayOf({memeObject()}));
    ASSERT_TRUE(a && b);
    EXPECT_FALSE((*a)[0].popularity.has_value());
    EXPECT_EQ(*a, *b);
    EXPECT_FALSE(CatalogJson::encodeMeme((*a)[0]).contains("popularity"));
    EXPECT_FALSE(CatalogJson::encodeMeme((*a)[0]).contains("null"));

    auto full = memeObject();
    full["blur"] = "LKO2?U%2Tw=w";
    full["order"] = 0; // present with zero is not absent
    full["actions"] = {"wave"};
    full["character"] = "Cat";
    full["collection_id"] = "c1";
    full["popularity"] = 42;
    const auto decoded = CatalogJson::decodeMemes(arrayOf({full}));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(CatalogJson::decodeMemes(CatalogJson::encodeMemes(*decoded)), decoded);
    EXPECT_EQ(CatalogJson::encode((*decoded)[0]).size(), full.size());
}

TEST(CatalogJson, CollectionsDecodeStrictlyWithOptionalTheme) {
    const nlohmann::json c = {{"id", "c1"},       {"name", "Katzen"},    {"name_en", "Cats"},
                              {"theme", nullptr}, {"keywords", {"cat"}}, {"cover", "/c/1.webp"},
                              {"count", 12},      {"owner", "o"},        {"source", "s"}};
    const auto ok =
        CatalogJson::decodeCollections(QByteArray::fromStdString(nlohmann::json{c}.dump()));
    ASSERT_TRUE(ok);
    EXPECT_FALSE((*ok)[0].theme);
    EXPECT_EQ((*ok)[0].count, 12);
    const auto again = CatalogJson::decodeCollections(CatalogJson::encodeCollections(*ok));
    ASSERT_TRUE(again);
    EXPECT_EQ(*again, *ok);

    auto noCount = c;
    noCount.erase("count");
    QString error;
    EXPECT_FALSE(CatalogJson::decodeCollections(
        QByteArray::fromStdString(nlohmann::json{c, noCount}.dump()), &error));
    EXPECT_EQ(error, QStringLiteral("[1].count: missing"));
}

TEST(Meme, IsPNGLooksAtThePathExtensionOnly) {
    Meme m;
    const std::pair<const char*, bool> cases[] = {
        {"a/B.PNG", true},      {"a/b.png.jpg", false},         {"a/b", false},
        {"/f/x.png?v=2", true}, {"file:///home/u/x.Png", true}, {"a.png/b", false},
        {"/f/.png", false}};
    for (const auto& [full, expected] : cases) {
        m.full = QString::fromLatin1(full);
        EXPECT_EQ(m.isPNG(), expected) << full;
    }
}
