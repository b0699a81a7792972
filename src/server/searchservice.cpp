// SPDX-License-Identifier: MIT
#include "server/searchservice.h"

#include "search/fusedranking.h"
#include "search/localindex.h"
#include "search/textfold.h"
#include "server/eventstore.h"
#include "server/serverlog.h"
#include "server/wordnet.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <algorithm>
#include <sys/stat.h>
#include <unordered_map>
#include <unordered_set>

namespace {

std::int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

constexpr qsizetype minRelatedWordLength = 3;

double reciprocalRank(std::size_t rank) {
    return 1.0 / (double(rank) + FusedRanking::rankOffset);
}

// Ids by score, highest first; `order` (first appearance) breaks ties.
std::vector<QString> byScore(const std::vector<QString>& order,
                             const std::unordered_map<QString, double>& score) {
    std::vector<QString> ranked = order;
    std::stable_sort(ranked.begin(), ranked.end(),
                     [&](const QString& a, const QString& b) { return score.at(a) > score.at(b); });
    return ranked;
}

} // namespace

struct SearchService::Snapshot {
    QString stamp;
    QString file;
    std::unique_ptr<LocalIndex> index;
    std::vector<std::string> encoded; // each item as its catalog record, JSON text
    QHash<QString, qsizetype> byID;

    ~Snapshot() {
        index.reset();
        if (!file.isEmpty())
            for (const char* suffix : {"", "-wal", "-shm"})
                QFile::remove(file + QLatin1String(suffix));
    }
};

SearchService::SearchService(Options options, WordNet* wordNet, EventStore* events)
    : m_options(std::move(options)), m_wordNet(wordNet), m_events(events) {
    refreshNow();
    if (!m_snapshot) // nothing to serve yet: an empty index until the catalog appears
        m_snapshot = build(QString());
}

SearchService::~SearchService() {
    const std::lock_guard lock(m_rebuildLock);
    if (m_rebuilder.joinable())
        m_rebuilder.join();
}

QString SearchService::stampOf() const {
    struct stat info {};
    if (::stat(m_options.catalog.c_str(), &info) != 0)
        return QStringLiteral("missing");
    return QStringLiteral("%1:%2:%3.%4")
        .arg(info.st_ino)
        .arg(info.st_size)
        .arg(info.st_mtim.tv_sec)
        .arg(info.st_mtim.tv_nsec);
}

std::shared_ptr<SearchService::Snapshot> SearchService::build(const QString& stamp) {
    QElapsedTimer timer;
    timer.start();
    auto snapshot = std::make_shared<Snapshot>();
    snapshot->stamp = stamp;
    QByteArray bytes = "[]";
    if (!stamp.isEmpty()) {
        QFile file(QString::fromStdString(m_options.catalog.string()));
        if (!file.open(QIODevice::ReadOnly)) {
            qCWarning(lcServer).noquote() << "search: cannot read" << file.fileName();
            return nullptr;
        }
        bytes = file.readAll();
    }
    QString error;
    std::optional<MemeList> memes = CatalogJson::decodeMemes(bytes, &error);
    if (!memes) {
        qCWarning(lcServer).noquote()
            << "search:" << QString::fromStdString(m_options.catalog.filename().string())
            << "does not decode (" + error + "); the previous index keeps answering";
        return nullptr;
    }
    if (!m_options.indexDir.isEmpty()) {
        snapshot->file = QStringLiteral("%1/search-index-%2-%3.sqlite")
                             .arg(m_options.indexDir)
                             .arg(QCoreApplication::applicationPid())
                             .arg(++m_builds);
        for (const char* suffix : {"", "-wal", "-shm"})
            QFile::remove(snapshot->file + QLatin1String(suffix));
    }
    snapshot->index =
        LocalIndex::open(snapshot->file.isEmpty() ? QStringLiteral(":memory:") : snapshot->file);
    if (!snapshot->index) {
        qCWarning(lcServer).noquote() << "search: could not open the index";
        return nullptr;
    }
    const QString signature =
        QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
    snapshot->index->rebuild(*memes, signature);
    if (!snapshot->index->waitUntilCommitted())
        return nullptr;
    snapshot->encoded.reserve(std::size_t(memes->size()));
    snapshot->byID.reserve(memes->size());
    for (const Meme& meme : *memes) {
        snapshot->byID.insert(meme.id, qsizetype(snapshot->encoded.size()));
        snapshot->encoded.push_back(CatalogJson::encode(meme).dump());
    }
    if (!stamp.isEmpty())
        qCInfo(lcServer).noquote()
            << "search: indexed" << memes->size() << "items in" << timer.elapsed() << "ms";
    return snapshot;
}

