// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"
#include "mine/minesearch.h"
#include "search/captiondraft.h"
#include "search/exploreorder.h"

#include <QElapsedTimer>
#include <QHash>
#include <QList>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>
#include <memory>
#include <optional>

class CollectionSource;
class ImportedItems;
class LocalIndex;
class MemeStore;
class Metrics;
class RemoteSearch;
class UserData;

// The view model behind the picker panel: the query, the active tab, the list the grid
// shows, the selection, the status line and the search field's placeholder. Every key the
// panel handles and every scroll towards the end of the grid ends in one of its operations.
// It ranks through FusedRanking over the local index and fetches no images itself beyond
// asking the store to prefetch around the selection.
//
// GUI thread only. Each operation changes all its state first and then emits one change
// signal per property that changed, so a slot always reads a consistent model.
class PickerModel : public QObject {
    Q_OBJECT
public:
    // In Tab-key order.
    enum class Tab { memes = 0, collections = 1, recent = 2, mine = 3 };
    Q_ENUM(Tab)

    // One block of the Recent tab: `items` stand at [start, start + items.size()) in
    // results().
    struct RecentSection {
        QString id; // "recent" or "most"
        QString title;
        int start = 0;
        MemeList items;

        friend bool operator==(const RecentSection&, const RecentSection&) = default;
    };

    static constexpr int pageSize = 60;
    // A cell this close to the end of the list asks for the next page.
    static constexpr int pageAheadCells = 15;
    // How many of the user's own items go in front of the ranked Memes results.
    static constexpr int mineOnTop = 8;
    static constexpr int mineTabLimit = 60;
    // Besides the selected item, the first results are prefetched.
    static constexpr int prefetchHead = 12;
    // Pause after the last keystroke before the cloud is asked. The worker is a fallback for
    // queries the local index barely answers, so it waits longer.
    static constexpr int remoteDelayEngineMs = 100;
    static constexpr int remoteDelayWorkerMs = 300;
    // The worker is asked only when the local ranking holds at most this many items...
    static constexpr int workerMaxLocalResults = 2;
    // ...for a query of at least this many characters.
    static constexpr int workerMinQueryChars = 3;

    // `store` may be null (nothing is prefetched, metrics go to the process-wide log);
    // `userData` must outlive the model.
    PickerModel(MemeStore* store, UserData* userData, QObject* parent = nullptr);
    ~PickerModel() override;

    // --- Feeding the model ---

    // A catalog is ready: searches go to `index`, ids map to `memes`. Re-runs the query.
    void setIndex(std::shared_ptr<LocalIndex> index, const MemeList& memes);
    // The user's own library as catalog-shaped records. Re-runs the query in the Memes and
    // Mine tabs, the two that show these items.
    void setMine(const MemeList& memes);
    // The collection index; null until it is built. Re-runs the query outside the Memes tab.
    void setCollections(std::shared_ptr<const CollectionSource> collections);
    // The user's imported images, searched in the Memes tab beside the catalog; null for
    // none. Re-runs the query in the Memes tab.
    void setImported(std::shared_ptr<const ImportedItems> imported);
    // The catalog could not be loaded: while no index is set, the Memes tab shows no results
    // and `message` as its status. Ignored once an index is set (that copy stays in use).
    void showLoadFailure(const QString& message);
    // Whether synthesised paste works; kept current by the insertion side.
    void setAccessibilityOK(bool ok);

    // --- Search and paging ---

    // The search field's text changed: back to the first page, then search, timing the
    // "search" metric from now.
    void searchTextEdited(const QString& text);
    // A new query in the active tab. `startedAt`, when given, is when the user typed it;
    // only then is the "search" metric logged.
    void runSearch(const QString& text, std::optional<QElapsedTimer> startedAt = std::nullopt);
    // Back to the first page and the same query again (after the history was cleared).
    void resetWindowAndRerun();
    // The grid shows the cell at `index`: near the end of a Memes list, the next page is
    // ranked and appended. Other tabs show their whole list and never page.
    void loadMoreIfNeeded(int index);

