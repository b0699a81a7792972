// SPDX-License-Identifier: MIT
#include "catalog/catalogjson.h"
#include "server/catalogserver.h"
#include "support/testenv.h"

#include <QBuffer>
#include <QDir>
#include <QImage>
#include <QImageReader>
#include <QProcess>
#include <QSet>
#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

namespace {

struct Fixture {
    const char* hexcode;
    const char* group;
    const char* subgroup;
    const char* annotation;
    const char* tags;
    const char* openmojiTags;
    const char* skintoneBase;
    int order; // 0: none, as for OpenMoji's own extras
    bool hasSvg;
};

// A few entries shaped like OpenMoji's data, covering each mapping rule once.
const Fixture fixtures[] = {
    {"1F600", "smileys-emotion", "face-smiling", "grinning face",
     "cheerful, grin, happy, laugh, lol", "smile", "", 1, true},
    // Like OpenMoji's data, a base emoji with skin-tone variants names itself as their base.
    {"1F44B", "people-body", "hand-fingers-open", "waving hand", "bye, hello, wave", "", "1F44B",
     189, true},
    {"1F44B-1F3FB", "people-body", "hand-fingers-open", "waving hand: light skin tone", "", "",
     "1F44B", 190, true},
    {"1F431", "animals-nature", "animal-mammal", "cat face", "animal, cat, face, pet", "", "", 500,
     true},
    {"0031-FE0F-20E3", "symbols", "keycap", "keycap: 1", "keycap", "", "", 1500, true},
    {"1F198", "symbols", "alphanum", "SOS button", "help, sos", "", "", 1600, true},
    {"2", "symbols", "other-symbol", "a hexcode that is a plain number", "", "", "", 1700, true},
    {"E000", "extras-openmoji", "animals-nature", "goldfish", "", "goldfish, fish", "", 0, true},
    {"1F3FB", "component", "skin-tone", "light skin tone", "", "", "", 2000, true},
    {"E045", "extras-openmoji", "brand", "github", "", "code", "", 0, true},
    {"1F999", "animals-nature", "animal-mammal", "no picture", "", "", "", 600, false},
};

QByteArray openmojiJson() {
    nlohmann::json entries = nlohmann::json::array();
    for (const Fixture& f : fixtures) {
        nlohmann::json entry = {{"hexcode", f.hexcode},
                                {"group", f.group},
                                {"subgroups", f.subgroup},
                                {"annotation", f.annotation},
                                {"tags", f.tags},
                                {"openmoji_tags", f.openmojiTags},
                                {"openmoji_author", "Tester"},
                                {"skintone_base_hexcode", f.skintoneBase}};
        entry["order"] = f.order ? nlohmann::json(f.order) : nlohmann::json("");
        entries.push_back(entry);
    }
    return QByteArray::fromStdString(entries.dump());
}

QString makePackage() {
    const QString dir = TestEnv::freshDir();
    TestEnv::writeFile(dir + "/package.json", R"({"name":"openmoji","version":"9.9.9"})");
    TestEnv::writeFile(dir + "/LICENSE.txt", "Attribution-ShareAlike 4.0 International\n");
    TestEnv::writeFile(dir + "/data/openmoji.json", openmojiJson());
    int hue = 0;
    for (const Fixture& f : fixtures)
        if (f.hasSvg)
            TestEnv::writeFile(
                dir + "/color/svg/" + f.hexcode + ".svg",
                QStringLiteral(
                    R"svg(<svg viewBox="0 0 72 72" xmlns="http://www.w3.org/2000/svg">)svg"
                    R"svg(<circle cx="36" cy="36" r="30" fill="hsl(%1,80%,50%)"/></svg>)svg")
                    .arg(hue += 30)
                    .toUtf8());
    return dir;
}

struct ToolRun {
    int exitCode = -1;
    QString err;
};

ToolRun buildCatalog(const QString& package, const QString& out) {
    QProcess tool;
    tool.start(QStringLiteral(DEMOCATALOG_BINARY),
               {QStringLiteral("--openmoji"), package, QStringLiteral("--out"), out,
                QStringLiteral("--full-size"), QStringLiteral("64"), QStringLiteral("--thumb-size"),
                QStringLiteral("32"), QStringLiteral("--stress-count"), QStringLiteral("3")});
    if (!tool.waitForFinished(60000))
        return {};
    return {tool.exitStatus() == QProcess::NormalExit ? tool.exitCode() : -1,
            QString::fromUtf8(tool.readAllStandardError())};
}

struct Image {
    int status = 0;
    std::string type;
    QImage image;
    qsizetype bytes = 0;
};

Image fetchImage(int port, const QString& path) {
    httplib::Client client("127.0.0.1", port);
    const auto reply = client.Get(path.toStdString());
    if (!reply)
        return {};
    QByteArray body = QByteArray::fromStdString(reply->body);
    QBuffer buffer(&body);
    QImageReader reader(&buffer);
    return {reply->status, reply->get_header_value("Content-Type"), reader.read(), body.size()};
}

const Meme* findById(const MemeList& memes, const QString& id) {
    for (const Meme& meme : memes)
        if (meme.id == id)
            return &meme;
    return nullptr;
}

// Builds the catalog once for every test here: rendering is the slow part.
class DemoCatalog : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_out = TestEnv::freshDir() + QStringLiteral("/catalog");
        s_run = buildCatalog(makePackage(), s_out);
    }
    static MemeList memes(const char* name) {
        return CatalogJson::decodeMemes(TestEnv::readFile(s_out + '/' + name)).value_or(MemeList());
    }
    static QString s_out;
    static ToolRun s_run;
};
QString DemoCatalog::s_out;
ToolRun DemoCatalog::s_run;

} // namespace

