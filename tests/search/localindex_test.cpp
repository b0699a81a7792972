// SPDX-License-Identifier: MIT
#include "searchtesthelpers.h"

#include <QFile>
#include <algorithm>
#include <atomic>
#include <future>
#include <mutex>
#include <sqlite3.h>
#include <thread>

using namespace SearchTest;

namespace {

// Collects the index's log lines while alive.
class LogCapture {
public:
    LogCapture() {
        std::lock_guard guard(mutex());
        lines().clear();
        m_previous =
            qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& msg) {
                std::lock_guard guard(mutex());
                lines().append(msg);
            });
    }
    ~LogCapture() { qInstallMessageHandler(m_previous); }
    QStringList take() {
        std::lock_guard guard(mutex());
        return std::exchange(lines(), {});
    }

private:
    static std::mutex& mutex() {
        static std::mutex m;
        return m;
    }
    static QStringList& lines() {
        static QStringList l;
        return l;
    }
    QtMessageHandler m_previous;
};

const QString sig1(64, QLatin1Char('1'));
const QString sig2(64, QLatin1Char('2'));

// What a separate connection to the file sees committed: the stored signature.
std::optional<QString> committedSignature(const QString& path) {
    sqlite3* db = nullptr;
    std::optional<QString> sig;
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_open_v2(path.toUtf8().constData(), &db, SQLITE_OPEN_READONLY, nullptr) ==
            SQLITE_OK &&
        sqlite3_prepare_v2(db, "SELECT v FROM meta WHERE k='sig'", -1, &stmt, nullptr) ==
            SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW)
        sig = QString::fromUtf8(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0)));
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return sig;
}

// Catalogs whose every item matches "shared", told apart by their id prefix.
MemeList sharedCatalog(const QString& prefix, int count) {
    MemeList memes;
    for (int i = 0; i < count; ++i)
        memes.append(meme(prefix + QString::number(i), QStringLiteral("shared word ") + prefix,
                          i % 7, {QStringLiteral("kw%1").arg(i % 13)}));
    return memes;
}

bool allStartWith(const QStringList& ids, const QString& prefix) {
    return std::all_of(ids.begin(), ids.end(),
                       [&](const QString& id) { return id.startsWith(prefix); });
}

} // namespace

TEST(LocalIndex, CreatesItsFolderAndTablesAndFailsWithoutAFile) {
    const QString path = TestEnv::freshDir() + QStringLiteral("/deeper/still/index.sqlite");
    auto index = LocalIndex::open(path);
    ASSERT_TRUE(index);
    EXPECT_TRUE(QFile::exists(path));
    std::lock_guard guard(index->lock());
    EXPECT_EQ(index->scalar(QStringLiteral("PRAGMA journal_mode")), QStringLiteral("wal"));
    EXPECT_EQ(index->scalar(QStringLiteral("SELECT count(*) FROM sqlite_master WHERE name IN "
                                           "('memes', 'meta', 'fts')")),
              QStringLiteral("3"));
    EXPECT_EQ(index->scalar(QStringLiteral("SELECT v FROM meta WHERE k='none'")), std::nullopt);
    EXPECT_EQ(index->scalar(QStringLiteral("SELECT NULL")), std::nullopt);
    EXPECT_EQ(index->scalar(QStringLiteral("SELEKT")), std::nullopt);

    // A regular file where the folder should be: nothing can be opened.
    const QString blocker = TestEnv::freshDir() + QStringLiteral("/file");
    TestEnv::writeFile(blocker, "x");
    EXPECT_FALSE(LocalIndex::open(blocker + QStringLiteral("/index.sqlite")));
}

TEST(LocalIndex, LogsFailedStatementsWithTheirStart) {
    auto index = LocalIndex::open(freshIndexPath());
    ASSERT_TRUE(index);
    LogCapture log;
    const QString sql = QStringLiteral("INSERT INTO missing_table(a) VALUES(1) -- followed by a "
                                       "long tail that the log line cuts off");
    EXPECT_FALSE(index->exec(sql));
    EXPECT_TRUE(index->exec(QStringLiteral("CREATE TABLE IF NOT EXISTS t(a)")));
    EXPECT_EQ(log.take(), QStringList{QStringLiteral("sqlite: no such table: missing_table in ") +
                                      sql.left(60)});
}