void SearchService::refreshNow() {
    const std::lock_guard lock(m_rebuildLock);
    if (m_rebuilder.joinable())
        m_rebuilder.join();
    const QString stamp = stampOf();
    {
        const std::lock_guard snapshotLock(m_snapshotLock);
        if (m_snapshot && m_snapshot->stamp == stamp)
            return;
    }
    if (auto fresh = build(stamp)) {
        const std::lock_guard snapshotLock(m_snapshotLock);
        m_snapshot = std::move(fresh);
    }
}

void SearchService::maybeRefresh() {
    const std::int64_t now = nowNs();
    std::int64_t due = m_nextCheckNs.load();
    if (now < due || m_rebuilding ||
        !m_nextCheckNs.compare_exchange_strong(
            due, now + std::chrono::nanoseconds(m_options.checkInterval).count()))
        return;
    const QString stamp = stampOf();
    {
        const std::lock_guard snapshotLock(m_snapshotLock);
        if (m_snapshot && m_snapshot->stamp == stamp)
            return;
    }
    std::unique_lock lock(m_rebuildLock, std::try_to_lock);
    if (!lock.owns_lock() || m_rebuilding)
        return;
    if (m_rebuilder.joinable())
        m_rebuilder.join();
    m_rebuilding = true;
    // Off the event thread: a 100k-item catalog takes seconds to index.
    m_rebuilder = std::thread([this, stamp] {
        if (auto fresh = build(stamp)) {
            const std::lock_guard snapshotLock(m_snapshotLock);
            m_snapshot = std::move(fresh);
        } else {
            // Not again until the file changes once more.
            const std::lock_guard snapshotLock(m_snapshotLock);
            m_snapshot->stamp = stamp;
        }
        m_rebuilding = false;
    });
}

std::shared_ptr<SearchService::Snapshot> SearchService::current() {
    maybeRefresh();
    const std::lock_guard lock(m_snapshotLock);
    return m_snapshot;
}

qsizetype SearchService::itemCount() {
    return qsizetype(current()->encoded.size());
}

std::vector<QString> SearchService::keywordRanking(Snapshot& snapshot, const QString& text,
                                                   int depth) {
    const QHash<QString, qint64> picks =
        m_events ? m_events->picksFor(TextFold::key(text)) : QHash<QString, qint64>();
    // A picked item may sit deeper than the page; without picks the page (and one more, to
    // tell whether more follow) is all the order needed.
    const QStringList ids =
        snapshot.index->searchShared(text, picks.isEmpty() ? depth + 1 : m_options.maxTotalHits);
    std::vector<QString> order(ids.begin(), ids.end());
    if (picks.isEmpty())
        return order;
    // The app's own fusion: only items that match the words move, and at most by
    // maxCountedPicks picks' worth, counted in installs so one client cannot push harder.
    std::unordered_map<QString, double> score;
    for (std::size_t r = 0; r < order.size(); ++r)
        score[order[r]] = reciprocalRank(r) +
                          double(std::min(picks.value(order[r]), FusedRanking::maxCountedPicks)) *
                              FusedRanking::pickBoost;
    return byScore(order, score);
}

