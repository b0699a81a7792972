// SPDX-License-Identifier: MIT
#include "catalog/catalogjson.h"
#include "server/catalogserver.h"
#include "server/tagger.h"
#include "server/tagservice.h"
#include "server/tagstore.h"
#include "server/templateindex.h"
#include "server/wordnet.h"
#include "support/testenv.h"

#include <QBuffer>
#include <QFont>
#include <QImage>
#include <QPainter>
#include <QRandomGenerator>
#include <future>
#include <gtest/gtest.h>
#include <httplib.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <sqlite3.h>
#include <zlib.h>

namespace {

using nlohmann::json;

QByteArray encoded(const QImage& image, const char* format, int quality = -1) {
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, format, quality);
    return bytes;
}

// Large black capitals on white, as a caption is drawn.
QImage captioned(const QString& text, int width = 640, int height = 360) {
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(Qt::white);
    QPainter painter(&image);
    QFont font(QStringLiteral("DejaVu Sans"));
    font.setBold(true);
    font.setPixelSize(34);
    painter.setFont(font);
    painter.setPen(Qt::black);
    painter.drawText(image.rect(), Qt::AlignCenter, text);
    return image;
}

// A made-up template: blocks and discs of random greys and colours, different per seed.
QImage templatePicture(quint32 seed) {
    QRandomGenerator random(seed);
    QImage image(500, 400, QImage::Format_RGB32);
    image.fill(QColor::fromHsv(random.bounded(360), 80, 200));
    QPainter painter(&image);
    painter.setPen(Qt::NoPen);
    for (int i = 0; i < 12; ++i) {
        painter.setBrush(
            QColor::fromHsv(random.bounded(360), random.bounded(256), random.bounded(256)));
        const QRect r(random.bounded(450), random.bounded(350), 40 + random.bounded(200),
                      40 + random.bounded(200));
        i % 2 ? painter.drawEllipse(r) : painter.drawRect(r);
    }
    return image;
}

struct Reply {
    int status = 0;
    json body;
    std::string text;
    std::string retryAfter;
};

// orvane-server's tagging stack in-process over a catalog of three made-up templates.
struct TagServer {
    QString root = TestEnv::freshDir();
    QString database = TestEnv::freshDir() + QStringLiteral("/tags.sqlite");
    std::unique_ptr<TagStore> store;
    std::unique_ptr<WordNet> wordNet = WordNet::open();
    std::unique_ptr<TemplateIndex> templates;
    std::unique_ptr<Tagger> tagger;
    std::unique_ptr<TagService> service;
    std::unique_ptr<CatalogServer> server;
    int port = -1;

    explicit TagServer(TagLimits limits, ServerLimits serverLimits = {}) {
        MemeList memes;
        for (int n = 1; n <= 3; ++n) {
            Meme meme;
            meme.id = QStringLiteral("t%1").arg(n);
            meme.full = QStringLiteral("/full/%1.png").arg(n);
            meme.thumb = meme.full;
            meme.description = QStringLiteral("template number %1").arg(n);
            meme.emotions = {QStringLiteral("smug")};
            meme.keywords = {QStringLiteral("blocks")};
            memes.append(meme);
            TestEnv::writeFile(root + meme.full, encoded(templatePicture(n), "PNG"));
        }
        TestEnv::writeFile(root + QStringLiteral("/index.json"), CatalogJson::encodeMemes(memes));
        store = TagStore::open(database);
        templates = std::make_unique<TemplateIndex>(root.toStdString(), "index.json", store.get());
        templates->start();
        templates->waitUntilReady(std::chrono::seconds(60));
        tagger = std::make_unique<Tagger>(wordNet.get(), templates.get());
        service = std::make_unique<TagService>(*store, *tagger, limits);
        server = std::make_unique<CatalogServer>(root.toStdString(), serverLimits);
        service->install(*server);
        port = server->start("127.0.0.1", 0);
    }
    ~TagServer() { server->stop(); }

    Reply post(const QByteArray& picture, const std::string& device = "dev-1",
               httplib::Headers headers = {}) const {
        httplib::Client client("127.0.0.1", port);
        client.set_read_timeout(60);
        if (!device.empty())
            headers.emplace("X-Device", device);
        headers.emplace("x-install-id", "install-1");
        return reply(client.Post("/v1/import/tag", headers, picture.constData(),
                                 std::size_t(picture.size()), "application/octet-stream"));
    }
    Reply remove(const std::string& device) const {
        httplib::Client client("127.0.0.1", port);
        return reply(client.Delete("/v1/import/data", {{"X-Device", device}}));
    }
    static Reply reply(const httplib::Result& result) {
        if (!result)
            return {};
        return {result->status, json::parse(result->body, nullptr, false), result->body,
                result->get_header_value("Retry-After")};
    }
};

