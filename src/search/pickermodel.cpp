// SPDX-License-Identifier: MIT
#include "search/pickermodel.h"

#include "catalog/debugflags.h"
#include "catalog/memestore.h"
#include "search/collectionsource.h"
#include "search/fusedranking.h"
#include "search/importeditems.h"
#include "search/localindex.h"
#include "search/pickermodelbatch.h"
#include "search/pickertexts.h"
#include "search/remotesearch.h"
#include "search/wordfilter.h"
#include "telemetry/metrics.h"
#include "userdata/userdata.h"

#include <QTimer>
#include <algorithm>

namespace {

constexpr int tabCount = 4;
constexpr int mostUsedMinUses = 2;
constexpr int mostUsedLimit = 200;

QSet<QString> idSet(const QStringList& ids) {
    return QSet<QString>(ids.begin(), ids.end());
}

} // namespace

PickerModel::PickerModel(MemeStore* store, UserData* userData, QObject* parent)
    : QObject(parent), m_store(store), m_userData(userData), m_status(PickerTexts::loadingIndex),
      m_favorites(idSet(userData->favorites())) {
    m_remoteWork.setSingleShot(true);
    // A coarse timer may fire 5 % early, which would cut the pause after the last keystroke.
    m_remoteWork.setTimerType(Qt::PreciseTimer);
    connect(&m_remoteWork, &QTimer::timeout, this, &PickerModel::runRemote);
}

PickerModel::~PickerModel() = default;

// --- Feeding the model ---

void PickerModel::setIndex(std::shared_ptr<LocalIndex> index, const MemeList& memes) {
    Batch batch(this);
    m_index = std::move(index);
    m_byID.clear();
    m_byID.reserve(memes.size());
    for (const Meme& meme : memes)
        m_byID.insert(meme.id, meme);
    // A reload of the same size may still swap items; never show yesterday's records.
    m_explore = ExploreOrder();
    m_loadFailure.reset();
    runSearch(m_query);
}

void PickerModel::setMine(const MemeList& memes) {
    Batch batch(this);
    m_mine = memes;
    m_mineSearch = MineSearch(memes);
    m_mineByID.clear();
    for (const Meme& meme : memes)
        m_mineByID.insert(meme.id, meme);
    if (m_tab == Tab::memes || m_tab == Tab::mine)
        runSearch(m_query);
}

void PickerModel::setCollections(std::shared_ptr<const CollectionSource> collections) {
    Batch batch(this);
    m_collections = std::move(collections);
    // Collections, Recent and Mine all show stickers; the Memes tab never does.
    if (m_tab != Tab::memes)
        runSearch(m_query);
}

void PickerModel::setImported(std::shared_ptr<const ImportedItems> imported) {
    if (!imported && !m_imported)
        return;
    Batch batch(this);
    m_imported = std::move(imported);
    if (m_tab == Tab::memes)
        runSearch(m_query);
}

void PickerModel::showLoadFailure(const QString& message) {
    if (m_index)
        return;
    Batch batch(this);
    m_loadFailure = message;
    if (m_tab == Tab::memes)
        runSearch(m_query);
}

void PickerModel::setAccessibilityOK(bool ok) {
    Batch batch(this);
    m_accessibilityOK = ok;
}

// --- Search and paging ---

void PickerModel::searchTextEdited(const QString& text) {
    QElapsedTimer startedAt;
    startedAt.start();
    Batch batch(this);
    m_window = pageSize;
    runSearch(text, startedAt);
}

void PickerModel::resetWindowAndRerun() {
    Batch batch(this);
    m_window = pageSize;
    runSearch(m_query);
}

void PickerModel::runSearch(const QString& text, std::optional<QElapsedTimer> startedAt) {
    Batch batch(this);
    m_query = text;
    // Favourites can change from outside the panel; rank and badge with the current ones.
    m_favorites = idSet(m_userData->favorites());
    if (m_tab != Tab::recent)
        m_recentSections.clear();
    if (m_tab != Tab::collections)
        m_collectionList.clear();
    switch (m_tab) {
    case Tab::memes:
        runMemesSearch(text, startedAt);
        break;
    case Tab::collections:
        runCollectionSearch(text);
        break;
    case Tab::recent:
        runRecentSearch(text);
        break;
    case Tab::mine:
        runMineSearch(text);
        break;
    }
}

