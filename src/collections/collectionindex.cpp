// SPDX-License-Identifier: MIT
#include "collections/collectionindex.h"

#include "search/textfold.h"

#include <algorithm>

namespace {

bool matchesAll(const QStringList& query, const QStringList& words) {
    return std::all_of(query.begin(), query.end(), [&](const QString& q) {
        return std::any_of(words.begin(), words.end(),
                           [&](const QString& w) { return w.startsWith(q); });
    });
}

QStringList stickerWords(const Meme& m) {
    QStringList fields{m.description, m.template_, m.ocr_text, m.character.value_or(QString())};
    fields += m.keywords + m.emotions + m.use_cases;
    return TextFold::tokens(fields.join(QLatin1Char(' ')));
}

} // namespace

CollectionIndex::CollectionIndex(CollectionList collections, const MemeList& stickers) {
    m_collections.reserve(collections.size());
    for (CollectionInfo& c : collections) {
        const int at = int(m_collections.size());
        QHash<QString, bool> words; // word → found in the name
        for (const QString& w : TextFold::tokens(c.name + QLatin1Char(' ') + c.name_en))
            words.insert(w, true);
        QStringList others = c.keywords;
        others.append(c.theme.value_or(QString()));
        for (const QString& w : TextFold::tokens(others.join(QLatin1Char(' '))))
            if (!words.contains(w))
                words.insert(w, false);
        for (auto it = words.cbegin(); it != words.cend(); ++it)
            m_vocabulary.push_back({it.key(), at, it.value()});
        m_collections.push_back(std::move(c));
    }
    std::sort(m_vocabulary.begin(), m_vocabulary.end(),
              [](const Word& a, const Word& b) { return a.text < b.text; });

    for (const Meme& m : stickers) {
        if (!m.collection_id)
            continue;
        m_stickers[*m.collection_id].append({m, stickerWords(m)});
        m_byID.insert(m.id, m);
    }
    for (auto& list : m_stickers)
        std::stable_sort(list.begin(), list.end(), [](const Sticker& a, const Sticker& b) {
            return a.meme.order.value_or(INT64_MAX) < b.meme.order.value_or(INT64_MAX);
        });
}

CollectionList CollectionIndex::search(const QString& text) const {
    const QStringList query = TextFold::tokens(text);
    if (query.isEmpty())
        return CollectionList(m_collections.begin(), m_collections.end());

    // Per collection: how many query words it matched so far, and how many in its name.
    // A word matches a collection at most once, however many of its words share the prefix.
    struct Hits {
        int words = 0;
        int inName = 0;
        int lastWord = -1;
        bool lastInName = false;
    };
    std::vector<Hits> hits(m_collections.size());
    for (int qi = 0; qi < query.size(); ++qi) {
        const QString& q = query[qi];
        auto it = std::lower_bound(m_vocabulary.begin(), m_vocabulary.end(), q,
                                   [](const Word& w, const QString& s) { return w.text < s; });
        for (; it != m_vocabulary.end() && it->text.startsWith(q); ++it) {
            Hits& h = hits[size_t(it->collection)];
            if (h.lastWord != qi) {
                if (h.words != qi) // missed an earlier word
                    continue;
                h.lastWord = qi;
                h.lastInName = false;
                ++h.words;
            }
            if (it->inName && !h.lastInName) {
                h.lastInName = true;
                ++h.inName;
            }
        }
    }

    std::vector<std::pair<int, int>> found; // (collection, name hits)
    for (size_t at = 0; at < hits.size(); ++at)
        if (hits[at].words == query.size())
            found.emplace_back(int(at), hits[at].inName);
    std::sort(found.begin(), found.end(), [this](const auto& a, const auto& b) {
        if (a.second != b.second)
            return a.second > b.second;
        const std::int64_t ca = m_collections[size_t(a.first)].count;
        const std::int64_t cb = m_collections[size_t(b.first)].count;
        if (ca != cb)
            return ca > cb;
        return a.first < b.first;
    });
    CollectionList out;
    out.reserve(qsizetype(found.size()));
    for (const auto& [at, nameHits] : found)
        out.append(m_collections[size_t(at)]);
    return out;
}

MemeList CollectionIndex::stickers(const CollectionInfo& collection, const QString& text) const {
    const QStringList query = TextFold::tokens(text);
    MemeList out;
    for (const Sticker& s : m_stickers.value(collection.id))
        if (matchesAll(query, s.words))
            out.append(s.meme);
    return out;
}

std::optional<Meme> CollectionIndex::sticker(const QString& id) const {
    const auto it = m_byID.constFind(id);
    return it == m_byID.constEnd() ? std::nullopt : std::optional(*it);
}
