// SPDX-License-Identifier: MIT
#include "catalogmapping.h"

#include <QRegularExpression>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::ordered_json;

QString str(const ordered_json& value) {
    return value.is_string() ? QString::fromStdString(value.get<std::string>()) : QString();
}

QStringList strings(const ordered_json& value) {
    QStringList list;
    if (value.is_array())
        for (const auto& item : value)
            if (item.is_string())
                list << QString::fromStdString(item.get<std::string>());
    return list;
}

QSet<QString> stringSet(const ordered_json& value) {
    const QStringList list = strings(value);
    return QSet<QString>(list.begin(), list.end());
}

const ordered_json& member(const ordered_json& object, const char* key) {
    static const ordered_json none;
    const auto it = object.find(key);
    return it == object.end() ? none : *it;
}

void addWords(const QString& text, QSet<QString>& words) {
    // Keep "+1" and "-1" whole; otherwise punctuation around words ("hand:") does not count.
    static const QRegularExpression edges(QStringLiteral("^[^\\w+-]+|[^\\w]+$"));
    for (QString word : text.toLower().split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        word.remove(edges);
        if (word.isEmpty())
            continue;
        words.insert(word);
        if (word.size() > 2 && word.contains(QLatin1Char('-')))
            for (const QString& part : word.split(QLatin1Char('-'), Qt::SkipEmptyParts))
                words.insert(part);
    }
}

} // namespace

std::optional<CatalogMapping> CatalogMapping::fromJson(QByteArrayView utf8, QString* error) {
    const ordered_json doc =
        ordered_json::parse(utf8.data(), utf8.data() + utf8.size(), nullptr, false);
    if (!doc.is_object() || !member(doc, "groups").is_object()) {
        *error = QStringLiteral("mapping: not a JSON object with \"groups\"");
        return std::nullopt;
    }
    CatalogMapping mapping;
    for (const auto& [slug, info] : member(doc, "groups").items()) {
        Group group{QString::fromStdString(slug), str(member(info, "name")),
                    str(member(info, "theme")), str(member(info, "cover"))};
        if (group.name.isEmpty()) {
            *error = QStringLiteral("mapping: group %1 has no name").arg(group.slug);
            return std::nullopt;
        }
        mapping.m_groups << group;
    }
    mapping.m_excludedGroups = stringSet(member(doc, "excluded_groups"));
    mapping.m_excludedSubgroups = stringSet(member(doc, "excluded_subgroups"));

    const auto readLexicon = [](const ordered_json& byWord, const ordered_json& bySubgroup) {
        Lexicon lexicon;
        if (byWord.is_object())
            for (const auto& [label, triggers] : byWord.items())
                lexicon.byWord.append({QString::fromStdString(label), strings(triggers)});
        if (bySubgroup.is_object())
            for (const auto& [subgroup, labels] : bySubgroup.items())
                lexicon.bySubgroup.insert(QString::fromStdString(subgroup), strings(labels));
        return lexicon;
    };
    mapping.m_emotions = readLexicon(member(doc, "emotions"), member(doc, "emotion_subgroups"));
    mapping.m_useCases = readLexicon(member(doc, "use_cases"), member(doc, "use_case_subgroups"));

    if (const auto& ocr = member(doc, "ocr_text"); ocr.is_object())
        for (const auto& [hexcode, text] : ocr.items())
            mapping.m_ocrOverrides.insert(QString::fromStdString(hexcode), str(text));
    mapping.m_ocrUppercaseGroups = stringSet(member(doc, "ocr_uppercase_groups"));
    mapping.m_actionGroups = stringSet(member(doc, "action_groups"));
    mapping.m_actionStopwords = stringSet(member(doc, "action_stopwords"));
    return mapping;
}

const CatalogMapping::Group* CatalogMapping::group(const QString& slug) const {
    for (const Group& group : m_groups)
        if (group.slug == slug)
            return &group;
    return nullptr;
}

bool CatalogMapping::includes(const OpenMojiEntry& entry) const {
    return group(entry.group) && !m_excludedGroups.contains(entry.group) &&
           !m_excludedSubgroups.contains(entry.subgroup);
}

QString CatalogMapping::templateFor(const OpenMojiEntry& entry) const {
    const Group* info = group(entry.group);
    const QString groupName = info ? info->name : entry.group;
    QString subgroup = entry.subgroup;
    subgroup.replace(QLatin1Char('-'), QLatin1Char(' '));
    return subgroup.isEmpty() ? groupName : groupName + QStringLiteral(": ") + subgroup;
}

QString CatalogMapping::ocrText(const OpenMojiEntry& entry) const {
    if (const auto it = m_ocrOverrides.constFind(entry.hexcode); it != m_ocrOverrides.constEnd())
        return *it;
    if (entry.annotation.startsWith(QLatin1String("keycap: ")))
        return entry.annotation.mid(8);
    if (!m_ocrUppercaseGroups.contains(entry.group))
        return {};
    // Lettered signs name their letters in capitals: "SOS button", "UP! button",
    // "A button (blood type)", "regional indicator Q".
    static const QRegularExpression capitals(QStringLiteral("(?<![\\w])[A-Z]{1,5}!?(?![\\w])"));
    QStringList found;
    for (auto it = capitals.globalMatch(entry.annotation); it.hasNext();)
        found << it.next().captured();
    return found.join(QLatin1Char(' '));
}

QStringList CatalogMapping::Lexicon::match(const OpenMojiEntry& entry) const {
    const QSet<QString> words = wordsOf(entry);
    QStringList labels = bySubgroup.value(entry.subgroup);
    for (const auto& [label, triggers] : byWord) {
        if (labels.contains(label))
            continue;
        for (const QString& trigger : triggers)
            if (words.contains(trigger)) {
                labels << label;
                break;
            }
    }
    return labels;
}

QStringList CatalogMapping::emotions(const OpenMojiEntry& entry) const {
    return m_emotions.match(entry);
}

QStringList CatalogMapping::useCases(const OpenMojiEntry& entry) const {
    return m_useCases.match(entry);
}

QStringList CatalogMapping::actions(const OpenMojiEntry& entry) const {
    if (!m_actionGroups.contains(entry.group))
        return {};
    QStringList found;
    const QString base = entry.annotation.section(QLatin1Char(':'), 0, 0);
    for (const QString& word : base.toLower().split(QLatin1Char(' '), Qt::SkipEmptyParts))
        if (word.size() >= 5 && word.endsWith(QLatin1String("ing")) &&
            !m_actionStopwords.contains(word) && !found.contains(word))
            found << word;
    return found;
}

QSet<QString> CatalogMapping::wordsOf(const OpenMojiEntry& entry) {
    QSet<QString> words;
    addWords(entry.annotation, words);
    for (const QString& tag : entry.tags)
        addWords(tag, words);
    for (const QString& tag : entry.openmojiTags)
        addWords(tag, words);
    return words;
}
