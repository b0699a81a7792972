// SPDX-License-Identifier: MIT
#include "server/wordnet.h"

#include <QFile>
#include <algorithm>
#include <cstdio>
#include <set>
#include <sstream>
#include <tuple>

namespace {

const char* const posNames[] = {"noun", "verb", "adj", "adv"};

// WordNet's own suffix rules for inflected forms, per part of speech (morphy's detachment
// table).
struct Rule {
    const char* suffix;
    const char* ending;
};
const std::vector<Rule> detachRules[] = {
    {{"s", ""},
     {"ses", "s"},
     {"xes", "x"},
     {"zes", "z"},
     {"ches", "ch"},
     {"shes", "sh"},
     {"men", "man"},
     {"ies", "y"}},
    {{"s", ""},
     {"ies", "y"},
     {"es", "e"},
     {"es", ""},
     {"ed", "e"},
     {"ed", ""},
     {"ing", "e"},
     {"ing", ""}},
    {{"er", ""}, {"est", ""}, {"er", "e"}, {"est", "e"}},
    {},
};

std::string spaced(std::string lemma) {
    std::replace(lemma.begin(), lemma.end(), '_', ' ');
    // Adjectives may carry a syntactic marker: "glad(p)".
    if (const auto paren = lemma.find('('); paren != std::string::npos)
        lemma.erase(paren);
    return lemma;
}

} // namespace

std::unique_ptr<WordNet> WordNet::open(const QString& dir) {
    std::unique_ptr<WordNet> wordNet(new WordNet);
    wordNet->m_dir = dir;
    bool any = false;
    for (int pos = 0; pos < PosCount; ++pos) {
        QFile file(dir + QStringLiteral("/index.") + QLatin1String(posNames[pos]));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        any = true;
        // A line: lemma pos synset_cnt p_cnt [ptr_symbol]... sense_cnt tagsense_cnt
        // synset_offset... ; licence lines start with spaces.
        while (!file.atEnd()) {
            const QByteArray line = file.readLine();
            if (line.isEmpty() || line.front() == ' ')
                continue;
            std::istringstream in(line.toStdString());
            std::string lemma, posLetter;
            int synsets = 0, pointers = 0;
            if (!(in >> lemma >> posLetter >> synsets >> pointers))
                continue;
            std::string skip;
            for (int i = 0; i < pointers + 2; ++i)
                in >> skip;
            std::vector<long> offsets;
            long offset = 0;
            while (int(offsets.size()) < synsets && in >> offset)
                offsets.push_back(offset);
            wordNet->m_index[pos].emplace(std::move(lemma), std::move(offsets));
        }
    }
    for (int pos = 0; pos < PosCount && any; ++pos) {
        QFile file(dir + '/' + QLatin1String(posNames[pos]) + QStringLiteral(".exc"));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        // A line: inflected_form base_form...
        while (!file.atEnd()) {
            std::istringstream in(file.readLine().toStdString());
            std::string form, base;
            in >> form;
            while (in >> base)
                wordNet->m_exceptions[form].push_back(base);
        }
    }
    return any ? std::move(wordNet) : nullptr;
}

WordNet::Related WordNet::related(const QString& word, int max) {
    const std::string key = word.toLower().toStdString() + '\n' + std::to_string(max);
    {
        const std::lock_guard lock(m_cacheLock);
        if (const auto it = m_cache.find(key); it != m_cache.end())
            return it->second;
    }
    Related found = lookup(word.toLower().toStdString(), max);
    const std::lock_guard lock(m_cacheLock);
    // Queries are open-ended; keep the cache from growing without bound.
    if (m_cache.size() > 50000)
        m_cache.clear();
    m_cache.emplace(key, found);
    return found;
}

std::vector<std::string> WordNet::lemmasOf(const std::string& word) const {
    std::vector<std::string> lemmas{word};
    if (const auto it = m_exceptions.find(word); it != m_exceptions.end())
        lemmas.insert(lemmas.end(), it->second.begin(), it->second.end());
    for (int pos = 0; pos < PosCount; ++pos)
        for (const Rule& rule : detachRules[pos]) {
            const std::string suffix = rule.suffix;
            if (word.size() > suffix.size() + 1 && word.ends_with(suffix)) {
                std::string base = word.substr(0, word.size() - suffix.size()) + rule.ending;
                if (std::find(lemmas.begin(), lemmas.end(), base) == lemmas.end())
                    lemmas.push_back(std::move(base));
            }
        }
    return lemmas;
}