TEST_F(DemoCatalog, MapsOpenMojiDataIntoStrictlyDecodableRecords) {
    ASSERT_EQ(s_run.exitCode, 0) << s_run.err.toStdString();
    EXPECT_TRUE(s_run.err.contains(QStringLiteral("skipped"))) << "the entry without an SVG";

    const auto index = CatalogJson::decodeMemes(TestEnv::readFile(s_out + "/index.json"));
    ASSERT_TRUE(index);
    QStringList ids;
    for (const Meme& meme : *index)
        ids << meme.id;
    // Most popular first: Unicode order, then skin-tone variants, then OpenMoji's extras.
    // Components, brand logos and entries without a picture are left out.
    EXPECT_EQ(ids, QStringList({"1F600", "1F44B", "1F431", "0031-FE0F-20E3", "1F198", "2",
                                "1F44B-1F3FB", "E000"}));
    for (qsizetype i = 1; i < index->size(); ++i)
        EXPECT_GT(index->at(i - 1).popularity.value_or(0), index->at(i).popularity.value_or(0));

    const Meme& grin = *findById(*index, "1F600");
    EXPECT_EQ(grin.description, "grinning face");
    EXPECT_TRUE(grin.keywords.contains("happy") && grin.keywords.contains("smile"));
    EXPECT_TRUE(grin.emotions.contains("happy"));
    EXPECT_FALSE(grin.collection_id.has_value());

    // A skin-tone variant is found by its base emoji's words.
    const Meme& wave = *findById(*index, "1F44B-1F3FB");
    EXPECT_TRUE(wave.keywords.contains("hello"));
    EXPECT_TRUE(wave.use_cases.contains("saying hello"));

    EXPECT_EQ(findById(*index, "0031-FE0F-20E3")->ocr_text, "1");
    EXPECT_EQ(findById(*index, "1F198")->ocr_text, "SOS");
}

TEST_F(DemoCatalog, EveryRecordPointsAtServedImagesOfTheStatedSize) {
    ASSERT_EQ(s_run.exitCode, 0) << s_run.err.toStdString();
    CatalogServer server(s_out.toStdString());
    const int port = server.start("127.0.0.1", 0);
    ASSERT_GT(port, 0);

    for (const char* document : {"index.json", "stickers.json"}) {
        const MemeList list = memes(document);
        ASSERT_FALSE(list.isEmpty()) << document;
        for (const Meme& meme : list) {
            const Image full = fetchImage(port, meme.full);
            EXPECT_EQ(full.type, "image/png") << meme.full.toStdString();
            EXPECT_EQ(full.image.width(), meme.width) << meme.full.toStdString();
            EXPECT_EQ(full.image.height(), meme.height) << meme.full.toStdString();
            EXPECT_EQ(full.bytes, meme.bytes) << meme.full.toStdString();
            const Image thumb = fetchImage(port, meme.thumb);
            EXPECT_EQ(thumb.type, "image/webp") << meme.thumb.toStdString();
            EXPECT_EQ(thumb.image.width(), 32) << meme.thumb.toStdString();
        }
    }
    const MemeList stress = memes("index_stress.json");
    ASSERT_EQ(stress.size(), 3);
    for (const Meme& meme : stress) {
        EXPECT_TRUE(meme.keywords.contains(QStringLiteral("cat"))) << meme.id.toStdString();
        const Image full = fetchImage(port, meme.full);
        EXPECT_EQ(full.type, "image/jpeg") << meme.full.toStdString();
        EXPECT_EQ(full.image.size(), QSize(100, 100)) << meme.full.toStdString();
        EXPECT_FALSE(fetchImage(port, meme.thumb).image.isNull()) << meme.thumb.toStdString();
    }
}

