// SPDX-License-Identifier: MIT
#include "search/ftsmirror.h"

#include "search/ftstokenizer.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

// This file must not fuse multiply-adds (see CMakeLists.txt): bm25 has to come out
// bit-identical to FTS5's so that ties order the same way.

namespace {

// FTS5 truncates longer tokens before indexing them.
constexpr std::size_t maxTokenBytes = 32768;
// With at most this many tokens in a row, every summed weight fits 16 bits (5 x 13107).
constexpr std::uint32_t maxRowTokens = 13107;
// Prefixes of up to this many characters get their postings merged ahead of time.
constexpr int mergedPrefixChars = 3;

std::size_t utf8Length(unsigned char lead) {
    if (lead < 0xC0)
        return 1;
    if (lead < 0xE0)
        return 2;
    if (lead < 0xF0)
        return 3;
    return 4;
}

// Bytes taken by the first `chars` characters of `term`, or 0 when it is shorter.
std::size_t prefixBytes(std::string_view term, int chars) {
    std::size_t at = 0;
    for (int i = 0; i < chars; ++i) {
        if (at >= term.size())
            return 0;
        at += utf8Length(static_cast<unsigned char>(term[at]));
    }
    return at <= term.size() ? at : 0;
}

struct Hit {
    double score;
    std::uint32_t row;
};

// Higher bm25 score first; equal scores in row order, which is the sorter's tie order.
bool better(const Hit& a, const Hit& b) {
    return a.score > b.score || (a.score == b.score && a.row < b.row);
}

// Keeps the best `limit` hits seen so far; rows arrive in ascending order.
class TopHits {
public:
    explicit TopHits(std::size_t limit) : m_limit(limit) {}
    void offer(double score, std::uint32_t row) {
        if (m_heap.size() < m_limit) {
            m_heap.push_back({score, row});
            std::push_heap(m_heap.begin(), m_heap.end(), better);
        } else if (score > m_heap.front().score) {
            // An equal score never displaces: the earlier row wins the tie.
            std::pop_heap(m_heap.begin(), m_heap.end(), better);
            m_heap.back() = {score, row};
            std::push_heap(m_heap.begin(), m_heap.end(), better);
        }
    }
    std::vector<Hit> sorted() {
        std::sort(m_heap.begin(), m_heap.end(), better);
        return std::move(m_heap);
    }

private:
    std::size_t m_limit;
    std::vector<Hit> m_heap; // worst on top
};

// First position at or after `from` whose row is >= `row`.
std::size_t gallop(const std::uint32_t* rows, std::size_t size, std::size_t from,
                   std::uint32_t row) {
    std::size_t step = 1;
    std::size_t hi = from;
    while (hi < size && rows[hi] < row) {
        from = hi + 1;
        hi += step;
        step *= 2;
    }
    return std::size_t(std::lower_bound(rows + from, rows + std::min(hi, size), row) - rows);
}

} // namespace

struct FtsMirror::Builder::State {
    explicit State(const FtsTokenizer& t) : tokenizer(t) { buckets.resize(1024); }

    const FtsTokenizer& tokenizer;
    bool failed = false;

    // Distinct tokens in order of first sight, back to back, found through an
    // open-addressing table: the dictionary lookup is the hottest step of a build.
    std::string termBytes;
    std::vector<std::uint32_t> termOffset{0};
    struct Slot {
        std::uint64_t hash = 0;
        std::uint32_t term = std::numeric_limits<std::uint32_t>::max();
    };
    std::vector<Slot> buckets;

    std::vector<std::int64_t> rowids;
    std::vector<std::int64_t> popularity;
    std::vector<QString> ids;
    std::vector<std::uint32_t> lengths;
    // Each row's distinct terms with their summed column weights.
    std::vector<std::uint64_t> rowStart{0};
    std::vector<std::uint32_t> rowTerms;
    std::vector<std::uint16_t> rowFreqs;

    std::vector<std::pair<std::uint32_t, std::uint16_t>> scratch;