QByteArray smallPicture() {
    QImage image(64, 64, QImage::Format_RGB32);
    image.fill(Qt::white);
    return encoded(image, "PNG");
}

} // namespace

TEST(TagService, ReadsTheCaptionAndRecognisesATemplateCopy) {
    TagServer tags({});
    ASSERT_GT(tags.port, 0);

    const Reply read =
        tags.post(encoded(captioned(QStringLiteral("WHEN THE BUILD IS GREEN")), "JPEG", 85),
                  "dev-1", {{"X-Collection", "C0FFEE%2D1"}, {"X-File", "build%20green.png"}});
    ASSERT_EQ(read.status, 200) << read.text;
    std::vector<std::string> keys;
    const auto ordered = nlohmann::ordered_json::parse(read.text);
    for (const auto& [key, value] : ordered.items())
        keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{"ocr_text", "description", "character", "emotions",
                                              "actions", "use_cases", "keywords", "language",
                                              "nsfw", "hateful"}));
    EXPECT_EQ(read.body["ocr_text"], "WHEN THE BUILD IS GREEN");
    EXPECT_EQ(read.body["language"], "en");
    if (tags.wordNet) {
        const auto keywords = read.body["keywords"].get<std::vector<std::string>>();
        EXPECT_NE(std::find(keywords.begin(), keywords.end(), "build"), keywords.end());
        EXPECT_NE(std::find(keywords.begin(), keywords.end(), "green"), keywords.end());
    }

    // A copy at 60% as a JPEG of quality 70, as a client's resize and re-encode make it.
    const QImage copy =
        templatePicture(2).scaled(300, 240, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    const Reply matched = tags.post(encoded(copy, "JPEG", 70));
    ASSERT_EQ(matched.status, 200) << matched.text;
    EXPECT_EQ(matched.body["description"], "template number 2");
    EXPECT_EQ(matched.body["emotions"], json::array({"smug"}));
    EXPECT_NE(tags.post(encoded(templatePicture(7), "JPEG", 80)).body["description"],
              "template number 2");

    // The tags are kept, with the collection and file names decoded; never the picture.
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(tags.database.toUtf8().constData(), &db), SQLITE_OK);
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(db, "SELECT collection, file, tags FROM tags ORDER BY id LIMIT 1", -1,
                       &select, nullptr);
    ASSERT_EQ(sqlite3_step(select), SQLITE_ROW);
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(select, 0)), "C0FFEE-1");
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(select, 1)), "build green.png");
    EXPECT_EQ(json::parse(reinterpret_cast<const char*>(sqlite3_column_text(select, 2))),
              read.body);
    sqlite3_finalize(select);
    sqlite3_close(db);
}

TEST(TagService, LimitsRateAndCountPerDeviceUntilItsDataIsDeleted) {
    TagLimits rateLimits;
    rateLimits.perMinute = 2;
    const TagServer rated(rateLimits);
    EXPECT_EQ(rated.post(smallPicture()).status, 200);
    EXPECT_EQ(rated.post(smallPicture()).status, 200);
    const Reply slowDown = rated.post(smallPicture());
    EXPECT_EQ(slowDown.status, 429);
    EXPECT_EQ(slowDown.body["code"], "rate_limited");
    EXPECT_FALSE(slowDown.retryAfter.empty());
    EXPECT_EQ(rated.post(smallPicture(), "dev-2").status, 200) << "another device is not slowed";

    TagLimits capLimits;
    capLimits.perDeviceCap = 2;
    const TagServer capped(capLimits);
    EXPECT_EQ(capped.post(smallPicture()).status, 200);
    EXPECT_EQ(capped.post(smallPicture()).status, 200);
    const Reply full = capped.post(smallPicture());
    EXPECT_EQ(full.status, 429);
    EXPECT_EQ(full.body["code"], "device_cap");

    const Reply deleted = capped.remove("dev-1");
    EXPECT_EQ(deleted.status, 200);
    EXPECT_EQ(deleted.text, R"({"deleted":true})");
    EXPECT_EQ(capped.store->count("dev-1"), 0);
    EXPECT_EQ(capped.post(smallPicture()).status, 200);
    EXPECT_EQ(capped.remove("").status, 400);
}

