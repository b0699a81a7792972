// SPDX-License-Identifier: MIT
#pragma once

#include "search/collectionsource.h"

#include <QHash>
#include <vector>

// Every collection the picker knows (the user's imported folders, the server's collections
// and its sticker sets) in one index, built once per change and then only read. A keystroke
// looks each query word up in a sorted vocabulary, so its cost follows the matches, not the
// number of collections.
//
// Ranking: a collection matches when every query word is a prefix of a word of its name,
// theme or keywords (folded like the catalog). Those whose name holds more of the query words
// come first, then larger collections, then the order they were given in. The empty query
// lists every collection in the order given.
class CollectionIndex : public CollectionSource {
public:
    // `collections` in the order the empty query shows them.
    CollectionIndex(CollectionList collections, const MemeList& stickers);

    CollectionList search(const QString& text) const override;
    // In the collection's published order.
    MemeList stickers(const CollectionInfo& collection, const QString& text) const override;
    std::optional<Meme> sticker(const QString& id) const override;

    qsizetype collectionCount() const { return qsizetype(m_collections.size()); }
    qsizetype stickerCount() const { return m_byID.size(); }

private:
    struct Word {
        QString text;
        int collection = 0;
        bool inName = false;
    };
    struct Sticker {
        Meme meme;
        QStringList words;
    };
    std::vector<CollectionInfo> m_collections;
    // Sorted by text; one entry per distinct word of a collection.
    std::vector<Word> m_vocabulary;
    // Per collection id, its stickers in their published order.
    QHash<QString, QList<Sticker>> m_stickers;
    QHash<QString, Meme> m_byID;
};
