// SPDX-License-Identifier: MIT
#pragma once

#include "search/collectionsource.h"

#include <QHash>

// The collections published by the catalog server, with their stickers, searchable in
// memory by name, theme and keywords (every word must prefix-match).
class ServerCollections : public CollectionSource {
public:
    ServerCollections(CollectionList collections, const MemeList& stickers);

    CollectionList search(const QString& text) const override;
    MemeList stickers(const CollectionInfo& collection, const QString& text) const override;
    std::optional<Meme> sticker(const QString& id) const override;

private:
    struct Entry {
        CollectionInfo info;
        QStringList words;
    };
    QList<Entry> m_collections;
    // Per collection id, its stickers in their published order, with their words.
    QHash<QString, QList<std::pair<Meme, QStringList>>> m_stickers;
    QHash<QString, Meme> m_byID;
};