void PickerModel::runMemesSearch(const QString& text, std::optional<QElapsedTimer> startedAt) {
    m_selected = 0;
    m_userMoved = false;
    if (!m_index) {
        m_results.clear();
        m_localResults.clear();
        m_mineMatches.clear();
        m_moreAvailable = false;
        m_status = m_loadFailure.value_or(PickerTexts::loadingIndex);
        return;
    }

    QElapsedTimer compute;
    compute.start();
    const MemeList ranked = rank(text);
    const double computeMs = Metrics::ms(double(compute.nsecsElapsed()) / 1e9);

    // Only a query with words puts the user's own items in front; browsing shows the mix.
    m_mineMatches = text.trimmed().isEmpty() ? MemeList() : searchMine(text, mineOnTop);
    m_results = withMineOnTop(ranked);
    m_localResults = ranked;
    m_moreAvailable = ranked.size() >= m_window;
    scheduleRemote(text);
    m_status = PickerTexts::memesStatus(text, m_results.size(), m_mineMatches.size(), false);
    prefetchSelection();
    if (startedAt)
        logSearch(text, ranked.size(), computeMs, *startedAt);
}

void PickerModel::loadMoreIfNeeded(int index) {
    if (m_tab != Tab::memes || !m_moreAvailable || index < m_results.size() - pageAheadCells ||
        !m_index)
        return;
    Batch batch(this);
    m_window += pageSize;
    const MemeList ranked = rank(m_query);
    m_moreAvailable = ranked.size() >= m_window;
    m_localResults = ranked;

    const std::optional<Meme> kept = selectedItem();
    m_results = withMineOnTop(ranked);
    if (kept) {
        const auto at = std::find_if(m_results.cbegin(), m_results.cend(),
                                     [&](const Meme& m) { return m.id == kept->id; });
        if (at != m_results.cend())
            m_selected = int(at - m_results.cbegin());
    }
    m_status =
        PickerTexts::memesStatus(m_query, m_results.size(), m_mineMatches.size(), !m_moreAvailable);
}

MemeList PickerModel::rank(const QString& text) {
    const auto explore = [this]() -> const QStringList& { return m_explore.order(m_byID); };
    const FusedRanking::Inputs inputs{*m_index,    m_byID,      m_window,
                                      *m_userData, m_favorites, explore};
    MemeList ranked = FusedRanking::rank(text, inputs);
    const MemeList imported = m_imported ? m_imported->search(text, m_window) : MemeList();
    if (imported.isEmpty())
        return ranked;
    // Equal reciprocal ranks: the user's own images and the catalog take turns, theirs first.
    MemeList fused;
    fused.reserve(std::min<qsizetype>(m_window, ranked.size() + imported.size()));
    for (qsizetype r = 0; fused.size() < m_window && (r < ranked.size() || r < imported.size());
         ++r) {
        if (r < imported.size())
            fused.append(imported[r]);
        if (r < ranked.size() && fused.size() < m_window)
            fused.append(ranked[r]);
    }
    return fused;
}

MemeList PickerModel::withMineOnTop(const MemeList& ranked) const {
    QSet<QString> mineIDs;
    for (const Meme& meme : m_mineMatches)
        mineIDs.insert(meme.id);
    MemeList out = m_mineMatches;
    out.reserve(m_mineMatches.size() + ranked.size());
    for (const Meme& meme : ranked) {
        if (!mineIDs.contains(meme.id))
            out.append(meme);
    }
    return out;
}

MemeList PickerModel::searchMine(const QString& text, int limit) const {
    return m_mineSearch.search(text, limit);
}

Metrics& PickerModel::metrics() const {
    return m_store ? m_store->metrics() : Metrics::shared();
}

