// SPDX-License-Identifier: MIT
#include "catalog/catalogfetcher.h"
#include "catalog/catalogloader.h"
#include "search/localindex.h"
#include "support/httptestserver.h"
#include "support/testenv.h"
#include "telemetry/metrics.h"

#include <QFileInfo>
#include <QSignalSpy>
#include <QTest>
#include <condition_variable>
#include <gtest/gtest.h>
#include <mutex>

namespace {

QByteArray catalog(int count, const char* prefix = "m") {
    MemeList memes;
    for (int i = 1; i <= count; ++i) {
        Meme m;
        m.id = QStringLiteral("%1%2").arg(QLatin1String(prefix)).arg(i);
        m.description = QStringLiteral("a cat number %1").arg(i);
        m.keywords = {QStringLiteral("cat")};
        m.thumb = QStringLiteral("/t/%1.webp").arg(i);
        m.full = QStringLiteral("/f/%1.jpg").arg(i);
        m.popularity = 100 - i;
        memes.append(m);
    }
    return CatalogJson::encodeMemes(memes);
}

const QByteArray collectionsDoc =
    R"([{"id":"c1","name":"Katzen","name_en":"Cats","keywords":["cat"],
    "cover":"/c/1.webp","count":1,"owner":"o","source":"s"}])";
const QByteArray stickersDoc = catalog(1, "s");

// The catalog server as the tests need it: documents that can be swapped, a gate that holds
// index.json back, and an answer status for collections.
class CatalogServer {
public:
    CatalogServer() {
        auto& s = m_http.server();
        s.Get("/index.json", [this](const httplib::Request&, httplib::Response& res) {
            std::unique_lock lock(m_mutex);
            m_gateOpen.wait(lock, [this] { return !m_holdIndex; });
            res.set_content(m_index.toStdString(), "application/json");
        });
        s.Get("/index_stress.json", [this](const httplib::Request&, httplib::Response& res) {
            std::lock_guard lock(m_mutex);
            res.set_content(m_stressIndex.toStdString(), "application/json");
        });
        s.Get("/collections.json", [this](const httplib::Request&, httplib::Response& res) {
            std::lock_guard lock(m_mutex);
            res.status = m_collectionsStatus;
            res.set_content(m_collections.toStdString(), "application/json");
        });
        s.Get("/stickers.json", [this](const httplib::Request&, httplib::Response& res) {
            std::lock_guard lock(m_mutex);
            res.set_content(stickersDoc.toStdString(), "application/json");
        });
    }
    ~CatalogServer() { release(); }
    bool start() { return m_http.start(); }
    QUrl url() const { return m_http.url(); }
    void setIndex(const QByteArray& body) {
        std::lock_guard lock(m_mutex);
        m_index = body;
    }
    void setStressIndex(const QByteArray& body) {
        std::lock_guard lock(m_mutex);
        m_stressIndex = body;
    }
    void setCollections(int status, const QByteArray& body) {
        std::lock_guard lock(m_mutex);
        m_collectionsStatus = status;
        m_collections = body;
    }
    void holdIndex() {
        std::lock_guard lock(m_mutex);
        m_holdIndex = true;
    }
    void release() {
        {
            std::lock_guard lock(m_mutex);
            m_holdIndex = false;
        }
        m_gateOpen.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_gateOpen;
    bool m_holdIndex = false;
    QByteArray m_index = catalog(5);
    QByteArray m_stressIndex = catalog(12, "m_");
    QByteArray m_collections = collectionsDoc;
    int m_collectionsStatus = 200;
    HttpTestServer m_http;
};

// One launch of the app's loading machinery against `base`, keeping its files in `dataDir`.
struct Launch {
    Launch(const QUrl& base, const QString& dataDir)
        : fetcher(base), loader(&fetcher, dataDir), loaded(&loader, &CatalogLoader::indexLoaded),
          failed(&loader, &CatalogLoader::indexFailed),
          checked(&loader, &CatalogLoader::serverCheckDone) {}

    // Waits for the server answer about `document` and returns its outcome.
    QString outcome(const QString& document) {
        const auto seen = [&] {
            for (const auto& args : checked)
                if (args.at(0).toString() == document)
                    return true;
            return false;
        };
        if (!QTest::qWaitFor(seen, 10000))
            return QStringLiteral("timeout");
        for (const auto& args : checked)
            if (args.at(0).toString() == document)
                return args.at(1).toString();
        return {};
    }
    QString lastSource() const {
        return loaded.isEmpty() ? QString() : loaded.last().at(2).toString();
    }
    qsizetype lastCount() const {
        return loaded.isEmpty() ? -1 : loaded.last().at(1).value<MemeList>().size();
    }

    CatalogFetcher fetcher;
    CatalogLoader loader;
    QSignalSpy loaded;
    QSignalSpy failed;
    QSignalSpy checked;
};

QUrl unreachableServer() {
    HttpTestServer closed;
    closed.start();
    const QUrl url = closed.url();
    closed.stop(); // nothing listens there any more
    return url;
}

int indexLoadedEvents(const char* source) {
    Metrics::shared().flush();
    const QByteArray log = TestEnv::readFile(Metrics::url());
    int n = 0;
    for (const QByteArray& line : log.split('\n'))
        n += line.contains("\"event\":\"index_loaded\"") &&
             line.contains(QByteArray("\"source\":\"") + source + '"');
    return n;
}

class CatalogLoaderTest : public testing::Test {
protected:
    void SetUp() override {
        qRegisterMetaType<MemeList>();
        qRegisterMetaType<std::shared_ptr<LocalIndex>>();
        settings = TestEnv::installConfig();
        dataDir = TestEnv::freshDir();
    }
    std::shared_ptr<SettingsStore> settings;
    QString dataDir;
};

} // namespace

