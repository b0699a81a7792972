// SPDX-License-Identifier: MIT
#pragma once

#include <QHashFunctions>
#include <QString>
#include <QStringList>
#include <cstdint>
#include <functional>
#include <optional>

// One collection: a server collection, a sticker set or an imported folder.
struct CollectionInfo {
    QString id;
    QString name;
    QString name_en;
    std::optional<QString> theme;
    QStringList keywords;
    QString cover;
    std::int64_t count = 0;
    QString owner;
    QString source;

    friend bool operator==(const CollectionInfo&, const CollectionInfo&) = default;
};

size_t qHash(const CollectionInfo& info, size_t seed = 0) noexcept;

template <> struct std::hash<CollectionInfo> {
    size_t operator()(const CollectionInfo& info) const noexcept { return qHash(info); }
};
