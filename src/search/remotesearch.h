// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QByteArrayView>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>
#include <functional>
#include <memory>
#include <optional>

class QNetworkAccessManager;
class QNetworkReply;

// A client of the cloud search service in one of its two dialects: a search engine's index
// API (POST indexes/memes/search with a bearer key, optionally hybrid) or the app's own
// worker (GET v1/search with the install id and app key headers). One request at a time:
// a new search cancels the one in flight.
//
// GUI thread only. All clients share one ephemeral QNetworkAccessManager (no disk cache, no
// cookies or credentials kept). Answers are decoded on the global thread pool and handed
// back with a queued call, so a completion never runs inside search() or cancel().
class RemoteSearch {
public:
    // hits: the decoded hits in the server's order (possibly empty), or none when the
    // request failed or was cancelled. ms: time since search() began, one decimal.
    using Completion = std::function<void(std::optional<MemeList> hits, double ms)>;

    static constexpr int timeoutMs = 4000;
    static constexpr int hitLimit = 60;

    // The client the configuration asks for now, read afresh on each call: the worker at
    // DebugFlags::apiURL() when an API base is configured (MEME_API or MemeAPIBase), else
    // the search engine at the searchURL/searchKey settings; none when neither applies.
    static std::unique_ptr<RemoteSearch> current();
    // A search-engine client; none unless `baseURL` is an http(s) URL and `key` is not empty.
    static std::unique_ptr<RemoteSearch> engine(const std::optional<QString>& baseURL,
                                                const std::optional<QString>& key);
    static std::unique_ptr<RemoteSearch> worker(const QUrl& baseURL);

    // Cancels the request in flight, as cancel() does.
    ~RemoteSearch();
    RemoteSearch(const RemoteSearch&) = delete;
    RemoteSearch& operator=(const RemoteSearch&) = delete;

    // Which server and key this client talks to; equal identities mean the same client.
    QString identity() const;
    bool isWorker() const { return m_worker; }
    const QUrl& baseURL() const { return m_base; }

    // Cancels the request in flight, then asks for `text`. `done` runs exactly once on the
    // GUI thread, unless `context` is destroyed first. Failures other than a cancellation
    // write one "remote search failed: …" line to the log.
    void search(const QString& text, bool hybrid, QObject* context, Completion done);
    // Cancels the request in flight: its completion gets no hits and nothing is logged.
    void cancel();
    bool isBusy() const { return !m_reply.isNull(); }

    // For tests: a shorter time-out than timeoutMs.
    void setTimeoutMs(int ms) { m_timeoutMs = ms; }

    // The "hits" array of an answer; elements that are not catalog records are dropped.
    // None when the body is not a JSON object with a "hits" array.
    static std::optional<MemeList> decodeHits(QByteArrayView body, QString* error = nullptr);

private:
    RemoteSearch(QUrl base, QString key, bool worker);
    QNetworkReply* start(const QString& text, bool hybrid);
    static QNetworkAccessManager& session();

    QUrl m_base;
    QString m_key;
    bool m_worker;
    int m_timeoutMs = timeoutMs;
    QPointer<QNetworkReply> m_reply;
};
