// SPDX-License-Identifier: MIT
#include "catalog/catalogjson.h"

#include <limits>
#include <stdexcept>

using nlohmann::json;
using nlohmann::ordered_json;

namespace {

// Carries the location of the first failure up to the document decoder.
struct DecodeError : std::runtime_error {
    explicit DecodeError(const std::string& where) : std::runtime_error(where) {}
};

class ObjectReader {
public:
    ObjectReader(const json& object, std::string path) : m_object(object), m_path(std::move(path)) {
        if (!object.is_object())
            throw DecodeError(m_path + ": not an object");
    }

    QString string(const char* key) const { return asString(require(key), key); }
    std::optional<QString> optionalString(const char* key) const {
        const json* v = find(key);
        return v ? std::optional(asString(*v, key)) : std::nullopt;
    }
    QStringList strings(const char* key) const { return asStrings(require(key), key); }
    std::optional<QStringList> optionalStrings(const char* key) const {
        const json* v = find(key);
        return v ? std::optional(asStrings(*v, key)) : std::nullopt;
    }
    std::int64_t integer(const char* key) const { return asInteger(require(key), key); }
    std::optional<std::int64_t> optionalInteger(const char* key) const {
        const json* v = find(key);
        return v ? std::optional(asInteger(*v, key)) : std::nullopt;
    }

private:
    // Null and missing both mean absent.
    const json* find(const char* key) const {
        const auto it = m_object.find(key);
        return it == m_object.end() || it->is_null() ? nullptr : &*it;
    }
    const json& require(const char* key) const {
        if (const json* v = find(key))
            return *v;
        fail(key, "missing");
    }
    [[noreturn]] void fail(const char* key, const char* why) const {
        throw DecodeError(m_path + "." + key + ": " + why);
    }
    QString asString(const json& v, const char* key) const {
        if (!v.is_string())
            fail(key, "not a string");
        return QString::fromStdString(v.get_ref<const std::string&>());
    }
    QStringList asStrings(const json& v, const char* key) const {
        if (!v.is_array())
            fail(key, "not an array");
        QStringList out;
        out.reserve(qsizetype(v.size()));
        for (const json& e : v) {
            if (!e.is_string())
                fail(key, "element not a string");
            out.append(QString::fromStdString(e.get_ref<const std::string&>()));
        }
        return out;
    }
    std::int64_t asInteger(const json& v, const char* key) const {
        if (v.is_number_unsigned()) {
            if (v.get<std::uint64_t>() > std::uint64_t(std::numeric_limits<std::int64_t>::max()))
                fail(key, "integer out of range");
            return std::int64_t(v.get<std::uint64_t>());
        }
        if (!v.is_number_integer())
            fail(key, "not an integer");
        return v.get<std::int64_t>();
    }

