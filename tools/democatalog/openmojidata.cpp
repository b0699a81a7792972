// SPDX-License-Identifier: MIT
#include "openmojidata.h"

#include <QFile>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

QString stringField(const json& object, const char* key) {
    const auto it = object.find(key);
    return it != object.end() && it->is_string() ? QString::fromStdString(it->get<std::string>())
                                                 : QString();
}

QStringList commaList(const QString& text) {
    QStringList items;
    for (const QString& piece : text.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const QString item = piece.trimmed();
        if (!item.isEmpty())
            items << item;
    }
    return items;
}

std::optional<json> readJson(const QString& path, QString* error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = path + QStringLiteral(": ") + file.errorString();
        return std::nullopt;
    }
    json value = json::parse(file.readAll().toStdString(), nullptr, false);
    if (value.is_discarded()) {
        *error = path + QStringLiteral(": not valid JSON");
        return std::nullopt;
    }
    return value;
}

} // namespace

std::optional<OpenMojiData> OpenMojiData::load(const QString& packageDir, QString* error) {
    const auto package = readJson(packageDir + QStringLiteral("/package.json"), error);
    if (!package)
        return std::nullopt;
    const auto data = readJson(packageDir + QStringLiteral("/data/openmoji.json"), error);
    if (!data)
        return std::nullopt;
    if (!data->is_array()) {
        *error = QStringLiteral("data/openmoji.json: the top level is not an array");
        return std::nullopt;
    }

    OpenMojiData result;
    result.m_packageDir = packageDir;
    result.m_version = package->is_object() ? stringField(*package, "version") : QString();
    for (const json& item : *data) {
        if (!item.is_object())
            continue;
        OpenMojiEntry entry;
        entry.hexcode = stringField(item, "hexcode");
        entry.group = stringField(item, "group");
        entry.subgroup = stringField(item, "subgroups");
        entry.annotation = stringField(item, "annotation");
        entry.tags = commaList(stringField(item, "tags"));
        entry.openmojiTags = commaList(stringField(item, "openmoji_tags"));
        entry.author = stringField(item, "openmoji_author");
        // Base emoji that have variants name themselves as their own base.
        if (const QString base = stringField(item, "skintone_base_hexcode"); base != entry.hexcode)
            entry.skintoneBase = base;
        // "order" is an integer for Unicode emoji and "" for OpenMoji's own extras.
        if (const auto it = item.find("order"); it != item.end() && it->is_number_integer())
            entry.order = it->get<int>();
        if (entry.hexcode.isEmpty() || entry.annotation.isEmpty())
            continue;
        result.m_entries << entry;
    }
    return result;
}

QString OpenMojiData::svgPath(const QString& hexcode) const {
    return m_packageDir + QStringLiteral("/color/svg/") + hexcode + QStringLiteral(".svg");
}

QString OpenMojiData::licensePath() const {
    return m_packageDir + QStringLiteral("/LICENSE.txt");
}