TEST(LocalIndex, RebuildReplacesEverythingAndLoadsBackInCatalogOrder) {
    auto index = LocalIndex::open(freshIndexPath());
    ASSERT_TRUE(index);
    EXPECT_EQ(index->loadCached(), std::nullopt) << "an empty file gives absent, not empty";
    EXPECT_EQ(index->storedSignature(), std::nullopt);

    Meme full = meme(QStringLiteral("z"), QStringLiteral("last"), std::nullopt);
    full.collection_id = QStringLiteral("c1");
    full.blur = QStringLiteral("LKO2?U%2Tw=w]~RBVZRi};RPxuwH");
    const MemeList memes = {full, meme(QStringLiteral("a"), QStringLiteral("first"), 5),
                            meme(QStringLiteral("m"), QStringLiteral("middle"), -3)};
    index->rebuild(memes, sig1);
    index->rebuild(memes, sig2);
    EXPECT_EQ(index->loadCached(), memes);
    EXPECT_EQ(index->storedSignature(), sig2);
    std::lock_guard guard(index->lock());
    EXPECT_EQ(index->scalar(QStringLiteral("SELECT count(*) FROM memes")), QStringLiteral("3"));
    EXPECT_EQ(index->scalar(QStringLiteral("SELECT count(*) FROM fts")), QStringLiteral("3"));
    EXPECT_EQ(index->scalar(QStringLiteral("SELECT count(*) FROM meta")), QStringLiteral("1"));
    EXPECT_EQ(index->scalar(QStringLiteral("SELECT popularity FROM fts WHERE id='z'")),
              QStringLiteral("0"))
        << "no popularity is stored as 0";
    EXPECT_EQ(index->scalar(QStringLiteral("SELECT keywords FROM fts WHERE id='a'")), QString());
}

TEST(LocalIndex, LoadSkipsRowsThatDoNotDecode) {
    auto index = LocalIndex::open(freshIndexPath());
    ASSERT_TRUE(index);
    index->rebuild({meme(QStringLiteral("ok"), QStringLiteral("fine"))}, sig1);
    index->waitUntilCommitted();
    ASSERT_TRUE(index->exec(QStringLiteral("INSERT INTO memes VALUES('bad', x'7b7d')")));
    ASSERT_TRUE(index->exec(QStringLiteral("INSERT INTO memes VALUES('empty', x'')")));
    ASSERT_TRUE(index->exec(QStringLiteral("INSERT INTO memes VALUES('junk', 'not json')")));
    const auto loaded = index->loadCached();
    ASSERT_TRUE(loaded);
    EXPECT_EQ(idsOf(*loaded), ids({"ok"}));

    ASSERT_TRUE(index->exec(QStringLiteral("DELETE FROM memes WHERE id='ok'")));
    EXPECT_EQ(index->loadCached(), std::nullopt) << "nothing decodes: absent";
}

TEST(LocalIndex, MatchesFoldedPrefixesOfEveryTokenAcrossColumns) {
    auto index = indexWith({
        meme(QStringLiteral("cafe"), QStringLiteral("meet me at the cafe")),
        meme(QStringLiteral("accent"), QStringLiteral("Un CAFÉ noir")),
        meme(QStringLiteral("split"), QStringLiteral("the cat sat"), 0, {QStringLiteral("doggo")}),
        meme(QStringLiteral("dog"), QStringLiteral("dog only")),
        meme(QStringLiteral("dont"), QStringLiteral("Don't stop"), 0, {}, {}, {}, {},
             {QStringLiteral("2x speed")}),
    });
    ASSERT_TRUE(index);
    const auto sorted = [](QStringList l) {
        l.sort();
        return l;
    };
    for (const QString& text :
         {QStringLiteral("Café"), QStringLiteral("cafe"), QStringLiteral("CAF")})
        EXPECT_EQ(sorted(index->search(text, 60)), ids({"accent", "cafe"})) << text.toStdString();
    EXPECT_EQ(index->search(QStringLiteral("ca do"), 60), ids({"split"}));
    EXPECT_EQ(index->search(QStringLiteral("don't-st 2x"), 60), ids({"dont"}));
    EXPECT_EQ(index->search(QStringLiteral("cat zebra"), 60), QStringList());
    EXPECT_EQ(index->search(QStringLiteral("ca"), 1).size(), 1);
    EXPECT_EQ(LocalIndex::matchExpression(u"Don't-stop 2x"),
              QStringLiteral(R"("don"* "t"* "stop"* "2x"*)"));
}

