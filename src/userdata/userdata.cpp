// SPDX-License-Identifier: MIT
#include "userdata/userdata.h"

#include "base/apppaths.h"
#include "base/atomicfile.h"
#include "base/logcategories.h"
#include "search/textfold.h"

#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

using nlohmann::json;

namespace {

// A whole number >= 1, saturated at the maximum. The parser hands integers past 64 bits over
// as floating point, so a whole float that large saturates as well.
std::optional<qint64> decodeCount(const json& v) {
    if (v.is_number_unsigned()) {
        const std::uint64_t n = v.get<std::uint64_t>();
        if (n == 0)
            return std::nullopt;
        return n >= std::uint64_t(UserData::maxCount) ? UserData::maxCount : qint64(n);
    }
    if (v.is_number_integer()) {
        const std::int64_t n = v.get<std::int64_t>();
        return n >= 1 ? std::optional<qint64>(n) : std::nullopt;
    }
    if (v.is_number_float()) {
        const double d = v.get<double>();
        if (!(d >= 1) || d != std::floor(d))
            return std::nullopt;
        return d >= 0x1p63 ? UserData::maxCount : qint64(d);
    }
    return std::nullopt;
}

qint64 saturatingAdd(qint64 a, qint64 b) {
    return a > UserData::maxCount - b ? UserData::maxCount : a + b;
}

// Strings of an array, in order, each once; other elements are dropped.
QStringList stringArray(const json* v, qsizetype cap) {
    QStringList out;
    if (!v || !v->is_array())
        return out;
    QSet<QString> seen;
    for (const json& e : *v) {
        if (out.size() >= cap)
            break;
        if (!e.is_string())
            continue;
        const QString id = QString::fromStdString(e.get_ref<const std::string&>());
        if (!seen.contains(id)) {
            seen.insert(id);
            out.append(id);
        }
    }
    return out;
}

UserData::Counts countMap(const json& v) {
    UserData::Counts out;
    for (const auto& [id, count] : v.items())
        if (const auto n = decodeCount(count))
            out.insert(QString::fromStdString(id), *n);
    return out;
}

// The standard DOM builder, except that it notes where a number too large for a double ends
// (the parser stops there) instead of failing silently.
struct OverflowNotingBuilder : nlohmann::detail::json_sax_dom_parser<json> {
    using json_sax_dom_parser::json_sax_dom_parser;
    template <typename Exception>
    bool parse_error(std::size_t position, const std::string& token, const Exception& e) {
        if (e.id == 406) { // number overflow
            overflowEnd = position;
            overflowToken = token;
        }
        return false;
    }
    std::size_t overflowEnd = 0;
    std::string overflowToken;
};

// Such a number is a bad value, not a broken file: it is read as the largest double, which a
// count saturates from, so that the rest of the file survives.
json parseTolerant(QByteArrayView bytes) {
    std::string text(bytes.data(), size_t(bytes.size()));
    for (int retry = 0; retry < 64; ++retry) {
        json doc;
        OverflowNotingBuilder builder(doc, false);
        if (json::sax_parse(text, &builder))
            return doc;
        const std::string& token = builder.overflowToken;
        const std::size_t end = builder.overflowEnd;
        if (token.empty() || end < token.size() ||
            text.compare(end - token.size(), token.size(), token) != 0)
            return nullptr;
        text.replace(end - token.size(), token.size(), token[0] == '-' ? "-1e308" : "1e308");
    }
    return nullptr;
}

const json* member(const json& doc, const char* key) {
    const auto it = doc.find(key);
    return it == doc.end() ? nullptr : &*it;
}

json countsToJson(const UserData::Counts& counts) {
    json o = json::object();
    for (auto it = counts.begin(); it != counts.end(); ++it)
        o[it.key().toStdString()] = it.value();
    return o;
}

} // namespace

UserData::UserData(std::optional<QString> file, QObject* parent)
    : QObject(parent), m_path(file.value_or(defaultPath())) {
    AppPaths::ensureDir(QFileInfo(m_path).absolutePath()); // a failure leaves us in memory only
    m_saveTimer.setSingleShot(true);
    m_saveTimer.setInterval(saveDelayMs);
    connect(&m_saveTimer, &QTimer::timeout, this, &UserData::writeNow);
    load();
}

UserData::~UserData() {
    flush();
}

QString UserData::defaultPath() {
    return AppPaths::dataDir() + QStringLiteral("/userdata.json");
}

QString UserData::key(QStringView query) {
    return TextFold::key(query);
}

