// SPDX-License-Identifier: MIT
#include "searchtesthelpers.h"
#include "support/logcapture.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSet>
#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <sqlite3.h>
#include <thread>

using namespace SearchTest;

namespace {

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

TEST(LocalIndex, CreatesItsFolderAndFailsWhereNoFileCanBe) {
    const QString path = TestEnv::freshDir() + QStringLiteral("/deeper/still/index.sqlite");
    EXPECT_TRUE(LocalIndex::open(path));
    EXPECT_TRUE(QFile::exists(path));
    // A regular file where the folder should be.
    const QString blocker = TestEnv::freshDir() + QStringLiteral("/file");
    TestEnv::writeFile(blocker, "x");
    EXPECT_FALSE(LocalIndex::open(blocker + QStringLiteral("/index.sqlite")));
}

TEST(LocalIndex, RebuildReplacesEverythingAndLoadsOnlyRowsThatDecode) {
    auto index = LocalIndex::open(freshIndexPath());
    ASSERT_TRUE(index);
    EXPECT_EQ(index->loadCached(), std::nullopt) << "an empty file gives absent, not empty";
    EXPECT_EQ(index->storedSignature(), std::nullopt);

    Meme full = meme(QStringLiteral("z"), QStringLiteral("last"), std::nullopt);
    full.collection_id = QStringLiteral("c1");
    full.blur = QStringLiteral("LKO2?U%2Tw=w]~RBVZRi};RPxuwH");
    const MemeList memes = {full, meme(QStringLiteral("a"), QStringLiteral("first"), 5),
                            meme(QStringLiteral("m"), QStringLiteral("middle"), -3)};
    index->rebuild({meme(QStringLiteral("gone"), QStringLiteral("first"))}, sig1);
    index->rebuild(memes, sig2);
    EXPECT_EQ(index->loadCached(), memes);
    EXPECT_EQ(index->storedSignature(), sig2);
    EXPECT_EQ(index->search(QStringLiteral("first"), 60), ids({"a"}));

    ASSERT_TRUE(index->waitUntilCommitted());
    for (const char* row : {"('bad', x'7b7d')", "('empty', x'')", "('junk', 'not json')"})
        ASSERT_TRUE(index->exec(QStringLiteral("INSERT INTO memes VALUES") + QLatin1String(row)));
    EXPECT_EQ(index->loadCached(), memes);
    ASSERT_TRUE(index->exec(QStringLiteral("DELETE FROM memes WHERE id IN ('z', 'a', 'm')")));
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
    for (const QString& text :
         {QStringLiteral("Café"), QStringLiteral("cafe"), QStringLiteral("CAF")}) {
        QStringList found = index->search(text, 60);
        found.sort();
        EXPECT_EQ(found, ids({"accent", "cafe"})) << text.toStdString();
    }
    EXPECT_EQ(index->search(QStringLiteral("ca do"), 60), ids({"split"}));
    EXPECT_EQ(index->search(QStringLiteral("don't-st 2x"), 60), ids({"dont"}));
    EXPECT_EQ(index->search(QStringLiteral("cat zebra"), 60), QStringList());
    EXPECT_EQ(index->search(QStringLiteral("ca"), 1).size(), 1);

    // Text without tokens must not reach FTS5, whose MATCH would reject it: with the table
    // gone, any statement would fail and log.
    ASSERT_TRUE(index->exec(QStringLiteral("DROP TABLE fts")));
    LogCapture log;
    EXPECT_EQ(index->search(QStringLiteral("?!"), 60), QStringList());
    EXPECT_EQ(index->searchPlain(QStringLiteral(" ... "), 60), QStringList());
    EXPECT_EQ(log.take(), QStringList());
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
        // Popularity is a 64-bit value in the catalog; beyond 32 bits it still ranks.
        meme(QStringLiteral("twin-huge"), QStringLiteral("dog park"), 1LL << 40),
        meme(QStringLiteral("twin-sunk"), QStringLiteral("dog park"), -(1LL << 40)),
    });
    ASSERT_TRUE(index);
    EXPECT_EQ(index->search(QStringLiteral("cat"), 60), ids({"ocr", "kw"}))
        << "ocr_text weighs 5, keywords 3, whatever the popularity";
    const QStringList dogs = ids({"twin-huge", "twin-high", "twin-low", "twin-none", "twin-sunk"});
    EXPECT_EQ(index->search(QStringLiteral("dog"), 60), dogs);
    EXPECT_EQ(index->searchPlain(QStringLiteral("dog"), 60), dogs);
    const auto loaded = index->loadCached();
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->at(5).popularity, 1LL << 40);
    EXPECT_EQ(loaded->at(6).popularity, -(1LL << 40));
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

