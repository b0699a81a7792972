// SPDX-License-Identifier: MIT
#include "search/localindex.h"

#include "base/apppaths.h"
#include "base/logcategories.h"
#include "search/ftsmirror.h"
#include "search/ftstokenizer.h"
#include "search/textfold.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <future>
#include <limits>
#include <nlohmann/json.hpp>
#include <sqlite3.h>
#include <thread>

namespace {

const char* const setupStatements[] = {
    "PRAGMA journal_mode=WAL",
    "PRAGMA synchronous=NORMAL",
    "CREATE TABLE IF NOT EXISTS memes(id TEXT PRIMARY KEY, json BLOB NOT NULL)",
    "CREATE TABLE IF NOT EXISTS meta(k TEXT PRIMARY KEY, v TEXT)",
    "CREATE VIRTUAL TABLE IF NOT EXISTS fts USING fts5(\n"
    "  ocr_text, template, keywords, use_cases, emotions, description,\n"
    "  id UNINDEXED, popularity UNINDEXED,\n"
    "  tokenize='unicode61 remove_diacritics 2', prefix='1 2 3')",
};

// Enough pending index data for about 30,000 items before FTS5 writes a segment.
constexpr int ftsHashBytes = 64 * 1024 * 1024;

const char* const searchStatement =
    "SELECT id FROM fts WHERE fts MATCH ?1\n"
    "ORDER BY bm25(fts, 5, 4, 3, 3, 2, 1, 0, 0), CAST(popularity AS INTEGER) DESC LIMIT ?2";

void logFailure(sqlite3* db, const QString& sql) {
    qCWarning(lcIndex).noquote() << QStringLiteral("sqlite: ") +
                                        QString::fromUtf8(sqlite3_errmsg(db)) +
                                        QStringLiteral(" in ") + sql.left(60);
}

// Finalises on every path out of a scope.
class Statement {
public:
    Statement(sqlite3* db, const QString& sql) {
        const QByteArray utf8 = sql.toUtf8();
        if (sqlite3_prepare_v2(db, utf8.constData(), int(utf8.size()), &m_stmt, nullptr) !=
            SQLITE_OK)
            logFailure(db, sql);
    }
    ~Statement() { sqlite3_finalize(m_stmt); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    explicit operator bool() const { return m_stmt != nullptr; }
    sqlite3_stmt* get() const { return m_stmt; }

private:
    sqlite3_stmt* m_stmt = nullptr;
};

void bindText(sqlite3_stmt* stmt, int index, const QString& text) {
    const QByteArray utf8 = text.toUtf8();
    sqlite3_bind_text(stmt, index, utf8.constData(), int(utf8.size()), SQLITE_TRANSIENT);
}

QString joined(const QStringList& list) {
    return list.join(QLatin1Char(' '));
}

std::string_view columnText(sqlite3_stmt* stmt, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
    return text ? std::string_view(text, std::size_t(sqlite3_column_bytes(stmt, column)))
                : std::string_view();
}

} // namespace

std::unique_ptr<LocalIndex> LocalIndex::open(const QString& path) {
    AppPaths::ensureDir(QFileInfo(path).absolutePath()); // a failure shows in the open below
    bool corrupt = false;
    std::unique_ptr<LocalIndex> index = openOnce(path, &corrupt);
    if (!corrupt)
        return index;
    index.reset();
    // The file holds nothing that the server cannot give again; keep it for a post-mortem
    // under another name and start from an empty index.
    const QString aside =
        path + QStringLiteral(".corrupt-") +
        QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMddThhmmsszzz"));
    qCWarning(lcIndex).noquote() << QStringLiteral("sqlite: %1 is damaged; moved aside to %2")
                                        .arg(QFileInfo(path).fileName(),
                                             QFileInfo(aside).fileName());
    if (!QFile::rename(path, aside) && !QFile::remove(path))
        return nullptr;
    for (const char* suffix : {"-wal", "-shm"}) {
        const QString side = path + QLatin1String(suffix);
        if (QFile::exists(side) && !QFile::rename(side, aside + QLatin1String(suffix)))
            QFile::remove(side);
    }
    return openOnce(path, &corrupt);
}

std::unique_ptr<LocalIndex> LocalIndex::openOnce(const QString& path, bool* corrupt) {
    *corrupt = false;
    sqlite3* db = nullptr;
    const QByteArray file = path.toUtf8();
    if (sqlite3_open_v2(file.constData(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                        nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        return nullptr;
    }
    std::unique_ptr<LocalIndex> index(new LocalIndex(db, path));
    const auto damaged = [](int rc) {
        rc &= 0xff;
        return rc == SQLITE_CORRUPT || rc == SQLITE_NOTADB;
    };
    for (const char* sql : setupStatements)
        *corrupt = damaged(index->run(QString::fromUtf8(sql))) || *corrupt;
    // Set-up only reads the schema; these walk the tables a launch reads first.
    for (const char* sql : {"SELECT count(*) FROM memes", "SELECT count(*) FROM meta",
                            "SELECT count(*) FROM fts_idx"})
        *corrupt = *corrupt || damaged(index->run(QString::fromUtf8(sql)));
    if (*corrupt)
        return nullptr;
    index->m_tokenizer = FtsTokenizer::create(db);
    return index;
}

LocalIndex::LocalIndex(sqlite3* db, QString path) : m_db(db), m_path(std::move(path)) {}

LocalIndex::~LocalIndex() {
    if (m_writer.joinable())
        m_writer.join();
    m_mirror.reset();
    m_tokenizer.reset();
    sqlite3_close(m_db);
}

bool LocalIndex::exec(const QString& sql) {
    return run(sql) == SQLITE_OK;
}

int LocalIndex::run(const QString& sql) {
    // Whatever it wrote, the mirror is read again before it answers.
    m_mirrorChanges = -1;
    const QByteArray utf8 = sql.toUtf8();
    char* error = nullptr;
    const int rc = sqlite3_exec(m_db, utf8.constData(), nullptr, nullptr, &error);
    if (rc == SQLITE_OK)
        return rc;
    qCWarning(lcIndex).noquote() << QStringLiteral("sqlite: ") +
                                        QString::fromUtf8(error ? error : sqlite3_errmsg(m_db)) +
                                        QStringLiteral(" in ") + sql.left(60);
    sqlite3_free(error);
    return rc;
}

std::optional<QString> LocalIndex::scalar(const QString& sql) {
    const QByteArray utf8 = sql.toUtf8();
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(m_db, utf8.constData(), int(utf8.size()), &stmt, nullptr) != SQLITE_OK) {
        sqlite3_finalize(stmt);
        return std::nullopt;
    }
    std::optional<QString> value;
    if (sqlite3_step(stmt) == SQLITE_ROW && sqlite3_column_type(stmt, 0) != SQLITE_NULL)
        value = QString::fromUtf8(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0)),
                                  sqlite3_column_bytes(stmt, 0));
    sqlite3_finalize(stmt);
    return value;
}