    std::size_t termCount() const { return termOffset.size() - 1; }
    std::string_view term(std::uint32_t t) const {
        return std::string_view(termBytes.data() + termOffset[t],
                                termOffset[t + 1] - termOffset[t]);
    }

    static std::uint64_t hashOf(std::string_view bytes) {
        std::uint64_t h = 0xcbf29ce484222325ULL; // FNV-1a
        for (const char c : bytes)
            h = (h ^ static_cast<unsigned char>(c)) * 0x100000001b3ULL;
        return h;
    }

    std::uint32_t termId(std::string_view token) {
        if (token.size() > maxTokenBytes)
            token = token.substr(0, maxTokenBytes);
        const std::uint64_t hash = hashOf(token);
        const std::size_t mask = buckets.size() - 1;
        std::size_t i = std::size_t(hash) & mask;
        for (; buckets[i].term != std::numeric_limits<std::uint32_t>::max(); i = (i + 1) & mask)
            if (buckets[i].hash == hash && term(buckets[i].term) == token)
                return buckets[i].term;
        const auto id = std::uint32_t(termCount());
        buckets[i] = {hash, id};
        termBytes.append(token);
        termOffset.push_back(std::uint32_t(termBytes.size()));
        if (termCount() * 2 > buckets.size())
            grow();
        return id;
    }

    void grow() {
        std::vector<Slot> old(buckets.size() * 2);
        old.swap(buckets);
        const std::size_t mask = buckets.size() - 1;
        for (const Slot& slot : old) {
            if (slot.term == std::numeric_limits<std::uint32_t>::max())
                continue;
            std::size_t i = std::size_t(slot.hash) & mask;
            while (buckets[i].term != std::numeric_limits<std::uint32_t>::max())
                i = (i + 1) & mask;
            buckets[i] = slot;
        }
    }
};

FtsMirror::Builder::Builder(const FtsTokenizer& tokenizer)
    : m_state(std::make_unique<State>(tokenizer)) {}

FtsMirror::Builder::~Builder() = default;

bool FtsMirror::Builder::addRow(std::int64_t rowid, QString id, std::int64_t popularity,
                                const std::array<std::string_view, columnCount>& columns) {
    State& s = *m_state;
    if (s.failed)
        return false;
    s.scratch.clear();
    for (int c = 0; c < columnCount; ++c) {
        const std::uint16_t weight = weights[std::size_t(c)];
        const bool ok = s.tokenizer.tokenize(columns[std::size_t(c)], [&](std::string_view token) {
            s.scratch.emplace_back(s.termId(token), weight);
        });
        if (!ok)
            s.failed = true;
    }
    if (s.scratch.size() > maxRowTokens ||
        s.ids.size() >= std::numeric_limits<std::uint32_t>::max())
        s.failed = true;
    if (s.failed)
        return false;

    s.lengths.push_back(std::uint32_t(s.scratch.size()));
    std::sort(s.scratch.begin(), s.scratch.end());
    for (std::size_t i = 0; i < s.scratch.size();) {
        const std::uint32_t term = s.scratch[i].first;
        std::uint32_t sum = 0;
        for (; i < s.scratch.size() && s.scratch[i].first == term; ++i)
            sum += s.scratch[i].second;
        s.rowTerms.push_back(term);
        s.rowFreqs.push_back(std::uint16_t(sum));
    }
    s.rowStart.push_back(s.rowTerms.size());
    s.rowids.push_back(rowid);
    s.popularity.push_back(popularity);
    s.ids.push_back(std::move(id));
    return true;
}

