// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QString>
#include <QStringList>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

struct sqlite3;
class FtsMirror;
class FtsTokenizer;

// The catalog kept on disk between launches: one SQLite file holding the items as JSON, an
// FTS5 table over their searchable fields and the catalog signature. One lock serialises all
// statement work on the connection; open() runs the set-up before the object is shared.
//
// Keystrokes are answered from an in-memory mirror of the fts table that reproduces FTS5's
// own bm25 ordering exactly; the SQL query stays the reference and the fallback.
//
// A rebuild writes the table on a thread of its own, which holds the lock until the new
// catalog is committed, and returns as soon as the mirror of the new catalog is ready: from
// then on search() answers from it, and everything that reads the file waits for the commit.
class LocalIndex {
public:
    // Opens (creating) the database at `path`, creating its folder; runs the set-up statements.
    // A file that is not a database or is damaged is renamed to "<name>.corrupt-<UTC time>"
    // and an empty index takes its place. nullptr when the database cannot be opened.
    static std::unique_ptr<LocalIndex> open(const QString& path);
    ~LocalIndex();
    LocalIndex(const LocalIndex&) = delete;
    LocalIndex& operator=(const LocalIndex&) = delete;

    // Runs one statement without results; false (and a "sqlite: " log line) on failure.
    // The caller holds lock() whenever other threads may use the index.
    bool exec(const QString& sql);
    // First column of the first row as text; absent on a failed prepare, no row or NULL.
    // The caller holds lock().
    std::optional<QString> scalar(const QString& sql);
    std::mutex& lock() { return m_lock; }

    // Replaces the whole content in one transaction. Any thread not holding lock(); rebuilds
    // run one at a time. Returns once search() answers from `memes`; the transaction is then
    // still being written and committed on another thread, which holds the lock until it is
    // done, so lock() and everything that takes it (searchPlain(), loadCached(),
    // storedSignature()) see only the committed catalog. Copying the committed log into the
    // file follows on that thread without the lock. Should an fts row fail to insert, the
    // mirror still answers until the commit and the table is read back afterwards.
    void rebuild(const MemeList& memes, const QString& signature);
    // Returns once the transaction of the last rebuild() that returned is over, so that other
    // connections see it and the caller may use the connection again. False when it failed
    // (logged "sqlite: ..."): it was rolled back whole, the old catalog and signature stay,
    // and search() answers from the old catalog again.
    bool waitUntilCommitted();
    // Every stored item in catalog order; absent when nothing decodes. Takes the lock.
    std::optional<MemeList> loadCached();
    // Ids of the best matches for `text`, best first, at most `limit`. Takes the lock, except
    // while a rebuild commits: then the new catalog's mirror answers without it. A search
    // that arrives while that mirror is still being built waits for the mirror.
    QStringList search(const QString& text, int limit);
    // The stored catalog signature (meta 'sig'). Takes the lock.
    std::optional<QString> storedSignature();

    // The same answer as search(), always through the FTS5 query: the reference the fast
    // path is tested and measured against. Takes the lock.
    QStringList searchPlain(const QString& text, int limit);
    // Reads the in-memory mirror from the table now instead of at the next search (rebuild()
    // leaves it ready; a file opened with content does not have it yet). Call it off the GUI
    // thread after loadCached() so the first keystroke does not pay for it. Takes the lock.
    void prepareFastPath();
    // Starts reading the mirror on a thread and connection of its own, so that loadCached()
    // on this one runs meanwhile on the other core. The next prepareFastPath() or search()
    // takes it, unless the table was written since this call; then it reads the table
    // again. Takes the lock briefly.
    void readMirrorAhead();
    // search() for an index that is no longer rebuilt (one per catalog version, as the server
    // keeps them): once its in-memory mirror is read, any number of threads search it at once
    // without the lock. What the mirror cannot answer goes to SQL under the lock.
    QStringList searchShared(const QString& text, int limit);
    // How the last search() was answered: true from memory, false through SQL. For tests.
    bool lastSearchWasFast() const { return m_lastSearchFast; }
    // Runs on the rebuild's writing thread, holding lock(), just before COMMIT. For tests
    // that need a commit to stay in progress while they look; set it while no rebuild is
    // committing (after waitUntilCommitted()).
    void setBeforeCommitForTests(std::function<void()> hook) { m_beforeCommit = std::move(hook); }