UserData::State UserData::decode(QByteArrayView bytes) {
    State s;
    const json doc = parseTolerant(bytes);
    if (!doc.is_object())
        return s;
    // Favourites are what the user cannot rebuild by using the app: no cap, only dedup.
    s.favorites = stringArray(member(doc, "favorites"), std::numeric_limits<qsizetype>::max());
    s.recents = stringArray(member(doc, "recents"), maxRecents);
    if (const json* picks = member(doc, "picks"); picks && picks->is_object()) {
        for (const auto& [query, counts] : picks->items()) {
            if (query.empty() || !counts.is_object())
                continue;
            Counts decoded = countMap(counts);
            if (!decoded.isEmpty())
                s.picks.insert(QString::fromStdString(query), std::move(decoded));
        }
    }
    const json* uses = member(doc, "uses");
    if (uses && uses->is_object())
        s.uses = countMap(*uses);
    // Totals missing from the file (older files have none, a bad entry was dropped) are
    // rebuilt from the per-query counts.
    Counts fromPicks;
    for (const Counts& counts : std::as_const(s.picks))
        for (auto it = counts.begin(); it != counts.end(); ++it)
            fromPicks[it.key()] = saturatingAdd(fromPicks.value(it.key()), it.value());
    for (auto it = fromPicks.begin(); it != fromPicks.end(); ++it)
        if (!s.uses.contains(it.key()))
            s.uses.insert(it.key(), it.value());
    return s;
}

QByteArray UserData::encode(const State& s) {
    nlohmann::ordered_json doc;
    json favorites = json::array(), recents = json::array(), picks = json::object();
    for (const QString& id : s.favorites)
        favorites.push_back(id.toStdString());
    for (const QString& id : s.recents)
        recents.push_back(id.toStdString());
    for (auto it = s.picks.begin(); it != s.picks.end(); ++it)
        picks[it.key().toStdString()] = countsToJson(it.value());
    doc["favorites"] = std::move(favorites);
    doc["recents"] = std::move(recents);
    doc["picks"] = std::move(picks);
    doc["uses"] = countsToJson(s.uses);
    return QByteArray::fromStdString(doc.dump(-1, ' ', false, json::error_handler_t::replace));
}

void UserData::load() {
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly))
        return;
    m_s = decode(file.readAll());
}

void UserData::recordPick(const QString& id, const QString& query) {
    m_s.recents.removeAll(id);
    m_s.recents.prepend(id);
    if (m_s.recents.size() > maxRecents)
        m_s.recents.resize(maxRecents);
    const QString k = key(query);
    if (!k.isEmpty()) {
        qint64& picks = m_s.picks[k][id];
        picks = saturatingAdd(picks, 1);
    }
    qint64& uses = m_s.uses[id];
    uses = saturatingAdd(uses, 1);
    save();
}

QStringList UserData::mostUsedIDs(int minUses, int limit) const {
    if (limit < 0)
        qFatal("UserData::mostUsedIDs: negative limit %d", limit);
    QHash<QString, qsizetype> position;
    for (qsizetype i = m_s.recents.size() - 1; i >= 0; --i)
        position.insert(m_s.recents[i], i); // the first occurrence wins
    struct Entry {
        QString id;
        qint64 count;
        qsizetype position;
    };
    std::vector<Entry> entries;
    for (auto it = m_s.uses.begin(); it != m_s.uses.end(); ++it)
        if (it.value() >= minUses)
            entries.push_back({it.key(), it.value(), position.value(it.key(), PTRDIFF_MAX)});
    // Ids outside recents with equal counts fall back to id order, for a stable display.
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
        if (a.count != b.count)
            return a.count > b.count;
        if (a.position != b.position)
            return a.position < b.position;
        return a.id < b.id;
    });
    QStringList out;
    for (size_t i = 0; i < entries.size() && i < size_t(limit); ++i)
        out.append(entries[i].id);
    return out;
}

bool UserData::toggleFavorite(const QString& id) {
    const qsizetype at = m_s.favorites.indexOf(id);
    if (at >= 0)
        m_s.favorites.removeAt(at);
    else
        m_s.favorites.prepend(id);
    save();
    return m_s.favorites.contains(id);
}

void UserData::clearHistory() {
    m_s.recents.clear();
    m_s.uses.clear();
    m_s.picks.clear();
    save();
}

qint64 UserData::pickCount(const QString& queryKey, const QString& id) const {
    const auto query = m_s.picks.constFind(queryKey);
    return query == m_s.picks.constEnd() ? 0 : query->value(id, 0);
}

void UserData::save() {
    // Restarting the timer cancels the pending write: a burst ends in one write.
    m_saveTimer.start();
}

void UserData::writeNow() {
    // The state is copied now, on the GUI thread; the worker touches only its copy.
    m_writer.post([this, bytes = encode(m_s), path = m_path] {
        const bool ok = writeFileAtomically(path, bytes);
        QMetaObject::invokeMethod(
            this, [this, ok] { emit saved(ok); }, Qt::QueuedConnection);
    });
}

void UserData::flush() {
    if (!m_saveTimer.isActive())
        return;
    m_saveTimer.stop();
    // Only this thread posts writes: once the queue is idle, nothing can overtake this one.
    m_writer.waitForIdle();
    emit saved(writeFileAtomically(m_path, encode(m_s)));
}
