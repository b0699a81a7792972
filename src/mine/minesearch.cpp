// SPDX-License-Identifier: MIT
#include "mine/minesearch.h"

#include "search/textfold.h"

#include <algorithm>

namespace {

constexpr double fieldWeights[3] = {4, 2, 1};

// The best a query word does against one field: a whole word, else the start of one.
double fieldScore(const QString& word, const QStringList& words, double weight) {
    double best = 0;
    for (const QString& own : words) {
        if (own == word)
            return weight;
        if (own.startsWith(word))
            best = weight * 0.5;
    }
    return best;
}

} // namespace

MineSearch::MineSearch(MemeList items) : m_items(std::move(items)) {
    m_words.reserve(size_t(m_items.size()));
    for (const Meme& meme : m_items)
        m_words.push_back({TextFold::tokens(meme.description),
                           TextFold::tokens(meme.keywords.join(u' ')),
                           TextFold::tokens(meme.ocr_text)});
}

MemeList MineSearch::search(const QString& text, int limit) const {
    const QStringList query = TextFold::tokens(text);
    if (query.isEmpty())
        return m_items.mid(0, std::max(0, limit));

    struct Hit {
        double score;
        size_t index;
    };
    std::vector<Hit> hits;
    for (size_t i = 0; i < m_words.size(); ++i) {
        double total = 0;
        bool all = true;
        for (const QString& word : query) {
            double best = 0;
            for (size_t f = 0; f < 3; ++f)
                best = std::max(best, fieldScore(word, m_words[i][f], fieldWeights[f]));
            if (best == 0) {
                all = false;
                break;
            }
            total += best;
        }
        if (all)
            hits.push_back({total, i});
    }
    std::stable_sort(hits.begin(), hits.end(),
                     [](const Hit& a, const Hit& b) { return a.score > b.score; });
    MemeList out;
    for (const Hit& hit : hits) {
        if (out.size() >= limit)
            break;
        out.append(m_items[qsizetype(hit.index)]);
    }
    return out;
}

MemeList MineSearch::search(const QString& text, const MemeList& items, int limit) {
    return MineSearch(items).search(text, limit);
}
