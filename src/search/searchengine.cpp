// SPDX-License-Identifier: MIT
#include "search/searchengine.h"

#include "search/textfold.h"

#include <algorithm>
#include <cstring>
#include <numeric>

namespace {

constexpr int fieldWeight[SearchEngine::fieldCount] = {5, 4, 3, 3, 2, 1};

struct Record {
    int score;
    std::int64_t popularity;
    std::uint32_t index;
};

} // namespace

SearchEngine::SearchEngine(const MemeList& memes) : m_memes(memes) {
    const auto count = std::size_t(m_memes.size());
    m_popularity.reserve(count);
    m_fieldStart.reserve(count * fieldCount + 1);
    m_tokenStart.push_back(0);
    for (const Meme& m : m_memes) {
        m_popularity.push_back(m.popularity.value_or(0));
        const QString fields[fieldCount] = {
            m.ocr_text,
            m.template_,
            m.keywords.join(QLatin1Char(' ')),
            m.use_cases.join(QLatin1Char(' ')),
            m.emotions.join(QLatin1Char(' ')),
            m.description,
        };
        for (const QString& field : fields) {
            m_fieldStart.push_back(std::uint32_t(m_tokenStart.size() - 1));
            for (const QString& token : TextFold::tokens(field)) {
                m_bytes += token.toStdString();
                m_tokenStart.push_back(std::uint32_t(m_bytes.size()));
            }
        }
    }
    m_fieldStart.push_back(std::uint32_t(m_tokenStart.size() - 1));

    m_popular.resize(count);
    std::iota(m_popular.begin(), m_popular.end(), 0u);
    std::stable_sort(m_popular.begin(), m_popular.end(), [this](std::uint32_t a, std::uint32_t b) {
        return m_popularity[a] > m_popularity[b];
    });
}

MemeList SearchEngine::popular() const {
    MemeList out;
    out.reserve(m_memes.size());
    for (const std::uint32_t i : m_popular)
        out.append(m_memes[i]);
    return out;
}

MemeList SearchEngine::search(const QString& text, int limit) const {
    MemeList out;
    if (limit <= 0)
        return out;
    std::vector<std::string> query;
    for (const QString& token : TextFold::tokens(text))
        query.push_back(token.toStdString());
    if (query.empty()) {
        for (std::size_t i = 0; i < m_popular.size() && out.size() < limit; ++i)
            out.append(m_memes[m_popular[i]]);
        return out;
    }

    const char* bytes = m_bytes.data();
    const std::uint32_t* tokenStart = m_tokenStart.data();
    std::vector<Record> records;
    for (std::uint32_t e = 0; e < std::uint32_t(m_memes.size()); ++e) {
        const std::uint32_t* fields = m_fieldStart.data() + std::size_t(e) * fieldCount;
        int score = 0;
        bool all = true;
        for (const std::string& q : query) {
            int best = 0;
            for (int f = 0; f < fieldCount; ++f) {
                if (fieldWeight[f] <= best)
                    continue;
                for (std::uint32_t t = fields[f]; t < fields[f + 1]; ++t) {
                    const std::uint32_t size = tokenStart[t + 1] - tokenStart[t];
                    if (size >= q.size() &&
                        std::memcmp(bytes + tokenStart[t], q.data(), q.size()) == 0) {
                        best = fieldWeight[f];
                        break;
                    }
                }
            }
            if (best == 0) {
                all = false;
                break;
            }
            score += best;
        }
        if (all)
            records.push_back({score, m_popularity[e], e});
    }

    // Catalog order settles what score and popularity leave equal, so this order is total
    // and a partial sort returns what a stable sort of everything would.
    const auto before = [](const Record& a, const Record& b) {
        if (a.score != b.score)
            return a.score > b.score;
        if (a.popularity != b.popularity)
            return a.popularity > b.popularity;
        return a.index < b.index;
    };
    const std::size_t keep = std::min(records.size(), std::size_t(limit));
    std::partial_sort(records.begin(), records.begin() + std::ptrdiff_t(keep), records.end(),
                      before);
    out.reserve(qsizetype(keep));
    for (std::size_t i = 0; i < keep; ++i)
        out.append(m_memes[records[i].index]);
    return out;
}
