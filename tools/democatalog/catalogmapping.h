// SPDX-License-Identifier: MIT
#pragma once

#include "openmojidata.h"

#include <QByteArrayView>
#include <QHash>
#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>
#include <optional>

// The hand-written rules (data/openmoji-mapping.json) that turn OpenMoji's data into catalog
// fields: group names and covers, the emotion and use-case lexicons, which pictures carry text.
class CatalogMapping {
public:
    struct Group {
        QString slug; // OpenMoji's group name, e.g. "smileys-emotion"
        QString name;
        QString theme;
        QString cover; // hexcode of the emoji shown for the collection
    };

    // Parses the mapping document; nothing on failure, with the reason in `error`.
    static std::optional<CatalogMapping> fromJson(QByteArrayView utf8, QString* error);

    // Groups in the order collections are listed.
    const QList<Group>& groups() const { return m_groups; }
    const Group* group(const QString& slug) const;
    // False for components (skin-tone swatches) and brand logos, which are not reactions.
    bool includes(const OpenMojiEntry& entry) const;

    // "Smileys & Emotion: face smiling".
    QString templateFor(const OpenMojiEntry& entry) const;
    // Text visible in the picture: keycaps, lettered buttons, regional indicators; else empty.
    QString ocrText(const OpenMojiEntry& entry) const;
    // Lexicon matches over the entry's words, in lexicon order.
    QStringList emotions(const OpenMojiEntry& entry) const;
    QStringList useCases(const OpenMojiEntry& entry) const;
    // The "-ing" words of people and faces ("person running" shows running).
    QStringList actions(const OpenMojiEntry& entry) const;

    // Lower-cased words of the annotation and tags; hyphenated words also count by their parts.
    static QSet<QString> wordsOf(const OpenMojiEntry& entry);

private:
    struct Lexicon {
        QList<std::pair<QString, QStringList>> byWord; // label -> trigger words
        QHash<QString, QStringList> bySubgroup;        // subgroup -> labels
        QStringList match(const OpenMojiEntry& entry) const;
    };

    QList<Group> m_groups;
    QSet<QString> m_excludedGroups;
    QSet<QString> m_excludedSubgroups;
    Lexicon m_emotions;
    Lexicon m_useCases;
    QHash<QString, QString> m_ocrOverrides;
    QSet<QString> m_ocrUppercaseGroups;
    QSet<QString> m_actionGroups;
    QSet<QString> m_actionStopwords;
};
