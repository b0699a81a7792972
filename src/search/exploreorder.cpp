// SPDX-License-Identifier: MIT
#include "search/exploreorder.h"

#include <algorithm>

namespace {

// The Julian day number of 1 January AD 1 in the Julian calendar, which the Gregorian
// calendar uses before October 1582.
constexpr std::int64_t eraStartJulianDay = 1721424;

// Maps UTF-16 code units so that comparing them orders by code point: surrogates (which
// encode code points above U+FFFF) move above U+E000..U+FFFF.
char16_t codePointRank(char16_t unit) {
    if (unit >= 0xE000)
        return char16_t(unit - 0x800);
    if (unit >= 0xD800)
        return char16_t(unit + 0x2000);
    return unit;
}

} // namespace

std::int64_t ExploreOrder::dayNumber(QDate date) {
    if (!date.isValid())
        return 0;
    return date.toJulianDay() - eraStartJulianDay + 1;
}

std::int64_t ExploreOrder::today() {
    return dayNumber(QDate::currentDate());
}

bool ExploreOrder::codePointLess(const QString& a, const QString& b) {
    const qsizetype common = std::min(a.size(), b.size());
    for (qsizetype i = 0; i < common; ++i) {
        const char16_t x = a[i].unicode(), y = b[i].unicode();
        if (x != y)
            return codePointRank(x) < codePointRank(y);
    }
    return a.size() < b.size();
}

const QStringList& ExploreOrder::order(const QHash<QString, Meme>& byID, std::int64_t day) {
    if (day == m_day && m_explore.size() == byID.size())
        return m_explore;
    m_day = day;
    QStringList base(byID.keyBegin(), byID.keyEnd());
    std::sort(base.begin(), base.end(), codePointLess);
    m_explore = shuffled(std::move(base), std::uint64_t(day));
    return m_explore;
}
