// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QNetworkAccessManager>
#include <QObject>
#include <QUrl>
#include <functional>
#include <optional>

class QNetworkReply;

// Fetches the catalog documents from the catalog server. Lives on the GUI thread; decoding
// and hashing run on the global thread pool; callbacks come back on the GUI thread and are
// dropped when `context` is destroyed first.
//
// Every download has an overall deadline and a size cap, so a server that trickles or
// sends without end cannot hold a launch or fill memory. Failures are described in lower
// case as the server's fault or the network's ("could not reach the server (...)", "no
// answer from the server", "the server answered HTTP 503", ...).
class CatalogFetcher : public QObject {
    Q_OBJECT
public:
    // `error` is empty exactly when `memes` is present.
    using IndexDone = std::function<void(std::optional<MemeList> memes,
                                         std::optional<QString> signature, QString error)>;
    using CollectionsDone = std::function<void(std::optional<QByteArray> collections,
                                               std::optional<QByteArray> stickers)>;

    // Longest silence while a transfer is under way.
    static constexpr int requestTimeoutMs = 30'000;
    // Longest a whole document may take, however steadily it arrives.
    static constexpr int downloadDeadlineMs = 60'000;
    // The stress catalog is about 10 MB; anything far beyond is not a catalog.
    static constexpr qint64 maxDocumentBytes = 256LL * 1024 * 1024;

    explicit CatalogFetcher(QUrl base, QObject* parent = nullptr);

    const QUrl& base() const { return m_base; }

    // For tests: a shorter deadline and a smaller cap.
    void setLimits(int deadlineMs, qint64 maxBytes) {
        m_deadlineMs = deadlineMs;
        m_maxBytes = maxBytes;
    }

    // GET index.json (index_stress.json when `stress`). Only a complete HTTP 200 answer that
    // decodes counts; items whose id came earlier in the document are dropped (logged).
    // `signature` (SHA-256 hex of the body) is present whenever a 200 body came.
    void loadIndex(bool stress, QObject* context, IndexDone done);
    // GET collections.json and stickers.json at once; each body only when complete with
    // status 200.
    void loadCollections(QObject* context, CollectionsDone done);

    // SHA-256 of `bytes` as 64 lower-case hex digits.
    static QString signature(const QByteArray& bytes);

    struct Download {
        QByteArray body; // a complete 200 body, or empty
        QString error;   // empty on success
    };

private:
    QNetworkReply* get(const QString& document);
    void download(const QString& document, QObject* context, std::function<void(Download)> done);

    QUrl m_base;
    QNetworkAccessManager m_network;
    int m_deadlineMs = downloadDeadlineMs;
    qint64 m_maxBytes = maxDocumentBytes;
};
