// SPDX-License-Identifier: MIT
#include "server/searchapi.h"

#include "catalog/catalogjson.h"
#include "server/eventstore.h"
#include "server/jsonresponse.h"
#include "server/searchservice.h"
#include "server/serverlog.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

void logRefusal(const HttpRequest& request, int status, const std::string& why) {
    qCWarning(lcServer).noquote() << QString::fromStdString(request.method + ' ' + request.path +
                                                            " from " + request.peer + ": " + why)
                                  << QStringLiteral("(%1)").arg(status);
}

// The search engine's error object; `type` is "invalid_request", "auth", "internal" or
// "system".
HttpResponse engineError(const HttpRequest& request, int status, const std::string& code,
                         const std::string& type, const std::string& message) {
    logRefusal(request, status, message);
    return jsonResponse(status, {{"message", message},
                                 {"code", code},
                                 {"type", type},
                                 {"link", "https://docs.meilisearch.com/errors#" + code}});
}

HttpResponse workerError(const HttpRequest& request, int status, const std::string& message) {
    logRefusal(request, status, message);
    return jsonResponse(status, {{"error", message}});
}

// Keys compared through their digests, so the time taken says nothing about how much of a
// guess was right.
bool sameKey(const std::string& given, const std::string& expected) {
    const auto digest = [](const std::string& key) {
        return QCryptographicHash::hash(QByteArrayView(key), QCryptographicHash::Sha256);
    };
    return digest(given) == digest(expected);
}

// {"hits":[…]} followed by the members of `rest` (an object): the hits are already JSON
// text, so they are joined, not decoded and encoded again.
HttpResponse hitsResponse(const std::vector<std::string_view>& hits,
                          const ordered_json& rest = ordered_json::object()) {
    HttpResponse response;
    response.contentType = "application/json";
    std::string& body = response.body;
    std::size_t size = 16;
    for (const std::string_view hit : hits)
        size += hit.size() + 1;
    const std::string members = rest.dump();
    body.reserve(size + members.size());
    body += R"({"hits":[)";
    for (std::size_t i = 0; i < hits.size(); ++i) {
        if (i)
            body += ',';
        body += hits[i];
    }
    body += ']';
    if (members.size() > 2) {
        body += ',';
        body.append(members, 1); // without its own "{"
    } else {
        body += '}';
    }
    return response;
}

std::optional<int> parseCount(const std::string& text) {
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < 0)
        return std::nullopt;
    return value;
}

HttpResponse tooManyRequests(HttpResponse response) {
    response.headers.emplace_back("Retry-After", "1");
    return response;
}

} // namespace

RateLimiter::RateLimiter(double perSecond, double burst)
    : m_perSecond(perSecond), m_burst(burst > 0 ? burst : std::max(1.0, 2 * perSecond)) {}

bool RateLimiter::allow(const std::string& client) {
    if (m_perSecond <= 0)
        return true;
    const auto now = std::chrono::steady_clock::now();
    const std::lock_guard lock(m_lock);
    // Buckets of clients gone quiet are full again; forget them rather than grow forever.
    if (m_buckets.size() > 100000)
        std::erase_if(m_buckets, [&](const auto& entry) {
            return now - entry.second.at > std::chrono::duration<double>(m_burst / m_perSecond);
        });
    auto [it, created] = m_buckets.try_emplace(client, Bucket{m_burst, now});
    Bucket& bucket = it->second;
    if (!created) {
        const double elapsed = std::chrono::duration<double>(now - bucket.at).count();
        bucket.tokens = std::min(m_burst, bucket.tokens + elapsed * m_perSecond);
        bucket.at = now;
    }
    if (bucket.tokens < 1)
        return false;
    bucket.tokens -= 1;
    return true;
}

SearchApi::SearchApi(SearchService& search, EventStore* events, Keys keys, SearchApiLimits limits)
    : m_search(search), m_events(events), m_keys(std::move(keys)), m_limits(limits),
      m_searchRate(limits.searchPerSecond), m_eventsRate(limits.eventsPerSecond) {}