// Searches started alongside a rebuild see one catalog whole, whichever it is; once rebuild()
// returned, the keystroke path answers from the new catalog before it is committed, and
// what needs the file waits for the commit and then sees the new catalog, never the old.
TEST(LocalIndex, SearchesDuringARebuildSeeOneWholeCatalogAndTheNewOneOnceItReturns) {
    const QString path = freshIndexPath();
    auto index = LocalIndex::open(path);
    ASSERT_TRUE(index);
    index->rebuild(sharedCatalog(QStringLiteral("old"), 300), sig1);
    index->waitUntilCommitted();
    ASSERT_EQ(committedSignature(path), sig1);

    CommitGate gate(*index);
    std::atomic<bool> returned = false;
    std::vector<std::future<std::pair<bool, QStringList>>> early;
    for (int i = 0; i < 4; ++i)
        early.push_back(std::async(std::launch::async, [&] {
            const bool after = returned;
            return std::pair(after, index->search(QStringLiteral("shared"), 1000));
        }));
    const MemeList fresh = sharedCatalog(QStringLiteral("new"), 500);
    index->rebuild(fresh, sig2);
    returned = true;
    gate.waitUntilReached();

    EXPECT_EQ(committedSignature(path), sig1);
    const QStringList during = index->search(QStringLiteral("shared"), 1000);
    EXPECT_TRUE(index->lastSearchWasFast());
    EXPECT_EQ(during.size(), 500);
    EXPECT_TRUE(allStartWith(during, QStringLiteral("new")));
    const QStringList twoWords = index->search(QStringLiteral("sha kw1"), 60);
    EXPECT_TRUE(index->lastSearchWasFast());

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
    for (auto& search : early) {
        const auto [after, got] = search.get();
        const bool isNew = got.size() == 500 && allStartWith(got, QStringLiteral("new"));
        const bool isOld = got.size() == 300 && allStartWith(got, QStringLiteral("old"));
        EXPECT_TRUE(isNew || (isOld && !after))
            << got.join(QLatin1Char(',')).left(200).toStdString();
    }
    index->waitUntilCommitted();
    EXPECT_EQ(committedSignature(path), sig2);
    EXPECT_EQ(index->search(QStringLiteral("shared"), 1000), during) << "the mirror stays";
    EXPECT_TRUE(index->lastSearchWasFast());
}

namespace {

// The state a reader of the file sees: signature, rows of both tables, answers to "shared".
struct Snapshot {
    std::optional<QString> signature;
    QString memes, fts;
    QStringList found;
    bool operator==(const Snapshot&) const = default;
};

Snapshot snapshotOf(LocalIndex& index) {
    Snapshot s;
    s.signature = index.storedSignature();
    s.found = index.search(QStringLiteral("shared"), 5000);
    std::lock_guard guard(index.lock());
    s.memes = index.scalar(QStringLiteral("SELECT count(*) FROM memes")).value_or(QString());
    s.fts = index.scalar(QStringLiteral("SELECT count(*) FROM fts")).value_or(QString());
    return s;
}

void PrintTo(const Snapshot& s, std::ostream* os) {
    *os << "sig " << s.signature.value_or(QStringLiteral("none")).left(4).toStdString()
        << ", memes " << s.memes.toStdString() << ", fts " << s.fts.toStdString() << ", found "
        << s.found.size();
}

// A tmpfs of `megabytes` mounted on a fresh folder for the test's lifetime.
class SmallDisk {
public:
    explicit SmallDisk(int megabytes) : m_dir(TestEnv::freshDir()) {
        m_mounted =
            QProcess::execute(QStringLiteral("mount"),
                              {QStringLiteral("-t"), QStringLiteral("tmpfs"), QStringLiteral("-o"),
                               QStringLiteral("size=%1m").arg(megabytes), QStringLiteral("tmpfs"),
                               m_dir}) == 0;
    }
    ~SmallDisk() {
        if (m_mounted)
            QProcess::execute(QStringLiteral("umount"), {m_dir});
    }
    bool mounted() const { return m_mounted; }
    const QString& dir() const { return m_dir; }
    // Writes a filler file until the disk refuses more, down to its last small pieces.
    void fill() {
        QFile filler(m_dir + QStringLiteral("/filler"));
        if (!filler.open(QIODevice::WriteOnly))
            return;
        for (const int size : {64 * 1024, 512}) {
            const QByteArray block(size, 'f');
            while (filler.write(block) == block.size() && filler.flush()) {
            }
        }
    }
    void freeSpace() { QFile::remove(m_dir + QStringLiteral("/filler")); }

private:
    QString m_dir;
    bool m_mounted = false;
};

} // namespace

