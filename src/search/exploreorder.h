// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QDate>
#include <QHash>
#include <QString>
#include <cstdint>
#include <utility>

// A Fisher-Yates shuffle from the end driven by SplitMix64: the same list and seed always
// give the same order. Works on QList and std::vector alike.
template <class List> List shuffled(List list, std::uint64_t seed) {
    if (list.size() < 2)
        return list;
    // Twice the increment below.
    std::uint64_t state = seed + 0x3C6EF372FE94F82AULL;
    for (auto n = std::uint64_t(list.size()); n >= 2; --n) {
        std::uint64_t z = state;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        z = z ^ (z >> 31);
        const std::uint64_t j = z % n;
        const std::uint64_t i = n - 1;
        if (j != i) {
            using std::swap;
            swap(list[decltype(list.size())(i)], list[decltype(list.size())(j)]);
        }
        state += 0x9E3779B97F4A7C15ULL;
    }
    return list;
}

// The day's mix of the whole catalog for the empty query: every item once, in an order
// that holds for a calendar day and changes the next. GUI thread, like the model owning it.
class ExploreOrder {
public:
    // The ordinal of `date` within the Common Era, counting 1 January of year 1 as day 1 the
    // way the Gregorian calendar with its 1582 changeover numbers it.
    static std::int64_t dayNumber(QDate date);
    // Today's number in local time, so the mix changes at local midnight.
    static std::int64_t today();

    // The catalog's ids sorted in code point order, then shuffled with the day as seed.
    // Recomputed only when the day or the catalog's size changed since the last call. Ids,
    // not items: a second copy of every item would cost as much as the catalog itself.
    const QStringList& order(const QHash<QString, Meme>& byID, std::int64_t day);
    const QStringList& order(const QHash<QString, Meme>& byID) { return order(byID, today()); }

    // Whether `a` sorts before `b` by Unicode code points (UTF-16 order differs above the
    // surrogates).
    static bool codePointLess(const QString& a, const QString& b);

private:
    QStringList m_explore;
    std::int64_t m_day = -1;
};
