// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QString>
#include <QStringList>
#include <array>
#include <vector>

// Search over the user's own items, which are few and held in memory: no index, one pass over
// words folded once when the list changes, so a keystroke folds only the query. Headless, so
// the picker model can use it without Qt Gui.
//
// Words are folded as the catalog folds them; a query word matches a word of the item it
// begins. An item's own label (`description`) counts most, then its emoji name (`keywords`),
// then the words read from the image (`ocr_text`); a whole-word match beats a prefix. Ties
// keep the order of the items (newest first). An empty query lists the first `limit` items.
class MineSearch {
public:
    MineSearch() = default;
    explicit MineSearch(MemeList items);

    // The items whose words cover every word of `text`, best first, at most `limit`.
    MemeList search(const QString& text, int limit) const;
    // One search over `items`, folding them for this call only.
    static MemeList search(const QString& text, const MemeList& items, int limit);

private:
    MemeList m_items;
    // Per item: its label's, emoji name's and read words, folded.
    std::vector<std::array<QStringList, 3>> m_words;
};