std::unique_ptr<FtsMirror> FtsMirror::Builder::finish() {
    State& s = *m_state;
    if (s.failed)
        return nullptr;
    std::unique_ptr<FtsMirror> m(new FtsMirror);
    const std::size_t rowCount = s.ids.size();
    const std::size_t termCount = s.termCount();

    // Terms in byte order, so a prefix covers one contiguous range of them.
    std::vector<std::uint32_t> byBytes(termCount);
    std::iota(byBytes.begin(), byBytes.end(), 0u);
    std::sort(byBytes.begin(), byBytes.end(),
              [&](std::uint32_t a, std::uint32_t b) { return s.term(a) < s.term(b); });
    std::vector<std::uint32_t> rank(termCount);
    m->m_termOffset.reserve(termCount + 1);
    for (std::uint32_t i = 0; i < termCount; ++i) {
        rank[byBytes[i]] = i;
        m->m_termOffset.push_back(std::uint32_t(m->m_termBytes.size()));
        m->m_termBytes += s.term(byBytes[i]);
    }
    m->m_termOffset.push_back(std::uint32_t(m->m_termBytes.size()));
    s.buckets = {};
    s.termBytes = {};

    // Rows in the order SQL breaks bm25 ties: popularity descending, then the order FTS5
    // visits them (rowid ascending), which is also the sorter's insertion order.
    std::vector<std::uint32_t> byRank(rowCount);
    std::iota(byRank.begin(), byRank.end(), 0u);
    std::sort(byRank.begin(), byRank.end(), [&](std::uint32_t a, std::uint32_t b) {
        if (s.popularity[a] != s.popularity[b])
            return s.popularity[a] > s.popularity[b];
        return s.rowids[a] < s.rowids[b];
    });

    for (std::uint32_t& term : s.rowTerms)
        term = rank[term];
    std::vector<std::uint64_t> count(termCount + 1, 0);
    for (const std::uint32_t term : s.rowTerms)
        ++count[term + 1];
    std::partial_sum(count.begin(), count.end(), count.begin());
    m->m_postStart = count;
    m->m_postRows.resize(s.rowTerms.size());
    m->m_postFreqs.resize(s.rowTerms.size());
    m->m_ids.reserve(rowCount);
    m->m_length.reserve(rowCount);
    std::uint32_t longest = 0;
    for (std::uint32_t r = 0; r < rowCount; ++r) {
        const std::uint32_t b = byRank[r];
        for (std::uint64_t i = s.rowStart[b]; i < s.rowStart[b + 1]; ++i) {
            const std::uint64_t at = count[s.rowTerms[i]]++;
            m->m_postRows[at] = r;
            m->m_postFreqs[at] = s.rowFreqs[i];
        }
        m->m_ids.push_back(std::move(s.ids[b]));
        m->m_length.push_back(s.lengths[b]);
        m->m_totalTokens += s.lengths[b];
        longest = std::max(longest, s.lengths[b]);
    }

    // FTS5 keeps the average as nToken / nRow and normalises each row by its length.
    if (rowCount > 0 && m->m_totalTokens > 0) {
        const double k1 = 1.2;
        const double b = 0.75;
        m->m_avgLength = double(m->m_totalTokens) / double(std::int64_t(rowCount));
        m->m_lengthNorm.resize(std::size_t(longest) + 1);
        for (std::uint32_t d = 0; d <= longest; ++d) {
            const double D = double(d);
            m->m_lengthNorm[d] = k1 * (1 - b + b * D / m->m_avgLength);
        }
    }

    // Merge the postings of short prefixes that span several terms.
    for (int chars = 1; chars <= mergedPrefixChars; ++chars) {
        for (std::uint32_t first = 0; first < termCount;) {
            const std::string_view head(m->m_termBytes.data() + m->m_termOffset[first],
                                        m->m_termOffset[first + 1] - m->m_termOffset[first]);
            const std::size_t bytes = prefixBytes(head, chars);
            if (bytes == 0) {
                ++first;
                continue;
            }
            const Range range = m->termsWithPrefix(head.substr(0, bytes));
            first = range.last;
            if (range.last - range.first < 2 || m->m_merged.count(range))
                continue;
            Merged merged;
            std::vector<std::uint32_t> rows;
            std::vector<std::uint16_t> freqs;
            const Postings p = m->unionOf(range, rows, freqs);
            merged.rows.assign(p.rows, p.rows + p.size);
            merged.freqs.assign(p.freqs, p.freqs + p.size);
            m->m_merged.emplace(range, std::move(merged));
        }
    }
    return m;
}

