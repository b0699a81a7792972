// SPDX-License-Identifier: MIT
#include "server/tagger.h"

#include "server/imagehash.h"
#include "server/serverlog.h"
#include "server/templateindex.h"
#include "server/wordnet.h"

#include <QFile>
#include <algorithm>

namespace {

// OCR on pictures finds "words" in textures and edges; below this confidence they are
// mostly such noise.
constexpr float minConfidence = 50;
constexpr int maxKeywords = 12;
// A reading whose every word is this sure needs no second look.
constexpr float confidentRead = 85;

// Near-white, unsaturated pixels (caption letters) black, everything else white.
QImage lightTextMask(const QImage& image) {
    const QImage rgb = image.convertToFormat(QImage::Format_RGB32);
    QImage mask(rgb.size(), QImage::Format_Grayscale8);
    for (int y = 0; y < rgb.height(); ++y) {
        const auto* in = reinterpret_cast<const QRgb*>(rgb.constScanLine(y));
        uchar* out = mask.scanLine(y);
        for (int x = 0; x < rgb.width(); ++x) {
            const int r = qRed(in[x]), g = qGreen(in[x]), b = qBlue(in[x]);
            const int low = std::min({r, g, b}), high = std::max({r, g, b});
            out[x] = low >= 190 && high - low <= 40 ? 0 : 255;
        }
    }
    return mask;
}

float score(const std::vector<OcrEngine::Word>& words) {
    float sum = 0;
    for (const OcrEngine::Word& word : words)
        sum += word.confidence;
    return sum;
}

// Words a caption is made of that WordNet leaves out (it has no pronouns, articles or
// auxiliaries), and chat words. They are kept in the text; none of them is a keyword.
const QSet<QString>& commonWords() {
    static const QSet<QString> words = [] {
        QSet<QString> set;
        for (const char* w :
             {"a",       "i",      "am",     "an",    "and",   "are",   "as",    "at",      "be",
              "been",    "but",    "by",     "can",   "could", "did",   "do",    "does",    "for",
              "from",    "had",    "has",    "have",  "he",    "her",   "here",  "him",     "his",
              "how",     "if",     "in",     "into",  "is",    "it",    "its",   "it's",    "i'm",
              "just",    "me",     "my",     "no",    "not",   "of",    "oh",    "ok",      "on",
              "or",      "our",    "she",    "so",    "than",  "that",  "the",   "their",   "them",
              "then",    "there",  "these",  "they",  "this",  "those", "to",    "too",     "up",
              "us",      "very",   "was",    "we",    "were",  "what",  "when",  "where",   "which",
              "who",     "why",    "will",   "with",  "would", "yes",   "you",   "your",    "don't",
              "can't",   "won't",  "didn't", "isn't", "lol",   "omg",   "wtf",   "okay",    "yeah",
              "nope",    "should", "must",   "may",   "might", "shall", "about", "because", "with",
              "without", "all",    "any",    "some",  "every", "each",  "own",   "one",     "two"})
            set.insert(QString::fromLatin1(w));
        return set;
    }();
    return words;
}

// word → name, from the catalog lexicon's {"name": [words…]} member.
QHash<QString, QString> lexiconMember(const nlohmann::json& doc, const char* key) {
    QHash<QString, QString> map;
    const auto member = doc.find(key);
    if (member == doc.end() || !member->is_object())
        return map;
    for (const auto& [name, words] : member->items()) {
        if (!words.is_array())
            continue;
        for (const auto& word : words)
            if (word.is_string())
                map.insert(QString::fromStdString(word.get<std::string>()),
                           QString::fromStdString(name));
    }
    return map;
}

void appendNew(QStringList& list, const QStringList& more, int max = 1000) {
    for (const QString& item : more)
        if (list.size() < max && !item.isEmpty() && !list.contains(item))
            list.append(item);
}

} // namespace

nlohmann::ordered_json Tags::toJson() const {
    const auto strings = [](const QStringList& list) {
        nlohmann::ordered_json array = nlohmann::ordered_json::array();
        for (const QString& s : list)
            array.push_back(s.toStdString());
        return array;
    };
    nlohmann::ordered_json json;
    json["ocr_text"] = ocrText.toStdString();
    json["description"] = description.toStdString();
    json["character"] = character.toStdString();
    json["emotions"] = strings(emotions);
    json["actions"] = strings(actions);
    json["use_cases"] = strings(useCases);
    json["keywords"] = strings(keywords);
    json["language"] = language.toStdString();
    json["nsfw"] = nsfw;
    json["hateful"] = hateful;
    return json;
}

Tagger::Tagger(WordNet* wordNet, const TemplateIndex* templates)
    : m_wordNet(wordNet), m_templates(templates) {
    QFile file(QStringLiteral(":/server/openmoji-mapping.json"));
    const nlohmann::json doc =
        file.open(QIODevice::ReadOnly)
            ? nlohmann::json::parse(file.readAll().toStdString(), nullptr, false)
            : nlohmann::json();
    if (!doc.is_object())
        qCWarning(lcServer) << "tagging: the lexicon is missing; no emotions from text";
    else {
        m_emotionOf = lexiconMember(doc, "emotions");
        m_useCaseOf = lexiconMember(doc, "use_cases");
    }
    if (!m_wordNet)
        return;
    // WordNet's synonyms widen the lexicon ("joyful" → happy); the lexicon's own words keep
    // their meaning where a synonym of another feeling would claim them.
    const QHash<QString, QString> lexicon = m_emotionOf;
    for (auto it = lexicon.begin(); it != lexicon.end(); ++it)
        for (const QString& synonym : m_wordNet->related(it.key(), 8).synonyms)
            if (!synonym.contains(' ') && !m_emotionOf.contains(synonym))
                m_emotionOf.insert(synonym, it.value());
}