void LocalIndex::rebuild(const MemeList& memes, const QString& signature) {
    std::lock_guard rebuilding(m_rebuildLock);
    if (m_writer.joinable())
        m_writer.join();
    {
        // From here until the new mirror is in place, searches wait for it.
        std::lock_guard guard(m_mirrorLock);
        m_mirrorPending = true;
    }
    std::promise<void> locked;
    std::future<void> writerHoldsLock = locked.get_future();
    std::promise<void> installed;
    m_writer = std::thread([this, memes, signature, locked = std::move(locked),
                            mirrorInstalled = installed.get_future().share()]() mutable {
        std::unique_lock guard(m_lock);
        locked.set_value();
        // The JSON rows are encoded on the other core once the mirror, which searches are
        // waiting for, has it back; the fts rows take this thread longer than both.
        std::vector<QByteArray> json(std::size_t(memes.size()));
        std::thread encoder([&memes, &json, mirrorInstalled] {
            mirrorInstalled.wait();
            for (qsizetype i = 0; i < memes.size(); ++i)
                json[std::size_t(i)] = CatalogJson::encodeMeme(memes[i]);
        });
        const bool committed = write(memes, signature, encoder, json);
        m_lastCommitted = committed;
        mirrorInstalled.wait();
        {
            std::lock_guard mirrorGuard(m_mirrorLock);
            m_committing = false;
            // The mirror was built from the same text the table got; when the transaction was
            // abandoned the table still holds the old catalog, which is read back at the next
            // search.
            if (committed && m_mirror) {
                m_mirrorChanges = sqlite3_total_changes64(m_db);
                m_mirrorDataVersion = dataVersion();
            } else {
                m_mirror.reset();
                m_mirrorFailed = false;
                m_mirrorChanges = -1;
            }
        }
        m_mirrorChanged.notify_all();
        releaseCache();
        guard.unlock();
        checkpoint();
    });
    // Nothing else may reach the connection, or read the table back into a mirror, until the
    // writer has it: the table is about to be emptied.
    writerHoldsLock.wait();

    // The tokenizer is ours until the mirror is installed: every other user holds m_lock or
    // waits for m_mirrorPending to clear. The writer waits for the installation whatever
    // happens here, so it is signalled on every way out.
    std::unique_ptr<FtsMirror> mirror;
    const auto install = [&] {
        {
            std::lock_guard guard(m_mirrorLock);
            m_mirror = std::move(mirror);
            m_mirrorFailed = false;
            m_mirrorPending = false;
            m_committing = true;
        }
        m_mirrorChanged.notify_all();
        installed.set_value();
    };
    try {
        if (m_tokenizer)
            mirror = mirrorOf(memes, *m_tokenizer);
    } catch (...) {
        mirror.reset();
        install();
        throw;
    }
    install();
}

