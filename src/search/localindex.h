// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QString>
#include <QStringList>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

struct sqlite3;
class FtsMirror;
class FtsTokenizer;

// The catalog kept on disk between launches: one SQLite file holding the items as JSON, an
// FTS5 table over their searchable fields and the catalog signature. One lock serialises all
// statement work on the connection; open() runs the set-up before the object is shared.
//
// Keystrokes are answered from an in-memory mirror of the fts table that reproduces FTS5's
// own bm25 ordering exactly; the SQL query stays the reference and the fallback.
class LocalIndex {
public:
    // Opens (creating) the database at `path`, creating its folder; runs the set-up statements.
    // nullptr when the database cannot be opened.
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

    // Replaces the whole content in one transaction and leaves the mirror ready. Any thread;
    // holds the lock throughout. Copying the committed log into the file continues on a
    // thread of its own afterwards.
    void rebuild(const MemeList& memes, const QString& signature);
    // Every stored item in catalog order; absent when nothing decodes. Takes the lock.
    std::optional<MemeList> loadCached();
    // Ids of the best matches for `text`, best first, at most `limit`. Takes the lock.
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
    // How the last search() was answered: true from memory, false through SQL. For tests.
    bool lastSearchWasFast() const { return m_lastSearchFast; }

    // The MATCH text search() sends for `text`: quoted prefix terms of its folded tokens
    // joined by spaces; empty when the text has no tokens.
    static QString matchExpression(QStringView text);

private:
    LocalIndex(sqlite3* db, QString path);
    QStringList runMatchQuery(const QString& match, int limit);
    std::optional<QStringList> searchMirror(const QStringList& tokens, int limit);
    bool emptyFts();
    static std::unique_ptr<FtsMirror> mirrorOf(const MemeList& memes,
                                               const FtsTokenizer& tokenizer);
    void ensureMirror();
    void buildMirror();
    bool mirrorIsCurrent();
    std::int64_t dataVersion();
    void checkpointInBackground();

    sqlite3* m_db = nullptr;
    QString m_path;
    std::mutex m_lock;
    std::unique_ptr<FtsTokenizer> m_tokenizer;
    std::unique_ptr<FtsMirror> m_mirror;
    // What the connection looked like when the mirror was read, to notice writes made since
    // (through exec() or by another connection) and read it again.
    std::int64_t m_mirrorChanges = -1;
    std::int64_t m_mirrorDataVersion = -1;
    bool m_mirrorFailed = false;
    bool m_lastSearchFast = false;
    // Copies a rebuild's pages from the write-ahead log into the file after rebuild() returned.
    std::thread m_checkpoint;
};
