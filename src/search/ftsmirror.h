// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>
#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

class FtsTokenizer;

// An in-memory copy of the fts table's inverted index that answers
//   SELECT id FROM fts WHERE fts MATCH '"p1"* "p2"* …'
//   ORDER BY bm25(fts, 5, 4, 3, 3, 2, 1, 0, 0), CAST(popularity AS INTEGER) DESC LIMIT n
// with the same ids in the same order, without SQL. It is fed the table's rows and tokenises
// them with SQLite's own tokenizer, computes bm25 with FTS5's formula in FTS5's order of
// operations (so the doubles, and therefore the ties, are identical), and breaks ties that
// SQL leaves open the way SQLite's sorter does: in rowid order.
//
// Not thread-safe: search() reuses scratch space, so callers serialise all use.
class FtsMirror {
public:
    static constexpr int columnCount = 6;
    // bm25 column weights of ocr_text, template, keywords, use_cases, emotions, description.
    static constexpr std::array<std::uint16_t, columnCount> weights{5, 4, 3, 3, 2, 1};

    class Builder {
    public:
        explicit Builder(const FtsTokenizer& tokenizer);
        ~Builder();
        // One row of the fts table: its rowid, id, CAST(popularity AS INTEGER) and the six
        // indexed columns as UTF-8. False when the row cannot be mirrored.
        bool addRow(std::int64_t rowid, QString id, std::int64_t popularity,
                    const std::array<std::string_view, columnCount>& columns);
        // The mirror of every row added; nullptr when a row could not be mirrored.
        std::unique_ptr<FtsMirror> finish();

    private:
        struct State;
        std::unique_ptr<State> m_state;
    };

    ~FtsMirror();

    // Ids of the best `limit` rows matching every prefix (each exactly one token as FTS5's
    // tokenizer gives it for the query term), best first.
    QStringList search(const std::vector<std::string>& prefixes, int limit) const;
    qsizetype rowCount() const { return qsizetype(m_length.size()); }

private:
    FtsMirror() = default;

    // Rows matching one prefix, ascending by row, with the summed column weights of every
    // instance of the prefix in that row (FTS5's weighted phrase frequency).
    struct Postings {
        const std::uint32_t* rows = nullptr;
        const std::uint16_t* freqs = nullptr;
        std::size_t size = 0;
    };
    struct Range {
        std::uint32_t first = 0;
        std::uint32_t last = 0; // one past
        bool operator==(const Range&) const = default;
    };
    struct RangeHash {
        std::size_t operator()(const Range& r) const noexcept {
            return std::hash<std::uint64_t>()((std::uint64_t(r.first) << 32) | r.last);
        }
    };

    Range termsWithPrefix(std::string_view prefix) const;
    Postings termPostings(std::uint32_t term) const;
    Postings unionOf(Range range, std::vector<std::uint32_t>& rows,
                     std::vector<std::uint16_t>& freqs) const;

    // Rows are numbered in SQLite's tie order: popularity descending, then rowid ascending.
    std::vector<QString> m_ids;
    std::vector<std::uint32_t> m_length; // tokens in the row over all columns
    std::vector<double> m_lengthNorm;    // k1 * (1 - b + b * D / avgdl) for each D
    std::int64_t m_totalTokens = 0;
    double m_avgLength = 0;

    // Distinct tokens, sorted bytewise, each with its postings (CSR layout).
    std::string m_termBytes;
    std::vector<std::uint32_t> m_termOffset; // into m_termBytes, one extra at the end
    std::vector<std::uint64_t> m_postStart;  // into m_postRows, one extra at the end
    std::vector<std::uint32_t> m_postRows;
    std::vector<std::uint16_t> m_postFreqs;

    // Postings of short prefixes that span several terms, merged ahead of time: the first
    // keystrokes match most rows and would otherwise merge hundreds of lists.
    struct Merged {
        std::vector<std::uint32_t> rows;
        std::vector<std::uint16_t> freqs;
    };
    std::unordered_map<Range, Merged, RangeHash> m_merged;
};
