// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"
#include "search/localindex.h"
#include "support/testenv.h"

#include <QStringList>
#include <gtest/gtest.h>
#include <initializer_list>
#include <memory>

namespace SearchTest {

// A catalog item with the searchable fields that matter to a test and the rest plausible.
inline Meme meme(const QString& id, const QString& ocr, std::optional<std::int64_t> popularity = 0,
                 QStringList keywords = {}, QString description = {}, QString templ = {},
                 QStringList emotions = {}, QStringList useCases = {}) {
    Meme m;
    m.id = id;
    m.ocr_text = ocr;
    m.popularity = popularity;
    m.keywords = std::move(keywords);
    m.description = std::move(description);
    m.template_ = std::move(templ);
    m.emotions = std::move(emotions);
    m.use_cases = std::move(useCases);
    m.thumb = QStringLiteral("/t/") + id + QStringLiteral(".webp");
    m.full = QStringLiteral("/f/") + id + QStringLiteral(".jpg");
    m.width = m.height = 100;
    m.bytes = 1;
    return m;
}

inline QStringList ids(std::initializer_list<const char*> list) {
    QStringList out;
    for (const char* s : list)
        out.append(QString::fromUtf8(s));
    return out;
}

inline QStringList idsOf(const MemeList& memes) {
    QStringList out;
    for (const Meme& m : memes)
        out.append(m.id);
    return out;
}

inline QString freshIndexPath() {
    return TestEnv::freshDir() + QStringLiteral("/index.sqlite");
}

inline std::unique_ptr<LocalIndex> indexWith(const MemeList& memes) {
    auto index = LocalIndex::open(freshIndexPath());
    if (index) {
        index->rebuild(memes, QString(64, QLatin1Char('a')));
        // Tests go on to use the connection directly, which the writing thread holds until
        // the commit.
        index->waitUntilCommitted();
    }
    return index;
}

} // namespace SearchTest
