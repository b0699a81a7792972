// SPDX-License-Identifier: MIT
#include "search/importeditems.h"

#include "search/textfold.h"

#include <algorithm>

ImportedItems::ImportedItems(const MemeList& items) {
    m_items.reserve(items.size());
    for (const Meme& m : items) {
        QStringList fields{m.template_, m.ocr_text, m.description, m.character.value_or(QString())};
        fields += m.emotions + m.use_cases + m.keywords + m.actions.value_or(QStringList());
        QStringList words = TextFold::tokens(fields.join(QLatin1Char(' ')));
        words.removeDuplicates();
        m_items.append({m, std::move(words)});
    }
}

MemeList ImportedItems::search(const QString& text, int limit) const {
    const QStringList query = TextFold::tokens(text);
    MemeList out;
    if (query.isEmpty())
        return out;
    for (const Entry& e : m_items) {
        if (out.size() >= limit)
            break;
        const bool all = std::all_of(query.begin(), query.end(), [&](const QString& q) {
            return std::any_of(e.words.begin(), e.words.end(),
                               [&](const QString& w) { return w.startsWith(q); });
        });
        if (all)
            out.append(e.meme);
    }
    return out;
}