// Whatever step fails, the rebuild is undone whole: the old rows, the old signature and the
// old answers stay, in this connection and in the next launch's, and the next rebuild that
// can succeed leaves exactly one row per item.
TEST(LocalIndex, FailedRebuildRollsBackWholeAndTheNextOneRepairs) {
    struct Case {
        const char* name;
        // Returns false to skip; `breakIt` makes the next rebuild fail, `heal` undoes that.
        std::function<bool(QString& dir)> prepare;
        std::function<void(LocalIndex&)> breakIt, heal;
    };
    std::unique_ptr<SmallDisk> disk;
    const std::vector<Case> cases = {
        {"a statement fails half-way through the rows",
         [](QString& dir) { return dir = TestEnv::freshDir(), true; },
         [](LocalIndex& index) {
             ASSERT_TRUE(index.exec(QStringLiteral(
                 "CREATE TRIGGER poison BEFORE INSERT ON memes WHEN NEW.id = 'new700' "
                 "BEGIN SELECT RAISE(ABORT, 'poisoned'); END")));
         },
         [](LocalIndex& index) { ASSERT_TRUE(index.exec(QStringLiteral("DROP TRIGGER poison"))); }},
        {"the disk fills up",
         [&disk](QString& dir) {
             disk = std::make_unique<SmallDisk>(16);
             dir = disk->dir();
             return disk->mounted();
         },
         [&disk](LocalIndex&) { disk->fill(); }, [&disk](LocalIndex&) { disk->freeSpace(); }},
    };
    const MemeList old = sharedCatalog(QStringLiteral("old"), 300);
    const MemeList fresh = sharedCatalog(QStringLiteral("new"), 3000);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        QString dir;
        if (!c.prepare(dir)) // the last case: the ones before it have run
            GTEST_SKIP() << c.name << ": mounting a tmpfs is not allowed here";
        const QString path = dir + QStringLiteral("/index.sqlite");
        {
            auto index = LocalIndex::open(path);
            ASSERT_TRUE(index);
            index->rebuild(old, sig1);
            ASSERT_TRUE(index->waitUntilCommitted());
            const Snapshot before = snapshotOf(*index);
            ASSERT_EQ(before.found.size(), 300);

            c.breakIt(*index);
            LogCapture log;
            index->rebuild(fresh, sig2);
            EXPECT_FALSE(index->waitUntilCommitted());
            const QStringList lines = log.take();
            EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const QString& l) {
                return l.startsWith(QStringLiteral("sqlite: "));
            })) << lines.join(QLatin1Char('\n')).toStdString();
            EXPECT_EQ(snapshotOf(*index), before) << "this launch";
            EXPECT_EQ(committedSignature(path), sig1);
            index.reset();
            auto relaunched = LocalIndex::open(path);
            ASSERT_TRUE(relaunched);
            EXPECT_EQ(snapshotOf(*relaunched), before) << "the next launch";
            EXPECT_EQ(relaunched->loadCached(), old);

            c.heal(*relaunched);
            relaunched->rebuild(fresh, sig2);
            EXPECT_TRUE(relaunched->waitUntilCommitted());
            const Snapshot after = snapshotOf(*relaunched);
            EXPECT_EQ(after.signature, sig2);
            EXPECT_EQ(after.memes, QStringLiteral("3000"));
            EXPECT_EQ(after.fts, QStringLiteral("3000"));
            EXPECT_EQ(after.found.size(), 3000);
            EXPECT_EQ(QSet<QString>(after.found.begin(), after.found.end()).size(), 3000)
                << "no item twice";
        }
        disk.reset();
    }
}

TEST(LocalIndex, DamagedFileIsMovedAsideAndRebuilt) {
    const std::vector<std::pair<const char*, std::function<void(const QString& path)>>> damages = {
        {"not a database",
         [](const QString& path) { TestEnv::writeFile(path, QByteArray(20000, 'x')); }},
        {"pages overwritten",
         [](const QString& path) {
             {
                 auto index = LocalIndex::open(path);
                 ASSERT_TRUE(index);
                 index->rebuild(sharedCatalog(QStringLiteral("old"), 300), sig1);
                 index->waitUntilCommitted();
             } // closing copies everything into the file
             QFile file(path);
             ASSERT_TRUE(file.open(QIODevice::ReadWrite));
             ASSERT_GT(file.size(), 3 * 4096);
             file.seek(4096); // page 1 (the schema) stays readable
             file.write(QByteArray(int(file.size()) - 2 * 4096, '\xab'));
         }},
    };
    for (const auto& [name, damage] : damages) {
        SCOPED_TRACE(name);
        const QString dir = TestEnv::freshDir();
        const QString path = dir + QStringLiteral("/index.sqlite");
        damage(path);
        const QByteArray damaged = TestEnv::readFile(path);

        auto index = LocalIndex::open(path);
        ASSERT_TRUE(index);
        const QStringList aside =
            QDir(dir).entryList({QStringLiteral("index.sqlite.corrupt-*")}, QDir::Files);
        ASSERT_EQ(aside.size(), 1) << QDir(dir).entryList().join(u' ').toStdString();
        EXPECT_EQ(TestEnv::readFile(dir + QLatin1Char('/') + aside.first()), damaged);
        EXPECT_EQ(index->loadCached(), std::nullopt);
        EXPECT_EQ(index->storedSignature(), std::nullopt);

        const MemeList fresh = sharedCatalog(QStringLiteral("new"), 20);
        index->rebuild(fresh, sig2);
        EXPECT_TRUE(index->waitUntilCommitted());
        EXPECT_EQ(index->loadCached(), fresh);
        EXPECT_EQ(index->search(QStringLiteral("shared"), 100).size(), 20);
    }
}
