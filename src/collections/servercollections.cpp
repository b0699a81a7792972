// SPDX-License-Identifier: MIT
#include "collections/servercollections.h"

#include "search/textfold.h"

#include <algorithm>

namespace {

QStringList wordsOf(const QStringList& fields) { return TextFold::tokens(fields.join(QLatin1Char(' '))); }

bool matchesAll(const QStringList& query, const QStringList& words) {
    return std::all_of(query.begin(), query.end(), [&](const QString& q) {
        return std::any_of(words.begin(), words.end(),
                           [&](const QString& w) { return w.startsWith(q); });
    });
}

} // namespace

ServerCollections::ServerCollections(CollectionList collections, const MemeList& stickers) {
    for (CollectionInfo& c : collections) {
        QStringList fields{c.name, c.name_en, c.theme.value_or(QString())};
        fields += c.keywords;
        m_collections.append({std::move(c), wordsOf(fields)});
    }
    for (const Meme& m : stickers) {
        if (!m.collection_id)
            continue;
        QStringList fields{m.description, m.template_, m.ocr_text, m.character.value_or(QString())};
        fields += m.keywords + m.emotions + m.use_cases;
        m_stickers[*m.collection_id].append({m, wordsOf(fields)});
        m_byID.insert(m.id, m);
    }
    for (auto& list : m_stickers)
        std::stable_sort(list.begin(), list.end(), [](const auto& a, const auto& b) {
            return a.first.order.value_or(INT64_MAX) < b.first.order.value_or(INT64_MAX);
        });
}

CollectionList ServerCollections::search(const QString& text) const {
    const QStringList query = TextFold::tokens(text);
    CollectionList out;
    for (const Entry& e : m_collections)
        if (matchesAll(query, e.words))
            out.append(e.info);
    return out;
}

MemeList ServerCollections::stickers(const CollectionInfo& collection, const QString& text) const {
    const QStringList query = TextFold::tokens(text);
    MemeList out;
    for (const auto& [meme, words] : m_stickers.value(collection.id))
        if (matchesAll(query, words))
            out.append(meme);
    return out;
}

std::optional<Meme> ServerCollections::sticker(const QString& id) const {
    const auto it = m_byID.constFind(id);
    return it == m_byID.constEnd() ? std::nullopt : std::optional(*it);
}
