// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/collectioninfo.h"
#include "catalog/meme.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QList>
#include <QString>
#include <nlohmann/json.hpp>
#include <optional>

using MemeList = QList<Meme>;
using CollectionList = QList<CollectionInfo>;

// Strict JSON coding of the catalog records and documents.
// Decoding: every required key present with the right JSON type, integers that fit int64,
// null = absent, unknown keys ignored; one bad element rejects the whole document.
// `error`, when given, receives where decoding failed ("[3].bytes: missing") for the log.
namespace CatalogJson {
std::optional<Meme> decodeMeme(const nlohmann::json& object, QString* error = nullptr);
std::optional<CollectionInfo> decodeCollection(const nlohmann::json& object,
                                               QString* error = nullptr);
std::optional<MemeList> decodeMemes(QByteArrayView utf8, QString* error = nullptr);
std::optional<CollectionList> decodeCollections(QByteArrayView utf8, QString* error = nullptr);

// Encoding writes keys in declaration order and omits absent optionals.
nlohmann::ordered_json encode(const Meme& meme);
nlohmann::ordered_json encode(const CollectionInfo& info);
QByteArray encodeMeme(const Meme& meme);
QByteArray encodeMemes(const MemeList& memes);
QByteArray encodeCollections(const CollectionList& collections);
} // namespace CatalogJson
