// SPDX-License-Identifier: MIT
#include "catalog/catalogjson.h"
#include "server/catalogserver.h"
#include "server/eventstore.h"
#include "server/searchapi.h"
#include "server/searchservice.h"
#include "server/wordnet.h"
#include "support/testenv.h"

#include <QDeadlineTimer>
#include <QThread>
#include <atomic>
#include <gtest/gtest.h>
#include <httplib.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

namespace {

using nlohmann::json;

Meme item(const QString& id, const QString& ocr, const QString& description,
          const QStringList& keywords = {}) {
    Meme meme;
    meme.id = id;
    meme.ocr_text = ocr;
    meme.description = description;
    meme.keywords = keywords;
    meme.thumb = QStringLiteral("/t/%1.webp").arg(id);
    meme.full = QStringLiteral("/f/%1.jpg").arg(id);
    meme.width = meme.height = 100;
    meme.bytes = 1;
    return meme;
}

// "cat" is on cat_ocr's picture and only a keyword of cat_kw, so bm25 ranks cat_ocr first.
MemeList catalog() {
    return {item("cat_ocr", "cat", "a grumpy animal"),
            item("cat_kw", "", "a sleepy animal", {"cat"}), item("joy", "", "a happy dog jumping"),
            item("sad", "", "a sad frog")};
}

// No rate limits: a test sends requests faster than any client would.
SearchApiLimits unlimited() {
    SearchApiLimits limits;
    limits.searchPerSecond = limits.eventsPerSecond = 0;
    return limits;
}

struct Reply {
    int status = 0;
    json body;
};

// orvane-server's search and events endpoints in-process on 127.0.0.1, over the catalog above.
class SearchServer {
public:
    explicit SearchServer(SearchApiLimits limits = unlimited()) {
        TestEnv::writeFile(root + "/index.json", CatalogJson::encodeMemes(catalog()));
        events = EventStore::open(data);
        wordNet = WordNet::open();
        SearchService::Options options;
        options.catalog = (root + "/index.json").toStdString();
        options.checkInterval = std::chrono::milliseconds(0);
        options.maxTotalHits = limits.maxLimit;
        search = std::make_unique<SearchService>(options, wordNet.get(), events.get());
        api = std::make_unique<SearchApi>(*search, events.get(), SearchApi::Keys{"engine-key", ""},
                                          limits);
        server = std::make_unique<CatalogServer>(root.toStdString());
        api->install(*server);
        port = server->start("127.0.0.1", 0);
    }

    Reply engine(const json& body, const std::string& key = "engine-key") {
        httplib::Headers headers;
        if (!key.empty())
            headers.emplace("Authorization", "Bearer " + key);
        return reply(
            client().Post("/indexes/memes/search", headers, body.dump(), "application/json"));
    }
    Reply worker(const std::string& target, const std::string& installId = "install-1") {
        httplib::Headers headers;
        if (!installId.empty())
            headers.emplace("x-install-id", installId);
        return reply(client().Get(target, headers));
    }
    Reply postEvents(const std::string& body, const std::string& installId = "install-1") {
        return reply(
            client().Post("/v1/events", {{"x-install-id", installId}}, body, "application/json"));
    }
    std::vector<std::string> ids(const Reply& r) {
        std::vector<std::string> out;
        for (const json& hit : r.body.value("hits", json::array()))
            out.push_back(hit.value("id", ""));
        return out;
    }

    QString root = TestEnv::freshDir();
    QString data = TestEnv::freshDir();
    std::unique_ptr<EventStore> events;
    std::unique_ptr<WordNet> wordNet;
    std::unique_ptr<SearchService> search;
    std::unique_ptr<SearchApi> api;
    std::unique_ptr<CatalogServer> server;
    int port = -1;

private:
    httplib::Client client() { return httplib::Client("127.0.0.1", port); }
    static Reply reply(const httplib::Result& result) {
        if (!result)
            return {};
        return {result->status, json::parse(result->body, nullptr, false)};
    }
};

json event(const std::string& query, const std::string& picked, int position = 1) {
    return {{"query", query},      {"results_shown", {"cat_ocr", "cat_kw"}},
            {"picked_id", picked}, {"position", position},
            {"method", "paste"},   {"timestamp", "2024-05-01T10:00:00Z"}};
}

} // namespace