    // A cloud answer for `text` arrived `ms` after it was asked: fuses it with the local
    // ranking (reciprocal ranks, the user's picks for the query, favourites) and shows the
    // result with the Mine matches on top. Paging later goes back to the local ranking.
    void mergeRemote(const MemeList& remote, const QString& text, double ms);
    // Whether a cloud search is waiting for its debounce or for its answer.
    bool remotePending() const;

    // --- Tabs and keys ---

    // Shows tab `tab` for the current query; nothing when it is already active.
    void switchTab(Tab tab);
    // Tab and Shift+Tab: memes → collections → recent → mine → memes, and back.
    void nextTab();
    void previousTab();
    // The grid's column count; at least 1.
    void setColumns(int columns);
    // Arrow keys: ±1 for left/right, ±columns() for up/down. Stops at the first and last
    // cell; marks the selection as moved by the user even when nothing can move.
    void moveBy(int delta);
    // A click on cell `index`; out of range does nothing.
    void select(int index);
    // Enter: opens the selected collection while the collection list shows, otherwise emits
    // insertRequested() for the selected item. Out of range does nothing.
    void insertSelected();
    // Shows the stickers of `collection` (Collections tab) with an empty query.
    void open(const CollectionInfo& collection);
    // Esc: true when the model used the key (an open collection went back to the list);
    // false means the panel should hide.
    bool handleEscape();
    // Ctrl+D on the selected result (not on the collection list).
    void toggleFavoriteOfSelected();

    // --- Caption editor ---

    // Ctrl+E: opens the caption editor on the selected result and fetches its full image. Not
    // on the collection list, nor on the user's own items (their library builds their paste).
    void beginCaption();
    // The user changed one of the lines.
    void setCaptionLine(CaptionDraft::Line line, const QString& text);
    // Tab in the editor: the other line takes the keys.
    void nextCaptionLine();
    // The user clicked into a line.
    void captionLineFocused(CaptionDraft::Line line);
    // Esc or Back: closes the editor and drops its lines; the search field takes the keys.
    // Nothing when it is closed.
    void cancelCaption();
    // Enter or Done: closes the editor and emits captionInsertRequested(), or insertRequested()
    // when both lines are blank. Nothing when it is closed.
    void insertCaption();

    // --- Observable state ---

    int columns() const { return m_columns; }
    const QString& query() const { return m_query; }
    // What the grid shows, in display order (empty while the collection list shows).
    const MemeList& results() const { return m_results; }
    // Index into results(), or into collectionList() while the collection list shows.
    int selected() const { return m_selected; }
    // The selected result; none while the collection list shows or out of range.
    std::optional<Meme> selectedItem() const;
    // Bumped each time the search field should take keyboard focus again.
    int focusToken() const { return m_focusToken; }
    const QString& status() const { return m_status; }
    bool accessibilityOK() const { return m_accessibilityOK; }
    Tab tab() const { return m_tab; }
    // The collection whose stickers the Collections tab shows; none for the collection list.
    const std::optional<CollectionInfo>& openCollection() const { return m_openCollection; }
    const CollectionList& collectionList() const { return m_collectionList; }
    const QList<RecentSection>& recentSections() const { return m_recentSections; }
    const QSet<QString>& favorites() const { return m_favorites; }
    bool isFavorite(const QString& id) const { return m_favorites.contains(id); }
    int mineCount() const { return int(m_mine.size()); }
    // The search field's placeholder for the active tab.
    QString placeholder() const;
    // The caption being written; none while the editor is closed.
    const std::optional<CaptionDraft>& caption() const { return m_caption; }
    // Bumped each time the caption line caption()->focus should take the keyboard.
    int captionFocusToken() const { return m_captionFocusToken; }

