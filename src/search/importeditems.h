// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QString>

// The user's imported images as the Memes tab finds them: by the words of their tags and by
// their collection's name, with the index's word rule (every query word prefix-matches some
// word). Held in memory, since a few thousand items search in well under a millisecond and a
// reload must show at once.
class ImportedItems {
public:
    explicit ImportedItems(const MemeList& items);

    // At most `limit` matching items in collection order; none for a query without words.
    MemeList search(const QString& text, int limit) const;
    bool isEmpty() const { return m_items.isEmpty(); }
    qsizetype size() const { return m_items.size(); }

private:
    struct Entry {
        Meme meme;
        QStringList words;
    };
    QList<Entry> m_items;
};
