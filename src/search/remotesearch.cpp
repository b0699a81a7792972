// SPDX-License-Identifier: MIT
#include "search/remotesearch.h"

#include "base/background.h"
#include "base/logcategories.h"
#include "base/urlpath.h"
#include "catalog/debugflags.h"
#include "telemetry/metrics.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

namespace {

// Marks a reply this client aborted itself; Qt reports its own transfer time-out with the
// same OperationCanceledError, and only the time-out is worth a log line.
constexpr char cancelledProperty[] = "glimmetCancelled";

void postCompletion(QObject* context, RemoteSearch::Completion done, std::optional<MemeList> hits,
                    double ms) {
    QMetaObject::invokeMethod(
        context, [done = std::move(done), hits = std::move(hits), ms] { done(hits, ms); },
        Qt::QueuedConnection);
}

void logFailure(const QString& why) {
    qCWarning(lcSearch).noquote() << QStringLiteral("remote search failed: ") + why;
}

// Hands a finished reply's hits (or none) to `done` on `target`'s thread, decoding off it.
void finish(QNetworkReply* reply, const QElapsedTimer& started, QObject* target, int timeoutMs,
            const RemoteSearch::Completion& done) {
    const auto elapsedMs = [started] { return Metrics::ms(double(started.nsecsElapsed()) / 1e9); };
    if (reply->property(cancelledProperty).toBool()) {
        postCompletion(target, done, std::nullopt, elapsedMs());
        return;
    }
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    QString failure;
    if (reply->error() == QNetworkReply::OperationCanceledError)
        failure = QStringLiteral("no answer within %1 ms").arg(timeoutMs);
    else if (status.isValid() && status.toInt() != 200)
        failure = QStringLiteral("HTTP %1").arg(status.toInt());
    else if (reply->error() != QNetworkReply::NoError)
        failure = reply->errorString();
    if (!failure.isEmpty()) {
        logFailure(failure);
        postCompletion(target, done, std::nullopt, elapsedMs());
        return;
    }
    runInBackground(
        target,
        [body = reply->readAll()] {
            QString error;
            std::optional<MemeList> hits = RemoteSearch::decodeHits(body, &error);
            if (!hits)
                logFailure(error);
            return hits;
        },
        [done, elapsedMs](std::optional<MemeList> hits) { done(std::move(hits), elapsedMs()); });
}

} // namespace

RemoteSearch::RemoteSearch(QUrl base, QString key, bool worker)
    : m_base(std::move(base)), m_key(std::move(key)), m_worker(worker) {}

RemoteSearch::~RemoteSearch() {
    cancel();
}

std::unique_ptr<RemoteSearch> RemoteSearch::current() {
    if (DebugFlags::hasCloudAPI())
        return worker(DebugFlags::apiURL());
    const SettingsStore& settings = DebugFlags::settings();
    return engine(settings.string(QStringLiteral("searchURL")),
                  settings.string(QStringLiteral("searchKey")));
}

std::unique_ptr<RemoteSearch> RemoteSearch::engine(const std::optional<QString>& baseURL,
                                                   const std::optional<QString>& key) {
    if (!baseURL || !key || key->isEmpty())
        return nullptr;
    const QUrl url(*baseURL, QUrl::StrictMode);
    const bool web =
        url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https");
    if (!url.isValid() || !web || url.host().isEmpty())
        return nullptr;
    return std::unique_ptr<RemoteSearch>(new RemoteSearch(url, *key, false));
}

std::unique_ptr<RemoteSearch> RemoteSearch::worker(const QUrl& baseURL) {
    return std::unique_ptr<RemoteSearch>(new RemoteSearch(baseURL, QString(), true));
}

QString RemoteSearch::identity() const {
    const QString base = m_base.toString(QUrl::FullyEncoded);
    return m_worker ? QStringLiteral("worker:") + base
                    : QStringLiteral("meili:") + base + u':' + m_key;
}