    // The MATCH text search() sends for `text`: quoted prefix terms of its folded tokens
    // joined by spaces; empty when the text has no tokens.
    static QString matchExpression(QStringView text);

private:
    LocalIndex(sqlite3* db, QString path);
    static std::unique_ptr<LocalIndex> openOnce(const QString& path, bool* corrupt);
    // exec() with the engine's result code.
    int run(const QString& sql);
    QStringList runMatchQuery(const QString& match, int limit);
    std::optional<QStringList> searchMirror(const QStringList& tokens, int limit);
    // The mirror's prefix terms for `tokens`; none when a token is not one term to it (a
    // phrase, left to SQL). Uses m_tokenizer.
    std::optional<std::vector<std::string>> mirrorPrefixes(const QStringList& tokens);
    // Writes the whole transaction; `json` holds the items' rows once `encoder` is joined.
    // False when any step failed and the transaction was rolled back. Joins `encoder`.
    bool write(const MemeList& memes, const QString& signature, std::thread& encoder,
               const std::vector<QByteArray>& json);
    bool writeTransaction(const MemeList& memes, const QString& signature, std::thread& encoder,
                          const std::vector<QByteArray>& json);
    bool emptyFts();
    static std::unique_ptr<FtsMirror> mirrorOf(const MemeList& memes,
                                               const FtsTokenizer& tokenizer);
    // The mirror of the fts table as `db` sees it; nullptr when a row cannot be mirrored.
    static std::unique_ptr<FtsMirror> mirrorOfTable(sqlite3* db, const FtsTokenizer& tokenizer);
    void ensureMirror();
    void buildMirror();
    bool mirrorIsCurrent();
    std::int64_t dataVersion();
    void checkpoint();
    // Frees the connection's page cache. The caller holds m_lock.
    void releaseCache();

    sqlite3* m_db = nullptr;
    QString m_path;
    // The connection, and what is only touched with it: m_mirrorChanges, m_mirrorDataVersion.
    std::mutex m_lock;
    std::unique_ptr<FtsTokenizer> m_tokenizer;
    // What the connection looked like when the mirror was read, to notice writes made since
    // (through exec() or by another connection) and read it again.
    std::int64_t m_mirrorChanges = -1;
    std::int64_t m_mirrorDataVersion = -1;
    // Whether the last rebuild's transaction committed; under m_lock.
    bool m_lastCommitted = true;

    // The mirror and the rebuild's progress, which searches read while the writing thread
    // holds m_lock. Taken after m_lock when both are needed. m_tokenizer is used under it too,
    // except by the rebuild, which owns it while m_mirrorPending.
    std::mutex m_mirrorLock;
    std::condition_variable m_mirrorChanged;
    std::unique_ptr<FtsMirror> m_mirror;
    bool m_mirrorFailed = false;
    // The writing thread holds m_lock and the new mirror is being built: a search waits for it
    // rather than for the commit.
    bool m_mirrorPending = false;
    // The writing thread holds m_lock and m_mirror (when set) is the catalog being committed.
    bool m_committing = false;
    std::atomic<bool> m_lastSearchFast = false;
    // readMirrorAhead()'s mirror, with the connection's state when it was asked for; taken
    // under m_lock and m_mirrorLock.
    struct Ahead {
        std::unique_ptr<FtsMirror> mirror;
        std::int64_t changes = -1;
        std::int64_t dataVersion = -1;
    };
    std::future<Ahead> m_ahead;
    std::once_flag m_sharedMirrorRead;

    // One rebuild at a time; each joins the previous writing thread before starting its own.
    std::mutex m_rebuildLock;
    std::thread m_writer;
    std::function<void()> m_beforeCommit;
};