TEST(SearchApi, EngineDialectAnswersInTheEngineShapeWithCatalogRecords) {
    SearchServer s;
    const Reply r = s.engine({{"q", "cat"}, {"limit", 1}});
    ASSERT_EQ(r.status, 200);
    EXPECT_EQ(s.ids(r), std::vector<std::string>{"cat_ocr"});
    EXPECT_EQ(r.body["query"], "cat");
    EXPECT_EQ(r.body["limit"], 1);
    EXPECT_EQ(r.body["offset"], 0);
    EXPECT_EQ(r.body["estimatedTotalHits"], 2);
    EXPECT_TRUE(r.body["processingTimeMs"].is_number_integer());
    // A hit is the catalog record itself, as index.json holds it.
    EXPECT_EQ(CatalogJson::decodeMeme(r.body["hits"][0]), catalog()[0]);

    EXPECT_EQ(s.ids(s.engine({{"q", "cat"}, {"offset", 1}})), std::vector<std::string>{"cat_kw"});
    EXPECT_EQ(s.engine({{"q", "zebra"}}).body["hits"], json::array());
}

TEST(SearchApi, EngineDialectRefusesInItsErrorShapeAndNeverAnswersWithHits) {
    SearchApiLimits limits = unlimited();
    limits.maxLimit = 3;
    limits.maxSearchBodyBytes = 256;
    SearchServer s(limits);
    const auto expectError = [](const Reply& r, int status, const std::string& code) {
        EXPECT_EQ(r.status, status) << code;
        EXPECT_EQ(r.body.value("code", ""), code);
        EXPECT_FALSE(r.body.value("message", "").empty()) << code;
        EXPECT_EQ(r.body.value("link", ""), "https://docs.meilisearch.com/errors#" + code);
        EXPECT_FALSE(r.body.contains("hits")) << code;
    };
    expectError(s.engine({{"q", "cat"}}, ""), 401, "missing_authorization_header");
    EXPECT_EQ(s.engine({{"q", "cat"}}, "").body["type"], "auth");
    expectError(s.engine({{"q", "cat"}}, "guess"), 403, "invalid_api_key");
    expectError(s.engine("not an object"), 400, "bad_request");
    expectError(s.engine({{"q", 7}}), 400, "invalid_search_q");
    expectError(s.engine({{"q", "cat"}, {"limit", "ten"}}), 400, "invalid_search_limit");
    expectError(s.engine({{"q", "cat"}, {"offset", -1}}), 400, "invalid_search_offset");
    expectError(s.engine({{"q", "cat"}, {"hybrid", {{"semanticRatio", 1.5}}}}), 400,
                "invalid_search_semantic_ratio");
    expectError(s.engine({{"q", std::string(300, 'a')}}), 413, "payload_too_large");

    // The documented maximum: limit is cut to it, and so is offset + limit.
    const Reply capped = s.engine({{"q", "a"}, {"limit", 50}});
    EXPECT_EQ(capped.status, 200);
    EXPECT_EQ(capped.body["limit"], 3);
    EXPECT_EQ(capped.body["hits"].size(), 3u);
    EXPECT_EQ(s.engine({{"q", "a"}, {"offset", 2}, {"limit", 50}}).body["hits"].size(), 1u);
}