bool LocalIndex::waitUntilCommitted() {
    // The writing thread takes the lock before rebuild() returns and keeps it to the commit.
    std::lock_guard guard(m_lock);
    return m_lastCommitted;
}

bool LocalIndex::write(const MemeList& memes, const QString& signature, std::thread& encoder,
                       const std::vector<QByteArray>& json) {
    // The commit would copy the whole catalog from the log into the file and sync it before
    // returning; a second connection does that afterwards instead.
    exec(QStringLiteral("PRAGMA wal_autocheckpoint=0"));
    const bool committed = writeTransaction(memes, signature, encoder, json);
    if (encoder.joinable())
        encoder.join();
    if (!committed && !sqlite3_get_autocommit(m_db))
        exec(QStringLiteral("ROLLBACK"));
    exec(QStringLiteral("PRAGMA wal_autocheckpoint=1000"));
    return committed;
}

bool LocalIndex::writeTransaction(const MemeList& memes, const QString& signature,
                                  std::thread& encoder, const std::vector<QByteArray>& json) {
    // Any failed step abandons the whole transaction: the old catalog and its signature stay.
    if (!exec(QStringLiteral("BEGIN")) || !exec(QStringLiteral("DELETE FROM memes")) || !emptyFts())
        return false;
    // Pending index data is flushed to disk whenever it outgrows this, and every flush adds a
    // segment that must be merged again; a catalog's worth fits in one.
    exec(QStringLiteral("INSERT INTO fts(fts, rank) VALUES('hashsize', %1)").arg(ftsHashBytes));

    const QString ftsInsert = QStringLiteral("INSERT INTO fts VALUES(?1,?2,?3,?4,?5,?6,?7,?8)");
    {
        Statement ftsRow(m_db, ftsInsert);
        if (!ftsRow)
            return false;
        sqlite3_stmt* stmt = ftsRow.get();
        for (const Meme& meme : memes) {
            bindText(stmt, 1, meme.ocr_text);
            bindText(stmt, 2, meme.template_);
            bindText(stmt, 3, joined(meme.keywords));
            bindText(stmt, 4, joined(meme.use_cases));
            bindText(stmt, 5, joined(meme.emotions));
            bindText(stmt, 6, meme.description);
            bindText(stmt, 7, meme.id);
            // Stored as the catalog gives it: SQLite integers are 64-bit.
            sqlite3_bind_int64(stmt, 8, meme.popularity.value_or(0));
            const int rc = sqlite3_step(stmt);
            sqlite3_reset(stmt);
            if (rc != SQLITE_DONE) {
                logFailure(m_db, ftsInsert);
                return false;
            }
        }
    }

    const QString memeInsert = QStringLiteral("INSERT INTO memes(id, json) VALUES(?1, ?2)");
    encoder.join();
    {
        Statement memeRow(m_db, memeInsert);
        if (!memeRow)
            return false;
        for (qsizetype i = 0; i < memes.size(); ++i) {
            // Encoding cannot fail (invalid text is replaced), so every item gets its row.
            const QByteArray& bytes = json[std::size_t(i)];
            bindText(memeRow.get(), 1, memes[i].id);
            sqlite3_bind_blob(memeRow.get(), 2, bytes.constData(), int(bytes.size()),
                              SQLITE_TRANSIENT);
            const int rc = sqlite3_step(memeRow.get());
            sqlite3_reset(memeRow.get());
            if (rc != SQLITE_DONE) {
                logFailure(m_db, memeInsert);
                return false;
            }
        }
    }
    // Last, so that the signature never describes a catalog that is not all there.
    if (!exec(QStringLiteral("INSERT OR REPLACE INTO meta(k, v) VALUES('sig', '") + signature +
              QStringLiteral("')")))
        return false;
    if (m_beforeCommit)
        m_beforeCommit();
    return exec(QStringLiteral("COMMIT"));
}

