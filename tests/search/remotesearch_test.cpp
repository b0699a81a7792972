// SPDX-License-Identifier: MIT
#include "catalog/memestore.h"
#include "search/pickermodel.h"
#include "search/remotesearch.h"
#include "searchtesthelpers.h"
#include "support/httptestserver.h"
#include "telemetry/metrics.h"
#include "userdata/userdata.h"

#include <QTest>
#include <QThreadPool>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>

using namespace SearchTest;

namespace {

const QString cloudHints =
    QStringLiteral(" · ↵ paste · drag to insert · Ctrl+D favorite · esc close");

struct SeenRequest {
    httplib::Request req;
    nlohmann::json body;

    std::string header(const char* name) const { return req.get_header_value(name); }
    std::string query() const {
        return req.method == "GET" ? req.get_param_value("q") : body.value("q", std::string());
    }
};

// The cloud side: both dialects on one real server that records every request and answers
// with the body set for its query. A held query waits for release(), to stay in flight.
class CloudServer {
public:
    CloudServer() {
        const auto handle = [this](const httplib::Request& req, httplib::Response& res) {
            std::unique_lock lock(m_mutex);
            m_seen.push_back({req, nlohmann::json::parse(req.body, nullptr, false)});
            const std::string q = m_seen.back().query();
            m_changed.wait(lock, [&] { return !m_held.count(q) || m_stopping; });
            res.status = m_status;
            const auto answer = m_answers.find(q);
            res.set_content(answer == m_answers.end() ? R"({"hits":[]})" : answer->second,
                            "application/json");
        };
        // Closed connections let the server stop at once instead of after its keep-alive wait.
        m_http.server().set_keep_alive_max_count(1);
        m_http.server().Post(".*/indexes/memes/search", handle);
        m_http.server().Get(".*/v1/search", handle);
        m_started = m_http.start();
    }
    ~CloudServer() {
        set([&] { m_stopping = true; });
        m_http.stop();
    }

    bool started() const { return m_started; }
    QUrl url() const { return m_http.url(); }
    void answer(const std::string& q, const MemeList& hits) {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const Meme& m : hits)
            list.push_back(CatalogJson::encode(m));
        answerRaw(q, nlohmann::ordered_json{{"hits", list}}.dump());
    }
    void answerRaw(const std::string& q, std::string body) {
        set([&] { m_answers[q] = std::move(body); });
    }
    void setStatus(int status) {
        set([&] { m_status = status; });
    }
    void hold(const std::string& q) {
        set([&] { m_held.insert(q); });
    }
    void release(const std::string& q) {
        set([&] { m_held.erase(q); });
    }
    std::vector<SeenRequest> seen() const {
        std::lock_guard lock(m_mutex);
        return m_seen;
    }
    std::vector<std::string> queries() const {
        std::vector<std::string> out;
        for (const SeenRequest& r : seen())
            out.push_back(r.query());
        return out;
    }

private:
    template <typename F> void set(F change) {
        {
            std::lock_guard lock(m_mutex);
            change();
        }
        m_changed.notify_all();
    }

    HttpTestServer m_http;
    bool m_started = false;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<SeenRequest> m_seen;
    std::map<std::string, std::string> m_answers;
    std::set<std::string> m_held;
    int m_status = 200;
    bool m_stopping = false;
};

// Collects the "glimmet.search" log lines written while it lives, from any thread.
class SearchLog {
public:
    SearchLog() {
        std::lock_guard lock(s_mutex);
        s_lines.clear();
        m_previous = qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext& context, const QString& message) {
                if (QLatin1String(context.category) == QLatin1String("glimmet.search")) {
                    std::lock_guard lock(s_mutex);
                    s_lines.append(message);
                }
            });
    }
    ~SearchLog() { qInstallMessageHandler(m_previous); }
    QStringList lines() const {
        std::lock_guard lock(s_mutex);
        return s_lines;
    }

private:
    static inline std::mutex s_mutex;
    static inline QStringList s_lines;
    QtMessageHandler m_previous;
};

struct Answer {
    bool done = false;
    std::optional<MemeList> hits;
};