TEST(SearchApi, HybridFindsWhatOnlyARelatedWordDescribes) {
    SearchServer s;
    ASSERT_TRUE(s.wordNet) << "WordNet database missing (Debian: wordnet-base)";
    EXPECT_EQ(s.engine({{"q", "glad"}}).body["hits"], json::array());
    const json hybrid = {{"embedder", "openrouter"}, {"semanticRatio", 0.5}};
    const Reply r = s.engine({{"q", "glad"}, {"hybrid", hybrid}});
    ASSERT_EQ(r.status, 200);
    EXPECT_EQ(s.ids(r), std::vector<std::string>{"joy"});
    EXPECT_EQ(r.body["semanticHitCount"], 1);
    // Keyword matches keep their lead over relatives at an even blend.
    EXPECT_EQ(s.ids(s.engine({{"q", "cat"}, {"hybrid", hybrid}}))[0], "cat_ocr");
    // A ratio of 0 is a keyword search.
    EXPECT_EQ(s.engine({{"q", "glad"}, {"hybrid", {{"semanticRatio", 0}}}}).body["hits"],
              json::array());

    const WordNet::Related glad = s.wordNet->related(QStringLiteral("glad"), 8);
    EXPECT_TRUE(glad.synonyms.contains(QStringLiteral("happy")));
    // Inflected forms are looked up by their lemma.
    EXPECT_TRUE(
        s.wordNet->related(QStringLiteral("happier"), 8).synonyms.contains(QStringLiteral("glad")));
}

TEST(SearchApi, WorkerDialectNeedsTheInstallIdAndAnswersHits) {
    SearchServer s;
    const Reply r = s.worker("/v1/search?q=cat&limit=60&scope=memes");
    ASSERT_EQ(r.status, 200);
    EXPECT_EQ(s.ids(r), (std::vector<std::string>{"cat_ocr", "cat_kw"}));
    EXPECT_EQ(s.ids(s.worker("/v1/search?q=sad%20fr")), std::vector<std::string>{"sad"});
    EXPECT_EQ(s.worker("/v1/search?q=").body["hits"], json::array());

    for (const auto& [target, installId] :
         {std::pair{"/v1/search?q=cat", ""}, std::pair{"/v1/search?q=cat&scope=stickers", "i"},
          std::pair{"/v1/search?q=cat&limit=lots", "i"}}) {
        const Reply bad = s.worker(target, installId);
        EXPECT_EQ(bad.status, 400) << target;
        EXPECT_TRUE(bad.body.contains("error")) << target;
        EXPECT_FALSE(bad.body.contains("hits")) << target;
    }
}

TEST(SearchApi, EventsAreValidatedWholeAndABatchSentTwiceIsStoredOnce) {
    SearchApiLimits limits = unlimited();
    limits.maxEventsBodyBytes = 2048;
    SearchServer s(limits);
    const std::string batch = json{event("cat", "cat_kw"), event("sad", "sad", 0)}.dump();
    EXPECT_EQ(s.postEvents(batch).status, 200);
    const Reply again = s.postEvents(batch);
    EXPECT_EQ(again.status, 200);
    EXPECT_EQ(again.body["duplicates"], 2);
    EXPECT_EQ(s.events->eventCount(), 2);

    json wrongType = event("dog", "joy");
    wrongType["position"] = "1";
    json missing = event("dog", "joy");
    missing.erase("timestamp");
    json shownNotStrings = event("dog", "joy");
    shownNotStrings["results_shown"] = {1, 2};
    for (const std::string& body :
         {std::string("[{\"query\":"), std::string("\xff\xfe[[[", 5),
          json{event("dog", "joy"), wrongType}.dump(), json{missing}.dump(),
          json{shownNotStrings}.dump(), event("dog", "joy").dump()})
        EXPECT_EQ(s.postEvents(body).status, 400) << body;
    EXPECT_EQ(s.postEvents(json::array({event(std::string(3000, 'q'), "joy")}).dump()).status, 413);
    EXPECT_EQ(s.postEvents(batch, "").status, 400);
    EXPECT_EQ(s.events->eventCount(), 2);

    // What was stored survives a restart of the store.
    s.events = EventStore::open(s.data);
    EXPECT_EQ(s.events->picksFor(QStringLiteral("cat")).value(QStringLiteral("cat_kw")), 1);
}

