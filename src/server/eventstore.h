// SPDX-License-Identifier: MIT
#pragma once

#include <QHash>
#include <QString>
#include <cstddef>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <shared_mutex>
#include <string_view>
#include <unordered_map>
#include <vector>

struct sqlite3;

// The usage events clients upload ("what was typed, what was shown, what was picked"), kept in
// one SQLite file, and what they teach the ranking: per folded query, how many installs picked
// each item. Clients deliver at least once, so every event is keyed by a SHA-256 of its install
// id and its content and a batch sent again is stored once.
//
// Any thread may call every method; writes are serialised.
class EventStore {
public:
    struct Event {
        QString query;
        nlohmann::json resultsShown; // array of strings
        QString pickedId;
        qint64 position = 0;
        QString method;
        QString timestamp;
    };
    struct Stored {
        int added = 0;
        int duplicates = 0;
    };

    // Opens (creating) "events.sqlite" in `dir`, creating the folder; nullptr when it cannot
    // (logged).
    static std::unique_ptr<EventStore> open(const QString& dir);
    ~EventStore();
    EventStore(const EventStore&) = delete;
    EventStore& operator=(const EventStore&) = delete;

    // A batch as clients send it: a JSON array of objects that each have all six keys with
    // their types (query string, results_shown array of strings, picked_id string, position
    // integer, method string, timestamp string); other keys are ignored. Absent, with `error`
    // saying what is wrong, when any part fails: a batch is taken whole or not at all.
    // `tooMany` is set when the batch holds more than `maxEvents`.
    static std::optional<std::vector<Event>> parseBatch(std::string_view body,
                                                        std::size_t maxEvents, QString* error,
                                                        bool* tooMany = nullptr);
    // Stores the events not stored before, in one transaction. Absent when SQLite fails
    // (logged; nothing of the batch is kept).
    std::optional<Stored> store(const std::vector<Event>& events, const QString& installId);

    // Item id → number of distinct installs that picked it for this folded query
    // (TextFold::key).
    QHash<QString, qint64> picksFor(const QString& queryKey) const;
    qint64 eventCount();

private:
    explicit EventStore(sqlite3* db) : m_db(db) {}
    bool exec(const char* sql);
    void loadPicks();

    sqlite3* m_db = nullptr;
    std::mutex m_writeLock;
    mutable std::shared_mutex m_picksLock;
    std::unordered_map<QString, QHash<QString, qint64>> m_picks;
};
