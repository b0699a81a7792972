// SPDX-License-Identifier: MIT
#include "catalog/memestore.h"

#include "base/apppaths.h"
#include "base/atomicfile.h"
#include "base/logcategories.h"
#include "catalog/cachedir.h"
#include "catalog/debugflags.h"
#include "telemetry/metrics.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSet>

namespace {
QString lastComponent(const QString& path) {
    return path.section(QLatin1Char('/'), -1);
}
} // namespace

MemeStore::Options MemeStore::Options::fromConfiguration() {
    Options options;
    options.base = DebugFlags::serverURL();
    options.cacheDir = AppPaths::cacheDir() + QStringLiteral("/full");
    return options;
}

MemeStore::MemeStore(Options options, QObject* parent)
    : QObject(parent), m_options(std::move(options)), m_session(new QNetworkAccessManager(this)) {
    m_options.cacheDir = QDir::cleanPath(m_options.cacheDir);
    m_thumbDir = QFileInfo(m_options.cacheDir).absolutePath() + QStringLiteral("/thumbs");
    AppPaths::ensureDir(m_options.cacheDir);
    AppPaths::ensureDir(m_thumbDir);
    // Storing a body is a short disk write; two threads keep a slow disk from queueing them.
    m_storePool.setMaxThreadCount(2);
    trimDir(m_thumbDir, thumbnailBudgetBytes);
}

MemeStore::~MemeStore() {
    for (const DownloadPtr& d : std::as_const(m_inflight)) {
        if (d->task) {
            d->task->disconnect(this);
            d->task->abort();
        }
    }
    // Store jobs post back to this object; they must be done before it goes away.
    m_storePool.waitForDone();
    m_convertQueue.waitForIdle();
}

void MemeStore::setLocalItems(const QString& list, const QList<Meme>& items) {
    m_localOrigins.setList(list, items);
}

bool MemeStore::isLocalOrigin(const Meme& meme) const {
    return m_localOrigins.contains(meme);
}

ImageLocation MemeStore::thumbLocation(const Meme& meme) const {
    return ImageSource::locate(m_options.base, meme.thumb,
                               isLocalOrigin(meme) ? ImageOrigin::local : ImageOrigin::remote);
}

ImageLocation MemeStore::fullLocation(const Meme& meme) const {
    return ImageSource::locate(m_options.base, meme.full,
                               isLocalOrigin(meme) ? ImageOrigin::local : ImageOrigin::remote);
}

QUrl MemeStore::fullFileURL(const Meme& meme) const {
    const ImageLocation full = fullLocation(meme);
    if (full.isLocalFile())
        return QUrl::fromLocalFile(full.localPath);
    if (!full.isRemote())
        return {};
    // The cache keeps the bytes as served; ".img" says the real format is sniffed on reading.
    const QString ext =
        full.suffix() == QLatin1String("png") ? QStringLiteral("png") : QStringLiteral("img");
    return QUrl::fromLocalFile(m_options.cacheDir + QLatin1Char('/') + full.baseName() +
                               QLatin1Char('.') + ext);
}

QUrl MemeStore::pngFileURL(const Meme& meme) const {
    const ImageLocation full = fullLocation(meme);
    if (full.isMissing())
        return {};
    if (full.isLocalFile()) {
        if (full.suffix() == QLatin1String("png"))
            return QUrl::fromLocalFile(full.localPath);
        // A sub-folder no remote key can reach (keys hold no '/'), so a catalog can never
        // name a conversion of the user's own file and have it served as a hit.
        const QByteArray digest =
            QCryptographicHash::hash(full.localPath.toUtf8(), QCryptographicHash::Sha1).toHex();
        return QUrl::fromLocalFile(m_options.cacheDir + QStringLiteral("/local/") +
                                   QString::fromLatin1(digest) + QStringLiteral(".png"));
    }
    return QUrl::fromLocalFile(m_options.cacheDir + QLatin1Char('/') + full.baseName() +
                               QStringLiteral(".png"));
}

std::optional<QUrl> MemeStore::cachedFullURL(const Meme& meme) const {
    const ImageLocation full = fullLocation(meme);
    if (full.isLocalFile()) {
        if (QFileInfo(full.localPath).isFile())
            return QUrl::fromLocalFile(full.localPath);
        return std::nullopt;
    }
    if (!isDownloadable(meme, full))
        return std::nullopt;
    const QUrl file = fullFileURL(meme);
    const QFileInfo info(file.toLocalFile());
    if (!info.isFile())
        return std::nullopt;
    // Downloads reach the cache only whole (checked against what the server announced, then
    // written atomically), so any non-empty file is usable; the catalog's `bytes` may be stale.
    if (info.size() >= 1)
        return file;
    return std::nullopt;
}

bool MemeStore::isDownloadable(const Meme& meme, const ImageLocation& full) const {
    // The user's own items have no server copy, whatever a document claims.
    return full.isRemote() && !meme.isMine();
}

