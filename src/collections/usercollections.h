// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QImage>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QThreadPool>
#include <QUrl>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <variant>

class QNetworkReply;

// The user's imported collections: plans an import from chosen files or folders, resizes each
// image into a full-size copy and a thumbnail that stay on this computer, keeps one folder per
// collection with its collection.json manifest, and sends each resized image once to the
// tagging server for search tags. Everything that touches the disk or the network blocks and
// is meant for a background thread; manifests, counters and the stop flag of a tagging run are
// guarded by one lock per object, so imports, tagging and reads may overlap.
class UserCollections {
public:
    // The tagging server's answer for one image.
    struct Tags {
        QString ocr_text;
        QString description;
        QString character;
        QStringList emotions;
        QStringList actions;
        QStringList use_cases;
        QStringList keywords;
        QString language;
        bool nsfw = false;
        bool hateful = false;

        friend bool operator==(const Tags&, const Tags&) = default;
    };
    struct Item {
        QString id;
        QString file;  // inside full/
        QString thumb; // inside thumb/
        QString orig;  // the name the image had on the user's disk
        qint64 width = 0;
        qint64 height = 0;
        std::optional<Tags> tags;
    };
    // One collection as its manifest holds it.
    struct Stored {
        QString id;
        QString name;
        QString created; // ISO 8601
        QList<Item> items;
    };
    struct Plan {
        QString name;
        QStringList files;
    };
    // Why tagging one image failed.
    struct TagError {
        enum class Kind { server, other, limit, rateLimited };
        Kind kind = Kind::other;
        int status = 0;
        QString text;

        QString message() const;
        static TagError server(int status) { return {Kind::server, status, {}}; }
        static TagError other(QString text) { return {Kind::other, 0, std::move(text)}; }
    };
    using TagResult = std::variant<Tags, TagError>;
    struct DeleteOutcome {
        enum class Kind { deleted, pending, failed };
        Kind kind = Kind::failed;
        QString text; // for failed
    };
    struct Result {
        int added = 0;
        int tagged = 0;
        int skipped = 0;
        std::optional<QString> tagError;
        // Set when the import stopped early because its files could not be written.
        std::optional<QString> stopped;
    };
    struct TagRun {
        int tagged = 0;
        std::optional<QString> firstError;
    };
    struct Row {
        QString id;
        QString name;
        int count = 0;
        int untagged = 0;
    };
    struct Loaded {
        CollectionList collections;
        MemeList stickers;
    };
    // A resized image, ready to be written.
    struct Resized {
        QByteArray full;
        QByteArray thumb;
        QString extension; // "png" or "jpg"
        QSize size;
        QSize thumbSize;
    };
    using Progress = std::function<void(const QString&)>;

    static const QStringList imageExts;
    static constexpr int maxTagsInFlight = 4;
    static constexpr int failuresInARowToStop = 3;
    static constexpr int checkpointEvery = 25;
    static constexpr int maxAttempts = 5;
    static constexpr int tagTimeoutMs = 90'000;
    static constexpr int deleteTimeoutMs = 30'000;
    static constexpr int minShortSide = 32;
    static constexpr int maxSideAlpha = 512;
    static constexpr int maxSideOpaque = 640;
    static constexpr int maxThumbSide = 256;
    static constexpr int jpegQuality = 85;
    // A declared size beyond this is refused before anything is decoded: a small file can claim
    // a picture that would take gigabytes.
    static constexpr qint64 maxDecodedPixels = 50'000'000;
    static constexpr double defaultRetryDelaySeconds = 10;

    // Uses (and creates) `root`; the tagging server is DebugFlags::apiURL(), read per request.
    // MEME_TAG_RETRY_DELAY is read here, once.
    explicit UserCollections(QString root = defaultRoot());
    ~UserCollections();

    // $XDG_DATA_HOME/Glimmet/UserCollections.
    static QString defaultRoot();
    const QString& root() const { return m_root; }

    // Chosen files and folders as plans; folders one level deep, loose files as one more plan.
    static QList<Plan> plan(const QStringList& selection);
    // The folder's own images as one plan and each sub-folder's own images as one more.
    static QList<Plan> planFolder(const QString& folder);
    // Whether any chosen folder has sub-folders (the dialogue then explains what they become).
    static bool hasSubfolders(const QStringList& selection);

    // Imports `plan` as a new collection called `name` and tags it; blocks. `progress` is
    // called on this thread and on tagging threads, never at the same time.
    Result importCollection(const Plan& plan, const QString& name, const Progress& progress);
    // Tags every untagged item of collection `id`; blocks.
    TagRun tagPending(const QString& id, const Progress& progress);
    // tagPending() for every stored collection; the first error of all.
    TagRun retryAll(const Progress& progress);

    // One row per collection, oldest first.
    QList<Row> list() const;
    // Every readable collection, oldest first.
    QList<Stored> allStored() const;
    std::optional<Stored> stored(const QString& id) const;
    bool rename(const QString& id, const QString& name);
    // Removes the collection's folder; false when there is none.
    bool remove(const QString& id);
    // Every collection as a catalog collection of source "import" with its items.
    Loaded load() const;
    // A square icon of the collection's first thumbnail; null when it has none.
    QImage previewIcon(const QString& id, int side) const;

    // Shrinks one image for import; none when it is refused (animated, too small, unreadable,
    // declaring a size too large to decode).
    static std::optional<Resized> resize(const QString& path);
    // One tag request for the image bytes `data`.
    static TagResult requestTags(const QByteArray& data, const QString& collection,
                                 const QString& file);
    // requestTags(), waiting and trying again while the server asks us to slow down.
    TagResult requestTagsRetrying(const QByteArray& data, const QString& collection,
                                  const QString& file) const;
    // Ends running imports and tagging runs soon, for quitting: after the image at hand, with
    // what was done saved; tag requests under way are abandoned. Later runs end at once. Any
    // thread.
    void stop();

    // Asks the server to forget every tag it keeps for this device; blocks.
    static DeleteOutcome deleteCloudData();

    static std::optional<Tags> decodeTags(const QByteArray& json);
    static QByteArray encodeStored(const Stored& stored);
    static std::optional<Stored> decodeStored(const QByteArray& json);
    // The catalog record of one item.
    Meme meme(const Stored& collection, const Item& item, int index) const;
    double retryDelaySeconds() const { return m_retryDelaySeconds; }

private:
    QString folder(const QString& id) const;
    // requestTags() that stop() can abort.
    TagResult requestTagsAbortable(const QByteArray& data, const QString& collection,
                                   const QString& file) const;
    // requestTags(), telling `watch` of the reply when it is sent (true) and before it is
    // deleted (false).
    static TagResult requestTagsWatched(const QByteArray& data, const QString& collection,
                                        const QString& file,
                                        const std::function<void(QNetworkReply*, bool)>& watch);
    bool save(const Stored& stored) const;

    QString m_root;
    double m_retryDelaySeconds;
    // Manifests and the counters of tagging runs.
    mutable std::mutex m_lock;
    QThreadPool m_tagPool;
    std::atomic<bool> m_stopping = false;
    // Wakes the wait between attempts of a slowed-down request when stop() is called, and
    // guards the requests under way.
    mutable std::mutex m_stopLock;
    mutable std::condition_variable m_stopWake;
    mutable std::set<QNetworkReply*> m_replies;
};