TEST(SearchApi, APickMovesTheItemUpForItsQueryOnly) {
    SearchServer s;
    const auto catOrder = std::vector<std::string>{"cat_ocr", "cat_kw"};
    ASSERT_EQ(s.ids(s.engine({{"q", "cat"}})), catOrder);
    ASSERT_EQ(s.postEvents(json{event("Cat!", "cat_kw")}.dump()).status, 200);

    EXPECT_EQ(s.ids(s.engine({{"q", "cat"}})), (std::vector<std::string>{"cat_kw", "cat_ocr"}));
    EXPECT_EQ(s.ids(s.worker("/v1/search?q=CAT")), (std::vector<std::string>{"cat_kw", "cat_ocr"}));
    EXPECT_EQ(s.ids(s.engine({{"q", "ca"}})), catOrder);
    EXPECT_EQ(s.ids(s.engine({{"q", "cat animal"}})), catOrder);
}

TEST(SearchApi, ACatalogChangeIsIndexedWhileTheOldIndexAnswers) {
    SearchServer s;
    MemeList changed = catalog();
    changed.append(item("new", "brand new zebra", ""));
    TestEnv::writeFile(s.root + "/index.json", CatalogJson::encodeMemes(changed));
    const QDeadlineTimer deadline(20000);
    std::vector<std::string> found;
    while (found.empty() && !deadline.hasExpired()) {
        const Reply r = s.engine({{"q", "zebra"}});
        ASSERT_EQ(r.status, 200); // answered by the old index meanwhile
        found = s.ids(r);
        QThread::msleep(10);
    }
    EXPECT_EQ(found, std::vector<std::string>{"new"});

    // A broken catalog leaves the last good one answering.
    TestEnv::writeFile(s.root + "/index.json", "[{\"id\":");
    s.search->refreshNow();
    EXPECT_EQ(s.ids(s.engine({{"q", "zebra"}})), std::vector<std::string>{"new"});
}

TEST(SearchApi, ClientsOverTheirRateWaitASecond) {
    SearchApiLimits limits = unlimited();
    limits.searchPerSecond = 1; // bursts of 2
    SearchServer s(limits);
    EXPECT_EQ(s.engine({{"q", "cat"}}).status, 200);
    EXPECT_EQ(s.worker("/v1/search?q=cat").status, 200);
    const Reply over = s.engine({{"q", "cat"}});
    EXPECT_EQ(over.status, 429);
    EXPECT_EQ(over.body["code"], "too_many_search_requests");
}

// The event threads search one index at once: each must get what a lone client gets, also
// for prefixes that merge many words on the fly.
TEST(SearchApi, ClientsSearchingAtOnceGetWhatALoneClientGets) {
    const QStringList words = {"cat",   "catnip", "catalog", "category", "cattle", "dog",
                               "dodge", "dot",    "happy",   "hapless",  "harbor", "sad"};
    MemeList memes;
    for (int i = 0; i < 5000; ++i)
        memes.append(item(QStringLiteral("m%1").arg(i), {},
                          words[i % words.size()] + ' ' + words[(i * 7 + 3) % words.size()] + ' ' +
                              words[(i * 5 + 1) % words.size()]));
    const QString root = TestEnv::freshDir();
    TestEnv::writeFile(root + "/index.json", CatalogJson::encodeMemes(memes));
    SearchService::Options options;
    options.catalog = (root + "/index.json").toStdString();
    SearchService search(options, nullptr, nullptr);

    const QStringList queries = {"c", "ca", "cat", "d", "do", "h", "ha", "cat d", "ca ha", "s"};
    const auto answer = [&](const QString& text) {
        SearchService::Query query;
        query.text = text;
        query.limit = 60;
        return search.search(query).ids;
    };
    std::vector<QStringList> alone;
    for (const QString& q : queries)
        alone.push_back(answer(q));
    std::atomic<int> mismatches{0};
    std::vector<std::thread> clients;
    for (int t = 0; t < 6; ++t)
        clients.emplace_back([&, t] {
            for (int i = 0; i < 400; ++i) {
                const auto n = std::size_t((i + t) % queries.size());
                mismatches += answer(queries[qsizetype(n)]) != alone[n];
            }
        });
    for (std::thread& client : clients)
        client.join();
    EXPECT_EQ(mismatches, 0);
    EXPECT_FALSE(alone[1].isEmpty());
}