bool Tagger::isWord(const QString& lower) const {
    if (commonWords().contains(lower) || m_emotionOf.contains(lower) || m_useCaseOf.contains(lower))
        return true;
    // Two-letter "words" WordNet knows are mostly abbreviations ("ee", "il"), and OCR noise
    // looks just like them.
    return lower.size() >= 3 && m_wordNet && !m_wordNet->lemmas(lower).isEmpty();
}

QStringList Tagger::lemmasOf(const QString& lower) const {
    QStringList lemmas = m_wordNet ? m_wordNet->lemmas(lower) : QStringList();
    if (lemmas.isEmpty())
        lemmas.append(lower);
    return lemmas;
}

std::vector<OcrEngine::Word> Tagger::cleanWords(const std::vector<OcrEngine::Word>& words) const {
    std::vector<OcrEngine::Word> kept;
    for (const OcrEngine::Word& word : words) {
        if (word.confidence < minConfidence)
            continue;
        // Punctuation at either end belongs to the sentence, not the word.
        QString text = word.text;
        while (!text.isEmpty() && !text.front().isLetter())
            text.remove(0, 1);
        while (!text.isEmpty() && !text.back().isLetter())
            text.chop(1);
        text.replace(QChar(0x2019), QLatin1Char('\''));
        const bool letters = std::all_of(text.begin(), text.end(), [](QChar c) {
            return c.isLetter() || c == QLatin1Char('\'') || c == QLatin1Char('-');
        });
        if (text.isEmpty() || !letters || !isWord(text.toLower()))
            continue;
        kept.push_back({text, word.confidence});
    }
    return kept;
}

std::vector<OcrEngine::Word> Tagger::readText(const QImage& image, OcrEngine& ocr) const {
    std::vector<OcrEngine::Word> plain = cleanWords(ocr.read(image));
    if (!plain.empty() && std::all_of(plain.begin(), plain.end(),
                                      [](const auto& w) { return w.confidence >= confidentRead; }))
        return plain;
    // Tesseract reads dark text on a light ground. The classic caption is the opposite: white
    // letters with a dark outline over a busy picture, where it finds mostly noise. So when
    // the plain reading is unsure, read the light parts alone as dark on white, and keep the
    // reading with more confident words.
    std::vector<OcrEngine::Word> light = cleanWords(ocr.read(lightTextMask(image)));
    return score(light) > score(plain) ? light : plain;
}

Tags Tagger::fromWords(const QStringList& words) const {
    Tags tags;
    tags.ocrText = words.join(QLatin1Char(' '));
    for (const QString& word : words) {
        const QString lower = word.toLower();
        const QStringList lemmas = lemmasOf(lower);
        for (const QString& form : QStringList{lower} + lemmas) {
            if (const auto e = m_emotionOf.constFind(form); e != m_emotionOf.cend())
                appendNew(tags.emotions, {*e});
            if (const auto u = m_useCaseOf.constFind(form); u != m_useCaseOf.cend())
                appendNew(tags.useCases, {*u});
        }
        if (commonWords().contains(lower))
            continue;
        appendNew(tags.keywords, {lemmas.constFirst()}, maxKeywords);
        // "crying" → cry: a verb in its -ing form says what is being done.
        if (lower.endsWith(QLatin1String("ing")) && m_wordNet) {
            const QStringList verbs = m_wordNet->lemmas(lower, true);
            for (const QString& verb : verbs)
                if (verb != lower) {
                    appendNew(tags.actions, {verb});
                    break;
                }
        }
    }
    tags.language = words.isEmpty() ? QString() : QStringLiteral("en");
    return tags;
}

Tags Tagger::tag(const QImage& image, OcrEngine& ocr) const {
    QStringList words;
    for (const OcrEngine::Word& word : readText(image, ocr))
        words.append(word.text);
    Tags tags = fromWords(words);
    const std::optional<TemplateIndex::Match> match =
        m_templates ? m_templates->match(ImageHash::of(image)) : std::nullopt;
    if (match) {
        const TemplateIndex::Template& t = match->found;
        tags.templateId = t.id;
        tags.description = t.description;
        tags.character = t.character;
        // The template's own tags first: they were chosen by hand; the caption adds to them.
        QStringList emotions = t.emotions, actions = t.actions, useCases = t.useCases,
                    keywords = t.keywords;
        appendNew(emotions, tags.emotions);
        appendNew(actions, tags.actions);
        appendNew(useCases, tags.useCases);
        appendNew(keywords, tags.keywords);
        tags.emotions = emotions;
        tags.actions = actions;
        tags.useCases = useCases;
        tags.keywords = keywords;
        return tags;
    }
    QString feeling = QStringLiteral("A picture");
    if (!tags.emotions.isEmpty()) {
        const QString& emotion = tags.emotions.front();
        feeling = (QStringLiteral("aeiou").contains(emotion.front()) ? "An " : "A ") + emotion +
                  QStringLiteral(" picture");
    }
    tags.description = tags.ocrText.isEmpty()
                           ? feeling + QStringLiteral(" without text.")
                           : feeling + QStringLiteral(" with the text \"") + tags.ocrText + "\".";
    return tags;
}