void SearchApi::install(CatalogServer& server) {
    if (m_keys.searchKey.empty())
        qCWarning(lcServer).noquote()
            << "no search key set (--search-key or MEME_SEARCH_KEY): /indexes/memes/search"
               " answers anyone";
    const ordered_json engineTooLarge = {
        {"message", "The provided payload reached the size limit. The maximum accepted payload "
                    "size is " +
                        std::to_string(m_limits.maxSearchBodyBytes) + " bytes."},
        {"code", "payload_too_large"},
        {"type", "invalid_request"},
        {"link", "https://docs.meilisearch.com/errors#payload_too_large"}};
    server.addRoute(
        "POST", "/indexes/memes/search", [this](const HttpRequest& r) { return engineSearch(r); },
        m_limits.maxSearchBodyBytes, jsonResponse(413, engineTooLarge));
    server.addRoute("GET", "/v1/search", [this](const HttpRequest& r) { return workerSearch(r); });
    server.addRoute(
        "POST", "/v1/events", [this](const HttpRequest& r) { return postEvents(r); },
        m_limits.maxEventsBodyBytes,
        jsonResponse(413, {{"error", "body over " + std::to_string(m_limits.maxEventsBodyBytes) +
                                         " bytes"}}));
}

void SearchApi::installBenchReference(CatalogServer& server) {
    server.addRoute(
        "POST", "/bench/fts5-search",
        [this](const HttpRequest& r) { return engineSearch(r, true); },
        m_limits.maxSearchBodyBytes);
}

HttpResponse SearchApi::engineSearch(const HttpRequest& request, bool plain) {
    QElapsedTimer timer;
    timer.start();
    if (!m_keys.searchKey.empty()) {
        const std::string authorization = request.header("Authorization");
        constexpr std::string_view bearer = "Bearer ";
        if (!authorization.starts_with(bearer))
            return engineError(
                request, 401, "missing_authorization_header", "auth",
                "The Authorization header is missing. It must use the bearer authorization "
                "method.");
        if (!sameKey(authorization.substr(bearer.size()), m_keys.searchKey))
            return engineError(request, 403, "invalid_api_key", "auth",
                               "The provided API key is invalid.");
    }
    if (!m_searchRate.allow(request.peer))
        return tooManyRequests(engineError(request, 429, "too_many_search_requests", "system",
                                           "Too many search requests from this client; retry "
                                           "in a second."));
    if (!request.header("Content-Type").starts_with("application/json"))
        return engineError(request, 415, "invalid_content_type", "invalid_request",
                           "The Content-Type header must be application/json.");

    const json body = json::parse(request.body, nullptr, false);
    if (body.is_discarded() || !body.is_object())
        return engineError(request, 400, "bad_request", "invalid_request",
                           "The JSON payload provided is malformed: expected an object.");
    SearchService::Query query;
    query.limit = 20; // the engine's default
    if (const auto q = body.find("q"); q != body.end() && !q->is_null()) {
        if (!q->is_string())
            return engineError(request, 400, "invalid_search_q", "invalid_request",
                               "Invalid value type at `.q`: expected a string.");
        if (q->get_ref<const std::string&>().size() > m_limits.maxQueryBytes)
            return engineError(request, 400, "invalid_search_q", "invalid_request",
                               "`.q` is longer than " + std::to_string(m_limits.maxQueryBytes) +
                                   " bytes.");
        query.text = QString::fromStdString(q->get<std::string>());
    }
    for (const auto& [key, field, code] :
         {std::tuple{"limit", &query.limit, "invalid_search_limit"},
          std::tuple{"offset", &query.offset, "invalid_search_offset"}}) {
        const auto value = body.find(key);
        if (value == body.end())
            continue;
        if (!value->is_number_integer() || value->get<std::int64_t>() < 0)
            return engineError(request, 400, code, "invalid_request",
                               std::string("Invalid value type at `.") + key +
                                   "`: expected a positive integer.");
        *field = int(std::min<std::int64_t>(value->get<std::int64_t>(), m_limits.maxLimit));
    }
    // Like the engine's maxTotalHits: no hit deeper than maxLimit is ever returned.
    query.limit = std::min(query.limit, m_limits.maxLimit - query.offset);
    if (const auto hybrid = body.find("hybrid"); hybrid != body.end() && !hybrid->is_null()) {
        if (!hybrid->is_object())
            return engineError(request, 400, "invalid_search_hybrid_query", "invalid_request",
                               "Invalid value type at `.hybrid`: expected an object.");
        const auto embedder = hybrid->find("embedder");
        if (embedder != hybrid->end() && !embedder->is_string())
            return engineError(request, 400, "invalid_search_embedder", "invalid_request",
                               "Invalid value type at `.hybrid.embedder`: expected a string.");
        double ratio = 0.5; // the engine's default
        if (const auto r = hybrid->find("semanticRatio"); r != hybrid->end()) {
            if (!r->is_number() || r->get<double>() < 0 || r->get<double>() > 1)
                return engineError(request, 400, "invalid_search_semantic_ratio", "invalid_request",
                                   "Invalid value at `.hybrid.semanticRatio`: the value must be "
                                   "between 0.0 and 1.0.");
            ratio = r->get<double>();
        }
        // Whatever embedder is named, related words come from WordNet: there is only one.
        query.semanticRatio = ratio;
    }

    const SearchService::Result result =
        plain ? m_search.searchPlain(query) : m_search.search(query);
    ordered_json answer = {{"query", query.text.toStdString()},
                           {"processingTimeMs", timer.elapsed()},
                           {"limit", query.limit},
                           {"offset", query.offset},
                           {"estimatedTotalHits", result.totalHits}};
    if (query.semanticRatio)
        answer["semanticHitCount"] = result.semanticHits;
    return hitsResponse(result.hits, answer);
}