void PickerModel::logSearch(const QString& text, qsizetype ranked, double computeMs,
                            const QElapsedTimer& startedAt) {
    Metrics* log = &metrics();
    const auto indexed = m_byID.size();
    // Posted, so that "ms" also covers the views redrawing for the new results.
    QTimer::singleShot(0, this, [=] {
        log->write(QStringLiteral("search"),
                   {{"q", text.toStdString()},
                    {"results", ranked},
                    {"ms", Metrics::ms(double(startedAt.nsecsElapsed()) / 1e9)},
                    {"compute_ms", computeMs},
                    {"index", indexed},
                    {"engine", "fts5"}});
    });
}

// --- Cloud search ---

void PickerModel::scheduleRemote(const QString& text) {
    cancelRemote();
    // The empty query (or one of only spaces) browses; it never goes to the cloud.
    if (m_tab != Tab::memes || text.trimmed().isEmpty())
        return;
    std::unique_ptr<RemoteSearch> configured = RemoteSearch::current();
    if (!configured) {
        m_remote.reset();
        return;
    }
    // Keep the client (and its connection) while the settings name the same server and key.
    if (!m_remote || m_remote->identity() != configured->identity())
        m_remote = std::move(configured);
    m_remoteText = text;
    m_remoteWork.start(m_remote->isWorker() ? remoteDelayWorkerMs : remoteDelayEngineMs);
}

void PickerModel::runRemote() {
    if (!m_remote)
        return;
    const QString text = m_remoteText;
    if (m_remote->isWorker() && (m_localResults.size() > workerMaxLocalResults ||
                                 text.trimmed().size() < workerMinQueryChars))
        return;
    const bool hybrid = DebugFlags::settings().boolean(QStringLiteral("semanticSearch"));
    m_remote->search(text, hybrid, this, [this, text](std::optional<MemeList> hits, double ms) {
        // Cancellation is best-effort: an answer for an older query or another tab is stale.
        if (!hits || m_tab != Tab::memes || m_query != text)
            return;
        mergeRemote(*hits, text, ms);
    });
}

void PickerModel::cancelRemote() {
    m_remoteWork.stop();
    if (m_remote)
        m_remote->cancel();
}

bool PickerModel::remotePending() const {
    return m_remoteWork.isActive() || (m_remote && m_remote->isBusy());
}

void PickerModel::mergeRemote(const MemeList& remote, const QString& text, double ms) {
    Batch batch(this);
    QHash<QString, double> score;
    QHash<QString, Meme> items;
    for (qsizetype r = 0; r < m_localResults.size(); ++r) {
        const Meme& meme = m_localResults[r];
        score[meme.id] += 1.0 / double(r + FusedRanking::rankOffset);
        items.insert(meme.id, meme);
    }
    for (qsizetype r = 0; r < remote.size(); ++r) {
        const Meme& meme = remote[r];
        score[meme.id] += 1.0 / double(r + FusedRanking::rankOffset);
        // The local record wins over the cloud's copy of the same item.
        if (!items.contains(meme.id))
            items.insert(meme.id, meme);
    }
    const QString queryKey = WordFilter::foldedWords(text).join(u' ');
    for (auto it = score.begin(); it != score.end(); ++it) {
        const qint64 picks = m_userData->pickCount(queryKey, it.key());
        it.value() +=
            double(std::min(picks, FusedRanking::maxCountedPicks)) * FusedRanking::pickBoost;
        if (m_favorites.contains(it.key()))
            it.value() += FusedRanking::favoriteBoost;
    }
    std::vector<std::pair<QString, double>> ordered;
    ordered.reserve(std::size_t(score.size()));
    for (auto it = score.cbegin(); it != score.cend(); ++it)
        ordered.emplace_back(it.key(), it.value());
    std::stable_sort(ordered.begin(), ordered.end(), [](const auto& a, const auto& b) {
        return a.second != b.second ? a.second > b.second : a.first < b.first;
    });

    const QSet<QString> localIDs = [&] {
        QSet<QString> ids;
        for (const Meme& meme : m_localResults)
            ids.insert(meme.id);
        return ids;
    }();
    MemeList fused;
    fused.reserve(qsizetype(ordered.size()));
    qsizetype added = 0;
    for (const auto& [id, value] : ordered) {
        fused.append(items.value(id));
        if (!localIDs.contains(id))
            ++added;
    }

    const std::optional<Meme> kept = m_userMoved ? selectedItem() : std::nullopt;
    m_results = withMineOnTop(fused).mid(0, std::max(m_window, pageSize));
    m_selected = 0;
    if (kept) {
        const auto at = std::find_if(m_results.cbegin(), m_results.cend(),
                                     [&](const Meme& m) { return m.id == kept->id; });
        if (at != m_results.cend())
            m_selected = int(at - m_results.cbegin());
    }
    m_status = PickerTexts::remoteStatus(m_results.size(), added);
    prefetchSelection();
    metrics().write(QStringLiteral("search_remote"),
                    {{"q", text.toStdString()},
                     {"ms", ms},
                     {"hits", remote.size()},
                     {"added", added},
                     {"hybrid", DebugFlags::settings().boolean(QStringLiteral("semanticSearch"))}});
}

