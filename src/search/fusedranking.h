// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QHash>
#include <QSet>
#include <QString>
#include <functional>

class LocalIndex;
class UserData;

// The live ranking behind the picker: the index's bm25 order fused with what the user picked
// before for the same words and with favourites; for a query without words, favourites,
// recents, then the day's mix. The picker model owns the inputs and calls this on the GUI
// thread for every query and page.
namespace FusedRanking {
// Reciprocal-rank constant: the base score of 0-based rank r is 1 / (r + rankOffset).
inline constexpr double rankOffset = 60;
// Each earlier pick of the item for the same query adds this, up to maxCountedPicks picks:
// five picks (0.020) lift an item above everything that has none.
inline constexpr double pickBoost = 0.004;
inline constexpr qint64 maxCountedPicks = 5;
// A favourite moves up roughly ten places near the top.
inline constexpr double favoriteBoost = 0.003;

struct Inputs {
    LocalIndex& index;
    const QHash<QString, Meme>& byID;
    // How many ranked results the current page shows.
    int window;
    const UserData& userData;
    // The published favourite ids (for the boost).
    const QSet<QString>& favorites;
    // The day's mix of the whole catalog's ids; only called for a query without words.
    std::function<const QStringList&()> exploreOrder;
};

// At most `window` ranked items for a query with words. Without words: every known
// favourite and recent item (not limited by `window`), then the day's mix while fewer
// than `window` are held; each item once.
MemeList rank(const QString& query, const Inputs& inputs);
} // namespace FusedRanking
