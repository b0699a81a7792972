// SPDX-License-Identifier: MIT
#include "catalog/memestore.h"
#include "search/pickermodel.h"
#include "search/remotesearch.h"
#include "searchtesthelpers.h"
#include "support/httptestserver.h"
#include "support/logcapture.h"
#include "telemetry/loggedevents.h"
#include "userdata/userdata.h"

#include <QTest>
#include <QThreadPool>
#include <condition_variable>
#include <future>
#include <latch>
#include <map>
#include <mutex>

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

// An answer whose hits are catalog items with these space-separated ids.
std::string hits(const char* ids) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const QString& id : QString::fromUtf8(ids).split(u' ', Qt::SkipEmptyParts))
        list.push_back(CatalogJson::encode(meme(id, QStringLiteral("from the cloud"))));
    return nlohmann::ordered_json{{"hits", list}}.dump();
}

// Both dialects on one real server that records every request and answers with the status
// and body set for its query. A held query waits until released, to stay in flight.
class CloudServer {
public:
    CloudServer() {
        const auto handle = [this](const httplib::Request& req, httplib::Response& res) {
            std::unique_lock lock(m_mutex);
            m_seen.push_back({req, nlohmann::json::parse(req.body, nullptr, false)});
            const std::string q = m_seen.back().query();
            m_changed.wait(lock, [&] { return !m_held[q] || m_stopping; });
            const auto [status, body] = m_answers.count(q) ? m_answers[q] : Reply{200, hits("")};
            res.status = status;
            res.set_content(body, "application/json");
        };
        // Closed connections let the server stop at once instead of after its keep-alive wait.
        m_http.server().set_keep_alive_max_count(1);
        m_http.server().Post(".*/indexes/memes/search", handle);
        m_http.server().Get(".*/v1/search", handle);
        if (!m_http.start())
            ADD_FAILURE() << "no port for the cloud server";
    }
    ~CloudServer() {
        change([&] { m_stopping = true; });
        m_http.stop();
    }

    QUrl url() const { return m_http.url(); }
    void answer(const std::string& q, std::string body, int status = 200) {
        change([&] { m_answers[q] = {status, std::move(body)}; });
    }
    void hold(const std::string& q, bool held = true) {
        change([&] { m_held[q] = held; });
    }
    std::vector<SeenRequest> seen() const {
        std::lock_guard lock(m_mutex);
        return m_seen;
    }

private:
    using Reply = std::pair<int, std::string>;
    template <typename F> void change(F f) {
        {
            std::lock_guard lock(m_mutex);
            f();
        }
        m_changed.notify_all();
    }

    HttpTestServer m_http;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<SeenRequest> m_seen;
    std::map<std::string, Reply> m_answers;
    std::map<std::string, bool> m_held;
    bool m_stopping = false;
};