TEST(LocalIndex, PunctuationOnlyIssuesNoStatement) {
    auto index = indexWith({meme(QStringLiteral("a"), QStringLiteral("hello"))});
    ASSERT_TRUE(index);
    ASSERT_TRUE(index->exec(QStringLiteral("DROP TABLE fts")));
    LogCapture log;
    EXPECT_EQ(index->search(QStringLiteral("?!"), 60), QStringList());
    EXPECT_EQ(index->searchPlain(QStringLiteral(" ... "), 60), QStringList());
    EXPECT_EQ(log.take(), QStringList()) << "a statement would have failed and logged";
    EXPECT_EQ(index->search(QStringLiteral("hello"), 60), QStringList());
    EXPECT_FALSE(log.take().isEmpty()) << "a real query does reach the database";
}

TEST(LocalIndex, RanksByWeightedBm25ThenPopularity) {
    auto index = indexWith({
        meme(QStringLiteral("kw"), QStringLiteral("nothing here"), 900, {QStringLiteral("cat")}),
        meme(QStringLiteral("ocr"), QStringLiteral("cat nothing"), 1),
        meme(QStringLiteral("twin-low"), QStringLiteral("dog park"), 10),
        meme(QStringLiteral("twin-none"), QStringLiteral("dog park"), std::nullopt),
        meme(QStringLiteral("twin-high"), QStringLiteral("dog park"), 20),
    });
    ASSERT_TRUE(index);
    EXPECT_EQ(index->search(QStringLiteral("cat"), 60), ids({"ocr", "kw"}))
        << "ocr_text weighs 5, keywords 3, whatever the popularity";
    EXPECT_EQ(index->search(QStringLiteral("dog"), 60),
              ids({"twin-high", "twin-low", "twin-none"}));
    EXPECT_EQ(index->searchPlain(QStringLiteral("dog"), 60),
              ids({"twin-high", "twin-low", "twin-none"}));
}

TEST(LocalIndex, SearchDuringRebuildSeesOneCatalogWhole) {
    const QString path = freshIndexPath();
    auto index = LocalIndex::open(path);
    ASSERT_TRUE(index);
    MemeList before, after;
    for (int i = 0; i < 400; ++i) {
        before.append(meme(QStringLiteral("old%1").arg(i), QStringLiteral("shared word old")));
        after.append(meme(QStringLiteral("new%1").arg(i), QStringLiteral("shared word new")));
    }
    index->rebuild(before, sig1);

    std::atomic<bool> done = false;
    std::thread writer([&] {
        for (int round = 0; round < 6; ++round)
            index->rebuild(round % 2 ? before : after, round % 2 ? sig1 : sig2);
        done = true;
    });
    int searches = 0;
    while (!done || searches == 0) {
        const QStringList got = index->search(QStringLiteral("shared"), 1000);
        ++searches;
        ASSERT_EQ(got.size(), 400);
        const QString prefix = got.first().left(3);
        for (const QString& id : got)
            ASSERT_TRUE(id.startsWith(prefix)) << "mixed old and new rows";
    }
    writer.join();
}

namespace {
// Holds a rebuild's writing thread just before COMMIT until the test lets it go.
class CommitGate {
public:
    explicit CommitGate(LocalIndex& index) : m_index(index) {
        m_index.setBeforeCommitForTests([this, released = m_released] {
            m_reached.set_value();
            released.wait();
        });
    }
    ~CommitGate() {
        if (!m_open)
            release(); // a test that failed half-way must not leave the writer waiting
        m_index.waitUntilCommitted();
        m_index.setBeforeCommitForTests({});
    }
    void waitUntilReached() { m_reached.get_future().wait(); }
    void release() {
        m_open = true;
        m_release.set_value();
    }

private:
    LocalIndex& m_index;
    std::promise<void> m_reached;
    std::promise<void> m_release;
    std::shared_future<void> m_released = m_release.get_future().share();
    bool m_open = false;
};
} // namespace

