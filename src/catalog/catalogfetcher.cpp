// SPDX-License-Identifier: MIT
#include "catalog/catalogfetcher.h"

#include "base/background.h"
#include "base/logcategories.h"
#include "base/urlpath.h"

#include <QCryptographicHash>
#include <QNetworkReply>
#include <QSet>
#include <QTimer>
#include <memory>

namespace {

constexpr int maxRedirects = 5;

struct IndexResult {
    std::optional<MemeList> memes;
    std::optional<QString> signature;
    QString error;
};

// Qt's description, without the dangling separator some of them end in.
QString systemError(QNetworkReply* reply) {
    QString text = reply->errorString().trimmed();
    while (text.endsWith(u':'))
        text.chop(1);
    return text;
}

// What went wrong with a finished reply, in the words the user's notices are built from;
// empty when a complete 200 answer came.
QString failureOf(QNetworkReply* reply) {
    const QVariant statusAttr = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    const int status = statusAttr.toInt();
    switch (reply->error()) {
    case QNetworkReply::TooManyRedirectsError:
        return QStringLiteral("the server redirected too many times");
    case QNetworkReply::InsecureRedirectError:
        return QStringLiteral("the server redirected to a less safe address");
    case QNetworkReply::OperationCanceledError: // the transfer time-out
    case QNetworkReply::TimeoutError:
        return QStringLiteral("no answer from the server");
    default:
        break;
    }
    if (statusAttr.isValid() && status != 200)
        return QStringLiteral("the server answered HTTP %1").arg(status);
    if (reply->error() == QNetworkReply::NoError)
        return statusAttr.isValid() ? QString() : QStringLiteral("no answer from the server");
    if (!statusAttr.isValid())
        return QStringLiteral("could not reach the server (%1)").arg(systemError(reply));
    if (reply->error() == QNetworkReply::UnknownContentError &&
        reply->hasRawHeader("Content-Encoding"))
        return QStringLiteral("the server's compressed answer could not be unpacked (%1)")
            .arg(systemError(reply));
    // A 200 whose body did not arrive whole: a dropped connection, or content (such as a
    // compressed body beyond the decompression limits) that could not be read.
    return QStringLiteral("the server's answer could not be read (%1)").arg(systemError(reply));
}

QString mebibytes(qint64 bytes) {
    return QStringLiteral("%1 MiB").arg(double(bytes) / (1024.0 * 1024.0), 0, 'g', 4);
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
    QNetworkRequest request(appendedPath(m_base, document));
    request.setMaximumRedirectsAllowed(maxRedirects);
    return m_network.get(request);
}

void CatalogFetcher::download(const QString& document, QObject* context,
                              std::function<void(Download)> done) {
    // `done` runs exactly once, on `context`'s thread.
    QNetworkReply* reply = get(document);
    // Set just before we abort, so the abort is reported as its cause.
    auto abortedFor = std::make_shared<QString>();
    const auto abortFor = [reply, abortedFor](QString why) {
        if (!abortedFor->isEmpty() || reply->isFinished())
            return;
        *abortedFor = std::move(why);
        reply->abort();
    };
    auto* deadline = new QTimer(reply);
    deadline->setSingleShot(true);
    connect(deadline, &QTimer::timeout, reply,
            [abortFor] { abortFor(QStringLiteral("no answer from the server")); });
    deadline->start(m_deadlineMs);
    const qint64 cap = m_maxBytes;
    const auto tooLarge = [cap] {
        return QStringLiteral("the server's answer is larger than %1").arg(mebibytes(cap));
    };
    connect(reply, &QNetworkReply::metaDataChanged, reply, [reply, abortFor, tooLarge, cap] {
        bool known = false;
        const qint64 announced =
            reply->header(QNetworkRequest::ContentLengthHeader).toLongLong(&known);
        if (known && announced > cap)
            abortFor(tooLarge());
    });
    // What arrives may be compressed; the cap is on what it expands to, which is what the
    // reply buffers.
    connect(reply, &QNetworkReply::readyRead, reply, [reply, abortFor, tooLarge, cap] {
        if (reply->bytesAvailable() > cap)
            abortFor(tooLarge());
    });
    auto delivered = std::make_shared<bool>(false);
    auto deliver = std::make_shared<std::function<void(Download)>>(std::move(done));
    const auto finish = [reply, abortedFor, delivered, deliver] {
        if (*delivered)
            return;
        *delivered = true;
        reply->deleteLater();
        Download d;
        d.error = abortedFor->isEmpty() ? failureOf(reply) : *abortedFor;
        if (d.error.isEmpty())
            d.body = reply->readAll();
        (*deliver)(std::move(d));
    };
    connect(reply, &QNetworkReply::finished, context, finish);
    // A body that fails to decompress reports its error without finishing the reply.
    connect(reply, &QNetworkReply::errorOccurred, context, [reply, context, finish, delivered] {
        QTimer::singleShot(0, context, [reply, finish, delivered] {
            if (*delivered)
                return;
            finish();
            reply->disconnect();
            reply->abort();
        });
    });
}

void CatalogFetcher::loadIndex(bool stress, QObject* context, IndexDone done) {
    download(
        stress ? QStringLiteral("index_stress.json") : QStringLiteral("index.json"), context,
        [context, done = std::move(done)](Download d) {
            runInBackground(
                context,
                [d = std::move(d)] {
                    IndexResult r;
                    r.error = d.error;
                    if (r.error.isEmpty()) {
                        QString where;
                        r.memes = CatalogJson::decodeMemes(d.body, &where);
                        r.signature = signature(d.body);
                        if (!r.memes) {
                            r.error =
                                QStringLiteral("the server's catalog is not valid (%1)").arg(where);
                        }
                    }
                    if (r.memes) {
                        // Ids key the index, favourites and recents: the first of each wins.
                        QSet<QString> seen;
                        const qsizetype before = r.memes->size();
                        r.memes->removeIf([&seen](const Meme& m) {
                            if (seen.contains(m.id))
                                return true;
                            seen.insert(m.id);
                            return false;
                        });
                        if (const qsizetype dropped = before - r.memes->size())
                            qCWarning(lcCatalog).noquote()
                                << QStringLiteral("index: dropped %1 items whose id came earlier")
                                       .arg(dropped);
                    }
                    if (!r.error.isEmpty())
                        qCWarning(lcCatalog).noquote() << "index load failed: " + r.error;
                    return r;
                },
                [done](IndexResult r) {
                    done(std::move(r.memes), std::move(r.signature), std::move(r.error));
                });
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
        download(document, context, [pending, slot, document](Download d) {
            if (d.error.isEmpty())
                (*pending).*slot = std::move(d.body);
            else
                qCInfo(lcCatalog).noquote() << document + QStringLiteral(": ") + d.error;
            if (--pending->outstanding == 0)
                pending->done(std::move(pending->collections), std::move(pending->stickers));
        });
    };
    fetch(QStringLiteral("collections.json"), &Pending::collections);
    fetch(QStringLiteral("stickers.json"), &Pending::stickers);
}
