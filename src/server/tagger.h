// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/ocrengine.h"

#include <QHash>
#include <QImage>
#include <QSet>
#include <QString>
#include <QStringList>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <vector>

class TemplateIndex;
class WordNet;

// The search tags of one picture, as the client stores them.
struct Tags {
    QString ocrText;
    QString description;
    QString character;
    QStringList emotions;
    QStringList actions;
    QStringList useCases;
    QStringList keywords;
    QString language;
    bool nsfw = false;
    bool hateful = false;
    // Tagged from a catalog template (its id), else empty.
    QString templateId;

    // The answer object: all ten keys, in the order clients decode them.
    nlohmann::ordered_json toJson() const;
};

// Tags a picture from what can be seen in it: the text on it (OCR) and, when it is a copy of
// one of the catalog's templates, that template's tags. Feelings, situations and keywords of
// the text come from the catalog's own lexicon (so imported pictures are tagged with the
// catalog's words) and WordNet's lemmas.
//
// tag() may run on several threads at once, each with its own OcrEngine.
class Tagger {
public:
    // Both may be null: then no template is recognised, and only the common words and the
    // lexicon's words are kept of the text.
    Tagger(WordNet* wordNet, const TemplateIndex* templates);

    Tags tag(const QImage& image, OcrEngine& ocr) const;
    // The words of what OCR read that are words: confident enough, letters only, and either
    // common short words or words WordNet knows; without punctuation at either end.
    std::vector<OcrEngine::Word> cleanWords(const std::vector<OcrEngine::Word>& words) const;
    // Tags from the cleaned words alone.
    Tags fromWords(const QStringList& words) const;

private:
    std::vector<OcrEngine::Word> readText(const QImage& image, OcrEngine& ocr) const;
    bool isWord(const QString& lower) const;
    QStringList lemmasOf(const QString& lower) const;

    WordNet* m_wordNet;
    const TemplateIndex* m_templates;
    QHash<QString, QString> m_emotionOf; // word → emotion
    QHash<QString, QString> m_useCaseOf; // word → use case
};