TEST_F(CatalogLoaderTest, FirstLaunchOfflineFailsThenServerThenDiskCarriesOn) {
    {
        Launch offline(unreachableServer(), dataDir);
        offline.loader.reloadIndex();
        EXPECT_EQ(offline.outcome(QStringLiteral("index")), QStringLiteral("failed"));
        ASSERT_EQ(offline.failed.count(), 1);
        EXPECT_EQ(offline.failed.first().first().toString(),
                  QStringLiteral("Index failed to load. Is the server running?"));
        EXPECT_TRUE(offline.loaded.isEmpty());
    }
    CatalogServer server;
    ASSERT_TRUE(server.start());
    const int serverEventsBefore = indexLoadedEvents("server");
    {
        Launch online(server.url(), dataDir);
        online.loader.reloadIndex();
        EXPECT_EQ(online.outcome(QStringLiteral("index")), QStringLiteral("updated"));
        EXPECT_EQ(online.lastSource(), QStringLiteral("server"));
        EXPECT_EQ(online.lastCount(), 5);
        EXPECT_EQ(indexLoadedEvents("server"), serverEventsBefore + 1);
    }
    {
        // Same document again: shown from disk, no rebuild, no second server event.
        Launch again(server.url(), dataDir);
        again.loader.reloadIndex();
        EXPECT_EQ(again.lastSource(), QStringLiteral("disk")) << "disk is published at once";
        EXPECT_EQ(again.outcome(QStringLiteral("index")), QStringLiteral("unchanged"));
        EXPECT_EQ(again.loaded.count(), 1);
        EXPECT_EQ(indexLoadedEvents("server"), serverEventsBefore + 1);
    }
    for (const QUrl& base : {unreachableServer(), server.url()}) {
        // Down, or answering garbage: the disk copy stays and nothing is said.
        server.setIndex("[{\"id\":");
        Launch degraded(base, dataDir);
        degraded.loader.reloadIndex();
        EXPECT_EQ(degraded.outcome(QStringLiteral("index")), QStringLiteral("failed"));
        EXPECT_EQ(degraded.lastCount(), 5);
        EXPECT_TRUE(degraded.failed.isEmpty());
    }
    // A changed catalog replaces the index.
    server.setIndex(catalog(7));
    Launch changed(server.url(), dataDir);
    changed.loader.reloadIndex();
    EXPECT_EQ(changed.outcome(QStringLiteral("index")), QStringLiteral("updated"));
    EXPECT_EQ(changed.lastCount(), 7);
    EXPECT_EQ(changed.loader.index()->loadCached()->size(), 7);
}

TEST_F(CatalogLoaderTest, StressSwitchDuringALoadDropsTheStaleResult) {
    CatalogServer server;
    ASSERT_TRUE(server.start());
    server.holdIndex();
    Launch launch(server.url(), dataDir);
    launch.loader.reloadIndex(); // normal catalog, held back by the server

    settings->set(QStringLiteral("stressIndex"), true);
    launch.loader.reloadIndex();
    EXPECT_EQ(launch.outcome(QStringLiteral("index")), QStringLiteral("updated"));
    EXPECT_EQ(launch.lastCount(), 12);
    EXPECT_EQ(launch.loader.loadedStress(), true);

    launch.checked.clear();
    server.release();
    EXPECT_EQ(launch.outcome(QStringLiteral("index")), QStringLiteral("stale"));
    EXPECT_EQ(launch.loaded.count(), 1) << "the normal catalog was never published";
    EXPECT_EQ(launch.lastCount(), 12);
    EXPECT_TRUE(QFileInfo::exists(dataDir + QStringLiteral("/index_stress.sqlite")));
}

TEST_F(CatalogLoaderTest, CollectionsAreCachedByteExactAndKeptWhenTheServerFails) {
    CatalogServer server;
    ASSERT_TRUE(server.start());
    const QString cachedCollections = dataDir + QStringLiteral("/collections.json");
    {
        Launch first(server.url(), dataDir);
        QSignalSpy changed(&first.loader, &CatalogLoader::collectionsChanged);
        first.loader.reloadCollections();
        EXPECT_EQ(changed.count(), 1) << "announced at once, before any server data";
        EXPECT_EQ(first.outcome(QStringLiteral("collections")), QStringLiteral("updated"));
        EXPECT_EQ(first.loader.adminCollections().size(), 1);
        EXPECT_EQ(first.loader.adminStickers().size(), 1);
        EXPECT_EQ(TestEnv::readFile(cachedCollections), collectionsDoc);
        EXPECT_EQ(TestEnv::readFile(dataDir + QStringLiteral("/stickers.json")), stickersDoc);
    }
    server.setCollections(404, "not here");
    {
        Launch missing(server.url(), dataDir);
        missing.loader.reloadCollections();
        EXPECT_EQ(missing.outcome(QStringLiteral("collections")), QStringLiteral("failed"));
        EXPECT_TRUE(QTest::qWaitFor([&] { return missing.loader.adminCollections().size() == 1; }))
            << "built from the cached copies";
        EXPECT_EQ(TestEnv::readFile(cachedCollections), collectionsDoc) << "cache untouched";
    }
    server.setCollections(200, "[{\"id\":\"c1\"}]");
    Launch broken(server.url(), dataDir);
    broken.loader.reloadCollections();
    EXPECT_EQ(broken.outcome(QStringLiteral("collections")), QStringLiteral("failed"));
    EXPECT_TRUE(QTest::qWaitFor([&] { return broken.loader.adminCollections().size() == 1; }))
        << "previous collections stay";
    EXPECT_EQ(TestEnv::readFile(cachedCollections), QByteArray("[{\"id\":\"c1\"}]"));
}
