// SPDX-License-Identifier: MIT
#include "catalog/thumbnailcache.h"

#include "base/atomicfile.h"
#include "catalog/cachedir.h"
#include "catalog/memestore.h"

#include <QBuffer>
#include <QFileInfo>
#include <QImageReader>
#include <QNetworkReply>
#include <algorithm>

namespace {
// The file name's suffix may lie (or be missing); the content decides the format.
std::optional<QImage> decode(QIODevice* device) {
    QImageReader reader(device);
    reader.setDecideFormatFromContent(true);
    QImage image = reader.read();
    if (image.isNull())
        return std::nullopt;
    // The format pixmaps are painted from: a pixmap made of this image shares its pixels
    // instead of holding a converted copy of its own.
    image.convertTo(image.hasAlphaChannel() ? QImage::Format_ARGB32_Premultiplied
                                            : QImage::Format_RGB32);
    return image;
}

std::optional<QImage> decodeFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    return decode(&file);
}

std::optional<QImage> decodeBytes(QByteArray bytes) {
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadOnly);
    return decode(&buffer);
}
} // namespace

ThumbnailCache::ThumbnailCache(MemeStore& store, QObject* parent)
    : QObject(parent), m_store(store) {
    m_pool.setMaxThreadCount(2);
    connect(&store, &MemeStore::cacheCleared, this, [this] { m_memory.clear(); });
}

ThumbnailCache::~ThumbnailCache() {
    // Pool jobs post back to this object; they must finish before it goes away.
    m_pool.waitForDone();
}

void ThumbnailCache::thumbnail(const Meme& meme, Completion done) {
    if (!done)
        done = [](std::optional<QImage>) {};
    const ImageLocation thumb = m_store.thumbLocation(meme);
    if (thumb.isMissing()) {
        done(std::nullopt);
        return;
    }
    if (thumb.isLocalFile()) {
        // The user's own file may change under the same name, so it is not kept in memory.
        m_pool.start([this, path = thumb.localPath, done = std::move(done)]() mutable {
            auto image = decodeFile(path);
            QMetaObject::invokeMethod(
                this, [done = std::move(done), image = std::move(image)] { done(image); },
                Qt::QueuedConnection);
        });
        return;
    }

    const QString& name = thumb.fileName;
    if (const QImage* cached = m_memory.object(name)) {
        done(*cached);
        return;
    }
    auto waiting = m_waiters.find(name);
    if (waiting != m_waiters.end()) {
        waiting->append(std::move(done));
        return;
    }
    m_waiters.insert(name, {std::move(done)});
    m_pool.start([this, name, url = thumb.url, path = m_store.thumbDir() + QLatin1Char('/') + name,
                  now = m_store.now()] {
        auto image = decodeFile(path);
        // Trimming goes by modification time: a thumbnail in use is a recent one.
        if (image)
            CacheDir::touch(path, now);
        QMetaObject::invokeMethod(
            this,
            [this, name, url, image = std::move(image)] {
                if (image)
                    deliver(name, image);
                else
                    fetch(name, url);
            },
            Qt::QueuedConnection);
    });
}

void ThumbnailCache::keepRecent(int count) {
    // Lowering the limit drops the least recently asked for; raising it again drops nothing.
    m_memory.setMaxCost(std::min(count, memoryLimit));
    m_memory.setMaxCost(memoryLimit);
}

void ThumbnailCache::fetch(const QString& name, const QUrl& url) {
    QNetworkReply* reply = m_store.get(url);
    reply->setParent(this);
    connect(reply, &QNetworkReply::finished, this, [this, reply, name] {
        reply->deleteLater();
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        QByteArray body = reply->readAll();
        if (reply->error() != QNetworkReply::NoError || status != 200 || body.isEmpty()) {
            deliver(name, std::nullopt);
            return;
        }
        m_pool.start([this, name, body = std::move(body),
                      path = m_store.thumbDir() + QLatin1Char('/') + name] {
            auto image = decodeBytes(body);
            if (image)
                writeFileAtomically(path, body);
            QMetaObject::invokeMethod(
                this, [this, name, image = std::move(image)] { deliver(name, image); },
                Qt::QueuedConnection);
        });
    });
}

void ThumbnailCache::deliver(const QString& name, std::optional<QImage> image) {
    if (image)
        m_memory.insert(name, new QImage(*image));
    const QList<Completion> waiters = m_waiters.take(name);
    for (const Completion& done : waiters)
        done(image);
}