struct Answer {
    bool done = false;
    std::optional<MemeList> hits;
};
void startSearch(RemoteSearch& client, const QString& text, bool hybrid, QObject* context,
                 Answer& answer) {
    client.search(text, hybrid, context, [&answer](std::optional<MemeList> hits, double) {
        answer = {true, std::move(hits)};
    });
}
// A completion that never comes shows as done == false.
Answer searchOnce(RemoteSearch& client, const char* text) {
    QObject context;
    Answer answer;
    startSearch(client, QString::fromUtf8(text), false, &context, answer);
    (void)QTest::qWaitFor([&] { return answer.done; }, 10'000);
    return answer;
}

QString currentIdentity() {
    const auto client = RemoteSearch::current();
    return client ? client->identity() : QStringLiteral("none");
}

// The picker, talking to its own cloud, over a catalog whose words match known items:
// "heron" h1 only, "stork" s1 only, "owl" o1..o3, "dog" d1 and d2, "cat" c0..c199.
struct CloudPicker {
    explicit CloudPicker(bool worker = false) {
        for (const char* id :
             {"h1:heron", "s1:stork", "o1:owl", "o2:owl", "o3:owl", "d1:dog", "d2:dog"}) {
            const QString item = QString::fromLatin1(id);
            memes.append(meme(item.section(u':', 0, 0), item.section(u':', 1)));
        }
        for (int i = 0; i < 200; ++i)
            memes.append(meme(QStringLiteral("c%1").arg(i), QStringLiteral("cat"), 200 - i));
        model.setIndex(std::shared_ptr<LocalIndex>(indexWith(memes)), memes);
        worker ? useWorker() : useEngine();
    }
    // The search-engine dialect comes from the user's settings, the worker from the API base.
    void useEngine() {
        settings = TestEnv::installConfig();
        settings->set(QStringLiteral("searchURL"), cloud.url().toString().toStdString() + "/base");
        settings->set(QStringLiteral("searchKey"), "secret");
    }
    void useWorker() {
        settings =
            TestEnv::installConfig({{QStringLiteral("MEME_API"), cloud.url().toString()},
                                    {QStringLiteral("MEME_APP_KEY"), QStringLiteral("app-7")}});
    }
    QStringList shown() const { return idsOf(model.results()); }
    // Only a merge writes the status without the caption hint.
    bool merged() {
        return QTest::qWaitFor([&] { return model.status().endsWith(cloudHints); }, 10'000);
    }
    bool typeAndMerge(const char* text) {
        model.searchTextEdited(QString::fromUtf8(text));
        return merged();
    }
    bool sent(std::size_t requests) {
        return QTest::qWaitFor([&] { return cloud.seen().size() == requests; }, 10'000);
    }

    CloudServer cloud;
    std::shared_ptr<SettingsStore> settings = TestEnv::installConfig();
    QString root = TestEnv::freshDir();
    Metrics log{root + QStringLiteral("/spike.jsonl")};
    MemeStore store{[this] {
        MemeStore::Options o;
        o.base = QUrl(QStringLiteral("http://127.0.0.1:9/"));
        o.cacheDir = root + QStringLiteral("/full");
        o.metrics = &log;
        return o;
    }()};
    UserData userData{root + QStringLiteral("/userdata.json")};
    PickerModel model{&store, &userData};
    MemeList memes;
};

} // namespace

TEST(RemoteSearch, CurrentReadsTheConfigurationAfreshOnEachCall) {
    const QString api = QStringLiteral("http://127.0.0.1:7700/api");
    TestEnv::installConfig({{QStringLiteral("MEME_API"), api}});
    EXPECT_EQ(currentIdentity(), QStringLiteral("worker:") + api);
    // The build-time key counts like the environment, and wins over the user's settings.
    auto settings = TestEnv::installConfig({}, {{QStringLiteral("MemeAPIBase"), api}});
    settings->set(QStringLiteral("searchURL"), "http://search.example:7700");
    settings->set(QStringLiteral("searchKey"), "k");
    EXPECT_EQ(currentIdentity(), QStringLiteral("worker:") + api);

    settings = TestEnv::installConfig();
    EXPECT_EQ(currentIdentity(), QStringLiteral("none"));
    const char* const steps[][3] = {
        {"searchURL", "http://search.example:7700", "none"}, // no key
        {"searchKey", "", "none"},
        {"searchKey", "k1", "meili:http://search.example:7700:k1"},
        {"searchKey", "k2", "meili:http://search.example:7700:k2"},
        {"searchURL", "not a url", "none"},
        {"searchURL", "search.example", "none"},
        {"searchURL", "ftp://search.example", "none"},
        {"searchURL", "", "none"},
    };
    for (const auto& [key, value, identity] : steps) {
        settings->set(QString::fromLatin1(key), value);
        EXPECT_EQ(currentIdentity(), QLatin1String(identity)) << key << "=" << value;
    }
}

TEST(RemoteSearch, FailuresLogOneLineButCancellingAndBadHitsAreSilent) {
    TestEnv::installConfig();
    CloudServer cloud;
    const auto client = RemoteSearch::worker(cloud.url());
    LogCapture log("glimmet.search");
    auto mixed = nlohmann::json::parse(hits("good1 good2"));
    mixed["hits"].insert(mixed["hits"].begin() + 1, {{{"id", "no-other-fields"}}, 42});
    cloud.answer("mixed", mixed.dump());
    EXPECT_EQ(idsOf(searchOnce(*client, "mixed").hits.value_or(MemeList())),
              ids({"good1", "good2"}));
    EXPECT_FALSE(cloud.seen()[0].req.has_header("x-app-key")) << "no key configured, none sent";

    cloud.answer("nohits", R"({"results":[]})");
    cloud.answer("notjson", "<html>busy</html>");
    cloud.answer("array", "[]");
    cloud.answer("busy", hits("b1"), 500);
    for (const char* q : {"nohits", "notjson", "array", "busy"})
        EXPECT_FALSE(searchOnce(*client, q).hits) << q;
    // Nothing listens on the discard port.
    EXPECT_FALSE(
        searchOnce(*RemoteSearch::worker(QUrl(QStringLiteral("http://127.0.0.1:9"))), "mixed")
            .hits);

    // Never answered: a search replaced by the next one ends without hits or a log line, the
    // others run into the time-out, in both dialects side by side.
    cloud.hold("slow");
    const auto engine = RemoteSearch::engine(cloud.url().toString(), QStringLiteral("k"));
    QObject context;
    Answer replaced, slowWorker, slowEngine;
    startSearch(*client, QStringLiteral("slow"), false, &context, replaced);
    ASSERT_TRUE(QTest::qWaitFor([&] { return cloud.seen().size() == 6; }, 10'000));
    EXPECT_TRUE(client->isBusy());
    startSearch(*client, QStringLiteral("slow"), false, &context, slowWorker);
    startSearch(*engine, QStringLiteral("slow"), true, &context, slowEngine);
    ASSERT_TRUE(QTest::qWaitFor([&] { return replaced.done && slowWorker.done && slowEngine.done; },
                                10'000));
    EXPECT_FALSE(replaced.hits || slowWorker.hits || slowEngine.hits);
    cloud.hold("slow", false);

    const QStringList lines = log.read();
    ASSERT_EQ(lines.size(), 7) << lines.join(u'\n').toStdString();
    for (const QString& line : lines)
        EXPECT_TRUE(line.startsWith(QStringLiteral("remote search failed: ")));
    EXPECT_EQ(lines[3], QStringLiteral("remote search failed: HTTP 500"));
    EXPECT_TRUE(lines[4].contains(QStringLiteral("refused"), Qt::CaseInsensitive));
    EXPECT_EQ(lines.mid(5),
              QStringList(2, QStringLiteral("remote search failed: no answer within 4000 ms")));
}

TEST(PickerRemote, EachDialectWaitsForAPauseAndAsksWhenItsRuleSays) {
    CloudPicker p(true);
    // The worker: three local results, two characters, and queries without words stay local.
    for (const char* text : {"owl", "cat", "zq", " zq ", "", "   "}) {
        p.model.searchTextEdited(QString::fromLatin1(text));
        EXPECT_TRUE(QTest::qWaitFor([&] { return !p.model.remotePending(); }, 10'000));
        EXPECT_TRUE(p.cloud.seen().empty()) << text;
    }
    p.cloud.answer("heron", hits("x1"));
    for (const char* text : {"h", "he", "her", "hero", "heron"})
        p.model.searchTextEdited(QString::fromLatin1(text));
    EXPECT_TRUE(p.cloud.seen().empty()) << "nothing goes out before the pause";
    ASSERT_TRUE(p.merged());
    EXPECT_EQ(p.model.status(), QStringLiteral("2 results (+1 from cloud)") + cloudHints);
    ASSERT_TRUE(p.typeAndMerge("zz+y & é/“x”?#"));
    EXPECT_EQ(p.model.status(), QStringLiteral("0 results") + cloudHints);
    EXPECT_EQ(QString::fromStdString(p.cloud.seen()[1].header("x-install-id")),
              DebugFlags::installID());
    ASSERT_TRUE(p.typeAndMerge("dog")) << "two local results are still few";

    // The search engine: every query with words.
    p.useEngine();
    for (const char* empty : {"", "   "}) {
        p.model.searchTextEdited(QString::fromLatin1(empty));
        EXPECT_FALSE(p.model.remotePending()) << "the empty query is never sent";
    }
    p.model.searchTextEdited(QStringLiteral("o"));
    ASSERT_TRUE(p.typeAndMerge("ow"));
    p.settings->set(QStringLiteral("semanticSearch"), true);
    ASSERT_TRUE(p.typeAndMerge("owl"));

    const auto seen = p.cloud.seen();
    ASSERT_EQ(seen.size(), 5u);
    EXPECT_EQ(seen[0].query(), "heron");
    // A '+' left bare would read as a space.
    EXPECT_EQ(
        seen[1].req.method + " " + seen[1].req.target,
        "GET /v1/search?q=zz%2By%20%26%20%C3%A9%2F%E2%80%9Cx%E2%80%9D%3F%23&limit=60&scope=memes");
    EXPECT_EQ(seen[1].header("x-app-key"), "app-7");
    EXPECT_EQ(seen[3].req.method + " " + seen[3].req.path, "POST /base/indexes/memes/search");
    EXPECT_EQ(seen[3].header("Authorization"), "Bearer secret");
    EXPECT_EQ(seen[3].header("Content-Type"), "application/json");
    EXPECT_EQ(seen[3].body, (nlohmann::json{{"q", "ow"}, {"limit", 60}}));
    EXPECT_EQ(seen[4].body["hybrid"],
              (nlohmann::json{{"embedder", "openrouter"}, {"semanticRatio", 0.5}}));

    auto events = loggedEvents(p.log, "search_remote");
    ASSERT_EQ(events.size(), 5u);
    EXPECT_TRUE(events[0]["ms"].is_number());
    EXPECT_EQ(events[4]["hybrid"], true);
    events[0].erase("ms");
    events[0].erase("t");
    EXPECT_EQ(events[0].dump(),
              R"({"added":1,"event":"search_remote","hits":1,"hybrid":false,"q":"heron"})");
}

TEST(PickerRemote, FusionRanksByReciprocalRankWithBoostsAndIdOrderOnTies) {
    struct Case {
        const char* query;
        const char* cloud;  // the cloud's hits, best first
        const char* boosts; // "*id" a favourite, "id:query:n" n earlier picks
        const char* front;  // how the list starts
        const char* status;
    };
    const Case cases[] = {
        // First in both lists (2/60), h1 leads, as its local record.
        {"heron", "h1 zz", "", "h1 zz", "2 results (+1 from cloud)"},
        // Equal scores (1/60) go in id order, whichever side an item came from.
        {"stork", "a9", "", "a9 s1", "2 results (+1 from cloud)"},
        {"stork", "z9", "", "s1 z9", "2 results (+1 from cloud)"},
        {"stork", "a9", "*s1", "s1 a9", "2 results (+1 from cloud)"},
        // Picks for the same folded query count, up to five; picks for another query do not.
        {"HERON", "five nine one", "five:heron:5 nine:Héron:9 one:heron:1 h1:herons:5",
         "five nine one h1", "4 results (+3 from cloud)"},
        // With k = 60 one pick lifts rank 18 past the local first (1/78 + 0.004 > 1/60) but
        // not rank 19 (1/79 + 0.004 < 1/60); with k = 61 both would pass.
        {"heron", "f00 f01 f02 f03 f04 f05 f06 f07 f08 f09 f10 f11 f12 f13 f14 f15 f16 f17 f18 f19",
         "f18:heron:1 f19:heron:1", "f18 f00 h1 f19 f01", "21 results (+20 from cloud)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.query) + " / " + c.cloud);
        CloudPicker p;
        p.cloud.answer(c.query, hits(c.cloud));
        for (const QString& boost : QString::fromUtf8(c.boosts).split(u' ', Qt::SkipEmptyParts)) {
            if (boost.startsWith(u'*'))
                p.userData.toggleFavorite(boost.mid(1));
            for (int i = 0; i < boost.section(u':', 2).toInt(); ++i)
                p.userData.recordPick(boost.section(u':', 0, 0), boost.section(u':', 1, 1));
        }
        ASSERT_TRUE(p.typeAndMerge(c.query));
        const QStringList front = QString::fromLatin1(c.front).split(u' ');
        EXPECT_EQ(p.shown().mid(0, front.size()), front);
        EXPECT_EQ(p.model.status(), QLatin1String(c.status) + cloudHints);
        if (const qsizetype h1 = p.shown().indexOf(QStringLiteral("h1")); h1 >= 0) {
            EXPECT_EQ(p.model.results()[h1].ocr_text, QStringLiteral("heron"));
        }
    }
}

TEST(PickerRemote, MergeKeepsOwnItemsFirstCutsToTheWindowAndFollowsAMovedSelection) {
    CloudPicker p;
    p.model.setMine({meme(QStringLiteral("g_1"), QStringLiteral("my cat"))});
    p.cloud.answer("cat", hits("k0 k1 k2 k3 k4 k5 k6 k7 k8 k9"));
    ASSERT_TRUE(p.typeAndMerge("cat"));
    EXPECT_EQ(p.shown().mid(0, 3), ids({"g_1", "c0", "k0"}));
    EXPECT_EQ(p.model.status(), QStringLiteral("60 results (+10 from cloud)") + cloudHints);

    // Paged on while the answer is in flight, the merged list fills the larger window.
    p.cloud.hold("cat");
    p.model.searchTextEdited(QStringLiteral("cat"));
    ASSERT_TRUE(p.sent(2));
    p.model.loadMoreIfNeeded(59);
    p.cloud.hold("cat", false);
    ASSERT_TRUE(p.merged());
    EXPECT_EQ(p.model.results().size(), 120);
    EXPECT_EQ(p.shown()[0], QStringLiteral("g_1"));
    EXPECT_EQ(p.cloud.seen().size(), 2u) << "paging does not ask the cloud again";

    // owl: o1 o2 o3 locally and n1 n2 from the cloud fuse to n1 o1 n2 o2 o3.
    p.cloud.answer("owl", hits("n1 n2"));
    ASSERT_TRUE(p.typeAndMerge("owl"));
    EXPECT_EQ(p.model.selected(), 0);
    p.model.searchTextEdited(QStringLiteral("owl"));
    p.model.moveBy(2);
    ASSERT_TRUE(p.merged());
    EXPECT_EQ(p.model.selectedItem()->id, QStringLiteral("o3"));
    EXPECT_EQ(p.model.selected(), 4);
}

TEST(PickerRemote, AKeystrokeOrTabSwitchCancelsTheRequestAndNoLateAnswerShows) {
    CloudPicker p;
    p.cloud.answer("heron", hits("late"));
    p.cloud.hold("heron");
    p.model.searchTextEdited(QStringLiteral("heron"));
    ASSERT_TRUE(p.sent(1));
    EXPECT_TRUE(p.model.remotePending());
    // The empty query sends nothing, so only the old request could still be pending.
    p.model.searchTextEdited(QString());
    EXPECT_FALSE(p.model.remotePending());

    p.model.searchTextEdited(QStringLiteral("heron"));
    ASSERT_TRUE(p.sent(2));
    p.model.switchTab(PickerModel::Tab::recent);
    EXPECT_FALSE(p.model.remotePending());
    p.cloud.hold("heron", false);
    // Another round trip to the same server gives a late answer every chance to arrive.
    EXPECT_TRUE(searchOnce(*RemoteSearch::worker(p.cloud.url()), "ping").hits);
    EXPECT_TRUE(p.shown().isEmpty());
    EXPECT_TRUE(loggedEvents(p.log, "search_remote").empty());
}

TEST(PickerRemote, AnAnswerDecodedAfterTheQueryChangedIsDropped) {
    CloudPicker p;
    p.cloud.answer("heron", hits("late"));
    // Answers are decoded on the global pool: keep it busy so the "heron" answer has
    // arrived, past any cancellation, but reaches the model only after the next query.
    QThreadPool& pool = *QThreadPool::globalInstance();
    std::latch busy(pool.maxThreadCount());
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    for (int i = 0; i < pool.maxThreadCount(); ++i)
        pool.start([&busy, released] {
            busy.count_down();
            released.wait();
        });
    busy.wait();
    p.model.searchTextEdited(QStringLiteral("heron"));
    EXPECT_TRUE(QTest::qWaitFor([&] { return !p.cloud.seen().empty() && !p.model.remotePending(); },
                                10'000));
    p.model.searchTextEdited(QStringLiteral("stork"));
    release.set_value();
    pool.waitForDone();

    ASSERT_TRUE(p.merged());
    EXPECT_EQ(p.shown(), ids({"s1"}));
    const auto events = loggedEvents(p.log, "search_remote");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]["q"], "stork");
}
