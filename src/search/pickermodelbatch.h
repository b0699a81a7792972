// SPDX-License-Identifier: MIT
// PickerModel's change batching, shared by the files that implement the model.
#pragma once

#include "search/pickermodel.h"

#include <memory>

// Collects the changes of one operation and announces them when the outermost operation
// ends, so that no slot sees results from one search and the status of another.
class PickerModel::Batch {
public:
    explicit Batch(PickerModel* model) : m_model(model) {
        if (m_model->m_batchDepth++ == 0)
            m_before = std::make_unique<Snapshot>(*model);
    }
    ~Batch() {
        // Leave the batch before emitting, so a slot that calls back in starts its own.
        if (--m_model->m_batchDepth == 0 && m_before)
            announce(*m_before);
    }
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

private:
    struct Snapshot {
        explicit Snapshot(const PickerModel& m)
            : columns(m.m_columns), query(m.m_query), results(m.m_results), selected(m.m_selected),
              focusToken(m.m_focusToken), status(m.m_status), accessibilityOK(m.m_accessibilityOK),
              tab(m.m_tab), openCollection(m.m_openCollection), collectionList(m.m_collectionList),
              recentSections(m.m_recentSections), favorites(m.m_favorites),
              mineCount(m.mineCount()), placeholder(m.placeholder()), caption(m.m_caption),
              captionFocusToken(m.m_captionFocusToken) {}
        int columns;
        QString query;
        MemeList results;
        int selected;
        int focusToken;
        QString status;
        bool accessibilityOK;
        Tab tab;
        std::optional<CollectionInfo> openCollection;
        CollectionList collectionList;
        QList<RecentSection> recentSections;
        QSet<QString> favorites;
        int mineCount;
        QString placeholder;
        std::optional<CaptionDraft> caption;
        int captionFocusToken;
    };

    void announce(const Snapshot& was) {
        PickerModel& m = *m_model;
        // Outer state first: the panel sets up the tab and the search field before it
        // redraws the grid and the status line.
        if (was.tab != m.m_tab)
            emit m.tabChanged();
        if (was.openCollection != m.m_openCollection)
            emit m.openCollectionChanged();
        if (was.query != m.m_query)
            emit m.queryChanged();
        if (was.placeholder != m.placeholder())
            emit m.placeholderChanged();
        if (was.columns != m.m_columns)
            emit m.columnsChanged();
        if (was.collectionList != m.m_collectionList)
            emit m.collectionListChanged();
        if (was.recentSections != m.m_recentSections)
            emit m.recentSectionsChanged();
        if (was.results != m.m_results)
            emit m.resultsChanged();
        if (was.selected != m.m_selected)
            emit m.selectedChanged();
        if (was.favorites != m.m_favorites)
            emit m.favoritesChanged();
        if (was.mineCount != m.mineCount())
            emit m.mineCountChanged();
        if (was.status != m.m_status)
            emit m.statusChanged();
        if (was.accessibilityOK != m.m_accessibilityOK)
            emit m.accessibilityOKChanged();
        // The editor shows or goes before anything in it or the search field takes the keys.
        if (was.caption != m.m_caption)
            emit m.captionChanged();
        if (was.focusToken != m.m_focusToken)
            emit m.focusRequested();
        if (was.captionFocusToken != m.m_captionFocusToken)
            emit m.captionFocusRequested();
    }

    PickerModel* m_model;
    std::unique_ptr<Snapshot> m_before;
};