bool MemeStore::isInFlight(const Meme& meme) const {
    const ImageLocation full = fullLocation(meme);
    return full.isRemote() && m_inflight.contains(full.baseName());
}

bool MemeStore::isDemanded(const Meme& meme) const {
    const ImageLocation full = fullLocation(meme);
    const DownloadPtr d = full.isRemote() ? inflight(full.baseName()) : nullptr;
    return d && d->demanded;
}

Metrics& MemeStore::metrics() const {
    return m_options.metrics ? *m_options.metrics : Metrics::shared();
}

QNetworkReply* MemeStore::get(const QUrl& url) {
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
    request.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                         QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setTransferTimeout(m_options.transferTimeoutMs);
    return m_session->get(request);
}

void MemeStore::waitForBackgroundWork() {
    m_storePool.waitForDone();
    m_convertQueue.waitForIdle();
}

MemeStore::DownloadPtr MemeStore::startDownload(const Meme& meme, const ImageLocation& full) {
    const QString key = full.baseName();
    if (DownloadPtr running = inflight(key))
        return running;
    auto d = std::make_shared<Download>();
    d->meme = meme;
    d->key = key;
    QNetworkReply* reply = get(full.url);
    d->task = reply;
    connect(reply, &QNetworkReply::finished, this, [this, d, reply] { taskFinished(d, reply); });
    connect(reply, &QNetworkReply::downloadProgress, this,
            [this, id = meme.id](qint64 received, qint64 total) {
                emit downloadProgress(id, received, total);
            });
    m_inflight.insert(key, d);
    return d;
}

void MemeStore::taskFinished(const DownloadPtr& d, QNetworkReply* reply) {
    reply->deleteLater();
    d->task = nullptr;
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (reply->error() == QNetworkReply::NoError && status == 200) {
        const QByteArray body = reply->readAll();
        const QString fullPath = fullFileURL(d->meme).toLocalFile();
        const QString pngPath = pngFileURL(d->meme).toLocalFile();
        // A body cut short by the network: fewer bytes than the server announced. The
        // catalog's `bytes` is not consulted; it may be stale while the answer is whole.
        // A compressed answer announces its compressed length, which says nothing here.
        bool announcedKnown = false;
        const qint64 announced =
            reply->hasRawHeader("Content-Encoding")
                ? -1
                : reply->header(QNetworkRequest::ContentLengthHeader).toLongLong(&announcedKnown);
        const qint64 expected = announcedKnown ? announced : -1;
        m_storePool.start([this, d, body, fullPath, pngPath, expected] {
            std::optional<QUrl> result;
            if (body.isEmpty() || (expected >= 0 && body.size() != expected)) {
                qCInfo(lcCatalog).noquote()
                    << QStringLiteral("image download failed: %1 (%2 bytes, announced %3)")
                           .arg(d->key)
                           .arg(body.size())
                           .arg(expected);
            } else {
                // An older conversion belongs to the bytes being replaced.
                if (pngPath != fullPath)
                    QFile::remove(pngPath);
                if (writeFileAtomically(fullPath, body))
                    result = QUrl::fromLocalFile(fullPath);
            }
            QMetaObject::invokeMethod(
                this, [this, d, result] { finish(d, result, false); }, Qt::QueuedConnection);
        });
        return;
    }
    // Only an abort we asked for is a cancellation; the transfer time-out aborts too.
    const bool cancelled =
        d->cancelRequested && reply->error() == QNetworkReply::OperationCanceledError;
    if (!cancelled) {
        const QString reason = status != 0 && status != 200 ? QStringLiteral("HTTP %1").arg(status)
                                                            : reply->errorString();
        qCInfo(lcCatalog).noquote()
            << QStringLiteral("image download failed: %1 (%2)").arg(d->key, reason);
    }
    // Always hop through the event loop: abort() reports synchronously, in the middle of
    // whatever loop cancelled it.
    QMetaObject::invokeMethod(
        this, [this, d, cancelled] { finish(d, std::nullopt, cancelled); }, Qt::QueuedConnection);
}

void MemeStore::finish(const DownloadPtr& d, std::optional<QUrl> result, bool cancelled) {
    const auto it = m_inflight.constFind(d->key);
    if (it == m_inflight.constEnd() || *it != d)
        return;
    m_inflight.erase(it);

    if (!result && !cancelled && d->demanded && !d->retried) {
        const DownloadPtr again = startDownload(d->meme, fullLocation(d->meme));
        again->demanded = true;
        again->retried = true;
        again->waiters = d->waiters;
        return;
    }
    if (!result && !cancelled)
        m_failedAt.insert(d->key, now());
    else
        m_failedAt.remove(d->key);

    if (++m_downloads % trimEveryDownloads == 0)
        trimFullCache();
    if (result && fullLocation(d->meme).suffix() != QLatin1String("png"))
        queuePNGConversion(d->meme);

    for (const FullCompletion& waiter : std::as_const(d->waiters))
        waiter(result);
    pump();
}