HttpResponse SearchApi::workerSearch(const HttpRequest& request) {
    if (request.header("x-install-id").empty())
        return workerError(request, 400, "x-install-id header required");
    if (!m_keys.appKey.empty() && !sameKey(request.header("x-app-key"), m_keys.appKey))
        return workerError(request, 401, "x-app-key missing or wrong");
    if (!m_searchRate.allow(request.peer))
        return tooManyRequests(workerError(request, 429, "too many requests; retry in a second"));
    if (const auto scope = request.argument("scope"); scope && *scope != "memes")
        return workerError(request, 400, "unknown scope \"" + *scope + "\" (only memes)");
    SearchService::Query query;
    query.limit = 60; // what the app asks for
    if (const auto limit = request.argument("limit")) {
        const auto parsed = parseCount(*limit);
        if (!parsed)
            return workerError(request, 400, "limit must be a non-negative integer");
        query.limit = std::min(*parsed, m_limits.maxLimit);
    }
    const std::string text = request.argument("q").value_or(std::string());
    if (text.size() > m_limits.maxQueryBytes)
        return workerError(request, 400,
                           "q is longer than " + std::to_string(m_limits.maxQueryBytes) + " bytes");
    query.text = QString::fromStdString(text);
    // The worker has no ranking of its own for an empty query.
    if (query.text.trimmed().isEmpty())
        return hitsResponse({});
    const SearchService::Result result = m_search.search(query);
    return hitsResponse(result.hits);
}

HttpResponse SearchApi::postEvents(const HttpRequest& request) {
    const std::string installId = request.header("x-install-id");
    if (installId.empty())
        return workerError(request, 400, "x-install-id header required");
    if (!m_keys.appKey.empty() && !sameKey(request.header("x-app-key"), m_keys.appKey))
        return workerError(request, 401, "x-app-key missing or wrong");
    if (!m_eventsRate.allow(request.peer))
        return tooManyRequests(workerError(request, 429, "too many requests; retry in a second"));
    if (!m_events)
        return workerError(request, 503, "events are not stored here");
    QString error;
    bool tooMany = false;
    const auto events =
        EventStore::parseBatch(request.body, m_limits.maxEventsPerBatch, &error, &tooMany);
    if (!events)
        return workerError(request, tooMany ? 413 : 400, error.toStdString());
    const auto stored = m_events->store(*events, QString::fromStdString(installId));
    if (!stored)
        return workerError(request, 500, "events could not be stored");
    return jsonResponse(200, {{"stored", stored->added}, {"duplicates", stored->duplicates}});
}
