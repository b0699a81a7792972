// SPDX-License-Identifier: MIT
#include "mine/minesearch.h"

#include "search/textfold.h"

#include <algorithm>
#include <vector>

namespace {

struct Field {
    QStringList words;
    double weight;
};

// The best a query word does against one field: a whole word, else the start of one.
double fieldScore(const QString& word, const Field& field) {
    double best = 0;
    for (const QString& own : field.words) {
        if (own == word)
            return field.weight;
        if (own.startsWith(word))
            best = field.weight * 0.5;
    }
    return best;
}

} // namespace

namespace MineSearch {

MemeList search(const QString& text, const MemeList& items, int limit) {
    const QStringList words = TextFold::tokens(text);
    if (words.isEmpty())
        return items.mid(0, std::max(0, limit));

    struct Hit {
        double score;
        qsizetype index;
    };
    std::vector<Hit> hits;
    for (qsizetype i = 0; i < items.size(); ++i) {
        const Meme& meme = items[i];
        const Field fields[] = {{TextFold::tokens(meme.description), 4},
                                {TextFold::tokens(meme.keywords.join(u' ')), 2},
                                {TextFold::tokens(meme.ocr_text), 1}};
        double total = 0;
        bool all = true;
        for (const QString& word : words) {
            double best = 0;
            for (const Field& field : fields)
                best = std::max(best, fieldScore(word, field));
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
        out.append(items[hit.index]);
    }
    return out;
}

} // namespace MineSearch
