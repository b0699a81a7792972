// SPDX-License-Identifier: MIT
#include "catalog/memestore.h"
#include "imagecachetestkit.h"

#include <QDir>
#include <QFileInfo>

namespace {
const QByteArray body(12000, 'x');

using Answer = FaultyServer::Answer;

Answer held() {
    return Answer{200, body}.heldBack();
}
} // namespace

TEST(MemeStore, CacheFileIsNamedByTheBareFileNameAndCountsWhenNotEmpty) {
    ImageCacheRig rig;
    MemeStore store(rig.options());
    const QString dir = store.cacheDir() + QLatin1Char('/');
    EXPECT_EQ(store.fullFileURL(imageItem("p", "a/b/Cat.PNG")).toLocalFile(), dir + "Cat.png");
    EXPECT_EQ(store.fullFileURL(imageItem("g", "a/b/Cat.gif")).toLocalFile(), dir + "Cat.img");
    EXPECT_EQ(store.pngFileURL(imageItem("g", "a/b/Cat.gif")).toLocalFile(), dir + "Cat.png");
    EXPECT_EQ(store.fullFileURL(imageItem("x", "x/Dog.jpg")),
              store.fullFileURL(imageItem("y", "y/z/Dog.jpg")));

    TestEnv::writeFile(dir + "Dog.img", QByteArray());
    EXPECT_FALSE(store.cachedFullURL(imageItem("x", "x/Dog.jpg"))) << "empty file";
    TestEnv::writeFile(dir + "Dog.img", "12345");
    // Only whole downloads reach the cache; the catalog's size may be stale.
    for (qint64 bytes : {0, 1, 5, 6})
        EXPECT_TRUE(store.cachedFullURL(imageItem("x", "x/Dog.jpg", bytes))) << bytes;
}

TEST(MemeStore, EnsureFullAdoptsARunningPrefetchAndCancelsTheOthers) {
    ImageCacheRig rig;
    rig.server.put("f/a.jpg", held());
    rig.server.put("f/b.jpg", held());
    MemeStore store(rig.options());
    const Meme a = imageItem("a", "f/a.jpg", body.size());
    const Meme b = imageItem("b", "f/b.jpg", body.size());

    store.prefetch({b});
    store.prefetch({a, b}); // b keeps running; the selected a starts beside it
    EXPECT_EQ(store.inFlightCount(), 2);
    ASSERT_TRUE(eventually([&] {
        return rig.server.requests("f/a.jpg") == 1 && rig.server.requests("f/b.jpg") == 1;
    }));

    std::optional<std::optional<QUrl>> got;
    store.ensureFull(a, [&](std::optional<QUrl> file) { got = file; });
    EXPECT_TRUE(store.isDemanded(a));
    ASSERT_TRUE(eventually([&] { return !store.isInFlight(b); })) << "b pre-empted";
    rig.server.release("f/a.jpg");
    ASSERT_TRUE(eventually([&] { return got.has_value(); }));
    ASSERT_TRUE(*got);
    EXPECT_EQ(TestEnv::readFile(got->value().toLocalFile()), body);
    EXPECT_EQ(rig.server.requests("f/a.jpg"), 1) << "adopted, not restarted";

    // The cancelled prefetch left no failure behind: the wish list starts it again.
    rig.server.release("f/b.jpg");
    ASSERT_TRUE(eventually([&] { return store.cachedFullURL(b).has_value(); }));
    EXPECT_EQ(rig.server.requests("f/b.jpg"), 2);
}

TEST(MemeStore, PrefetchStartsTheSelectedItemAndOneMore) {
    ImageCacheRig rig;
    for (const char* path : {"f/a.jpg", "f/b.jpg", "f/c.jpg", "f/d.jpg"})
        rig.server.put(path, held());
    MemeStore store(rig.options());
    const Meme a = imageItem("a", "f/a.jpg"), b = imageItem("b", "f/b.jpg"),
               c = imageItem("c", "f/c.jpg"), d = imageItem("d", "f/d.jpg");

    store.prefetch({a, b, c});
    EXPECT_TRUE(store.isInFlight(a));
    EXPECT_FALSE(store.isInFlight(b)) << "position 1 has one slot, and a holds it";
    rig.server.release("f/a.jpg");
    ASSERT_TRUE(eventually([&] { return store.isInFlight(b); }));
    EXPECT_FALSE(store.isInFlight(c));

    // Moving on drops what left the list and starts the new selection.
    store.prefetch({d});
    EXPECT_TRUE(store.isInFlight(d));
    ASSERT_TRUE(eventually([&] { return !store.isInFlight(b); }));
    EXPECT_FALSE(store.isInFlight(c));
}

