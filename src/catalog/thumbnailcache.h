// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/meme.h"

#include <QCache>
#include <QHash>
#include <QImage>
#include <QList>
#include <QObject>
#include <QString>
#include <QThreadPool>
#include <QUrl>
#include <functional>
#include <optional>

class MemeStore;

// Decoded thumbnails for result cells and collection cards: an in-memory cache of 800 images
// over the store's thumbnail folder over the server. Requests for one file name share one
// fetch. Disk reads and decoding run on a background pool. Use from the GUI thread only;
// completions are called on it (at once for a memory hit or a missing image).
class ThumbnailCache : public QObject {
    Q_OBJECT
public:
    using Completion = std::function<void(std::optional<QImage>)>;
    static constexpr int memoryLimit = 800;

    // Follows `store`'s base, folder, origin rules and clearCache(); `store` must outlive it.
    explicit ThumbnailCache(MemeStore& store, QObject* parent = nullptr);
    ~ThumbnailCache() override;

    // The item's thumbnail, or nothing when it is missing, unreachable or undecodable.
    // An empty completion only warms the caches.
    void thumbnail(const Meme& meme, Completion done);
    int memoryCount() const { return int(m_memory.count()); }
    // Keeps only the `count` images asked for last in memory; the others are read from the
    // thumbnail folder again when next asked for.
    void keepRecent(int count);

private:
    void fetch(const QString& name, const QUrl& url);
    void deliver(const QString& name, std::optional<QImage> image);

    MemeStore& m_store;
    QCache<QString, QImage> m_memory{memoryLimit};
    QHash<QString, QList<Completion>> m_waiters;
    QThreadPool m_pool;
};
