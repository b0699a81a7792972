// SPDX-License-Identifier: MIT
#include "catalog/catalogloader.h"

#include "base/apppaths.h"
#include "base/atomicfile.h"
#include "base/background.h"
#include "base/logcategories.h"
#include "base/memorytrim.h"
#include "catalog/catalogfetcher.h"
#include "catalog/debugflags.h"
#include "search/localindex.h"
#include "telemetry/metrics.h"

#include <QElapsedTimer>
#include <QFile>
#include <QThreadPool>

namespace {

std::optional<QByteArray> readWhole(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    return file.readAll();
}

struct CollectionsBuild {
    std::optional<CollectionList> collections;
    std::optional<MemeList> stickers;
};

} // namespace

CatalogLoader::CatalogLoader(CatalogFetcher* fetcher, QString dataDir, QObject* parent)
    : QObject(parent), m_fetcher(fetcher), m_dataDir(std::move(dataDir)) {
    // A server answer, used or not, leaves a decoded document's worth of freed memory behind.
    connect(this, &CatalogLoader::serverCheckDone, this, [] { MemoryTrim::soon(); });
}

CatalogLoader::~CatalogLoader() = default;

QString CatalogLoader::filePath(const QString& name) const {
    return m_dataDir + QLatin1Char('/') + name;
}

bool CatalogLoader::reloadIndex() {
    const bool stress = DebugFlags::settings().boolean(QStringLiteral("stressIndex"));
    m_loadedStress = stress;
    AppPaths::ensureDir(m_dataDir);
    std::shared_ptr<LocalIndex> index = LocalIndex::open(
        filePath(stress ? QStringLiteral("index_stress.sqlite") : QStringLiteral("index.sqlite")));
    if (!index) {
        qCWarning(lcCatalog) << "could not open local index";
        return false;
    }
    // The keystroke path's tables are read on the other core while this one decodes the items.
    index->readMirrorAhead();
    const std::optional<QString> storedSignature = index->storedSignature();
    const std::optional<MemeList> cached = index->loadCached();
    const bool hasCatalog = cached && !cached->isEmpty();
    if (hasCatalog) {
        publishFromDisk(index, *cached, stress);
        // Reads the keystroke path's in-memory tables now, so the first keystroke does not.
        QThreadPool::globalInstance()->start([index] {
            index->prepareFastPath();
            MemoryTrim::soon();
        });
    }

    m_fetcher->loadIndex(
        stress, this,
        [this, stress, index, storedSignature, hasCatalog](
            std::optional<MemeList> memes, std::optional<QString> signature, QString error) {
            m_lastIndexError = error;
            if (memes && memes->isEmpty() && hasCatalog) {
                // A server cannot say "the catalog is empty now" apart from
                // a broken deploy; never trade a good catalog for nothing.
                m_lastIndexError = QStringLiteral("the server sent an empty catalog");
                qCWarning(lcCatalog).noquote() << "index load failed: " + m_lastIndexError;
                memes.reset();
            }
            onIndexFetched(stress, index, storedSignature, std::move(memes), std::move(signature));
        });
    return true;
}

