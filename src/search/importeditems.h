// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QString>
#include <vector>

// The user's imported images as the Memes tab finds them: by the words of their tags and by
// their collection's name, with the index's word rule (every query word prefix-matches some
// word). Held in memory with a sorted word list, so a reload shows at once and a keystroke
// costs a few binary searches.
class ImportedItems {
public:
    explicit ImportedItems(const MemeList& items);

    // At most `limit` matching items in collection order; none for a query without words.
    MemeList search(const QString& text, int limit) const;
    bool isEmpty() const { return m_items.isEmpty(); }
    qsizetype size() const { return m_items.size(); }

private:
    MemeList m_items;
    // Every word once, sorted, with the items (ascending positions) that hold it.
    QStringList m_words;
    std::vector<std::vector<int>> m_holders;
};