    // True in the Collections tab while no collection is open.
    bool showingCollectionList() const;
    // Cells the grid shows: collectionList() while it shows, else results().
    int itemCount() const;
    // A cell identity for the Recent tab that tells apart the same item standing in both
    // sections ("recent-<id>", "most-<id>"); none outside every section.
    std::optional<QString> recentCellID(int index) const;
    bool hasIndex() const { return bool(m_index); }
    // Whether the user moved the selection since the last search.
    bool userMoved() const { return m_userMoved; }
    // How many ranked results the Memes tab currently asks for.
    int window() const { return m_window; }

signals:
    void columnsChanged();
    void queryChanged();
    // The list was replaced; selected() already refers to the new list.
    void resultsChanged();
    void selectedChanged();
    void focusRequested();
    void statusChanged();
    void accessibilityOKChanged();
    void tabChanged();
    void openCollectionChanged();
    void collectionListChanged();
    void recentSectionsChanged();
    void favoritesChanged();
    void mineCountChanged();
    void placeholderChanged();
    // Enter on a result: the panel hands `meme` to the insertion path.
    void insertRequested(const Meme& meme);
    // The caption editor opened, closed, or its lines or image changed.
    void captionChanged();
    void captionFocusRequested();
    // Done in the caption editor: `meme` is inserted with the caption drawn on it.
    void captionInsertRequested(const Meme& meme, const QString& top, const QString& bottom);

private:
    class Batch;

    void runMemesSearch(const QString& text, std::optional<QElapsedTimer> startedAt);
    void runCollectionSearch(const QString& text);
    void runRecentSearch(const QString& text);
    void runMineSearch(const QString& text);
    MemeList rank(const QString& text);
    MemeList withMineOnTop(const MemeList& ranked) const;
    MemeList searchMine(const QString& text, int limit) const;
    MemeList favoriteStickers(const QString& text) const;
    std::optional<Meme> lookup(const QString& id) const;
    void stepTab(int step);
    void prefetchSelection();
    void logSearch(const QString& text, qsizetype ranked, double computeMs,
                   const QElapsedTimer& startedAt);
    void scheduleRemote(const QString& text);
    void runRemote();
    void cancelRemote();
    Metrics& metrics() const;

    MemeStore* m_store;
    UserData* m_userData;

    int m_columns = 4;
    QString m_query;
    MemeList m_results;
    int m_selected = 0;
    int m_focusToken = 0;
    QString m_status;
    bool m_accessibilityOK = true;
    Tab m_tab = Tab::memes;
    std::optional<CollectionInfo> m_openCollection;
    CollectionList m_collectionList;
    QList<RecentSection> m_recentSections;
    QSet<QString> m_favorites;

    std::shared_ptr<LocalIndex> m_index;
    QHash<QString, Meme> m_byID;
    ExploreOrder m_explore;
    std::optional<QString> m_loadFailure;
    int m_window = pageSize;
    bool m_moreAvailable = false;
    // The last ranking before the user's own items went in front; the place a later merge
    // with other result sources starts from.
    MemeList m_localResults;
    MemeList m_mine;
    MineSearch m_mineSearch;
    QHash<QString, Meme> m_mineByID;
    MemeList m_mineMatches;
    std::shared_ptr<const CollectionSource> m_collections;
    std::shared_ptr<const ImportedItems> m_imported;
    bool m_userMoved = false;
    // The cloud client for the current configuration; replaced when the settings change.
    std::unique_ptr<RemoteSearch> m_remote;
    // The debounce of the next cloud search, for m_remoteText.
    QTimer m_remoteWork;
    QString m_remoteText;
    std::optional<CaptionDraft> m_caption;
    int m_captionFocusToken = 0;
    // Tells a full image that arrives for an earlier caption from the current one's.
    quint64 m_captionGeneration = 0;
    // Nesting depth of Batch, so only the outermost operation announces changes.
    int m_batchDepth = 0;
};