// Runs one search and waits for its completion.
Answer searchOnce(RemoteSearch& client, const QString& text, bool hybrid = false) {
    QObject context;
    Answer answer;
    client.search(text, hybrid, &context, [&](std::optional<MemeList> hits, double) {
        answer = {true, std::move(hits)};
    });
    // A completion that never comes shows as done == false.
    (void)QTest::qWaitFor([&] { return answer.done; }, 10'000);
    return answer;
}

Meme cloudMeme(const char* id, const char* ocr = "from the cloud") {
    return meme(QString::fromLatin1(id), QString::fromLatin1(ocr));
}

// The picker over a catalog whose words match known items: "heron" h1 only, "stork" s1
// only, "owl" o1..o3, "dog" d1 and d2, "cat" c0..c199.
struct CloudPicker {
    CloudPicker() {
        for (const char* id :
             {"h1:heron", "s1:stork", "o1:owl", "o2:owl", "o3:owl", "d1:dog", "d2:dog"}) {
            const QString item = QString::fromLatin1(id);
            memes.append(meme(item.section(u':', 0, 0), item.section(u':', 1)));
        }
        for (int i = 0; i < 200; ++i)
            memes.append(meme(QStringLiteral("c%1").arg(i), QStringLiteral("cat"), 200 - i));
        model.setIndex(std::shared_ptr<LocalIndex>(indexWith(memes)), memes);
    }
    MemeStore::Options storeOptions() {
        MemeStore::Options o;
        o.base = QUrl(QStringLiteral("http://127.0.0.1:9/"));
        o.cacheDir = root + QStringLiteral("/full");
        o.metrics = &log;
        return o;
    }
    // The search-engine dialect through the user's settings.
    void useEngine(const CloudServer& cloud) {
        settings->set(QStringLiteral("searchURL"), cloud.url().toString().toStdString());
        settings->set(QStringLiteral("searchKey"), "secret");
    }
    void useWorker(const CloudServer& cloud) {
        settings = TestEnv::installConfig({{QStringLiteral("MEME_API"), cloud.url().toString()}});
    }
    QStringList shown() const { return idsOf(model.results()); }
    // Types `text` and waits until the cloud answer is merged: only a merge writes the
    // status without the caption hint.
    bool typeAndMerge(const QString& text) {
        model.searchTextEdited(text);
        return QTest::qWaitFor([&] { return model.status().endsWith(cloudHints); }, 10'000);
    }
    std::vector<nlohmann::json> remoteEvents() {
        log.flush();
        std::vector<nlohmann::json> found;
        for (const QByteArray& line : TestEnv::readFile(log.path()).split('\n')) {
            const auto object = nlohmann::json::parse(line.toStdString(), nullptr, false);
            if (object.is_object() && object["event"] == "search_remote")
                found.push_back(object);
        }
        return found;
    }

    // No cloud until a test configures one.
    std::shared_ptr<SettingsStore> settings = TestEnv::installConfig();
    QString root = TestEnv::freshDir();
    Metrics log{root + QStringLiteral("/spike.jsonl")};
    MemeStore store{storeOptions()};
    UserData userData{root + QStringLiteral("/userdata.json")};
    PickerModel model{&store, &userData};
    MemeList memes;
};

} // namespace

TEST(RemoteSearch, ConfigurationChoosesTheDialectAfreshOnEachCall) {
    const QString api = QStringLiteral("http://127.0.0.1:7700/api");
    TestEnv::installConfig({{QStringLiteral("MEME_API"), api}});
    auto client = RemoteSearch::current();
    ASSERT_TRUE(client);
    EXPECT_TRUE(client->isWorker());
    EXPECT_EQ(client->identity(), QStringLiteral("worker:") + api);

    // The build-time key counts like the environment, and wins over the user's settings.
    auto settings = TestEnv::installConfig({}, {{QStringLiteral("MemeAPIBase"), api}});
    settings->set(QStringLiteral("searchURL"), "http://search.example:7700");
    settings->set(QStringLiteral("searchKey"), "k");
    ASSERT_TRUE(RemoteSearch::current());
    EXPECT_TRUE(RemoteSearch::current()->isWorker());

    settings = TestEnv::installConfig();
    EXPECT_FALSE(RemoteSearch::current()) << "nothing configured";
    settings->set(QStringLiteral("searchURL"), "http://search.example:7700");
    EXPECT_FALSE(RemoteSearch::current()) << "no key";
    settings->set(QStringLiteral("searchKey"), "");
    EXPECT_FALSE(RemoteSearch::current()) << "empty key";
    settings->set(QStringLiteral("searchKey"), "k1");
    client = RemoteSearch::current();
    ASSERT_TRUE(client);
    EXPECT_FALSE(client->isWorker());
    EXPECT_EQ(client->identity(), QStringLiteral("meili:http://search.example:7700:k1"));
    settings->set(QStringLiteral("searchKey"), "k2");
    EXPECT_EQ(RemoteSearch::current()->identity(),
              QStringLiteral("meili:http://search.example:7700:k2"));
    for (const char* bad : {"not a url", "search.example", "ftp://search.example", ""}) {
        settings->set(QStringLiteral("searchURL"), bad);
        EXPECT_FALSE(RemoteSearch::current()) << bad;
    }
}

TEST(RemoteSearch, EngineDialectPostsTheQueryWithTheBearerKey) {
    CloudServer cloud;
    ASSERT_TRUE(cloud.started());
    const auto client = RemoteSearch::engine(cloud.url().toString() + QStringLiteral("/base"),
                                             QStringLiteral("s3cret"));
    ASSERT_TRUE(client);
    const QString text = QStringLiteral("grumpy cat+1 & “café”");
    cloud.answer(text.toStdString(), {cloudMeme("b"), cloudMeme("a")});

    const Answer plain = searchOnce(*client, text);
    ASSERT_TRUE(plain.done && plain.hits);
    EXPECT_EQ(idsOf(*plain.hits), ids({"b", "a"})) << "the server's order is kept";
    searchOnce(*client, text, true);

    const auto seen = cloud.seen();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].req.method, "POST");
    EXPECT_EQ(seen[0].req.path, "/base/indexes/memes/search");
    EXPECT_EQ(seen[0].header("Authorization"), "Bearer s3cret");
    EXPECT_EQ(seen[0].header("Content-Type"), "application/json");
    EXPECT_EQ(seen[0].body, (nlohmann::json{{"q", text.toStdString()}, {"limit", 60}}));
    EXPECT_EQ(seen[1].body["hybrid"],
              (nlohmann::json{{"embedder", "openrouter"}, {"semanticRatio", 0.5}}));
}