void PickerModel::runCollectionSearch(const QString& text) {
    m_selected = 0;
    m_userMoved = false;
    m_results.clear();
    m_collectionList.clear();
    if (!m_collections) {
        m_status = PickerTexts::collectionsLoading;
        return;
    }
    if (!m_openCollection) {
        m_collectionList = m_collections->search(text);
        m_status = PickerTexts::collectionListStatus(m_collectionList.size());
        return;
    }
    m_results = m_collections->stickers(*m_openCollection, text);
    m_status = PickerTexts::openCollectionStatus(m_results.size(), m_openCollection->count,
                                                 m_openCollection->name);
    prefetchSelection();
}

void PickerModel::runRecentSearch(const QString& text) {
    m_selected = 0;
    m_userMoved = false;
    const WordFilter filter(text);
    const auto pick = [&](const QStringList& ids) {
        MemeList found;
        for (const QString& id : ids) {
            const std::optional<Meme> meme = lookup(id);
            if (meme && filter.matches(*meme))
                found.append(*meme);
        }
        return found;
    };
    const MemeList recent = pick(m_userData->recents());
    const MemeList most = pick(m_userData->mostUsedIDs(mostUsedMinUses, mostUsedLimit));

    m_recentSections.clear();
    if (!recent.isEmpty())
        m_recentSections.append(
            {QStringLiteral("recent"), QStringLiteral("Recently used"), 0, recent});
    if (!most.isEmpty())
        m_recentSections.append(
            {QStringLiteral("most"), QStringLiteral("Most used"), int(recent.size()), most});
    m_results = recent + most;
    m_status = PickerTexts::recentStatus(recent.size(), most.size());
    prefetchSelection();
}

void PickerModel::runMineSearch(const QString& text) {
    m_selected = 0;
    m_userMoved = false;
    const MemeList mine = searchMine(text, mineTabLimit);
    const MemeList stickers = favoriteStickers(text);
    m_results = mine + stickers;
    m_status = m_mine.isEmpty() && stickers.isEmpty()
                   ? PickerTexts::mineEmpty
                   : PickerTexts::mineStatus(mine.size(), stickers.size());
    prefetchSelection();
}

MemeList PickerModel::favoriteStickers(const QString& text) const {
    if (!m_collections)
        return {};
    const WordFilter filter(text);
    MemeList out;
    // Oldest favourite first, so a new star lands at the end instead of reshuffling the tab.
    const QStringList& favorites = m_userData->favorites();
    for (auto it = favorites.crbegin(); it != favorites.crend(); ++it) {
        const std::optional<Meme> sticker = m_collections->sticker(*it);
        if (sticker && filter.matches(*sticker))
            out.append(*sticker);
    }
    return out;
}