QStringList WordNet::lemmas(const QString& word, bool verbsOnly) const {
    QStringList known;
    for (const std::string& lemma : lemmasOf(word.toLower().toStdString())) {
        for (int pos = verbsOnly ? Verb : Noun; pos <= (verbsOnly ? Verb : Adv); ++pos)
            if (m_index[pos].contains(lemma)) {
                known.append(QString::fromStdString(lemma));
                break;
            }
    }
    known.removeDuplicates();
    return known;
}

WordNet::Related WordNet::lookup(const std::string& word, int max) const {
    // (sense rank, part of speech, offset): parts of speech interleave by sense rank so a
    // noun's tenth sense does not come before an adjective's first.
    std::vector<std::tuple<std::size_t, Pos, long>> ranked;
    std::vector<std::string> lemmas = lemmasOf(word);
    for (const std::string& lemma : lemmas)
        for (int pos = 0; pos < PosCount; ++pos)
            if (const auto it = m_index[pos].find(lemma); it != m_index[pos].end())
                for (std::size_t i = 0; i < it->second.size(); ++i)
                    ranked.emplace_back(i, Pos(pos), it->second[i]);
    std::stable_sort(ranked.begin(), ranked.end(),
                     [](const auto& a, const auto& b) { return std::get<0>(a) < std::get<0>(b); });

    Related out;
    std::set<std::string> seen(lemmas.begin(), lemmas.end());
    std::vector<std::pair<Pos, long>> close;
    const auto take = [&](const std::vector<std::string>& words, QStringList& into) {
        for (const std::string& raw : words) {
            if (out.synonyms.size() + out.close.size() >= max)
                return;
            std::string w = spaced(raw);
            std::transform(w.begin(), w.end(), w.begin(),
                           [](unsigned char c) { return char(std::tolower(c)); });
            if (seen.insert(w).second)
                into.append(QString::fromStdString(w));
        }
    };
    for (const auto& [rank, pos, offset] : ranked) {
        std::vector<std::string> words;
        if (readSynset(pos, offset, &words, &close))
            take(words, out.synonyms);
    }
    for (const auto& [pos, offset] : close) {
        std::vector<std::string> words;
        if (readSynset(pos, offset, &words, nullptr))
            take(words, out.close);
    }
    return out;
}

bool WordNet::readSynset(Pos pos, long offset, std::vector<std::string>* words,
                         std::vector<std::pair<Pos, long>>* close) const {
    QFile file(m_dir + QStringLiteral("/data.") + QLatin1String(posNames[pos]));
    if (!file.open(QIODevice::ReadOnly) || !file.seek(offset))
        return false;
    // synset_offset lex_filenum ss_type w_cnt word lex_id [word lex_id...] p_cnt
    // [ptr_symbol synset_offset pos source/target...] | gloss
    std::istringstream in(file.readLine().toStdString());
    std::string synsetOffset, lexFile, type, countHex;
    if (!(in >> synsetOffset >> lexFile >> type >> countHex) || std::stol(synsetOffset) != offset)
        return false;
    const int count = int(std::strtol(countHex.c_str(), nullptr, 16));
    for (int i = 0; i < count; ++i) {
        std::string word, lexId;
        if (!(in >> word >> lexId))
            return false;
        words->push_back(std::move(word));
    }
    int pointers = 0;
    if (!close || !(in >> pointers))
        return true;
    for (int i = 0; i < pointers; ++i) {
        std::string symbol, target, posLetter, sourceTarget;
        if (!(in >> symbol >> target >> posLetter >> sourceTarget))
            break;
        // Similar-to and see-also link an adjective to its near neighbours ("glad" → "cheerful").
        if (symbol != "&" && symbol != "^")
            continue;
        const Pos targetPos = posLetter == "n"   ? Noun
                              : posLetter == "v" ? Verb
                              : posLetter == "r" ? Adv
                                                 : Adj;
        close->emplace_back(targetPos, std::stol(target));
    }
    return true;
}
