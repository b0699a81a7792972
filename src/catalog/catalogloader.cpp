// SPDX-License-Identifier: MIT
#include "catalog/catalogloader.h"

#include "base/apppaths.h"
#include "base/atomicfile.h"
#include "base/background.h"
#include "base/logcategories.h"
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
    : QObject(parent), m_fetcher(fetcher), m_dataDir(std::move(dataDir)) {}

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
    const std::optional<QString> storedSignature = index->storedSignature();
    if (const std::optional<MemeList> cached = index->loadCached(); cached && !cached->isEmpty()) {
        publish(index, *cached, stress, QStringLiteral("disk"), std::nullopt);
        // Reads the keystroke path's in-memory tables now, so the first keystroke does not.
        QThreadPool::globalInstance()->start([index] { index->prepareFastPath(); });
    }

    m_fetcher->loadIndex(stress, this,
                         [this, stress, index, storedSignature](std::optional<MemeList> memes,
                                                                std::optional<QString> signature) {
                             onIndexFetched(stress, index, storedSignature, std::move(memes),
                                            std::move(signature));
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
    runInBackground(
        this,
        [index, memes = *memes, signature = *signature] {
            QElapsedTimer timer;
            timer.start();
            index->rebuild(memes, signature);
            return timer.nsecsElapsed() / 1e9;
        },
        [this, stress, index, memes = *memes](double seconds) {
            if (m_loadedStress != stress)
                return emit serverCheckDone(QStringLiteral("index"), QStringLiteral("stale"));
            publish(index, memes, stress, QStringLiteral("server"), Metrics::ms(seconds));
            emit serverCheckDone(QStringLiteral("index"), QStringLiteral("updated"));
        });
}

void CatalogLoader::publish(const std::shared_ptr<LocalIndex>& index, const MemeList& items,
                            bool stress, const QString& source, std::optional<double> rebuildMs) {
    m_index = index;
    m_hasPublished = true;
    emit indexLoaded(index, items, source);
    nlohmann::json fields = {
        {"count", items.size()}, {"stress", stress}, {"source", source.toStdString()}};
    if (rebuildMs)
        fields["rebuild_ms"] = *rebuildMs;
    Metrics::log(QStringLiteral("index_loaded"), std::move(fields));
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
            writeFileAtomically(collectionsPath, *collections);
            writeFileAtomically(stickersPath, *stickers);
            buildCollections(*collections, *stickers, true);
        });
}

void CatalogLoader::buildCollections(const QByteArray& collections, const QByteArray& stickers,
                                     bool fromServer) {
    const quint64 build = ++m_collectionBuilds;
    runInBackground(
        this,
        [collections, stickers] {
            return CollectionsBuild{CatalogJson::decodeCollections(collections),
                                    CatalogJson::decodeMemes(stickers)};
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