std::optional<Meme> PickerModel::lookup(const QString& id) const {
    if (const auto found = m_byID.constFind(id); found != m_byID.constEnd())
        return *found;
    if (m_collections) {
        if (std::optional<Meme> sticker = m_collections->sticker(id))
            return sticker;
    }
    if (const auto found = m_mineByID.constFind(id); found != m_mineByID.constEnd())
        return *found;
    return std::nullopt;
}

// --- Tabs and keys ---

void PickerModel::switchTab(Tab tab) {
    if (tab == m_tab)
        return;
    Batch batch(this);
    cancelRemote();
    m_tab = tab;
    m_openCollection.reset();
    runSearch(m_query);
}

void PickerModel::nextTab() {
    stepTab(1);
}

void PickerModel::previousTab() {
    stepTab(-1);
}

void PickerModel::stepTab(int step) {
    switchTab(Tab((int(m_tab) + step + tabCount) % tabCount));
}

void PickerModel::setColumns(int columns) {
    Batch batch(this);
    m_columns = std::max(1, columns);
}

void PickerModel::moveBy(int delta) {
    Batch batch(this);
    m_userMoved = true;
    const int count = itemCount();
    if (count < 1)
        return;
    m_selected = std::clamp(m_selected + delta, 0, count - 1);
    prefetchSelection();
}

void PickerModel::select(int index) {
    if (index < 0 || index >= itemCount())
        return;
    Batch batch(this);
    m_selected = index;
    m_userMoved = true;
    prefetchSelection();
}

void PickerModel::insertSelected() {
    if (showingCollectionList()) {
        if (m_selected >= 0 && m_selected < m_collectionList.size())
            open(m_collectionList[m_selected]);
        return;
    }
    if (const std::optional<Meme> meme = selectedItem())
        emit insertRequested(*meme);
}

void PickerModel::open(const CollectionInfo& collection) {
    Batch batch(this);
    // Opening a collection can leave the Memes tab without a switchTab().
    cancelRemote();
    m_tab = Tab::collections;
    m_openCollection = collection;
    m_query.clear();
    ++m_focusToken;
    runSearch(m_query);
}

bool PickerModel::handleEscape() {
    if (m_tab != Tab::collections || !m_openCollection)
        return false;
    Batch batch(this);
    m_openCollection.reset();
    m_query.clear();
    ++m_focusToken;
    runSearch(m_query);
    return true;
}

void PickerModel::toggleFavoriteOfSelected() {
    const std::optional<Meme> meme = selectedItem();
    if (!meme)
        return;
    Batch batch(this);
    m_userData->toggleFavorite(meme->id);
    m_favorites = idSet(m_userData->favorites());
}

void PickerModel::prefetchSelection() {
    if (!m_store || showingCollectionList())
        return;
    MemeList wanted;
    if (const std::optional<Meme> meme = selectedItem())
        wanted.append(*meme);
    wanted.append(m_results.mid(0, prefetchHead));
    m_store->prefetch(wanted);
}

// --- Observable state ---

std::optional<Meme> PickerModel::selectedItem() const {
    if (showingCollectionList() || m_selected < 0 || m_selected >= m_results.size())
        return std::nullopt;
    return m_results[m_selected];
}

QString PickerModel::placeholder() const {
    switch (m_tab) {
    case Tab::memes:
        return PickerTexts::memesPlaceholder;
    case Tab::collections:
        return m_openCollection ? PickerTexts::openCollectionPlaceholder(m_openCollection->name)
                                : PickerTexts::collectionsPlaceholder;
    case Tab::recent:
        return PickerTexts::recentPlaceholder;
    case Tab::mine:
        return PickerTexts::minePlaceholder;
    }
    return {};
}

bool PickerModel::showingCollectionList() const {
    return m_tab == Tab::collections && !m_openCollection;
}

int PickerModel::itemCount() const {
    return int(showingCollectionList() ? m_collectionList.size() : m_results.size());
}

std::optional<QString> PickerModel::recentCellID(int index) const {
    for (const RecentSection& section : m_recentSections) {
        if (index >= section.start && index < section.start + section.items.size())
            return section.id + QLatin1Char('-') + section.items[index - section.start].id;
    }
    return std::nullopt;
}
