// SPDX-License-Identifier: MIT
#include "server/tagstore.h"

#include "base/apppaths.h"
#include "server/serverlog.h"

#include <QDateTime>
#include <QFileInfo>
#include <cstring>
#include <sqlite3.h>

namespace {

const char* const schema[] = {
    "PRAGMA journal_mode=WAL",
    "PRAGMA synchronous=NORMAL",
    ("CREATE TABLE IF NOT EXISTS tags(id INTEGER PRIMARY KEY, device TEXT NOT NULL,"
     " install_id TEXT NOT NULL, collection TEXT NOT NULL, file TEXT NOT NULL,"
     " tags TEXT NOT NULL, created TEXT NOT NULL)"),
    "CREATE INDEX IF NOT EXISTS tags_device ON tags(device)",
    ("CREATE TABLE IF NOT EXISTS template_prints(path TEXT PRIMARY KEY, size INTEGER NOT NULL,"
     " mtime_ns INTEGER NOT NULL, shape INTEGER NOT NULL, colours BLOB NOT NULL)"),
};

class Statement {
public:
    Statement(sqlite3* db, const char* sql) {
        if (sqlite3_prepare_v2(db, sql, -1, &m_stmt, nullptr) != SQLITE_OK)
            qCWarning(lcServer).noquote() << "tags: sqlite:" << sqlite3_errmsg(db);
    }
    ~Statement() { sqlite3_finalize(m_stmt); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    explicit operator bool() const { return m_stmt; }
    sqlite3_stmt* get() const { return m_stmt; }
    void bind(int index, const std::string& text) const {
        sqlite3_bind_text(m_stmt, index, text.data(), int(text.size()), SQLITE_TRANSIENT);
    }
    void bind(int index, std::int64_t value) const { sqlite3_bind_int64(m_stmt, index, value); }

private:
    sqlite3_stmt* m_stmt = nullptr;
};

} // namespace

std::unique_ptr<TagStore> TagStore::open(const QString& path) {
    AppPaths::ensureDir(QFileInfo(path).absolutePath());
    const QByteArray file = path.toUtf8();
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(file.constData(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
        qCWarning(lcServer).noquote()
            << "tags: cannot open" << file << ":" << (db ? sqlite3_errmsg(db) : "out of memory");
        sqlite3_close(db);
        return nullptr;
    }
    std::unique_ptr<TagStore> store(new TagStore(db));
    for (const char* sql : schema)
        if (!store->exec(sql))
            return nullptr;
    return store;
}

TagStore::~TagStore() {
    sqlite3_close(m_db);
}

bool TagStore::exec(const char* sql) {
    char* message = nullptr;
    if (sqlite3_exec(m_db, sql, nullptr, nullptr, &message) == SQLITE_OK)
        return true;
    qCWarning(lcServer).noquote() << "tags: sqlite:" << (message ? message : "error") << "in"
                                  << QByteArray(sql).left(60);
    sqlite3_free(message);
    return false;
}

TagStore::Added TagStore::add(const Record& record, std::int64_t cap) {
    const std::lock_guard lock(m_lock);
    // Counting and inserting under one lock, so parallel uploads of a device cannot pass
    // the cap together.
    Statement count(m_db, "SELECT COUNT(*) FROM tags WHERE device = ?1");
    Statement insert(m_db, "INSERT INTO tags(device, install_id, collection, file, tags, created)"
                           " VALUES(?1,?2,?3,?4,?5,?6)");
    if (!count || !insert)
        return Added::failed;
    count.bind(1, record.device);
    if (sqlite3_step(count.get()) != SQLITE_ROW)
        return Added::failed;
    if (sqlite3_column_int64(count.get(), 0) >= cap)
        return Added::overCap;
    insert.bind(1, record.device);
    insert.bind(2, record.installId);
    insert.bind(3, record.collection);
    insert.bind(4, record.file);
    insert.bind(5, record.tagsJson);
    insert.bind(6, QDateTime::currentDateTimeUtc().toString(Qt::ISODate).toStdString());
    if (sqlite3_step(insert.get()) != SQLITE_DONE) {
        qCWarning(lcServer).noquote() << "tags: sqlite:" << sqlite3_errmsg(m_db);
        return Added::failed;
    }
    return Added::stored;
}

std::int64_t TagStore::count(const std::string& device) {
    const std::lock_guard lock(m_lock);
    Statement select(m_db, "SELECT COUNT(*) FROM tags WHERE device = ?1");
    if (!select)
        return 0;
    select.bind(1, device);
    return sqlite3_step(select.get()) == SQLITE_ROW ? sqlite3_column_int64(select.get(), 0) : 0;
}

std::optional<std::int64_t> TagStore::removeDevice(const std::string& device) {
    const std::lock_guard lock(m_lock);
    Statement remove(m_db, "DELETE FROM tags WHERE device = ?1");
    if (!remove)
        return std::nullopt;
    remove.bind(1, device);
    if (sqlite3_step(remove.get()) != SQLITE_DONE) {
        qCWarning(lcServer).noquote() << "tags: sqlite:" << sqlite3_errmsg(m_db);
        return std::nullopt;
    }
    return sqlite3_changes64(m_db);
}

std::unordered_map<std::string, TagStore::StoredPrint> TagStore::prints() {
    const std::lock_guard lock(m_lock);
    std::unordered_map<std::string, StoredPrint> found;
    Statement select(m_db, "SELECT path, size, mtime_ns, shape, colours FROM template_prints");
    while (select && sqlite3_step(select.get()) == SQLITE_ROW) {
        StoredPrint stored;
        if (sqlite3_column_bytes(select.get(), 4) != int(stored.print.colours.size()))
            continue;
        stored.size = sqlite3_column_int64(select.get(), 1);
        stored.mtimeNs = sqlite3_column_int64(select.get(), 2);
        stored.print.shape = static_cast<std::uint64_t>(sqlite3_column_int64(select.get(), 3));
        std::memcpy(stored.print.colours.data(), sqlite3_column_blob(select.get(), 4),
                    stored.print.colours.size());
        const auto* path = reinterpret_cast<const char*>(sqlite3_column_text(select.get(), 0));
        found.emplace(std::string(path, std::size_t(sqlite3_column_bytes(select.get(), 0))),
                      stored);
    }
    return found;
}

void TagStore::storePrint(const std::string& path, std::int64_t size, std::int64_t mtimeNs,
                          const ImageHash::Print& print) {
    const std::lock_guard lock(m_lock);
    Statement insert(m_db, "INSERT OR REPLACE INTO template_prints VALUES(?1,?2,?3,?4,?5)");
    if (!insert)
        return;
    insert.bind(1, path);
    insert.bind(2, size);
    insert.bind(3, mtimeNs);
    // SQLite integers are signed; the bits go in and come out unchanged.
    insert.bind(4, static_cast<std::int64_t>(print.shape));
    sqlite3_bind_blob(insert.get(), 5, print.colours.data(), int(print.colours.size()),
                      SQLITE_TRANSIENT);
    if (sqlite3_step(insert.get()) != SQLITE_DONE)
        qCWarning(lcServer).noquote() << "tags: sqlite:" << sqlite3_errmsg(m_db);
}
