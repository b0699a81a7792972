// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/meme.h"

#include <QStringList>
#include <QStringView>

// The picker's filter for the short lists it keeps in memory (recents, most used, favourite
// stickers, the user's own items). Unlike the index's word rule it folds in the user's
// locale and splits only on white space, so what the user typed is matched as typed.
class WordFilter {
public:
    explicit WordFilter(QStringView query);

    // True when every query word is a prefix of some word of `meme`'s text (its template,
    // written text, description, keywords, use cases and emotions); always for no words.
    bool matches(const Meme& meme) const;
    bool isEmpty() const { return m_words.isEmpty(); }
    const QStringList& words() const { return m_words; }

    // `text` with case and diacritics folded, split on white space, empty pieces dropped.
    static QStringList foldedWords(QStringView text);

private:
    QStringList m_words;
};
