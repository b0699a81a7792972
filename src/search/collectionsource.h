// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QString>
#include <optional>

// What the picker asks of the collection index: server collections, sticker sets and
// imported folders, searchable by name and keywords, with their stickers. Called on the GUI
// thread for every keystroke in the Collections tab, so answers must come from memory.
class CollectionSource {
public:
    virtual ~CollectionSource() = default;

    // The collections matching `text`, in display order; every collection for an empty text.
    virtual CollectionList search(const QString& text) const = 0;
    // The stickers of `collection` matching `text`, in display order; all of them for an
    // empty text.
    virtual MemeList stickers(const CollectionInfo& collection, const QString& text) const = 0;
    // The sticker with this id in any collection; none when no collection holds it.
    virtual std::optional<Meme> sticker(const QString& id) const = 0;
};
