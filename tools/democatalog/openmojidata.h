// SPDX-License-Identifier: MIT
#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <optional>

// One emoji as OpenMoji's data/openmoji.json describes it.
struct OpenMojiEntry {
    QString hexcode;    // also the SVG's file name: color/svg/<hexcode>.svg
    QString group;      // "smileys-emotion"
    QString subgroup;   // "face-smiling"
    QString annotation; // "grinning face"
    QStringList tags;   // Unicode CLDR keywords
    QStringList openmojiTags;
    QString author;
    QString skintoneBase;     // hexcode of the emoji this is a skin-tone variant of; empty if none
    std::optional<int> order; // Unicode's emoji order; absent for OpenMoji's own extras
};

// The OpenMoji package unpacked on disk (the folder holding data/ and color/svg/).
class OpenMojiData {
public:
    // Reads data/openmoji.json and package.json below `packageDir`; nothing on failure, with
    // the reason in `error`.
    static std::optional<OpenMojiData> load(const QString& packageDir, QString* error);

    const QString& packageDir() const { return m_packageDir; }
    const QString& version() const { return m_version; }
    const QList<OpenMojiEntry>& entries() const { return m_entries; }
    QString svgPath(const QString& hexcode) const;
    QString licensePath() const;

private:
    QString m_packageDir;
    QString m_version;
    QList<OpenMojiEntry> m_entries;
};
