// SPDX-License-Identifier: MIT
#pragma once

#include <QHashFunctions>
#include <QString>
#include <QStringList>
#include <cstdint>
#include <functional>
#include <optional>

// One picture of any origin: catalog meme, sticker, imported image or the user's own item.
// A plain value; field names are the JSON keys (`template_` because `template` is reserved).
struct Meme {
    QString id;
    QString template_;
    QString ocr_text;
    QString description;
    QStringList emotions;
    QStringList use_cases;
    QStringList keywords;
    QString thumb;
    QString full;
    std::int64_t width = 0;
    std::int64_t height = 0;
    std::int64_t bytes = 0;
    std::optional<std::int64_t> popularity;
    std::optional<QString> collection_id;
    std::optional<QString> character;
    std::optional<QStringList> actions;
    std::optional<std::int64_t> order;
    std::optional<QString> blur;

    // True when the extension of `full`'s path, lower-cased, is "png".
    bool isPNG() const;
    // Items of the user's own library carry ids starting "g_".
    bool isMine() const { return id.startsWith(QLatin1String("g_")); }

    friend bool operator==(const Meme&, const Meme&) = default;
};

size_t qHash(const Meme& meme, size_t seed = 0) noexcept;

template <> struct std::hash<Meme> {
    size_t operator()(const Meme& meme) const noexcept { return qHash(meme); }
};