TEST(TagService, RefusesBadUploadsWithJsonAndKeepsServing) {
    TagLimits limits;
    limits.maxBodyBytes = 256 * 1024;
    const TagServer tags(limits);
    const QByteArray png = encoded(captioned(QStringLiteral("HELLO")), "PNG");

    // The PNG with its header changed to declare 30000×30000 (and the header's CRC to match).
    QByteArray bomb = png;
    const auto putBigEndian = [&](int at, quint32 value) {
        for (int i = 0; i < 4; ++i)
            bomb[at + i] = char(value >> (24 - 8 * i));
    };
    putBigEndian(16, 30000);
    putBigEndian(20, 30000);
    putBigEndian(29, quint32(crc32(0, reinterpret_cast<const Bytef*>(bomb.constData() + 12), 17)));

    const struct {
        const char* what;
        QByteArray body;
        std::string device;
        int status;
        const char* code;
    } cases[] = {
        {"garbage", QByteArray(5000, 'x'), "dev-1", 400, "not_an_image"},
        {"truncated PNG", png.left(png.size() / 2), "dev-1", 400, "bad_image"},
        {"declared 30000×30000", bomb, "dev-1", 413, "too_many_pixels"},
        {"over the size limit", QByteArray(300 * 1024, 'x'), "dev-1", 413, "too_large"},
        {"no device", png, "", 400, "missing_device"},
        {"empty", QByteArray(), "dev-1", 400, "empty_body"},
    };
    for (const auto& c : cases) {
        const Reply reply = tags.post(c.body, c.device);
        EXPECT_EQ(reply.status, c.status) << c.what << ": " << reply.text;
        EXPECT_EQ(reply.body.value("code", ""), c.code) << c.what;
        EXPECT_TRUE(reply.body.contains("error")) << c.what;
    }
    EXPECT_EQ(tags.post(png).status, 200);
}

TEST(TagService, AnswersBusyWhenTheQueueIsFullAndServesFilesMeanwhile) {
    TagLimits limits;
    limits.workers = 1;
    limits.maxQueued = 1;
    ServerLimits serverLimits;
    serverLimits.threads = 1;
    const TagServer tags(limits, serverLimits);
    const QByteArray picture =
        encoded(captioned(QStringLiteral("ONE MORE THING\nBEFORE WE SHIP")), "PNG");

    std::vector<std::future<Reply>> uploads;
    for (int i = 0; i < 6; ++i)
        uploads.push_back(std::async(
            std::launch::async, [&, i] { return tags.post(picture, "dev-" + std::to_string(i)); }));
    httplib::Client client("127.0.0.1", tags.port);
    const auto catalog = client.Get("/index.json");
    ASSERT_TRUE(catalog);
    EXPECT_EQ(catalog->status, 200);
    int busy = 0;
    for (auto& upload : uploads) {
        const Reply reply = upload.get();
        if (reply.status == 503) {
            ++busy;
            EXPECT_EQ(reply.body["code"], "busy");
            EXPECT_FALSE(reply.retryAfter.empty());
        } else {
            EXPECT_EQ(reply.status, 200) << reply.text;
        }
    }
    EXPECT_GE(busy, 1);
    EXPECT_LE(busy, 5);
}

TEST(Tagger, KeepsRealWordsAndTagsThemWithTheCatalogsFeelings) {
    const std::unique_ptr<WordNet> wordNet = WordNet::open();
    if (!wordNet)
        GTEST_SKIP() << "no WordNet database (Debian: wordnet-base)";
    const Tagger tagger(wordNet.get(), nullptr);
    const auto kept = tagger.cleanWords({{"WHEN", 95},
                                         {"ee", 92},
                                         {"l1ke", 90},
                                         {"\"crying,", 90},
                                         {"Cats!", 88},
                                         {"laughing", 80},
                                         {"grumpy", 30}});
    QStringList texts;
    for (const auto& word : kept)
        texts.append(word.text);
    EXPECT_EQ(texts, (QStringList{"WHEN", "crying", "Cats", "laughing"}));

    const Tags tags = tagger.fromWords(texts);
    EXPECT_EQ(tags.ocrText, "WHEN crying Cats laughing");
    // A word WordNet knows as it stands stays as it is; "Cats" is not a lemma, "cat" is.
    EXPECT_EQ(tags.keywords, (QStringList{"crying", "cat", "laughing"}));
    EXPECT_EQ(tags.actions, (QStringList{"cry", "laugh"}));
    EXPECT_TRUE(tags.emotions.contains("amused")) << tags.emotions.join(',').toStdString();
    EXPECT_EQ(tags.language, "en");
    EXPECT_TRUE(tagger.fromWords({}).language.isEmpty());
}