// A failed prefetch waits out a back-off; what the user asks for goes out at once and is
// retried exactly once.
TEST(MemeStore, FailuresBackOffPrefetchesButNotTheUser) {
    ImageCacheRig rig;
    rig.server.put("f/a.jpg", Answer{404});
    rig.server.put("f/flaky.jpg", Answer{200, body}.failingFirst(1));
    MemeStore store(rig.options());
    const Meme a = imageItem("a", "f/a.jpg");

    store.prefetch({a});
    ASSERT_TRUE(eventually([&] { return !store.isInFlight(a); }));
    EXPECT_EQ(rig.server.requests("f/a.jpg"), 1) << "a prefetch is not retried";

    rig.advance(10'000);
    store.prefetch({a});
    EXPECT_FALSE(store.isInFlight(a));
    rig.advance(20'000); // exactly 30 s
    store.prefetch({a});
    EXPECT_FALSE(store.isInFlight(a));
    rig.advance(1);
    store.prefetch({a});
    EXPECT_TRUE(store.isInFlight(a));
    ASSERT_TRUE(eventually([&] { return !store.isInFlight(a); }));

    EXPECT_FALSE(fetchFull(store, a)) << "inside the back-off again";
    EXPECT_EQ(rig.server.requests("f/a.jpg"), 4);
    EXPECT_TRUE(fetchFull(store, imageItem("flaky", "f/flaky.jpg", body.size())));
    EXPECT_EQ(rig.server.requests("f/flaky.jpg"), 2);
    const auto waits = rig.events("download_wait");
    ASSERT_EQ(waits.size(), 2u) << "one wait per request of the user, retries included";
    EXPECT_EQ(waits[0]["ok"], false);
    EXPECT_EQ(waits[1]["ok"], true);
}

TEST(MemeStore, OnlyBodiesCutShortByTheNetworkAreRefused) {
    ImageCacheRig rig;
    rig.server.put("f/cut.jpg", Answer{200, body.left(5000), Answer::CutShort});
    rig.server.put("f/stale.jpg", Answer{200, body.left(5000)});
    MemeStore store(rig.options());

    const Meme cut = imageItem("cut", "f/cut.jpg", body.size());
    EXPECT_FALSE(fetchFull(store, cut)) << "connection dropped mid-body";
    EXPECT_FALSE(QFileInfo::exists(store.fullFileURL(cut).toLocalFile()));
    EXPECT_FALSE(store.cachedFullURL(cut));

    // The catalog says 12000 bytes (or 1, as the stress catalog does), the server sends a
    // whole answer of 5000: that answer is the image.
    for (qint64 bytes : {qint64(body.size()), qint64(1)}) {
        const Meme stale = imageItem("stale", "f/stale.jpg", bytes);
        const auto file = fetchFull(store, stale);
        ASSERT_TRUE(file) << bytes;
        EXPECT_EQ(TestEnv::readFile(file->toLocalFile()), body.left(5000));
        EXPECT_EQ(store.cachedFullURL(stale), file) << "and it is a cache hit afterwards";
    }
    EXPECT_EQ(rig.server.requests("f/stale.jpg"), 1);
}

TEST(MemeStore, RemoteItemsCannotReachLocalFiles) {
    ImageCacheRig rig;
    MemeStore store(rig.options());
    const QString secret = rig.root + QStringLiteral("/secret.png");
    TestEnv::writeFile(secret, "private");
    const QString secretURL = QUrl::fromLocalFile(secret).toString();

    const Meme fromServer = imageItem("m1", secretURL);
    const Meme posingAsMine = imageItem("g_1", secretURL);
    const Meme escaping = imageItem("m2", "../../etc/passwd");
    rig.server.put("f/redirected.png", Answer::redirectTo(secretURL.toUtf8()));
    const Meme redirected = imageItem("m3", "f/redirected.png");
    for (const Meme& m : {fromServer, posingAsMine, escaping, redirected}) {
        EXPECT_FALSE(store.cachedFullURL(m)) << m.full.toStdString();
        EXPECT_FALSE(fetchFull(store, m)) << m.full.toStdString();
    }
    store.prefetch({fromServer, posingAsMine, escaping});
    EXPECT_EQ(store.inFlightCount(), 0);

    // Registered by the local library, the same item is honoured; a server copy of its id
    // with another thumbnail is not.
    store.setLocalItems(QStringLiteral("mine"), {posingAsMine});
    EXPECT_EQ(store.cachedFullURL(posingAsMine), QUrl::fromLocalFile(secret));
    Meme lookalike = posingAsMine;
    lookalike.thumb = QStringLiteral("t/funny.png");
    EXPECT_FALSE(store.cachedFullURL(lookalike));

    const QDateTime longAgo = QDateTime::fromSecsSinceEpoch(1'000'000'000);
    {
        QFile file(secret);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        ASSERT_TRUE(file.setFileTime(longAgo, QFileDevice::FileModificationTime));
    }
    store.touch(posingAsMine);
    EXPECT_EQ(QFileInfo(secret).lastModified(), longAgo) << "the user's own file keeps its dates";
}

TEST(MemeStore, TrimEvictsOldestButSparesRecentFiles) {
    ImageCacheRig rig;
    MemeStore store(rig.options());
    const QString dir = store.cacheDir() + QLatin1Char('/');
    const QDateTime now = store.now();
    const auto age = [&](const QString& name, int seconds) {
        TestEnv::writeFile(dir + name, QByteArray(1000, 'x'));
        QFile file(dir + name);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        file.setFileTime(now.addSecs(-seconds), QFileDevice::FileModificationTime);
    };
    age("oldest.img", 3600);
    age("older.img", 1800);
    age("old.img", 600);
    age("recent.img", 100);

    store.trimDir(store.cacheDir(), 2500);
    store.waitForBackgroundWork();
    EXPECT_EQ(QDir(dir).entryList(QDir::Files), QStringList({"old.img", "recent.img"}));

    // Touched in use, an old file becomes recent; nothing recent is deleted even over budget.
    store.touch(imageItem("old", "f/old.jpg"));
    store.trimDir(store.cacheDir(), 0);
    store.waitForBackgroundWork();
    EXPECT_EQ(QDir(dir).entryList(QDir::Files).size(), 2);
    const auto trims = rig.events("cache_trimmed");
    ASSERT_EQ(trims.size(), 2u);
    EXPECT_EQ(trims[0]["dir"], "full");
    EXPECT_EQ(trims[1]["bytes_after"], 2000);
    EXPECT_EQ(trims[1]["cap"], 0);
}

TEST(MemeStore, EveryTwentyFifthDownloadTrimsToTheCacheSetting) {
    ImageCacheRig rig;
    TestEnv::installConfig()->set(QStringLiteral("cacheMB"), 0);
    for (int i = 0; i < 25; ++i)
        rig.server.put(QStringLiteral("f/%1.png").arg(i), Answer{200, body});
    // An hour ahead, every download is old enough to go.
    rig.advance(3'600'000);
    MemeStore store(rig.options());
    for (int i = 0; i < 24; ++i)
        ASSERT_TRUE(
            fetchFull(store, imageItem(QString::number(i), QStringLiteral("f/%1.png").arg(i))));
    store.waitForBackgroundWork();
    EXPECT_TRUE(rig.events("cache_trimmed").empty());

    ASSERT_TRUE(fetchFull(store, imageItem("24", "f/24.png")));
    store.waitForBackgroundWork();
    const auto trims = rig.events("cache_trimmed");
    ASSERT_EQ(trims.size(), 1u);
    EXPECT_EQ(trims[0]["cap"], 0);
    EXPECT_EQ(trims[0]["bytes_after"], 0);
}