std::vector<QString> SearchService::relatedRanking(Snapshot& snapshot, const QString& text,
                                                   int depth) {
    // Each variant of the query with one word replaced by a relative, fused by reciprocal
    // rank; the query itself counts as its own closest variant. Close relatives (similar-to,
    // see-also) weigh half a synonym.
    const QStringList words = TextFold::tokens(text);
    struct Variant {
        QString text;
        double weight;
    };
    std::vector<Variant> variants{{words.join(QLatin1Char(' ')), 1.0}};
    for (qsizetype i = 0; i < words.size() && m_wordNet; ++i) {
        // One or two letters are a word still being typed, and their relatives ("e" →
        // "einsteinium") would each match most of the catalog.
        if (words[i].size() < minRelatedWordLength)
            continue;
        const WordNet::Related related = m_wordNet->related(words[i], m_options.relatedPerWord);
        const auto add = [&](const QStringList& relatives, double weight) {
            for (const QString& relative : relatives) {
                QStringList replaced = words;
                replaced[i] = relative;
                variants.push_back({replaced.join(QLatin1Char(' ')), weight});
            }
        };
        add(related.synonyms, 1.0);
        add(related.close, 0.5);
    }
    std::vector<QString> order;
    std::unordered_map<QString, double> score;
    const int perVariant = depth + 1;
    for (const Variant& variant : variants) {
        const QStringList ids = snapshot.index->searchShared(variant.text, perVariant);
        for (qsizetype r = 0; r < ids.size(); ++r) {
            auto [it, inserted] = score.try_emplace(ids[r], 0.0);
            if (inserted)
                order.push_back(ids[r]);
            it->second += variant.weight * reciprocalRank(std::size_t(r));
        }
    }
    return byScore(order, score);
}

SearchService::Result SearchService::page(const std::shared_ptr<Snapshot>& snapshot,
                                          const std::vector<QString>& ranked, const Query& query) {
    Result result;
    result.keepAlive = snapshot;
    result.totalHits = qsizetype(ranked.size());
    const std::size_t end =
        std::min(ranked.size(), std::size_t(query.offset) + std::size_t(query.limit));
    for (std::size_t i = std::size_t(query.offset); i < end; ++i)
        if (const auto it = snapshot->byID.constFind(ranked[i]); it != snapshot->byID.cend()) {
            result.hits.push_back(snapshot->encoded[std::size_t(*it)]);
            result.ids.append(ranked[i]);
        }
    return result;
}

SearchService::Result SearchService::search(const Query& query) {
    const std::shared_ptr<Snapshot> snapshot = current();
    const int depth = query.offset + query.limit;
    std::vector<QString> keyword = keywordRanking(*snapshot, query.text, depth);
    if (!query.semanticRatio)
        return page(snapshot, keyword, query);

    const double ratio = std::clamp(*query.semanticRatio, 0.0, 1.0);
    const std::vector<QString> related = relatedRanking(*snapshot, query.text, depth);
    std::vector<QString> order = keyword;
    std::unordered_map<QString, double> score;
    for (std::size_t r = 0; r < keyword.size(); ++r)
        score[keyword[r]] = (1 - ratio) * reciprocalRank(r);
    for (std::size_t r = 0; r < related.size(); ++r) {
        auto [it, inserted] = score.try_emplace(related[r], 0.0);
        if (inserted)
            order.push_back(related[r]);
        it->second += ratio * reciprocalRank(r);
    }
    // A relative that only a pure keyword search would rank adds nothing at ratio 0.
    if (ratio == 0)
        order.resize(keyword.size());
    std::vector<QString> blended = byScore(order, score);
    if (int(blended.size()) > m_options.maxTotalHits)
        blended.resize(std::size_t(m_options.maxTotalHits));
    Result result = page(snapshot, blended, query);
    const std::unordered_set<QString> inKeyword(keyword.begin(), keyword.end());
    for (const QString& id : result.ids)
        result.semanticHits += !inKeyword.contains(id);
    return result;
}

SearchService::Result SearchService::searchPlain(const Query& query) {
    const std::shared_ptr<Snapshot> snapshot = current();
    // As a plain client would ask: no deeper than the page.
    const QStringList ids = snapshot->index->searchPlain(query.text, query.offset + query.limit);
    return page(snapshot, std::vector<QString>(ids.begin(), ids.end()), query);
}