void LocalIndex::checkpoint() {
    sqlite3* db = nullptr;
    const QByteArray file = m_path.toUtf8();
    // PASSIVE neither waits for nor blocks the index's own connection; what it cannot copy
    // now, a later checkpoint (at the latest on close) does.
    if (sqlite3_open_v2(file.constData(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK)
        sqlite3_wal_checkpoint_v2(db, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    sqlite3_close(db);
}

bool LocalIndex::emptyFts() {
    // DELETE on an FTS5 table tokenises every old row again to record its removal, which
    // costs as much as inserting it; dropping and recreating the table takes a moment, and
    // leaves the same empty table.
    if (exec(QStringLiteral("DROP TABLE IF EXISTS fts")) &&
        exec(QString::fromUtf8(setupStatements[4])))
        return true;
    return exec(QStringLiteral("DELETE FROM fts"));
}

std::unique_ptr<FtsMirror> LocalIndex::mirrorOf(const MemeList& memes,
                                                const FtsTokenizer& tokenizer) {
    FtsMirror::Builder builder(tokenizer);
    std::int64_t rowid = 0;
    for (const Meme& meme : memes) {
        const QByteArray fields[FtsMirror::columnCount] = {
            meme.ocr_text.toUtf8(),         meme.template_.toUtf8(),
            joined(meme.keywords).toUtf8(), joined(meme.use_cases).toUtf8(),
            joined(meme.emotions).toUtf8(), meme.description.toUtf8()};
        std::array<std::string_view, FtsMirror::columnCount> columns;
        for (std::size_t c = 0; c < columns.size(); ++c)
            columns[c] = std::string_view(fields[c].constData(), std::size_t(fields[c].size()));
        // Rows of an emptied table take rowids in insertion order, which is all that counts.
        if (!builder.addRow(++rowid, meme.id, meme.popularity.value_or(0), columns))
            return nullptr;
    }
    return builder.finish();
}

std::optional<MemeList> LocalIndex::loadCached() {
    std::vector<QByteArray> rows;
    {
        std::lock_guard guard(m_lock);
        {
            Statement select(m_db, QStringLiteral("SELECT json FROM memes"));
            if (!select)
                return std::nullopt;
            while (sqlite3_step(select.get()) == SQLITE_ROW) {
                if (sqlite3_column_type(select.get(), 0) == SQLITE_NULL)
                    continue;
                const auto* bytes = static_cast<const char*>(sqlite3_column_blob(select.get(), 0));
                rows.emplace_back(bytes, sqlite3_column_bytes(select.get(), 0));
            }
        }
        releaseCache();
    }

    // Decoding is most of a launch: the second core takes half of the rows.
    std::vector<std::optional<Meme>> decoded(rows.size());
    const auto decode = [&rows, &decoded](std::size_t from, std::size_t to) {
        for (std::size_t i = from; i < to; ++i) {
            const nlohmann::json doc = nlohmann::json::parse(rows[i].cbegin(), rows[i].cend(),
                                                             nullptr, /*allow_exceptions=*/false);
            decoded[i] = CatalogJson::decodeMeme(doc);
            rows[i] = QByteArray();
        }
    };
    const std::size_t half = rows.size() / 2;
    std::thread helper(decode, half, rows.size());
    decode(0, half);
    helper.join();

    MemeList memes;
    memes.reserve(qsizetype(decoded.size()));
    for (std::optional<Meme>& meme : decoded)
        if (meme)
            memes.append(std::move(*meme));
    if (memes.isEmpty())
        return std::nullopt;
    return memes;
}

QString LocalIndex::matchExpression(QStringView text) {
    QStringList terms;
    for (const QString& token : TextFold::tokens(text))
        terms.append(QLatin1Char('"') + token + QStringLiteral("\"*"));
    return terms.join(QLatin1Char(' '));
}

QStringList LocalIndex::search(const QString& text, int limit) {
    const QStringList tokens = TextFold::tokens(text);
    if (tokens.isEmpty())
        return {};
    {
        // While a rebuild commits, its mirror already answers; before the mirror is ready,
        // waiting for it is shorter than waiting for the commit.
        std::unique_lock mirrorGuard(m_mirrorLock);
        m_mirrorChanged.wait(mirrorGuard, [this] { return !m_mirrorPending; });
        if (m_committing) {
            if (auto ids = searchMirror(tokens, limit)) {
                m_lastSearchFast = true;
                return *ids;
            }
        }
    }
    std::lock_guard guard(m_lock);
    {
        std::lock_guard mirrorGuard(m_mirrorLock);
        ensureMirror();
        if (auto ids = searchMirror(tokens, limit)) {
            m_lastSearchFast = true;
            return *ids;
        }
    }
    m_lastSearchFast = false;
    return runMatchQuery(matchExpression(text), limit);
}

QStringList LocalIndex::searchPlain(const QString& text, int limit) {
    const QString match = matchExpression(text);
    if (match.isEmpty())
        return {};
    std::lock_guard guard(m_lock);
    return runMatchQuery(match, limit);
}

QStringList LocalIndex::runMatchQuery(const QString& match, int limit) {
    QStringList ids;
    Statement select(m_db, QString::fromUtf8(searchStatement));
    if (!select)
        return ids;
    bindText(select.get(), 1, match);
    sqlite3_bind_int(select.get(), 2, limit);
    while (sqlite3_step(select.get()) == SQLITE_ROW) {
        if (sqlite3_column_type(select.get(), 0) == SQLITE_NULL)
            break;
        ids.append(
            QString::fromUtf8(reinterpret_cast<const char*>(sqlite3_column_text(select.get(), 0)),
                              sqlite3_column_bytes(select.get(), 0)));
    }
    return ids;
}

std::optional<QStringList> LocalIndex::searchMirror(const QStringList& tokens, int limit) {
    if (!m_mirror)
        return std::nullopt;
    const auto prefixes = mirrorPrefixes(tokens);
    if (!prefixes)
        return std::nullopt;
    return m_mirror->search(*prefixes, limit);
}

QStringList LocalIndex::searchShared(const QString& text, int limit) {
    const QStringList tokens = TextFold::tokens(text);
    if (tokens.isEmpty())
        return {};
    std::call_once(m_sharedMirrorRead, [this] {
        std::lock_guard guard(m_lock);
        std::lock_guard mirrorGuard(m_mirrorLock);
        ensureMirror();
    });
    std::optional<std::vector<std::string>> prefixes;
    {
        // The tokenizer keeps scratch of its own: one query at a time. The mirror itself
        // never changes any more, so it is read without the lock.
        std::lock_guard mirrorGuard(m_mirrorLock);
        if (m_mirror)
            prefixes = mirrorPrefixes(tokens);
    }
    if (prefixes)
        return m_mirror->search(*prefixes, limit);
    std::lock_guard guard(m_lock);
    return runMatchQuery(matchExpression(text), limit);
}

std::optional<std::vector<std::string>> LocalIndex::mirrorPrefixes(const QStringList& tokens) {
    if (!m_tokenizer)
        return std::nullopt;
    // FTS5 runs each quoted term through the tokenizer again; the mirror models a term that
    // stays one non-empty token, and leaves anything else (a phrase) to SQL.
    std::vector<std::string> prefixes;
    prefixes.reserve(std::size_t(tokens.size()));
    for (const QString& token : tokens) {
        const QByteArray utf8 = token.toUtf8();
        int count = 0;
        std::string prefix;
        m_tokenizer->tokenize(
            std::string_view(utf8.constData(), std::size_t(utf8.size())),
            [&](std::string_view piece) {
                ++count;
                prefix.assign(piece);
            },
            /*queryPrefix=*/true);
        if (count != 1 || prefix.empty())
            return std::nullopt;
        prefixes.push_back(std::move(prefix));
    }
    return prefixes;
}

std::optional<QString> LocalIndex::storedSignature() {
    std::lock_guard guard(m_lock);
    return scalar(QStringLiteral("SELECT v FROM meta WHERE k='sig'"));
}

void LocalIndex::prepareFastPath() {
    std::lock_guard guard(m_lock);
    std::lock_guard mirrorGuard(m_mirrorLock);
    ensureMirror();
}

std::int64_t LocalIndex::dataVersion() {
    // Changes only when another connection commits to the file.
    const std::optional<QString> v = scalar(QStringLiteral("PRAGMA data_version"));
    return v ? v->toLongLong() : -1;
}

bool LocalIndex::mirrorIsCurrent() {
    return m_mirrorChanges >= 0 && m_mirrorChanges == sqlite3_total_changes64(m_db) &&
           m_mirrorDataVersion == dataVersion();
}

void LocalIndex::ensureMirror() {
    if (!m_tokenizer)
        return;
    if (m_ahead.valid()) {
        Ahead ahead = m_ahead.get();
        if (ahead.mirror && ahead.changes == sqlite3_total_changes64(m_db) &&
            ahead.dataVersion == dataVersion()) {
            m_mirror = std::move(ahead.mirror);
            m_mirrorFailed = false;
            m_mirrorChanges = ahead.changes;
            m_mirrorDataVersion = ahead.dataVersion;
        }
    }
    if ((m_mirror || m_mirrorFailed) && mirrorIsCurrent())
        return;
    buildMirror();
    releaseCache();
}

void LocalIndex::readMirrorAhead() {
    std::lock_guard guard(m_lock);
    std::lock_guard mirrorGuard(m_mirrorLock);
    if (!m_tokenizer || m_ahead.valid() || ((m_mirror || m_mirrorFailed) && mirrorIsCurrent()))
        return;
    const std::int64_t changes = sqlite3_total_changes64(m_db);
    const std::int64_t version = dataVersion();
    m_ahead = std::async(std::launch::async, [path = m_path.toUtf8(), changes, version] {
        Ahead ahead{nullptr, changes, version};
        sqlite3* db = nullptr;
        // Its read begins after the stamp: should anything commit in between, the stamp no
        // longer matches and the mirror is not used.
        if (sqlite3_open_v2(path.constData(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK)
            if (const auto tokenizer = FtsTokenizer::create(db))
                ahead.mirror = mirrorOfTable(db, *tokenizer);
        sqlite3_close(db);
        return ahead;
    });
}

void LocalIndex::buildMirror() {
    m_mirror.reset();
    m_mirrorFailed = true;
    m_mirrorChanges = sqlite3_total_changes64(m_db);
    m_mirrorDataVersion = dataVersion();
    if (!m_tokenizer)
        return;
    m_mirror = mirrorOfTable(m_db, *m_tokenizer);
    m_mirrorFailed = !m_mirror;
}

std::unique_ptr<FtsMirror> LocalIndex::mirrorOfTable(sqlite3* db, const FtsTokenizer& tokenizer) {
    const QString sql = QStringLiteral(
        "SELECT rowid, ocr_text, template, keywords, use_cases, emotions, description, id, "
        "CAST(popularity AS INTEGER) FROM fts");
    Statement select(db, sql);
    if (!select)
        return nullptr;
    sqlite3_stmt* stmt = select.get();
    FtsMirror::Builder builder(tokenizer);
    int rc = SQLITE_ROW;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        // A NULL id or popularity sorts in ways the mirror does not model: leave it to SQL.
        if (sqlite3_column_type(stmt, 7) == SQLITE_NULL ||
            sqlite3_column_type(stmt, 8) == SQLITE_NULL)
            return nullptr;
        const std::array<std::string_view, FtsMirror::columnCount> columns{
            columnText(stmt, 1), columnText(stmt, 2), columnText(stmt, 3),
            columnText(stmt, 4), columnText(stmt, 5), columnText(stmt, 6)};
        const std::string_view id = columnText(stmt, 7);
        if (!builder.addRow(sqlite3_column_int64(stmt, 0),
                            QString::fromUtf8(id.data(), qsizetype(id.size())),
                            sqlite3_column_int64(stmt, 8), columns))
            return nullptr;
    }
    if (rc != SQLITE_DONE) {
        logFailure(db, sql);
        return nullptr;
    }
    return builder.finish();
}

void LocalIndex::releaseCache() {
    // Keystrokes are answered from the mirror; the pages a load or a rebuild read would only
    // sit in the cache all day. SQL reads them again should it ever need them.
    sqlite3_db_release_memory(m_db);
}
