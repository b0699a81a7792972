// SPDX-License-Identifier: MIT
#pragma once

#include "server/catalogserver.h"

#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_map>

class EventStore;
class SearchService;

// How much the search and events endpoints take from one client, and how large their
// requests may be.
struct SearchApiLimits {
    // Requests per second per client address, with bursts of twice that (at least 1); 0 turns
    // the limit off.
    double searchPerSecond = 50;
    double eventsPerSecond = 1;
    // The most hits one search returns, and the deepest hit (offset + limit) it reaches.
    int maxLimit = 1000;
    std::size_t maxQueryBytes = 512;
    std::size_t maxSearchBodyBytes = 16 * 1024;
    std::size_t maxEventsBodyBytes = 4 * 1024 * 1024;
    std::size_t maxEventsPerBatch = 10000;
};

// A token bucket per client address.
class RateLimiter {
public:
    // Bursts of `burst` requests; 0 means twice the rate per second (at least 1).
    explicit RateLimiter(double perSecond, double burst = 0);
    // False when `client` has used up its allowance; always true when the limit is off.
    bool allow(const std::string& client);

private:
    struct Bucket {
        double tokens = 0;
        std::chrono::steady_clock::time_point at;
    };
    double m_perSecond;
    double m_burst;
    std::mutex m_lock;
    std::unordered_map<std::string, Bucket> m_buckets;
};

// The search and usage endpoints of orvane-server, in the two dialects clients speak:
//   POST /indexes/memes/search   the search-engine dialect (Meilisearch's search API: body
//                                {"q","limit","offset","hybrid":{"embedder","semanticRatio"}},
//                                bearer key, errors as {"message","code","type","link"})
//   GET  /v1/search?q=&limit=&scope=memes   the worker dialect (x-install-id required)
//   POST /v1/events              usage events, stored once each, fed back into the ranking
// Every refusal is answered in the dialect's error shape and logged in one line.
class SearchApi {
public:
    struct Keys {
        // Bearer key of the search-engine dialect; empty leaves it open (logged at start).
        std::string searchKey;
        // x-app-key of the worker dialect and events; empty accepts any.
        std::string appKey;
    };

    // `events` may be null: then /v1/events answers 503. Both must outlive the server.
    SearchApi(SearchService& search, EventStore* events, Keys keys, SearchApiLimits limits = {});
    void install(CatalogServer& server);
    // Also serves POST /bench/fts5-search: the search-engine dialect answered by the plain FTS5
    // query, the reference the measurements compare against.
    void installBenchReference(CatalogServer& server);

    HttpResponse engineSearch(const HttpRequest& request, bool plain = false);
    HttpResponse workerSearch(const HttpRequest& request);
    HttpResponse postEvents(const HttpRequest& request);

private:
    SearchService& m_search;
    EventStore* m_events;
    Keys m_keys;
    SearchApiLimits m_limits;
    RateLimiter m_searchRate;
    RateLimiter m_eventsRate;
};
