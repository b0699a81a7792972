// SPDX-License-Identifier: MIT
#include "server/eventstore.h"

#include "base/apppaths.h"
#include "search/textfold.h"
#include "server/serverlog.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <set>
#include <sqlite3.h>

namespace {

const char* const schema[] = {
    "PRAGMA journal_mode=WAL",
    "PRAGMA synchronous=NORMAL",
    "CREATE TABLE IF NOT EXISTS events(hash TEXT PRIMARY KEY, install_id TEXT NOT NULL,"
    " query TEXT NOT NULL, query_key TEXT NOT NULL, results_shown TEXT NOT NULL,"
    " picked_id TEXT NOT NULL, position INTEGER NOT NULL, method TEXT NOT NULL,"
    " timestamp TEXT NOT NULL, received TEXT NOT NULL)",
    "CREATE INDEX IF NOT EXISTS events_picks ON events(query_key, picked_id, install_id)",
};

class Statement {
public:
    Statement(sqlite3* db, const char* sql) {
        if (sqlite3_prepare_v2(db, sql, -1, &m_stmt, nullptr) != SQLITE_OK)
            qCWarning(lcServer).noquote() << "events: sqlite:" << sqlite3_errmsg(db);
    }
    ~Statement() { sqlite3_finalize(m_stmt); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    explicit operator bool() const { return m_stmt; }
    sqlite3_stmt* get() const { return m_stmt; }
    void bind(int index, const QString& text) const {
        const QByteArray utf8 = text.toUtf8();
        sqlite3_bind_text(m_stmt, index, utf8.constData(), int(utf8.size()), SQLITE_TRANSIENT);
    }
    void bind(int index, const std::string& text) const {
        sqlite3_bind_text(m_stmt, index, text.data(), int(text.size()), SQLITE_TRANSIENT);
    }

private:
    sqlite3_stmt* m_stmt = nullptr;
};

QString columnText(sqlite3_stmt* stmt, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
    return QString::fromUtf8(text, sqlite3_column_bytes(stmt, column));
}

QString text(const nlohmann::json& value) {
    return QString::fromStdString(value.get<std::string>());
}

} // namespace

std::unique_ptr<EventStore> EventStore::open(const QString& dir) {
    AppPaths::ensureDir(dir);
    const QByteArray path = (dir + QStringLiteral("/events.sqlite")).toUtf8();
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.constData(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
        qCWarning(lcServer).noquote()
            << "events: cannot open" << path << ":" << (db ? sqlite3_errmsg(db) : "out of memory");
        sqlite3_close(db);
        return nullptr;
    }
    std::unique_ptr<EventStore> store(new EventStore(db));
    for (const char* sql : schema)
        if (!store->exec(sql))
            return nullptr;
    store->loadPicks();
    return store;
}

EventStore::~EventStore() {
    sqlite3_close(m_db);
}

bool EventStore::exec(const char* sql) {
    char* message = nullptr;
    if (sqlite3_exec(m_db, sql, nullptr, nullptr, &message) == SQLITE_OK)
        return true;
    qCWarning(lcServer).noquote() << "events: sqlite:" << (message ? message : "error") << "in"
                                  << QByteArray(sql).left(60);
    sqlite3_free(message);
    return false;
}

std::optional<std::vector<EventStore::Event>> EventStore::parseBatch(std::string_view body,
                                                                     std::size_t maxEvents,
                                                                     QString* error,
                                                                     bool* tooMany) {
    const nlohmann::json batch = nlohmann::json::parse(body, nullptr, false);
    if (batch.is_discarded()) {
        *error = QStringLiteral("malformed JSON");
        return std::nullopt;
    }
    if (!batch.is_array()) {
        *error = QStringLiteral("expected an array of events");
        return std::nullopt;
    }
    if (batch.size() > maxEvents) {
        if (tooMany)
            *tooMany = true;
        *error =
            QStringLiteral("%1 events in one batch, at most %2").arg(batch.size()).arg(maxEvents);
        return std::nullopt;
    }
    std::vector<Event> events;
    events.reserve(batch.size());
    for (std::size_t i = 0; i < batch.size(); ++i) {
        const nlohmann::json& item = batch[i];
        const auto fail = [&](const char* what) {
            *error = QStringLiteral("event %1: %2").arg(i).arg(QLatin1String(what));
            return std::nullopt;
        };
        if (!item.is_object())
            return fail("not an object");
        const auto has = [&](const char* key, auto check) {
            const auto it = item.find(key);
            return it != item.end() && check(*it);
        };
        const auto isString = [](const nlohmann::json& v) { return v.is_string(); };
        if (!has("query", isString))
            return fail("query must be a string");
        if (!has("results_shown", [](const nlohmann::json& v) {
                return v.is_array() &&
                       std::all_of(v.begin(), v.end(), [](const auto& e) { return e.is_string(); });
            }))
            return fail("results_shown must be an array of strings");
        if (!has("picked_id", isString))
            return fail("picked_id must be a string");
        // Unsigned covers positions past the int64 range, which no client sends.
        if (!has("position", [](const nlohmann::json& v) {
                return v.is_number_integer() &&
                       !(v.is_number_unsigned() && v.get<std::uint64_t>() > INT64_MAX);
            }))
            return fail("position must be an integer");
        if (!has("method", isString))
            return fail("method must be a string");
        if (!has("timestamp", isString))
            return fail("timestamp must be a string");
        events.push_back({text(item["query"]), item["results_shown"], text(item["picked_id"]),
                          item["position"].get<qint64>(), text(item["method"]),
                          text(item["timestamp"])});
    }
    return events;
}

std::optional<EventStore::Stored> EventStore::store(const std::vector<Event>& events,
                                                    const QString& installId) {
    const std::lock_guard lock(m_writeLock);
    Statement insert(m_db, "INSERT OR IGNORE INTO events VALUES(?1,?2,?3,?4,?5,?6,?7,?8,?9,?10)");
    Statement count(m_db, "SELECT COUNT(DISTINCT install_id) FROM events"
                          " WHERE query_key = ?1 AND picked_id = ?2");
    if (!insert || !count || !exec("BEGIN"))
        return std::nullopt;
    const QString received = QDateTime::currentDateTimeUtc().toString(Qt::ISODate);
    Stored stored;
    std::set<std::pair<QString, QString>> touched;
    for (const Event& event : events) {
        // The canonical form (sorted keys) of the six fields, so a resent event hashes alike.
        const nlohmann::json canonical = {{"query", event.query.toStdString()},
                                          {"results_shown", event.resultsShown},
                                          {"picked_id", event.pickedId.toStdString()},
                                          {"position", event.position},
                                          {"method", event.method.toStdString()},
                                          {"timestamp", event.timestamp.toStdString()}};
        const std::string content = installId.toStdString() + '\n' + canonical.dump();
        const std::string hash =
            QCryptographicHash::hash(QByteArrayView(content), QCryptographicHash::Sha256)
                .toHex()
                .toStdString();
        const QString key = TextFold::key(event.query);
        insert.bind(1, hash);
        insert.bind(2, installId);
        insert.bind(3, event.query);
        insert.bind(4, key);
        insert.bind(5, event.resultsShown.dump());
        insert.bind(6, event.pickedId);
        sqlite3_bind_int64(insert.get(), 7, event.position);
        insert.bind(8, event.method);
        insert.bind(9, event.timestamp);
        insert.bind(10, received);
        if (sqlite3_step(insert.get()) != SQLITE_DONE) {
            qCWarning(lcServer).noquote() << "events: sqlite:" << sqlite3_errmsg(m_db);
            sqlite3_reset(insert.get());
            exec("ROLLBACK");
            return std::nullopt;
        }
        sqlite3_reset(insert.get());
        if (sqlite3_changes(m_db) == 1) {
            ++stored.added;
            if (!key.isEmpty())
                touched.emplace(key, event.pickedId);
        } else {
            ++stored.duplicates;
        }
    }
    if (!exec("COMMIT")) {
        exec("ROLLBACK");
        return std::nullopt;
    }
    std::unique_lock picksLock(m_picksLock);
    for (const auto& [key, id] : touched) {
        count.bind(1, key);
        count.bind(2, id);
        if (sqlite3_step(count.get()) == SQLITE_ROW)
            m_picks[key][id] = sqlite3_column_int64(count.get(), 0);
        sqlite3_reset(count.get());
    }
    return stored;
}

void EventStore::loadPicks() {
    Statement select(m_db, "SELECT query_key, picked_id, COUNT(DISTINCT install_id) FROM events"
                           " WHERE query_key != '' GROUP BY query_key, picked_id");
    if (!select)
        return;
    std::unique_lock lock(m_picksLock);
    while (sqlite3_step(select.get()) == SQLITE_ROW)
        m_picks[columnText(select.get(), 0)][columnText(select.get(), 1)] =
            sqlite3_column_int64(select.get(), 2);
}

QHash<QString, qint64> EventStore::picksFor(const QString& queryKey) const {
    std::shared_lock lock(m_picksLock);
    const auto it = m_picks.find(queryKey);
    return it == m_picks.end() ? QHash<QString, qint64>() : it->second;
}

qint64 EventStore::eventCount() {
    const std::lock_guard lock(m_writeLock);
    Statement select(m_db, "SELECT COUNT(*) FROM events");
    return select && sqlite3_step(select.get()) == SQLITE_ROW
               ? sqlite3_column_int64(select.get(), 0)
               : 0;
}
