// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QString>
#include <cstdint>
#include <string>
#include <vector>

// The in-memory ranker: every query token must prefix-match a token of one of the six
// searchable fields; each token scores the best weight among the fields it matches
// (5, 4, 3, 3, 2, 1 as in the index), and ties go to popularity, then catalog order.
// Needs no database; the benchmark measures the index against it. Immutable after
// construction, so any thread may search.
class SearchEngine {
public:
    static constexpr int fieldCount = 6;

    // Tokenises every field of every item once, and sorts the items by popularity.
    explicit SearchEngine(const MemeList& memes);

    // The best `limit` items for `text`; the `limit` most popular when it has no tokens.
    MemeList search(const QString& text, int limit) const;

    qsizetype size() const { return m_memes.size(); }
    // All items by popularity, highest first (absent counts 0), catalog order among equals.
    MemeList popular() const;

private:
    MemeList m_memes;
    std::vector<std::uint32_t> m_popular;   // indexes into m_memes
    std::vector<std::int64_t> m_popularity; // by catalog index, absent = 0
    // Every field's tokens as UTF-8 bytes, back to back: token i is
    // m_bytes[m_tokenStart[i], m_tokenStart[i + 1]); field f of entry e holds tokens
    // m_fieldStart[e * fieldCount + f] up to the next field's start.
    std::string m_bytes;
    std::vector<std::uint32_t> m_tokenStart;
    std::vector<std::uint32_t> m_fieldStart;
};