TEST_F(DemoCatalog, NoTwoPicturesShareAFile) {
    ASSERT_EQ(s_run.exitCode, 0) << s_run.err.toStdString();
    // The stress cats own /t/N.webp and /f/N.jpg; an emoji whose hexcode is a number must not
    // land on the same files.
    QSet<QString> paths;
    qsizetype expected = 0;
    for (const char* document : {"index.json", "index_stress.json"})
        for (const Meme& meme : memes(document)) {
            paths << meme.thumb << meme.full;
            expected += 2;
        }
    EXPECT_EQ(paths.size(), expected);
}

TEST_F(DemoCatalog, StickersBelongToCollectionsWithCoversAndCounts) {
    ASSERT_EQ(s_run.exitCode, 0) << s_run.err.toStdString();
    const auto collections =
        CatalogJson::decodeCollections(TestEnv::readFile(s_out + "/collections.json"));
    ASSERT_TRUE(collections);
    const MemeList stickers = memes("stickers.json");
    const MemeList index = memes("index.json");

    QSet<QString> collectionIds;
    for (const CollectionInfo& info : *collections) {
        collectionIds.insert(info.id);
        qint64 count = 0;
        for (const Meme& sticker : stickers) {
            if (sticker.collection_id == info.id) {
                EXPECT_EQ(sticker.order, ++count) << sticker.id.toStdString();
            }
        }
        EXPECT_EQ(info.count, count) << info.id.toStdString();
        EXPECT_GT(count, 0) << info.id.toStdString();
        EXPECT_TRUE(QFile::exists(s_out + info.cover)) << info.cover.toStdString();
        EXPECT_FALSE(info.name.isEmpty());
    }
    EXPECT_EQ(collectionIds.size(), collections->size());
    for (const Meme& sticker : stickers) {
        ASSERT_TRUE(sticker.collection_id.has_value()) << sticker.id.toStdString();
        EXPECT_TRUE(collectionIds.contains(*sticker.collection_id));
        // A favourite sticker must not be mistaken for a catalog meme, nor for a user's item.
        EXPECT_EQ(findById(index, sticker.id), nullptr) << sticker.id.toStdString();
        EXPECT_FALSE(sticker.isMine());
    }
    // Skin-tone variants stay out of the sticker sets.
    EXPECT_EQ(stickers.size(), index.size() - 1);
    const auto cat =
        std::find_if(collections->begin(), collections->end(),
                     [](const CollectionInfo& c) { return c.name == "Animals & Nature"; });
    ASSERT_NE(cat, collections->end());
    EXPECT_EQ(cat->cover, findById(index, "1F431")->thumb);
}

TEST_F(DemoCatalog, ShipsTheLicenceAndAttributionAndReplacesAnOldBuildWhole) {
    ASSERT_EQ(s_run.exitCode, 0) << s_run.err.toStdString();
    EXPECT_EQ(TestEnv::readFile(s_out + "/LICENSE.txt"),
              "Attribution-ShareAlike 4.0 International\n");
    const QByteArray attribution = TestEnv::readFile(s_out + "/ATTRIBUTION.txt");
    EXPECT_TRUE(attribution.contains("OpenMoji") && attribution.contains("CC BY-SA 4.0"));
    EXPECT_TRUE(attribution.contains("Tester"));

    const QString out = TestEnv::freshDir() + QStringLiteral("/again");
    TestEnv::writeFile(out + "/stale.json", "[]");
    const ToolRun again = buildCatalog(makePackage(), out);
    ASSERT_EQ(again.exitCode, 0) << again.err.toStdString();
    EXPECT_FALSE(QFile::exists(out + "/stale.json"));
    EXPECT_TRUE(QFile::exists(out + "/index.json"));
    const QStringList leftovers = QDir(out + "/..").entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    EXPECT_EQ(leftovers, QStringList{"again"});
}