TEST(RemoteSearch, WorkerDialectSendsTheInstallAndAppKeyHeaders) {
    CloudServer cloud;
    ASSERT_TRUE(cloud.started());
    const QString text = QStringLiteral("a+b & c/é?#");
    TestEnv::installConfig({{QStringLiteral("MEME_API"), cloud.url().toString()},
                            {QStringLiteral("MEME_APP_KEY"), QStringLiteral("app-7")}});
    searchOnce(*RemoteSearch::current(), text);
    TestEnv::installConfig({{QStringLiteral("MEME_API"), cloud.url().toString()}});
    searchOnce(*RemoteSearch::current(), text);

    const auto seen = cloud.seen();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].req.method, "GET");
    EXPECT_EQ(seen[0].req.path, "/v1/search");
    EXPECT_EQ(seen[0].query(), text.toStdString());
    EXPECT_EQ(seen[0].req.target.substr(seen[0].req.target.find('?')),
              "?q=a%2Bb%20%26%20c%2F%C3%A9%3F%23&limit=60&scope=memes");
    EXPECT_EQ(seen[0].header("x-app-key"), "app-7");
    EXPECT_FALSE(seen[1].req.has_header("x-app-key")) << "no key configured, none sent";
    EXPECT_EQ(QString::fromStdString(seen[1].header("x-install-id")), DebugFlags::installID());
    EXPECT_EQ(DebugFlags::installID().size(), 36);
}