void MemeStore::queuePNGConversion(const Meme& meme) {
    if (!m_options.convertToPNG)
        return;
    // A JPEG-only paste with a drag that does not carry a PNG never needs one.
    if (DebugFlags::pastePayload() == PastePayload::jpegOnly &&
        DebugFlags::dragPayload() != DragPayload::b)
        return;
    m_convertQueue.post([convert = m_options.convertToPNG, source = fullFileURL(meme).toLocalFile(),
                         target = pngFileURL(meme).toLocalFile()] { convert(source, target); });
}

void MemeStore::cancel(const DownloadPtr& d) {
    // Without a task the body is already being stored; letting it land costs nothing more.
    if (!d->task || d->cancelRequested)
        return;
    d->cancelRequested = true;
    d->task->abort();
}

void MemeStore::ensureFull(const Meme& meme, FullCompletion done) {
    if (const auto hit = cachedFullURL(meme)) {
        done(hit);
        return;
    }
    const ImageLocation full = fullLocation(meme);
    if (!isDownloadable(meme, full)) {
        done(std::nullopt);
        return;
    }
    QElapsedTimer waited;
    waited.start();
    const DownloadPtr d = startDownload(meme, full);
    d->demanded = true;
    d->waiters.append([log = &metrics(), id = meme.id, waited,
                       done = std::move(done)](std::optional<QUrl> result) {
        log->write(QStringLiteral("download_wait"),
                   {{"id", id.toStdString()},
                    {"ms", Metrics::ms(double(waited.nsecsElapsed()) / 1e9)},
                    {"ok", result.has_value()}});
        done(result);
    });
    if (m_options.preemptOnDemand) {
        QList<DownloadPtr> others;
        for (const DownloadPtr& other : std::as_const(m_inflight))
            if (!other->demanded)
                others.append(other);
        for (const DownloadPtr& other : others)
            cancel(other);
    }
}

void MemeStore::prefetch(const QList<Meme>& memes) {
    m_wanted = memes;
    QSet<QString> keys;
    for (const Meme& meme : memes) {
        const ImageLocation full = fullLocation(meme);
        if (full.isRemote())
            keys.insert(full.baseName());
    }
    QList<DownloadPtr> stale;
    for (const DownloadPtr& d : std::as_const(m_inflight))
        if (!d->demanded && !keys.contains(d->key))
            stale.append(d);
    for (const DownloadPtr& d : stale)
        cancel(d);
    pump();
}

void MemeStore::pump() {
    int active = 0;
    for (const DownloadPtr& d : std::as_const(m_inflight)) {
        if (d->demanded && m_options.preemptOnDemand)
            return; // the user is waiting: the demanded download gets the whole connection
        if (!d->demanded)
            ++active;
    }
    const QDateTime current = now();
    for (qsizetype i = 0; i < m_wanted.size(); ++i) {
        const Meme& meme = m_wanted[i];
        const ImageLocation full = fullLocation(meme);
        if (!isDownloadable(meme, full) || cachedFullURL(meme))
            continue;
        const QString key = full.baseName();
        if (m_inflight.contains(key))
            continue;
        const auto failed = m_failedAt.constFind(key);
        if (failed != m_failedAt.constEnd() &&
            failed->msecsTo(current) <= qint64(failureBackoffSeconds) * 1000)
            continue;
        // The selected item may start beside a running prefetch; the walk goes on, so only an
        // item listed earlier can take a slot that frees up later.
        const int limit = m_options.maxConcurrentPrefetch + (i == 0 ? 1 : 0);
        if (active >= limit)
            continue;
        startDownload(meme, full);
        ++active;
    }
}

void MemeStore::touch(const Meme& meme) {
    const QDateTime current = now();
    // Only files of the cache: a local item's own file keeps its dates.
    const QString inCache = m_options.cacheDir + QLatin1Char('/');
    for (const QUrl& url : {fullFileURL(meme), pngFileURL(meme)}) {
        const QString path = url.toLocalFile();
        if (path.startsWith(inCache))
            CacheDir::touch(path, current);
    }
}

void MemeStore::trimDir(const QString& dir, qint64 maxBytes) {
    m_convertQueue.post([dir, maxBytes, clock = m_options.clock, log = &metrics()] {
        const auto trimmed = CacheDir::trim(dir, maxBytes, clock());
        if (!trimmed)
            return;
        log->write(QStringLiteral("cache_trimmed"), {{"dir", lastComponent(dir).toStdString()},
                                                     {"bytes_after", trimmed->bytesAfter},
                                                     {"cap", maxBytes}});
    });
}

void MemeStore::trimFullCache() {
    trimDir(m_options.cacheDir, DebugFlags::cacheMB() * 1'000'000);
}

void MemeStore::clearCache() {
    m_wanted.clear();
    const QList<DownloadPtr> all = m_inflight.values();
    for (const DownloadPtr& d : all)
        cancel(d);
    emit cacheCleared();
    CacheDir::recreate(m_thumbDir);
    CacheDir::recreate(m_options.cacheDir);
}
