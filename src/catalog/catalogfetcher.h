// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QNetworkAccessManager>
#include <QObject>
#include <QUrl>
#include <functional>
#include <optional>

// Fetches the catalog documents from the catalog server. Lives on the GUI thread; decoding
// and hashing run on the global thread pool; callbacks come back on the GUI thread and are
// dropped when `context` is destroyed first.
class CatalogFetcher : public QObject {
    Q_OBJECT
public:
    using IndexDone =
        std::function<void(std::optional<MemeList> memes, std::optional<QString> signature)>;
    using CollectionsDone = std::function<void(std::optional<QByteArray> collections,
                                               std::optional<QByteArray> stickers)>;

    static constexpr int requestTimeoutMs = 30000;

    explicit CatalogFetcher(QUrl base, QObject* parent = nullptr);

    const QUrl& base() const { return m_base; }

    // GET index.json (index_stress.json when `stress`). Any body is tried whatever the
    // status; `signature` (SHA-256 hex of the body) is present whenever a body came.
    void loadIndex(bool stress, QObject* context, IndexDone done);
    // GET collections.json and stickers.json at once; each body only with status 200.
    void loadCollections(QObject* context, CollectionsDone done);

    // SHA-256 of `bytes` as 64 lower-case hex digits.
    static QString signature(const QByteArray& bytes);

private:
    QNetworkReply* get(const QString& document);

    QUrl m_base;
    QNetworkAccessManager m_network;
};
