// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QObject>
#include <memory>
#include <optional>

class CatalogFetcher;
class LocalIndex;

// Drives catalog and collection loading: what is on disk is published at once, the server
// copy replaces it only when it really differs. Owned by the application; GUI thread only.
class CatalogLoader : public QObject {
    Q_OBJECT
public:
    static constexpr const char* indexFailedMessage =
        "Index failed to load. Is the server running?";

    // `dataDir` holds index.sqlite, index_stress.sqlite, collections.json and stickers.json.
    CatalogLoader(CatalogFetcher* fetcher, QString dataDir, QObject* parent = nullptr);
    ~CatalogLoader() override;

    // Loads the catalog for the current `stressIndex` setting: disk first, then the server,
    // rebuilding the local index only when the server's signature differs from the stored one.
    // False when the local index cannot be opened (logged; nothing is loaded).
    bool reloadIndex();
    // Loads collections.json and stickers.json: cached copies first, then the server.
    void reloadCollections();

    // The stress setting of the newest load; none before the first.
    std::optional<bool> loadedStress() const { return m_loadedStress; }
    const std::shared_ptr<LocalIndex>& index() const { return m_index; }
    const CollectionList& adminCollections() const { return m_adminCollections; }
    const MemeList& adminStickers() const { return m_adminStickers; }
    // Why the last server answer about the index was not used ("the server answered HTTP
    // 503", ...); empty after a usable answer.
    const QString& lastIndexError() const { return m_lastIndexError; }

signals:
    // A catalog is ready to show; `source` is "disk" or "server".
    void indexLoaded(std::shared_ptr<LocalIndex> index, MemeList items, QString source);
    // Nothing could be shown: the picker should clear and show `message`.
    void indexFailed(QString message);
    // The server collections changed (and once at start, before any server data).
    void collectionsChanged();
    // A server answer was dealt with. `document` is "index" or "collections"; `outcome` is
    // "stale", "failed", "unchanged" or "updated". An updated index is reported once its
    // rebuild is committed (it is published before, as soon as it is searchable); a rebuild
    // that fails is rolled back and reported as "failed", the catalog on disk published
    // again. For logs and tests.
    void serverCheckDone(QString document, QString outcome);

private:
    void onIndexFetched(bool stress, const std::shared_ptr<LocalIndex>& index,
                        const std::optional<QString>& storedSignature,
                        std::optional<MemeList> memes, std::optional<QString> signature);
    void publishFromDisk(const std::shared_ptr<LocalIndex>& index, const MemeList& items,
                         bool stress);
    void buildCollections(const QByteArray& collections, const QByteArray& stickers,
                          bool fromServer);
    QString filePath(const QString& name) const;

    CatalogFetcher* m_fetcher;
    QString m_dataDir;
    std::optional<bool> m_loadedStress;
    std::shared_ptr<LocalIndex> m_index;
    QString m_lastIndexError;
    bool m_hasPublished = false;
    CollectionList m_adminCollections;
    MemeList m_adminStickers;
    // Builds finish out of order; only a newer one may replace the collections.
    quint64 m_collectionBuilds = 0;
    quint64 m_appliedCollectionBuild = 0;
};