TEST(LocalIndex, AnswersFromTheNewCatalogWhileItsCommitIsStillOpen) {
    const QString path = freshIndexPath();
    auto index = LocalIndex::open(path);
    ASSERT_TRUE(index);
    index->rebuild(sharedCatalog(QStringLiteral("old"), 300), sig1);
    index->waitUntilCommitted();
    ASSERT_EQ(committedSignature(path), sig1);

    // The writing thread stops just before COMMIT until the test lets it go.
    CommitGate gate(*index);
    const MemeList fresh = sharedCatalog(QStringLiteral("new"), 500);
    index->rebuild(fresh, sig2);
    gate.waitUntilReached();

    // Nothing is committed yet, and the keystroke path already answers from the new catalog.
    EXPECT_EQ(committedSignature(path), sig1);
    const QStringList during = index->search(QStringLiteral("shared"), 1000);
    EXPECT_TRUE(index->lastSearchWasFast());
    EXPECT_EQ(during.size(), 500);
    EXPECT_TRUE(allStartWith(during, QStringLiteral("new")));
    const QStringList twoWords = index->search(QStringLiteral("sha kw1"), 60);
    EXPECT_TRUE(index->lastSearchWasFast());

    // What needs the file waits for the commit and then sees the new catalog, never the old.
    auto plain = std::async(std::launch::async,
                            [&] { return index->searchPlain(QStringLiteral("shared"), 1000); });
    auto twoWordsPlain = std::async(
        std::launch::async, [&] { return index->searchPlain(QStringLiteral("sha kw1"), 60); });
    auto signature = std::async(std::launch::async, [&] { return index->storedSignature(); });
    auto loaded = std::async(std::launch::async, [&] { return index->loadCached(); });
    gate.release();
    EXPECT_EQ(plain.get(), during) << "the early answer is the committed table's";
    EXPECT_EQ(twoWordsPlain.get(), twoWords);
    EXPECT_EQ(signature.get(), sig2);
    EXPECT_EQ(loaded.get(), fresh);
    index->waitUntilCommitted();
    EXPECT_EQ(committedSignature(path), sig2);

    // After the commit the same mirror stays in use, and agrees with the table.
    EXPECT_EQ(index->search(QStringLiteral("shared"), 1000), during);
    EXPECT_TRUE(index->lastSearchWasFast());
}

TEST(LocalIndex, SearchesWaitingForARebuildGetItsCatalog) {
    auto index = LocalIndex::open(freshIndexPath());
    ASSERT_TRUE(index);
    index->rebuild(sharedCatalog(QStringLiteral("old"), 200), sig1);
    index->waitUntilCommitted();

    CommitGate gate(*index);
    // Searches started alongside a rebuild see one catalog whole, whichever it is, and a
    // search started after rebuild() returned sees only the new one, commit or not.
    std::atomic<bool> returned = false;
    std::vector<std::future<std::pair<bool, QStringList>>> searches;
    for (int i = 0; i < 4; ++i)
        searches.push_back(std::async(std::launch::async, [&] {
            const bool after = returned;
            return std::pair(after, index->search(QStringLiteral("shared"), 1000));
        }));
    index->rebuild(sharedCatalog(QStringLiteral("new"), 300), sig2);
    returned = true;
    gate.waitUntilReached();
    const QStringList now = index->search(QStringLiteral("shared"), 1000);
    gate.release();
    EXPECT_EQ(now.size(), 300);
    EXPECT_TRUE(allStartWith(now, QStringLiteral("new")));
    for (auto& search : searches) {
        const auto [after, got] = search.get();
        const bool isNew = got.size() == 300 && allStartWith(got, QStringLiteral("new"));
        const bool isOld = got.size() == 200 && allStartWith(got, QStringLiteral("old"));
        EXPECT_TRUE(isNew || (isOld && !after))
            << got.join(QLatin1Char(',')).left(200).toStdString();
    }
    index->waitUntilCommitted();
}
