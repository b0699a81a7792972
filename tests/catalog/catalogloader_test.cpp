// SPDX-License-Identifier: MIT
#include "catalog/catalogfetcher.h"
#include "catalog/catalogloader.h"
#include "faultyserver.h"
#include "search/localindex.h"
#include "support/testenv.h"
#include "telemetry/loggedevents.h"

#include <QFileInfo>
#include <QSignalSpy>
#include <QTest>
#include <functional>
#include <gtest/gtest.h>

namespace {

MemeList catalogItems(int count, const char* prefix = "m") {
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
    return memes;
}

QByteArray catalog(int count, const char* prefix = "m") {
    return CatalogJson::encodeMemes(catalogItems(count, prefix));
}

const QByteArray collectionsDoc =
    R"([{"id":"c1","name":"Katzen","name_en":"Cats","keywords":["cat"],
    "cover":"/c/1.webp","count":1,"owner":"o","source":"s"}])";
const QByteArray stickersDoc = catalog(1, "s");

using Answer = FaultyServer::Answer;

// The catalog server as a launch finds it: five items, twelve in the stress catalog, one
// collection and one sticker.
struct CatalogServer : FaultyServer {
    CatalogServer() {
        put("index.json", {200, catalog(5)});
        put("index_stress.json", {200, catalog(12, "m_")});
        put("collections.json", {200, collectionsDoc});
        put("stickers.json", {200, stickersDoc});
    }
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
        // Longer than the fetcher's own 30 s deadline: it always reports first, and the
        // error it reports tells a slow machine from a hang.
        if (!QTest::qWaitFor(seen, 40000))
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

int serverLoadEvents() {
    int n = 0;
    for (const auto& event : loggedEvents(Metrics::shared(), "index_loaded"))
        n += event.value("source", "") == "server";
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
    ASSERT_TRUE(server.started());
    const int serverEventsBefore = serverLoadEvents();
    {
        Launch online(server.base(), dataDir);
        online.loader.reloadIndex();
        EXPECT_EQ(online.outcome(QStringLiteral("index")), QStringLiteral("updated"));
        EXPECT_EQ(online.lastSource(), QStringLiteral("server"));
        EXPECT_EQ(online.lastCount(), 5);
        EXPECT_EQ(serverLoadEvents(), serverEventsBefore + 1);
    }
    {
        // Same document again: shown from disk, no rebuild, no second server event.
        Launch again(server.base(), dataDir);
        again.loader.reloadIndex();
        EXPECT_EQ(again.lastSource(), QStringLiteral("disk")) << "disk is published at once";
        EXPECT_EQ(again.outcome(QStringLiteral("index")), QStringLiteral("unchanged"));
        EXPECT_EQ(again.loaded.count(), 1);
        EXPECT_EQ(serverLoadEvents(), serverEventsBefore + 1);
    }
    // A changed catalog replaces the index.
    server.put("index.json", {200, catalog(7)});
    Launch changed(server.base(), dataDir);
    changed.loader.reloadIndex();
    EXPECT_EQ(changed.outcome(QStringLiteral("index")), QStringLiteral("updated"));
    EXPECT_EQ(changed.lastCount(), 7);
    EXPECT_EQ(changed.loader.index()->loadCached()->size(), 7);
}

TEST_F(CatalogLoaderTest, StressSwitchDuringALoadDropsTheStaleResult) {
    CatalogServer server;
    ASSERT_TRUE(server.started());
    server.put("index.json", Answer{200, catalog(5)}.heldBack());
    Launch launch(server.base(), dataDir);
    launch.loader.reloadIndex(); // normal catalog, held back by the server

    settings->set(QStringLiteral("stressIndex"), true);
    launch.loader.reloadIndex();
    EXPECT_EQ(launch.outcome(QStringLiteral("index")), QStringLiteral("updated"));
    EXPECT_EQ(launch.lastCount(), 12);
    EXPECT_EQ(launch.loader.loadedStress(), true);

    launch.checked.clear();
    server.release("index.json");
    EXPECT_EQ(launch.outcome(QStringLiteral("index")), QStringLiteral("stale"));
    EXPECT_EQ(launch.loaded.count(), 1) << "the normal catalog was never published";
    EXPECT_EQ(launch.lastCount(), 12);
    EXPECT_TRUE(QFileInfo::exists(dataDir + QStringLiteral("/index_stress.sqlite")));
}

TEST_F(CatalogLoaderTest, CollectionsAreCachedByteExactAndKeptWhenTheServerFails) {
    CatalogServer server;
    ASSERT_TRUE(server.started());
    const QString cachedCollections = dataDir + QStringLiteral("/collections.json");
    {
        Launch first(server.base(), dataDir);
        QSignalSpy changed(&first.loader, &CatalogLoader::collectionsChanged);
        first.loader.reloadCollections();
        EXPECT_EQ(changed.count(), 1) << "announced at once, before any server data";
        EXPECT_EQ(first.outcome(QStringLiteral("collections")), QStringLiteral("updated"));
        EXPECT_EQ(first.loader.adminCollections().size(), 1);
        EXPECT_EQ(first.loader.adminStickers().size(), 1);
        EXPECT_EQ(TestEnv::readFile(cachedCollections), collectionsDoc);
        EXPECT_EQ(TestEnv::readFile(dataDir + QStringLiteral("/stickers.json")), stickersDoc);
    }
    server.put("collections.json", {404, "not here"});
    {
        Launch missing(server.base(), dataDir);
        missing.loader.reloadCollections();
        EXPECT_EQ(missing.outcome(QStringLiteral("collections")), QStringLiteral("failed"));
        EXPECT_TRUE(QTest::qWaitFor([&] { return missing.loader.adminCollections().size() == 1; }))
            << "built from the cached copies";
        EXPECT_EQ(TestEnv::readFile(cachedCollections), collectionsDoc) << "cache untouched";
    }
    // Neither a cut connection nor a complete answer that does not decode replaces the copies
    // that work.
    for (const Answer& answer :
         {Answer{200, collectionsDoc, Answer::CutShort}, Answer{200, collectionsDoc.left(40)}}) {
        server.put("collections.json", answer);
        Launch broken(server.base(), dataDir);
        broken.loader.reloadCollections();
        EXPECT_EQ(broken.outcome(QStringLiteral("collections")), QStringLiteral("failed"));
        EXPECT_TRUE(QTest::qWaitFor([&] { return broken.loader.adminCollections().size() == 1; }))
            << "previous collections stay";
        EXPECT_EQ(TestEnv::readFile(cachedCollections), collectionsDoc);
    }
}

// Each way a server or a network can fail is reported as what it is, and none of them costs
// the catalog a launch without a server would show. A catalog with duplicate ids is a good
// catalog and replaces it.
TEST_F(CatalogLoaderTest, BadAnswersNeverCostTheGoodCatalog) {
    CatalogServer server;
    ASSERT_TRUE(server.started());
    {
        Launch first(server.base(), dataDir);
        first.loader.reloadIndex();
        ASSERT_EQ(first.outcome(QStringLiteral("index")), QStringLiteral("updated"));
    }
    MemeList duplicated = catalogItems(6);
    Meme again = duplicated[1];
    again.description = QStringLiteral("the second m2");
    duplicated.insert(4, again);
    const QString indexPath = dataDir + QStringLiteral("/index.sqlite");
    const auto poison = [&](const char* sql) {
        auto other = LocalIndex::open(indexPath);
        ASSERT_TRUE(other && other->exec(QString::fromLatin1(sql)));
    };

    struct Case {
        const char* name;
        Answer answer;
        QString error; // ends in "(": the system's own words follow
        int countAfter;
        std::function<void()> before = nullptr, after = nullptr;
        bool reachable = true;
        qint64 cap = 64 * 1024;
    };
    const QString tooLarge = QStringLiteral("the server's answer is larger than 0.0625 MiB");
    const std::vector<Case> cases = {
        {"empty array", {200, "[]"}, QStringLiteral("the server sent an empty catalog"), 5},
        {"404 with []", {404, "[]"}, QStringLiteral("the server answered HTTP 404"), 5},
        {"server down", {}, QStringLiteral("could not reach the server ("), 5, {}, {}, false},
        {"connection cut mid-body",
         {200, catalog(7), Answer::CutShort},
         QStringLiteral("the server's answer could not be read ("),
         5},
        {"not JSON", {200, "[{\"id\":"}, QStringLiteral("the server's catalog is not valid ("), 5},
        {"trickles past the deadline",
         {200, catalog(7), Answer::Trickle},
         QStringLiteral("no answer from the server"),
         5},
        {"announced beyond the cap", {200, "[" + QByteArray(200 * 1024, ' ') + "]"}, tooLarge, 5},
        {"streams beyond the cap", {200, {}, Answer::Endless}, tooLarge, 5},
        {"inflates beyond the decompression limits",
         {200, {}, Answer::Bomb},
         QStringLiteral("the server's compressed answer could not be unpacked ("),
         5,
         nullptr,
         nullptr,
         true,
         CatalogFetcher::maxDocumentBytes},
        {"redirects forever", Answer::redirectTo("/index.json"),
         QStringLiteral("the server redirected too many times"), 5},
        {"the new catalog cannot be saved",
         {200, catalog(7)},
         QStringLiteral("the new catalog could not be saved"),
         5,
         [&] {
             poison("CREATE TRIGGER poison BEFORE INSERT ON memes WHEN NEW.id = 'm6' "
                    "BEGIN SELECT RAISE(ABORT, 'poisoned'); END");
         },
         [&] { poison("DROP TRIGGER poison"); }},
        {"duplicate ids", {200, CatalogJson::encodeMemes(duplicated)}, QString(), 6},
    };
    const QUrl down = unreachableServer();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        server.put("index.json", c.answer);
        if (c.before)
            c.before();
        {
            Launch online(c.reachable ? server.base() : down, dataDir);
            // Only the trickle needs a short deadline; a busy machine must not turn the
            // other answers into time-outs.
            online.fetcher.setLimits(c.answer.mode == Answer::Trickle ? 1500 : 30000, c.cap);
            online.loader.reloadIndex();
            EXPECT_EQ(online.outcome(QStringLiteral("index")),
                      c.error.isEmpty() ? QStringLiteral("updated") : QStringLiteral("failed"));
            const QString error = online.loader.lastIndexError();
            if (c.error.endsWith(u'('))
                EXPECT_TRUE(error.startsWith(c.error) && error.endsWith(u')'))
                    << error.toStdString();
            else
                EXPECT_EQ(error, c.error);
            EXPECT_TRUE(online.failed.isEmpty()) << "a catalog was on disk: nothing to say";
            EXPECT_EQ(online.lastCount(), c.countAfter) << "what the picker shows last";
        }
        if (c.after)
            c.after();

        Launch offline(down, dataDir);
        offline.loader.reloadIndex();
        EXPECT_EQ(offline.outcome(QStringLiteral("index")), QStringLiteral("failed"));
        EXPECT_EQ(offline.lastSource(), QStringLiteral("disk"));
        ASSERT_EQ(offline.lastCount(), c.countAfter);
        EXPECT_EQ(offline.loader.index()->search(QStringLiteral("cat"), 100).size(), c.countAfter);
        const MemeList shown = offline.loaded.last().at(1).value<MemeList>();
        if (c.answer.body == CatalogJson::encodeMemes(duplicated)) {
            EXPECT_EQ(shown[1].description, QStringLiteral("a cat number 2")) << "first one kept";
        }
    }
}