TEST(RemoteSearch, BadAnswersGiveNoHitsAndOneLogLineButBadHitsAreOnlyDropped) {
    CloudServer cloud;
    ASSERT_TRUE(cloud.started());
    const auto client = RemoteSearch::worker(cloud.url());
    SearchLog log;

    nlohmann::ordered_json mixed = {{"hits", nlohmann::ordered_json::array()}};
    mixed["hits"].push_back(CatalogJson::encode(cloudMeme("good1")));
    mixed["hits"].push_back({{"id", "no-other-fields"}});
    mixed["hits"].push_back(42);
    mixed["hits"].push_back(CatalogJson::encode(cloudMeme("good2")));
    cloud.answerRaw("mixed", mixed.dump());
    const Answer kept = searchOnce(*client, QStringLiteral("mixed"));
    ASSERT_TRUE(kept.hits);
    EXPECT_EQ(idsOf(*kept.hits), ids({"good1", "good2"}));
    EXPECT_TRUE(log.lines().isEmpty()) << log.lines().join(u'\n').toStdString();

    cloud.answerRaw("nohits", R"({"results":[]})");
    cloud.answerRaw("notjson", "<html>busy</html>");
    cloud.answerRaw("array", "[]");
    for (const char* q : {"nohits", "notjson", "array"}) {
        const Answer bad = searchOnce(*client, QString::fromLatin1(q));
        EXPECT_TRUE(bad.done && !bad.hits) << q;
    }
    cloud.setStatus(500);
    const Answer failed = searchOnce(*client, QStringLiteral("mixed"));
    EXPECT_TRUE(failed.done && !failed.hits);
    QUrl gone;
    {
        HttpTestServer closed;
        ASSERT_TRUE(closed.start());
        gone = closed.url();
    }
    const Answer unreachable = searchOnce(*RemoteSearch::worker(gone), QStringLiteral("mixed"));
    EXPECT_TRUE(unreachable.done && !unreachable.hits);

    const QStringList lines = log.lines();
    ASSERT_EQ(lines.size(), 5) << lines.join(u'\n').toStdString();
    for (const QString& line : lines)
        EXPECT_TRUE(line.startsWith(QStringLiteral("remote search failed: ")))
            << line.toStdString();
    EXPECT_EQ(lines[3], QStringLiteral("remote search failed: HTTP 500"));
    EXPECT_TRUE(lines[4].contains(QStringLiteral("refused"), Qt::CaseInsensitive))
        << lines[4].toStdString();
}