FtsMirror::~FtsMirror() = default;

FtsMirror::Range FtsMirror::termsWithPrefix(std::string_view prefix) const {
    const auto termAt = [this](std::uint32_t i) {
        return std::string_view(m_termBytes.data() + m_termOffset[i],
                                m_termOffset[i + 1] - m_termOffset[i]);
    };
    std::uint32_t lo = 0, hi = std::uint32_t(m_termOffset.size() - 1);
    while (lo < hi) {
        const std::uint32_t mid = lo + (hi - lo) / 2;
        if (termAt(mid) < prefix)
            lo = mid + 1;
        else
            hi = mid;
    }
    std::uint32_t first = lo;
    hi = std::uint32_t(m_termOffset.size() - 1);
    while (lo < hi) {
        const std::uint32_t mid = lo + (hi - lo) / 2;
        if (termAt(mid).substr(0, prefix.size()) == prefix)
            lo = mid + 1;
        else
            hi = mid;
    }
    return {first, lo};
}

FtsMirror::Postings FtsMirror::termPostings(std::uint32_t term) const {
    const std::uint64_t begin = m_postStart[term];
    return {m_postRows.data() + begin, m_postFreqs.data() + begin,
            std::size_t(m_postStart[term + 1] - begin)};
}

FtsMirror::Postings FtsMirror::unionOf(Range range, std::vector<std::uint32_t>& rows,
                                       std::vector<std::uint16_t>& freqs) const {
    const std::size_t total = std::size_t(m_postStart[range.last] - m_postStart[range.first]);
    rows.clear();
    freqs.clear();
    const std::size_t rowCount = m_length.size();
    if (total * 64 < rowCount) {
        // Few postings: sorting them beats sweeping a bitmap of every row.
        std::vector<std::pair<std::uint32_t, std::uint16_t>> pairs;
        pairs.reserve(total);
        for (std::uint32_t t = range.first; t < range.last; ++t) {
            const Postings p = termPostings(t);
            for (std::size_t i = 0; i < p.size; ++i)
                pairs.emplace_back(p.rows[i], p.freqs[i]);
        }
        std::sort(pairs.begin(), pairs.end());
        for (const auto& [row, freq] : pairs) {
            if (!rows.empty() && rows.back() == row) {
                freqs.back() = std::uint16_t(freqs.back() + freq);
            } else {
                rows.push_back(row);
                freqs.push_back(freq);
            }
        }
        return {rows.data(), freqs.data(), rows.size()};
    }

    // Scratch for merging on the fly, one per thread so that threads search one mirror at
    // once; every entry a merge touches is zero again when it returns.
    thread_local std::vector<std::uint32_t> accumulator; // by row, 0 = absent
    thread_local std::vector<std::uint64_t> seen;        // bit per row
    if (accumulator.size() < rowCount) {
        accumulator.assign(rowCount, 0);
        seen.assign((rowCount + 63) / 64, 0);
    }
    std::uint32_t lowest = std::numeric_limits<std::uint32_t>::max(), highest = 0;
    for (std::uint32_t t = range.first; t < range.last; ++t) {
        const Postings p = termPostings(t);
        if (p.size == 0)
            continue;
        lowest = std::min(lowest, p.rows[0]);
        highest = std::max(highest, p.rows[p.size - 1]);
        for (std::size_t i = 0; i < p.size; ++i) {
            const std::uint32_t row = p.rows[i];
            seen[row / 64] |= std::uint64_t(1) << (row % 64);
            accumulator[row] += p.freqs[i];
        }
    }
    if (lowest > highest)
        return {};
    rows.reserve(total);
    freqs.reserve(total);
    for (std::size_t w = lowest / 64; w <= highest / 64; ++w) {
        std::uint64_t bits = seen[w];
        seen[w] = 0;
        while (bits) {
            const auto row = std::uint32_t(w * 64 + std::size_t(__builtin_ctzll(bits)));
            bits &= bits - 1;
            rows.push_back(row);
            freqs.push_back(std::uint16_t(accumulator[row]));
            accumulator[row] = 0;
        }
    }
    return {rows.data(), freqs.data(), rows.size()};
}