QNetworkAccessManager& RemoteSearch::session() {
    static QPointer<QNetworkAccessManager> shared;
    if (!shared) {
        // Dies with the application, before Qt's networking is torn down.
        shared = new QNetworkAccessManager(QCoreApplication::instance());
        shared->setCache(nullptr);
    }
    return *shared;
}

QNetworkReply* RemoteSearch::start(const QString& text, bool hybrid) {
    QNetworkRequest request;
    request.setTransferTimeout(m_timeoutMs);
    // Ephemeral: neither cookies nor credentials outlive the request.
    request.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
    request.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
    request.setAttribute(QNetworkRequest::AuthenticationReuseAttribute, QNetworkRequest::Manual);

    if (m_worker) {
        // Encoded by hand: a bare '+' in a query reads as a space on most servers.
        const QString query =
            QStringLiteral("q=%1&limit=%2&scope=memes")
                .arg(QString::fromLatin1(QUrl::toPercentEncoding(text)), QString::number(hitLimit));
        QUrl url = appendedPath(m_base, QStringLiteral("v1/search"));
        url.setQuery(query, QUrl::StrictMode);
        request.setUrl(url);
        request.setRawHeader("x-install-id", DebugFlags::installID().toUtf8());
        if (const std::optional<QString> appKey = DebugFlags::appKey())
            request.setRawHeader("x-app-key", appKey->toUtf8());
        return session().get(request);
    }

    request.setUrl(appendedPath(m_base, QStringLiteral("indexes/memes/search")));
    request.setRawHeader("Authorization", "Bearer " + m_key.toUtf8());
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    nlohmann::ordered_json body = {{"q", text.toStdString()}, {"limit", hitLimit}};
    if (hybrid)
        body["hybrid"] = {{"embedder", "openrouter"}, {"semanticRatio", 0.5}};
    return session().post(request, QByteArray::fromStdString(body.dump()));
}

void RemoteSearch::search(const QString& text, bool hybrid, QObject* context, Completion done) {
    cancel();
    QElapsedTimer started;
    started.start();
    QNetworkReply* reply = start(text, hybrid);
    m_reply = reply;
    QPointer<QObject> target(context);
    const int timeout = m_timeoutMs;
    // Runs while this client is alive: its destructor aborts the reply, and abort() finishes
    // a reply at once.
    QObject::connect(reply, &QNetworkReply::finished, reply,
                     [this, reply, started, target, timeout, done = std::move(done)] {
                         reply->deleteLater();
                         if (m_reply == reply)
                             m_reply.clear();
                         if (target)
                             finish(reply, started, target, timeout, done);
                     });
}

void RemoteSearch::cancel() {
    if (QNetworkReply* reply = m_reply.data()) {
        m_reply.clear();
        reply->setProperty(cancelledProperty, true);
        reply->abort();
    }
}

std::optional<MemeList> RemoteSearch::decodeHits(QByteArrayView body, QString* error) {
    const auto fail = [error](const QString& why) -> std::optional<MemeList> {
        if (error)
            *error = why;
        return std::nullopt;
    };
    if (body.isEmpty())
        return fail(QStringLiteral("empty answer"));
    const nlohmann::json object = nlohmann::json::parse(body.begin(), body.end(), nullptr, false);
    if (object.is_discarded())
        return fail(QStringLiteral("the answer is not JSON"));
    if (!object.is_object())
        return fail(QStringLiteral("the answer is not a JSON object"));
    const auto hits = object.find("hits");
    if (hits == object.end() || !hits->is_array())
        return fail(QStringLiteral("the answer has no \"hits\" array"));
    MemeList out;
    out.reserve(qsizetype(hits->size()));
    for (const nlohmann::json& hit : *hits) {
        if (std::optional<Meme> meme = CatalogJson::decodeMeme(hit))
            out.append(std::move(*meme));
    }
    return out;
}