TEST(RemoteSearch, CancellingIsSilentButATimeOutIsLogged) {
    CloudServer cloud;
    ASSERT_TRUE(cloud.started());
    const auto client = RemoteSearch::worker(cloud.url());
    cloud.hold("slow");
    SearchLog log;

    QObject context;
    Answer first;
    client->search(QStringLiteral("slow"), false, &context,
                   [&](std::optional<MemeList> hits, double) {
                       first = {true, std::move(hits)};
                   });
    ASSERT_TRUE(QTest::qWaitFor([&] { return cloud.seen().size() == 1; }, 10'000));
    EXPECT_TRUE(client->isBusy());
    // A new search replaces the one in flight.
    const Answer second = searchOnce(*client, QStringLiteral("quick"));
    EXPECT_TRUE(second.hits);
    EXPECT_TRUE(first.done && !first.hits) << "the replaced request completes without hits";
    EXPECT_TRUE(log.lines().isEmpty()) << log.lines().join(u'\n').toStdString();

    client->setTimeoutMs(200);
    const Answer timedOut = searchOnce(*client, QStringLiteral("slow"));
    EXPECT_TRUE(timedOut.done && !timedOut.hits);
    ASSERT_EQ(log.lines().size(), 1);
    EXPECT_TRUE(log.lines()[0].startsWith(QStringLiteral("remote search failed: ")));
    cloud.release("slow");
}

// --- Scheduling from the picker ---

TEST(PickerRemote, TypingQuicklySendsOneRequestForTheLastText) {
    for (const bool worker : {false, true}) {
        SCOPED_TRACE(worker ? "worker" : "search engine");
        CloudServer cloud;
        ASSERT_TRUE(cloud.started());
        CloudPicker p;
        worker ? p.useWorker(cloud) : p.useEngine(cloud);
        cloud.answer("zqxwv", {cloudMeme("z1")});
        for (const char* text : {"z", "zq", "zqx", "zqxw", "zqxwv"})
            p.model.searchTextEdited(QString::fromLatin1(text));
        EXPECT_TRUE(cloud.seen().empty()) << "nothing goes out before the pause";
        ASSERT_TRUE(p.typeAndMerge(QStringLiteral("zqxwv")));
        EXPECT_EQ(cloud.queries(), std::vector<std::string>{"zqxwv"});
        EXPECT_EQ(p.shown(), ids({"z1"}));
        EXPECT_EQ(p.model.status(), QStringLiteral("1 results (+1 from cloud)") + cloudHints);
    }
}

TEST(PickerRemote, WorkerIsAskedOnlyWhenTheLocalIndexFindsAlmostNothing) {
    CloudServer cloud;
    ASSERT_TRUE(cloud.started());
    CloudPicker p;
    p.useWorker(cloud);
    // Three local results, two characters, and queries without words stay local.
    for (const char* text : {"owl", "cat", "zq", " zq ", "", "   "}) {
        p.model.searchTextEdited(QString::fromLatin1(text));
        EXPECT_TRUE(QTest::qWaitFor([&] { return !p.model.remotePending(); }, 10'000));
        EXPECT_TRUE(cloud.seen().empty()) << text;
    }
    cloud.answer("dog", {cloudMeme("x1")});
    ASSERT_TRUE(p.typeAndMerge(QStringLiteral("dog")));
    ASSERT_TRUE(p.typeAndMerge(QStringLiteral("zzz")));
    EXPECT_EQ(cloud.queries(), (std::vector<std::string>{"dog", "zzz"}));
    EXPECT_EQ(p.model.status(), QStringLiteral("0 results") + cloudHints);
}

TEST(PickerRemote, SearchEngineIsAskedForEveryQueryWithWords) {
    CloudServer cloud;
    ASSERT_TRUE(cloud.started());
    CloudPicker p;
    p.useEngine(cloud);
    for (const char* text : {"", "   "}) {
        p.model.searchTextEdited(QString::fromLatin1(text));
        EXPECT_FALSE(p.model.remotePending()) << "the empty query is never sent";
    }
    ASSERT_TRUE(p.typeAndMerge(QStringLiteral("cat")));
    ASSERT_TRUE(p.typeAndMerge(QStringLiteral("ow")));
    EXPECT_EQ(cloud.queries(), (std::vector<std::string>{"cat", "ow"}));
    EXPECT_EQ(cloud.seen()[0].body.count("hybrid"), 0u);

    p.settings->set(QStringLiteral("semanticSearch"), true);
    ASSERT_TRUE(p.typeAndMerge(QStringLiteral("owl")));
    EXPECT_EQ(cloud.seen().back().body["hybrid"]["semanticRatio"], 0.5);
    const auto events = p.remoteEvents();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[2]["q"], "owl");
    EXPECT_EQ(events[2]["hits"], 0);
    EXPECT_EQ(events[2]["added"], 0);
    EXPECT_EQ(events[2]["hybrid"], true);
    EXPECT_EQ(events[0]["hybrid"], false);
    EXPECT_TRUE(events[2]["ms"].is_number());
}

// --- Fusion ---

TEST(PickerRemote, SharedFirstPlaceLeadsAndEqualScoresGoInIdOrder) {
    CloudServer cloud;
    ASSERT_TRUE(cloud.started());
    CloudPicker p;
    p.useEngine(cloud);

    // h1 is first locally and in the cloud: 1/60 + 1/60. The local record is shown.
    cloud.answer("heron", {cloudMeme("h1", "the cloud's copy"), cloudMeme("zz")});
    ASSERT_TRUE(p.typeAndMerge(QStringLiteral("heron")));
    EXPECT_EQ(p.shown(), ids({"h1", "zz"}));
    EXPECT_EQ(p.model.results()[0].ocr_text, QStringLiteral("heron"));
    EXPECT_EQ(p.model.status(), QStringLiteral("2 results (+1 from cloud)") + cloudHints);

    // s1 first locally and a cloud item first remotely tie at 1/60: the lower id goes first,
    // whichever source it came from.
    cloud.answer("stork", {cloudMeme("a9")});
    ASSERT_TRUE(p.typeAndMerge(QStringLiteral("stork")));
    EXPECT_EQ(p.shown(), ids({"a9", "s1"}));
    cloud.answer("Stork", {cloudMeme("z9")});
    ASSERT_TRUE(p.typeAndMerge(QStringLiteral("Stork")));
    EXPECT_EQ(p.shown(), ids({"s1", "z9"}));
}

TEST(PickerRemote, FavouritesAndEarlierPicksLiftItemsWithTheHistoryCapped) {
    CloudServer cloud;
    ASSERT_TRUE(cloud.started());
    CloudPicker p;
    p.useEngine(cloud);

    // Tied with s1 at 1/60 and ahead by id, a9 falls behind once s1 is a favourite.
    cloud.answer("stork", {cloudMeme("a9")});
    p.userData.toggleFavorite(QStringLiteral("s1"));
    ASSERT_TRUE(p.typeAndMerge(QStringLiteral("stork")));
    EXPECT_EQ(p.shown(), ids({"s1", "a9"}));

    // "five" leads "nine" by rank; nine's extra picks beyond five add nothing.
    cloud.answer("HERON", {cloudMeme("five"), cloudMeme("nine"), cloudMeme("one")});
    for (int i = 0; i < 5; ++i)
        p.userData.recordPick(QStringLiteral("five"), QStringLiteral("heron"));
    for (int i = 0; i < 9; ++i)
        p.userData.recordPick(QStringLiteral("nine"), QStringLiteral("Héron"));
    p.userData.recordPick(QStringLiteral("one"), QStringLiteral("heron"));
    // A pick for another query does not count.
    for (int i = 0; i < 5; ++i)
        p.userData.recordPick(QStringLiteral("h1"), QStringLiteral("herons"));
    ASSERT_TRUE(p.typeAndMerge(QStringLiteral("HERON")));
    // five 1/60+0.020, nine 1/61+0.020, one 1/62+0.004, h1 1/60.
    EXPECT_EQ(p.shown(), ids({"five", "nine", "one", "h1"}));
    EXPECT_EQ(p.model.status(), QStringLiteral("4 results (+3 from cloud)") + cloudHints);
}

TEST(PickerRemote, OnePickIsWorthEighteenRanksAgainstTheLocalFirst) {
    CloudServer cloud;
    ASSERT_TRUE(cloud.started());
    CloudPicker p;
    p.useEngine(cloud);
    MemeList hits;
    for (int i = 0; i < 20; ++i)
        hits.append(cloudMeme(qPrintable(QStringLiteral("f%1").arg(i, 2, 10, QLatin1Char('0')))));
    cloud.answer("heron", hits);
    p.userData.recordPick(QStringLiteral("f18"), QStringLiteral("heron"));
    p.userData.recordPick(QStringLiteral("f19"), QStringLiteral("heron"));
    ASSERT_TRUE(p.typeAndMerge(QStringLiteral("heron")));
    // h1 has 1/60; f18 1/78 + 0.004 just passes it, f19 1/79 + 0.004 just falls short.
    const QStringList shown = p.shown();
    EXPECT_LT(shown.indexOf(QStringLiteral("f18")), shown.indexOf(QStringLiteral("h1")));
    EXPECT_GT(shown.indexOf(QStringLiteral("f19")), shown.indexOf(QStringLiteral("h1")));
}

TEST(PickerRemote, SelectionStaysOnAMovedCellAndOtherwiseReturnsToTheFirst) {
    CloudServer cloud;
    ASSERT_TRUE(cloud.started());
    CloudPicker p;
    p.useEngine(cloud);
    cloud.answer("owl", {cloudMeme("n1"), cloudMeme("n2")});

    ASSERT_TRUE(p.typeAndMerge(QStringLiteral("owl")));
    EXPECT_EQ(p.model.selected(), 0);
    EXPECT_EQ(p.model.results().size(), 5);

    p.model.searchTextEdited(QStringLiteral("owl"));
    p.model.moveBy(2);
    const QString chosen = p.model.selectedItem()->id;
    ASSERT_TRUE(QTest::qWaitFor([&] { return p.model.status().endsWith(cloudHints); }, 10'000));
    EXPECT_EQ(p.model.selectedItem()->id, chosen);
    EXPECT_NE(p.model.selected(), 2) << "the chosen item moved, the selection followed it";
}

TEST(PickerRemote, MergedListIsCutToThePageAndPagingReturnsToTheLocalRanking) {
    CloudServer cloud;
    ASSERT_TRUE(cloud.started());
    CloudPicker p;
    p.useEngine(cloud);
    MemeList hits;
    for (int i = 0; i < 10; ++i)
        hits.append(cloudMeme(qPrintable(QStringLiteral("k%1").arg(i))));
    cloud.answer("cat", hits);

    ASSERT_TRUE(p.typeAndMerge(QStringLiteral("cat")));
    EXPECT_EQ(p.model.results().size(), 60);
    EXPECT_EQ(p.model.status(), QStringLiteral("60 results (+10 from cloud)") + cloudHints);
    EXPECT_TRUE(p.shown().contains(QStringLiteral("k0")));

    p.model.loadMoreIfNeeded(59);
    EXPECT_EQ(p.model.results().size(), 120);
    EXPECT_FALSE(p.shown().contains(QStringLiteral("k0")));
    EXPECT_TRUE(cloud.seen().size() == 1) << "paging does not ask the cloud again";
}

// --- Stale answers ---

TEST(PickerRemote, AnAnswerForAnOlderQueryOrAnotherTabNeverShows) {
    CloudServer cloud;
    ASSERT_TRUE(cloud.started());
    CloudPicker p;
    p.useEngine(cloud);
    cloud.answer("hero", {cloudMeme("stale")});
    cloud.answer("heron", {cloudMeme("fresh")});
    cloud.hold("hero");

    p.model.searchTextEdited(QStringLiteral("hero"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return cloud.seen().size() == 1; }, 10'000));
    ASSERT_TRUE(p.typeAndMerge(QStringLiteral("heron")));
    cloud.release("hero");
    EXPECT_EQ(p.shown(), ids({"fresh", "h1"}));

    // A tab switch drops the request in flight; the Recent tab never shows cloud items.
    cloud.hold("heron");
    p.model.searchTextEdited(QStringLiteral("heron"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return cloud.seen().size() == 3; }, 10'000));
    p.model.switchTab(PickerModel::Tab::recent);
    EXPECT_FALSE(p.model.remotePending());
    cloud.release("heron");
    // Another round trip to the same server gives a late answer every chance to arrive.
    const auto other = RemoteSearch::worker(cloud.url());
    EXPECT_TRUE(searchOnce(*other, QStringLiteral("ping")).hits);
    EXPECT_TRUE(p.shown().isEmpty());
    EXPECT_EQ(p.remoteEvents().size(), 1u);
}

TEST(PickerRemote, AnAnswerDecodedAfterTheQueryChangedIsDropped) {
    CloudServer cloud;
    ASSERT_TRUE(cloud.started());
    CloudPicker p;
    p.useEngine(cloud);
    cloud.answer("heron", {cloudMeme("late")});

    // Answers are decoded on the global pool: keep it busy so the "heron" answer has
    // arrived, past any cancellation, but reaches the model only after the next query.
    QThreadPool& pool = *QThreadPool::globalInstance();
    std::mutex mutex;
    std::condition_variable changed;
    int running = 0;
    bool released = false;
    for (int i = 0; i < pool.maxThreadCount(); ++i)
        pool.start([&] {
            std::unique_lock lock(mutex);
            ++running;
            changed.notify_all();
            changed.wait(lock, [&] { return released; });
        });
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return running == pool.maxThreadCount(); });
    }
    p.model.searchTextEdited(QStringLiteral("heron"));
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return !cloud.seen().empty() && !p.model.remotePending(); }, 10'000));
    p.model.searchTextEdited(QStringLiteral("stork"));
    {
        std::lock_guard lock(mutex);
        released = true;
    }
    changed.notify_all();
    pool.waitForDone();

    ASSERT_TRUE(QTest::qWaitFor([&] { return p.model.status().endsWith(cloudHints); }, 10'000));
    EXPECT_EQ(p.shown(), ids({"s1"}));
    const auto events = p.remoteEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]["q"], "stork");
}
