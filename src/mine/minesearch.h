// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QString>

// Search over the user's own items, which are few and held in memory: no index, one pass.
// Headless, so the picker model can use it without Qt Gui.
namespace MineSearch {
// The items of `items` whose words cover every word of `text`, best first, at most `limit`.
// Words are folded as the catalog folds them; a query word matches a word of the item it
// begins. An item's own label (`description`) counts most, then its emoji name (`keywords`),
// then the words read from the image (`ocr_text`); a whole-word match beats a prefix. Ties
// keep the order of `items` (newest first). An empty query lists the first `limit` items.
MemeList search(const QString& text, const MemeList& items, int limit);
} // namespace MineSearch