void CatalogLoader::onIndexFetched(bool stress, const std::shared_ptr<LocalIndex>& index,
                                   const std::optional<QString>& storedSignature,
                                   std::optional<MemeList> memes,
                                   std::optional<QString> signature) {
    const QString document = QStringLiteral("index");
    if (m_loadedStress != stress)
        return emit serverCheckDone(document,
                                    QStringLiteral("stale")); // a newer load owns the state
    if (!memes || !signature) {
        if (!m_hasPublished)
            emit indexFailed(QString::fromLatin1(indexFailedMessage));
        return emit serverCheckDone(document, QStringLiteral("failed"));
    }
    if (storedSignature == signature)
        return emit serverCheckDone(document, QStringLiteral("unchanged")); // disk copy is current
    auto started = std::make_shared<QElapsedTimer>();
    started->start();
    runInBackground(
        this,
        [index, memes = *memes, signature = *signature, started] {
            index->rebuild(memes, signature);
            return started->nsecsElapsed() / 1e9;
        },
        [this, stress, index, memes = *memes, started](double searchable) {
            if (m_loadedStress != stress)
                return emit serverCheckDone(QStringLiteral("index"), QStringLiteral("stale"));
            // Searchable now; the transaction is still being written on the index's thread.
            m_index = index;
            m_hasPublished = true;
            emit indexLoaded(index, memes, QStringLiteral("server"));
            runInBackground(
                this,
                [index, started] {
                    const bool committed = index->waitUntilCommitted();
                    return std::pair(committed, started->nsecsElapsed() / 1e9);
                },
                [this, stress, index, count = memes.size(),
                 searchable](std::pair<bool, double> commit) {
                    if (!commit.first) {
                        // Rolled back: the file still holds the catalog it had, and searches
                        // answer from it again, so the picker must show that one.
                        m_lastIndexError = QStringLiteral("the new catalog could not be saved");
                        qCWarning(lcCatalog).noquote() << "index load failed: " + m_lastIndexError;
                        if (m_loadedStress == stress) {
                            const std::optional<MemeList> old = index->loadCached();
                            if (old && !old->isEmpty())
                                emit indexLoaded(index, *old, QStringLiteral("disk"));
                            else
                                emit indexFailed(QString::fromLatin1(indexFailedMessage));
                        }
                        return emit serverCheckDone(QStringLiteral("index"),
                                                    QStringLiteral("failed"));
                    }
                    Metrics::log(QStringLiteral("index_loaded"),
                                 {{"count", count},
                                  {"stress", stress},
                                  {"source", "server"},
                                  {"rebuild_ms", Metrics::ms(searchable)},
                                  {"commit_ms", Metrics::ms(commit.second)}});
                    emit serverCheckDone(QStringLiteral("index"), QStringLiteral("updated"));
                });
        });
}

void CatalogLoader::publishFromDisk(const std::shared_ptr<LocalIndex>& index, const MemeList& items,
                                    bool stress) {
    m_index = index;
    m_hasPublished = true;
    emit indexLoaded(index, items, QStringLiteral("disk"));
    Metrics::log(QStringLiteral("index_loaded"),
                 {{"count", items.size()}, {"stress", stress}, {"source", "disk"}});
}

void CatalogLoader::reloadCollections() {
    AppPaths::ensureDir(m_dataDir);
    const QString collectionsPath = filePath(QStringLiteral("collections.json"));
    const QString stickersPath = filePath(QStringLiteral("stickers.json"));
    const std::optional<QByteArray> localCollections = readWhole(collectionsPath);
    const std::optional<QByteArray> localStickers = readWhole(stickersPath);
    emit collectionsChanged(); // imported collections show before any server data
    if (localCollections && localStickers)
        buildCollections(*localCollections, *localStickers, false);

    m_fetcher->loadCollections(
        this, [=, this](std::optional<QByteArray> collections, std::optional<QByteArray> stickers) {
            const QString document = QStringLiteral("collections");
            if (!collections || !stickers) // keep what there is
                return emit serverCheckDone(document, QStringLiteral("failed"));
            if (localCollections == collections && localStickers == stickers)
                return emit serverCheckDone(document, QStringLiteral("unchanged"));
            buildCollections(*collections, *stickers, true);
        });
}

void CatalogLoader::buildCollections(const QByteArray& collections, const QByteArray& stickers,
                                     bool fromServer) {
    const quint64 build = ++m_collectionBuilds;
    // Server documents replace the cached copies only once both decode, so a broken answer
    // never costs the copies that work.
    const QString collectionsPath =
        fromServer ? filePath(QStringLiteral("collections.json")) : QString();
    const QString stickersPath = fromServer ? filePath(QStringLiteral("stickers.json")) : QString();
    runInBackground(
        this,
        [collections, stickers, collectionsPath, stickersPath] {
            CollectionsBuild result{CatalogJson::decodeCollections(collections),
                                    CatalogJson::decodeMemes(stickers)};
            if (result.collections && result.stickers && !collectionsPath.isEmpty()) {
                writeFileAtomically(collectionsPath, collections);
                writeFileAtomically(stickersPath, stickers);
            }
            return result;
        },
        [this, build, fromServer](const CollectionsBuild& result) {
            const bool ok = result.collections && result.stickers;
            if (!ok)
                qCWarning(lcCatalog) << "collections: decode failed";
            if (ok && build > m_appliedCollectionBuild) {
                m_appliedCollectionBuild = build;
                m_adminCollections = *result.collections;
                m_adminStickers = *result.stickers;
                emit collectionsChanged();
            }
            if (fromServer)
                emit serverCheckDone(QStringLiteral("collections"),
                                     ok ? QStringLiteral("updated") : QStringLiteral("failed"));
        });
}
