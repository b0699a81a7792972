// SPDX-License-Identifier: MIT
#include "search/importeditems.h"

#include "search/textfold.h"

#include <QHash>
#include <algorithm>

ImportedItems::ImportedItems(const MemeList& items) : m_items(items) {
    QHash<QString, std::vector<int>> holders;
    for (int i = 0; i < m_items.size(); ++i) {
        const Meme& m = m_items[i];
        QStringList fields{m.template_, m.ocr_text, m.description, m.character.value_or(QString())};
        fields += m.emotions + m.use_cases + m.keywords + m.actions.value_or(QStringList());
        for (const QString& word : TextFold::tokens(fields.join(QLatin1Char(' ')))) {
            std::vector<int>& list = holders[word];
            if (list.empty() || list.back() != i)
                list.push_back(i);
        }
    }
    m_words = holders.keys();
    std::sort(m_words.begin(), m_words.end());
    m_holders.reserve(std::size_t(m_words.size()));
    for (const QString& word : m_words)
        m_holders.push_back(std::move(holders[word]));
}

MemeList ImportedItems::search(const QString& text, int limit) const {
    const QStringList query = TextFold::tokens(text);
    MemeList out;
    if (query.isEmpty() || m_items.isEmpty())
        return out;
    // matched[i] counts the query words item i has matched so far, each word once.
    std::vector<int> matched(std::size_t(m_items.size()), 0);
    for (int q = 0; q < query.size(); ++q) {
        const QString& prefix = query[q];
        for (auto w = std::lower_bound(m_words.cbegin(), m_words.cend(), prefix);
             w != m_words.cend() && w->startsWith(prefix); ++w) {
            for (const int item : m_holders[std::size_t(w - m_words.cbegin())])
                if (matched[std::size_t(item)] == q)
                    matched[std::size_t(item)] = q + 1;
        }
    }
    const int all = int(query.size());
    for (int i = 0; i < m_items.size() && out.size() < limit; ++i)
        if (matched[std::size_t(i)] == all)
            out.append(m_items[i]);
    return out;
}
