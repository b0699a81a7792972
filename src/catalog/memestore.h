// SPDX-License-Identifier: MIT
#pragma once

#include "base/serialexecutor.h"
#include "catalog/imagesource.h"
#include "catalog/localorigins.h"
#include "catalog/meme.h"

#include <QDateTime>
#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QThreadPool>
#include <QUrl>
#include <functional>
#include <memory>
#include <optional>

class Metrics;
class QNetworkAccessManager;
class QNetworkReply;

// Every image byte the picker shows or hands to another application: the full-image cache
// folder with its download scheduler, the thumbnail cache folder, and the HTTP session the
// image requests share. Decoding thumbnails needs Qt Gui and lives in ThumbnailCache.
//
// The scheduler serves two kinds of demand. Prefetch loads what the user is likely to pick
// next, the selected item first, at most maxConcurrentPrefetch (+1 for the selected item) at a
// time. ensureFull is the user waiting on a paste or a drag: it adopts a running prefetch of
// the same image and cancels every other prefetch, so nothing competes for bandwidth.
//
// Origin: an item's "file://" images are honoured only for items registered with
// setLocalItems (the importer's and the user's own library's lists). Every other item is
// treated as coming from a server, and a "file://" reference in it is a missing image.
//
// Use from the GUI thread only; every completion is called on the GUI thread.
class MemeStore : public QObject {
    Q_OBJECT
public:
    using Clock = std::function<QDateTime()>;
    using FullCompletion = std::function<void(std::optional<QUrl> file)>;

    struct Options {
        QUrl base;        // catalog and image server; remote paths are joined below it
        QString cacheDir; // full images; thumbnails go to its sibling folder "thumbs"
        // Wall clock for the failure back-off, trimming and touching. Called from any thread.
        Clock clock = [] { return QDateTime::currentDateTimeUtc(); };
        int maxConcurrentPrefetch = 1;
        bool preemptOnDemand = true;
        // Per-request inactivity limit, so a stalled server cannot hold a paste forever.
        int transferTimeoutMs = 30000;
        Metrics* metrics = nullptr; // nullptr: the process-wide log
        // Converts a downloaded non-PNG full image into a PNG file, ahead of paste and drag.
        // Runs on the "png-convert" queue; unset means no pre-conversion.
        std::function<bool(const QString& source, const QString& target)> convertToPNG;

        // The configured server and $XDG_CACHE_HOME/com.tarnwell.Glimmet/full.
        static Options fromConfiguration();
    };

    static constexpr int failureBackoffSeconds = 30;
    static constexpr qint64 thumbnailBudgetBytes = 60'000'000;
    static constexpr int trimEveryDownloads = 25;

    // Creates both cache folders and trims the thumbnail folder to its budget in the background.
    explicit MemeStore(Options options, QObject* parent = nullptr);
    ~MemeStore() override;

    // Replaces one named list of local-origin items (see the class comment).
    void setLocalItems(const QString& list, const QList<Meme>& items);
    bool isLocalOrigin(const Meme& meme) const;
    ImageLocation thumbLocation(const Meme& meme) const;
    ImageLocation fullLocation(const Meme& meme) const;

    // Where the full image of a remote item is cached: the file name without its extension
    // as key, then ".png" for PNG sources and ".img" (format sniffed on reading) otherwise.
    QUrl fullFileURL(const Meme& meme) const;
    // The PNG rendering of the full image; the same file as fullFileURL for PNG sources.
    QUrl pngFileURL(const Meme& meme) const;
    // The full image's local file when it is usable now: a local item's existing file, or a
    // cached download that is not empty (downloads are stored only when whole).
    // Never touches the network.
    std::optional<QUrl> cachedFullURL(const Meme& meme) const;
    // The user is waiting for this image. Calls `done` at once on a cache hit or a missing
    // image, otherwise once the download (retried once on failure) ends; logs "download_wait".
    void ensureFull(const Meme& meme, FullCompletion done);
    // Replaces the wish list (selected item first), drops prefetches that left it, and starts
    // what the limits allow.
    void prefetch(const QList<Meme>& memes);
    // Marks the full image and its PNG as just used, so trimming spares them.
    void touch(const Meme& meme);
    // Evicts the oldest files of `dir` beyond `maxBytes`, in the background on the
    // "png-convert" queue; logs "cache_trimmed" when it had to evict.
    void trimDir(const QString& dir, qint64 maxBytes);
    // Trims the full-image folder to the cacheMB setting (after the user changes it).
    void trimFullCache();
    // Cancels every download, forgets the wish list, empties both folders and announces
    // cacheCleared() so memory caches follow.
    void clearCache();

    void setMaxConcurrentPrefetch(int count) { m_options.maxConcurrentPrefetch = count; }
    void setPreemptOnDemand(bool on) { m_options.preemptOnDemand = on; }

    // State, for loading indicators and tests.
    int inFlightCount() const { return int(m_inflight.size()); }
    bool isInFlight(const Meme& meme) const;
    bool isDemanded(const Meme& meme) const;
    int finishedDownloads() const { return m_downloads; }

    const QUrl& base() const { return m_options.base; }
    const QString& cacheDir() const { return m_options.cacheDir; }
    const QString& thumbDir() const { return m_thumbDir; }
    QDateTime now() const { return m_options.clock(); }
    Metrics& metrics() const;
    // A GET through the store's session (no cookies, no disk cache, inactivity time-out).
    // The caller owns the reply.
    QNetworkReply* get(const QUrl& url);
    // Blocks until background file work posted so far (stores, conversions, trims) is done.
    void waitForBackgroundWork();

signals:
    void cacheCleared();
    // Bytes of a full image received so far; `total` is -1 while the size is unknown.
    void downloadProgress(const QString& memeId, qint64 received, qint64 total);

private:
    struct Download {
        Meme meme;
        QString key;
        QPointer<QNetworkReply> task; // null once the body is being stored
        QList<FullCompletion> waiters;
        bool demanded = false;
        bool retried = false;
        bool cancelRequested = false;
    };
    using DownloadPtr = std::shared_ptr<Download>;

    bool isDownloadable(const Meme& meme, const ImageLocation& full) const;
    DownloadPtr startDownload(const Meme& meme, const ImageLocation& full);
    void taskFinished(const DownloadPtr& d, QNetworkReply* reply);
    void finish(const DownloadPtr& d, std::optional<QUrl> result, bool cancelled);
    void cancel(const DownloadPtr& d);
    void pump();
    void queuePNGConversion(const Meme& meme);
    DownloadPtr inflight(const QString& key) const { return m_inflight.value(key); }

    Options m_options;
    QString m_thumbDir;
    QNetworkAccessManager* m_session;
    LocalOrigins m_localOrigins;
    QHash<QString, DownloadPtr> m_inflight;
    QList<Meme> m_wanted;
    QHash<QString, QDateTime> m_failedAt;
    int m_downloads = 0;
    QThreadPool m_storePool;
    SerialExecutor m_convertQueue{QStringLiteral("png-convert")};
};
