// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QHash>
#include <QString>
#include <QStringList>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>

class EventStore;
class LocalIndex;
class WordNet;

// Answers the server's searches from the same bm25 path the app ranks with: a LocalIndex held
// in memory over the served catalog document, whose FTS5 mirror gives FTS5's own order. On top
// of that order go what users picked for the same words (a bounded boost, as in the app) and,
// when asked, matches of WordNet relatives of the query's words.
//
// The catalog file is looked at (stat only) at most once per `checkInterval`, on a request;
// a change is indexed on a thread of its own while the old index keeps answering, and the new
// one takes over once complete. Any thread may search.
class SearchService {
public:
    struct Options {
        std::filesystem::path catalog;
        // Where the index's SQLite file lives (one per catalog version, removed when it is
        // replaced); empty keeps it in memory. The ranking is answered from memory either way;
        // the file only keeps the SQL side out of the resident set.
        QString indexDir;
        std::chrono::milliseconds checkInterval{1000};
        // How many bm25 matches a query ranks (and counts for its total); deeper pages of
        // one query are not served.
        int maxTotalHits = 1000;
        // Related words taken per query word for hybrid search.
        int relatedPerWord = 8;
    };
    struct Query {
        QString text;
        int offset = 0;
        int limit = 20;
        // With a value (0 to 1), how much the ranking of related words weighs against the
        // keyword ranking.
        std::optional<double> semanticRatio;
    };
    struct Result {
        // The hits as catalog records in JSON text, encoded once per catalog version so an
        // answer is only stitched together; they stay valid while the result lives.
        std::vector<std::string_view> hits;
        QStringList ids;
        std::shared_ptr<const void> keepAlive;
        // All matches when fewer than maxTotalHits; otherwise (no boosts to rank deeper) the
        // page's end plus one when more follow.
        qsizetype totalHits = 0;
        // Hits on the page that only related words found.
        int semanticHits = 0;
    };

    // `wordNet` and `events` may be null (no hybrid expansion, no learned boost); both must
    // outlive the service. Indexes the catalog before returning.
    SearchService(Options options, WordNet* wordNet, EventStore* events);
    ~SearchService();
    SearchService(const SearchService&) = delete;
    SearchService& operator=(const SearchService&) = delete;

    Result search(const Query& query);
    // The plain FTS5 query (bm25, popularity tie-break) for just the page, with nothing fused
    // in: the reference the measurements compare with.
    Result searchPlain(const Query& query);

    qsizetype itemCount();
    // Looks at the catalog now and, when it changed, rebuilds before returning. For tests and
    // start-up.
    void refreshNow();

private:
    struct Snapshot;
    std::shared_ptr<Snapshot> current();
    void maybeRefresh();
    // Reads, decodes and indexes the catalog; null (logged) when it cannot.
    std::shared_ptr<Snapshot> build(const QString& stamp);
    QString stampOf() const;
    std::vector<QString> keywordRanking(Snapshot& snapshot, const QString& text, int depth);
    std::vector<QString> relatedRanking(Snapshot& snapshot, const QString& text, int depth);
    static Result page(const std::shared_ptr<Snapshot>& snapshot,
                       const std::vector<QString>& ranked, const Query& query);

    Options m_options;
    WordNet* m_wordNet;
    EventStore* m_events;

    std::mutex m_snapshotLock;
    std::shared_ptr<Snapshot> m_snapshot;
    std::atomic<std::int64_t> m_nextCheckNs{0};
    std::mutex m_rebuildLock; // one rebuild at a time
    std::atomic<bool> m_rebuilding{false};
    std::thread m_rebuilder;
    std::atomic<int> m_builds{0};
};
