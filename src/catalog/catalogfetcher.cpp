// SPDX-License-Identifier: MIT
#include "catalog/catalogfetcher.h"

#include "base/background.h"
#include "base/logcategories.h"

#include <QCryptographicHash>
#include <QNetworkReply>
#include <memory>

namespace {

struct IndexResult {
    std::optional<MemeList> memes;
    std::optional<QString> signature;
};

// A response arrived (any status), as opposed to a transport failure with nothing to read.
bool hasResponse(QNetworkReply* reply) {
    return reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid();
}

} // namespace

CatalogFetcher::CatalogFetcher(QUrl base, QObject* parent)
    : QObject(parent), m_base(std::move(base)) {
    // Ephemeral: no disk cache is set, and cookies are never kept.
    m_network.setCookieJar(nullptr);
    m_network.setTransferTimeout(requestTimeoutMs);
    m_network.setRedirectPolicy(QNetworkRequest::NoLessSafeRedirectPolicy);
}

QString CatalogFetcher::signature(const QByteArray& bytes) {
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

QNetworkReply* CatalogFetcher::get(const QString& document) {
    QUrl url = m_base;
    QString path = url.path();
    if (!path.endsWith(QLatin1Char('/')))
        path += QLatin1Char('/');
    url.setPath(path + document);
    return m_network.get(QNetworkRequest(url));
}

void CatalogFetcher::loadIndex(bool stress, QObject* context, IndexDone done) {
    QNetworkReply* reply =
        get(stress ? QStringLiteral("index_stress.json") : QStringLiteral("index.json"));
    connect(reply, &QNetworkReply::finished, context, [reply, context, done = std::move(done)] {
        reply->deleteLater();
        const bool gotBody = hasResponse(reply);
        const QByteArray body = gotBody ? reply->readAll() : QByteArray();
        const QString transportError =
            gotBody && reply->error() != QNetworkReply::OperationCanceledError
                ? QString()
                : reply->errorString();
        runInBackground(
            context,
            [gotBody, body, transportError] {
                IndexResult r;
                QString where;
                if (gotBody)
                    r.memes = CatalogJson::decodeMemes(body, &where);
                if (!r.memes) {
                    qCWarning(lcCatalog).noquote()
                        << "index load failed: " + (transportError.isEmpty()
                                                        ? QStringLiteral("decode error")
                                                        : transportError);
                    if (!where.isEmpty())
                        qCInfo(lcCatalog).noquote() << "index decode failed at" << where;
                }
                if (gotBody)
                    r.signature = signature(body);
                return r;
            },
            [done](IndexResult r) { done(std::move(r.memes), std::move(r.signature)); });
    });
}

void CatalogFetcher::loadCollections(QObject* context, CollectionsDone done) {
    struct Pending {
        int outstanding = 2;
        std::optional<QByteArray> collections, stickers;
        CollectionsDone done;
    };
    auto pending = std::make_shared<Pending>();
    pending->done = std::move(done);
    const auto fetch = [&](const QString& document, std::optional<QByteArray> Pending::*slot) {
        QNetworkReply* reply = get(document);
        connect(reply, &QNetworkReply::finished, context, [reply, pending, slot] {
            reply->deleteLater();
            const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
            if (reply->error() == QNetworkReply::NoError && status == 200)
                (*pending).*slot = reply->readAll();
            if (--pending->outstanding == 0)
                pending->done(std::move(pending->collections), std::move(pending->stickers));
        });
    };
    fetch(QStringLiteral("collections.json"), &Pending::collections);
    fetch(QStringLiteral("stickers.json"), &Pending::stickers);
}