QStringList FtsMirror::search(const std::vector<std::string>& prefixes, int limit) const {
    if (limit <= 0 || prefixes.empty() || m_length.empty())
        return {};
    const std::size_t phrases = prefixes.size();
    std::vector<Postings> lists(phrases);
    std::vector<std::vector<std::uint32_t>> ownedRows(phrases);
    std::vector<std::vector<std::uint16_t>> ownedFreqs(phrases);
    for (std::size_t i = 0; i < phrases; ++i) {
        const Range range = termsWithPrefix(prefixes[i]);
        if (range.first == range.last)
            return {};
        if (range.last - range.first == 1) {
            lists[i] = termPostings(range.first);
        } else if (const auto merged = m_merged.find(range); merged != m_merged.end()) {
            lists[i] = {merged->second.rows.data(), merged->second.freqs.data(),
                        merged->second.rows.size()};
        } else {
            lists[i] = unionOf(range, ownedRows[i], ownedFreqs[i]);
        }
        if (lists[i].size == 0)
            return {};
    }

    // FTS5's IDF: nHit is the number of rows the phrase alone matches.
    const auto nRow = std::int64_t(m_length.size());
    std::vector<double> idf(phrases);
    for (std::size_t i = 0; i < phrases; ++i) {
        const auto nHit = std::int64_t(lists[i].size);
        double value = std::log((nRow - nHit + 0.5) / (nHit + 0.5));
        if (value <= 0.0)
            value = 1e-6;
        idf[i] = value;
    }

    const double k1 = 1.2;
    const double* norm = m_lengthNorm.data();
    const std::uint32_t* length = m_length.data();
    TopHits top{std::size_t(limit)};

    if (phrases == 1) {
        const Postings& p = lists[0];
        const double weight = idf[0];
        for (std::size_t j = 0; j < p.size; ++j) {
            const double f = p.freqs[j];
            double score = 0.0;
            score += weight * ((f * (k1 + 1.0)) / (f + norm[length[p.rows[j]]]));
            top.offer(score, p.rows[j]);
        }
    } else {
        // Walk the rarest phrase and look each row up in the others.
        std::size_t driver = 0;
        for (std::size_t i = 1; i < phrases; ++i)
            if (lists[i].size < lists[driver].size)
                driver = i;
        std::vector<std::size_t> cursor(phrases, 0);
        std::vector<double> freq(phrases);
        const Postings& d = lists[driver];
        for (std::size_t j = 0; j < d.size; ++j) {
            const std::uint32_t row = d.rows[j];
            bool all = true;
            bool exhausted = false;
            for (std::size_t i = 0; i < phrases && all; ++i) {
                if (i == driver) {
                    freq[i] = d.freqs[j];
                    continue;
                }
                const Postings& p = lists[i];
                cursor[i] = gallop(p.rows, p.size, cursor[i], row);
                if (cursor[i] == p.size)
                    exhausted = true;
                all = !exhausted && p.rows[cursor[i]] == row;
                if (all)
                    freq[i] = p.freqs[cursor[i]];
            }
            if (exhausted)
                break;
            if (!all)
                continue;
            const double n = norm[length[row]];
            double score = 0.0;
            for (std::size_t i = 0; i < phrases; ++i)
                score += idf[i] * ((freq[i] * (k1 + 1.0)) / (freq[i] + n));
            top.offer(score, row);
        }
    }

    QStringList ids;
    const std::vector<Hit> hits = top.sorted();
    ids.reserve(qsizetype(hits.size()));
    for (const Hit& hit : hits)
        ids.append(m_ids[hit.row]);
    return ids;
}