    const json& m_object;
    std::string m_path;
};

Meme readMeme(const json& object, const std::string& path) {
    const ObjectReader r(object, path);
    Meme m;
    m.id = r.string("id");
    m.template_ = r.string("template");
    m.ocr_text = r.string("ocr_text");
    m.description = r.string("description");
    m.emotions = r.strings("emotions");
    m.use_cases = r.strings("use_cases");
    m.keywords = r.strings("keywords");
    m.thumb = r.string("thumb");
    m.full = r.string("full");
    m.width = r.integer("width");
    m.height = r.integer("height");
    m.bytes = r.integer("bytes");
    m.popularity = r.optionalInteger("popularity");
    m.collection_id = r.optionalString("collection_id");
    m.character = r.optionalString("character");
    m.actions = r.optionalStrings("actions");
    m.order = r.optionalInteger("order");
    m.blur = r.optionalString("blur");
    return m;
}

CollectionInfo readCollection(const json& object, const std::string& path) {
    const ObjectReader r(object, path);
    CollectionInfo c;
    c.id = r.string("id");
    c.name = r.string("name");
    c.name_en = r.string("name_en");
    c.theme = r.optionalString("theme");
    c.keywords = r.strings("keywords");
    c.cover = r.string("cover");
    c.count = r.integer("count");
    c.owner = r.string("owner");
    c.source = r.string("source");
    return c;
}

template <typename T, typename Read>
std::optional<QList<T>> decodeArray(QByteArrayView utf8, QString* error, Read read) {
    const json document = json::parse(utf8.begin(), utf8.end(), nullptr, false);
    try {
        if (document.is_discarded())
            throw DecodeError("not valid JSON");
        if (!document.is_array())
            throw DecodeError("top level is not an array");
        QList<T> out;
        out.reserve(qsizetype(document.size()));
        for (size_t i = 0; i < document.size(); ++i)
            out.append(read(document[i], "[" + std::to_string(i) + "]"));
        return out;
    } catch (const DecodeError& e) {
        if (error)
            *error = QString::fromStdString(e.what());
        return std::nullopt;
    }
}

template <typename T, typename Read>
std::optional<T> decodeOne(const json& object, QString* error, Read read) {
    try {
        return read(object, "");
    } catch (const DecodeError& e) {
        if (error)
            *error = QString::fromStdString(e.what());
        return std::nullopt;
    }
}

ordered_json strings(const QStringList& list) {
    ordered_json array = ordered_json::array();
    for (const QString& s : list)
        array.push_back(s.toStdString());
    return array;
}

QByteArray dump(const ordered_json& value) {
    return QByteArray::fromStdString(value.dump(-1, ' ', false, json::error_handler_t::replace));
}

} // namespace

namespace CatalogJson {

std::optional<Meme> decodeMeme(const json& object, QString* error) {
    return decodeOne<Meme>(object, error, readMeme);
}

std::optional<CollectionInfo> decodeCollection(const json& object, QString* error) {
    return decodeOne<CollectionInfo>(object, error, readCollection);
}

std::optional<MemeList> decodeMemes(QByteArrayView utf8, QString* error) {
    return decodeArray<Meme>(utf8, error, readMeme);
}

std::optional<CollectionList> decodeCollections(QByteArrayView utf8, QString* error) {
    return decodeArray<CollectionInfo>(utf8, error, readCollection);
}

ordered_json encode(const Meme& m) {
    ordered_json o;
    o["id"] = m.id.toStdString();
    o["template"] = m.template_.toStdString();
    o["ocr_text"] = m.ocr_text.toStdString();
    o["description"] = m.description.toStdString();
    o["emotions"] = strings(m.emotions);
    o["use_cases"] = strings(m.use_cases);
    o["keywords"] = strings(m.keywords);
    o["thumb"] = m.thumb.toStdString();
    o["full"] = m.full.toStdString();
    o["width"] = m.width;
    o["height"] = m.height;
    o["bytes"] = m.bytes;
    if (m.popularity)
        o["popularity"] = *m.popularity;
    if (m.collection_id)
        o["collection_id"] = m.collection_id->toStdString();
    if (m.character)
        o["character"] = m.character->toStdString();
    if (m.actions)
        o["actions"] = strings(*m.actions);
    if (m.order)
        o["order"] = *m.order;
    if (m.blur)
        o["blur"] = m.blur->toStdString();
    return o;
}

ordered_json encode(const CollectionInfo& c) {
    ordered_json o;
    o["id"] = c.id.toStdString();
    o["name"] = c.name.toStdString();
    o["name_en"] = c.name_en.toStdString();
    if (c.theme)
        o["theme"] = c.theme->toStdString();
    o["keywords"] = strings(c.keywords);
    o["cover"] = c.cover.toStdString();
    o["count"] = c.count;
    o["owner"] = c.owner.toStdString();
    o["source"] = c.source.toStdString();
    return o;
}

QByteArray encodeMeme(const Meme& meme) {
    return dump(encode(meme));
}

QByteArray encodeMemes(const MemeList& memes) {
    ordered_json array = ordered_json::array();
    for (const Meme& m : memes)
        array.push_back(encode(m));
    return dump(array);
}

QByteArray encodeCollections(const CollectionList& collections) {
    ordered_json array = ordered_json::array();
    for (const CollectionInfo& c : collections)
        array.push_back(encode(c));
    return dump(array);
}

} // namespace CatalogJson
