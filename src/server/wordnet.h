// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

// Words related in meaning to a word, from the WordNet database files that Debian's
// wordnet-base installs (/usr/share/wordnet): for each part of speech, index.<pos> maps a
// lemma to its synsets (most frequent sense first) and data.<pos> holds each synset at its byte
// offset: its words, then pointers to other synsets ("&" similar to, "^" also see).
//
// related() gives first the other words of the word's own synsets (synonyms), then the words
// of synsets an adjective points to as similar or see-also (close relatives), each once, in
// sense order. Inflected forms are looked up as their lemmas too: the irregular ones of the
// <pos>.exc lists ("happier" → "happy", "geese" → "goose") and WordNet's suffix rules
// ("cats" → "cat"). Multi-word lemmas come back with spaces.
//
// Answers are cached; any thread may call related().
class WordNet {
public:
    struct Related {
        QStringList synonyms;
        QStringList close;
    };

    // Reads the four index files of `dir`; nullptr when none can be read.
    static std::unique_ptr<WordNet> open(const QString& dir = QStringLiteral("/usr/share/wordnet"));

    // At most `max` words in all, synonyms first; never `word` itself.
    Related related(const QString& word, int max);
    // The forms of `word` (lower-cased) that are lemmas WordNet knows, the word itself first
    // when it is one ("cried" → "cry"); with `verbsOnly`, verb lemmas only. Empty for a word
    // WordNet does not know.
    QStringList lemmas(const QString& word, bool verbsOnly = false) const;

private:
    enum Pos { Noun, Verb, Adj, Adv, PosCount };
    WordNet() = default;
    Related lookup(const std::string& word, int max) const;
    std::vector<std::string> lemmasOf(const std::string& word) const;
    // The words and similar/see-also pointers of the synset at `offset` in data.<pos>.
    bool readSynset(Pos pos, long offset, std::vector<std::string>* words,
                    std::vector<std::pair<Pos, long>>* close) const;

    QString m_dir;
    // lemma → synset offsets, per part of speech.
    std::unordered_map<std::string, std::vector<long>> m_index[PosCount];
    // inflected form → lemmas, from the exception lists
    std::unordered_map<std::string, std::vector<std::string>> m_exceptions;
    std::mutex m_cacheLock;
    std::unordered_map<std::string, Related> m_cache;
};
