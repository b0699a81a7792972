// SPDX-License-Identifier: MIT
#include "userdata/userdata.h"

#include "base/apppaths.h"
#include "base/atomicfile.h"
#include "base/logcategories.h"
#include "search/textfold.h"

#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <nlohmann/json.hpp>

using nlohmann::json;

namespace {

std::optional<QStringList> stringArray(const json& v) {
    if (!v.is_array())
        return std::nullopt;
    QStringList out;
    for (const json& e : v) {
        if (!e.is_string())
            return std::nullopt;
        out.append(QString::fromStdString(e.get<std::string>()));
    }
    return out;
}

std::optional<UserData::Counts> countMap(const json& v) {
    if (!v.is_object())
        return std::nullopt;
    UserData::Counts out;
    for (const auto& [id, count] : v.items()) {
        if (!count.is_number_integer())
            return std::nullopt;
        out.insert(QString::fromStdString(id), count.get<qint64>());
    }
    return out;
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

UserData::~UserData() = default;

QString UserData::defaultPath() { return AppPaths::dataDir() + QStringLiteral("/userdata.json"); }

QString UserData::key(QStringView query) { return TextFold::key(query); }

void UserData::load() {
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly))
        return;
    const QByteArray bytes = file.readAll();
    const json doc = json::parse(bytes.begin(), bytes.end(), nullptr, false);
    if (!doc.is_object() || !doc.contains("favorites") || !doc.contains("recents") ||
        !doc.contains("picks")) {
        qCInfo(lcUserData) << "userdata: decode failed, starting empty";
        return;
    }
    auto favorites = stringArray(doc["favorites"]);
    auto recents = stringArray(doc["recents"]);
    std::optional<PickTable> picks;
    if (doc["picks"].is_object()) {
        picks.emplace();
        for (const auto& [query, counts] : doc["picks"].items()) {
            auto decoded = countMap(counts);
            if (!decoded) {
                picks.reset();
                break;
            }
            picks->insert(QString::fromStdString(query), std::move(*decoded));
        }
    }
    std::optional<Counts> uses;
    const bool hasUses = doc.contains("uses") && !doc["uses"].is_null();
    if (hasUses)
        uses = countMap(doc["uses"]);
    if (!favorites || !recents || !picks || (hasUses && !uses)) {
        qCInfo(lcUserData) << "userdata: decode failed, starting empty";
        return;
    }
    m_favorites = std::move(*favorites);
    m_recents = std::move(*recents);
    m_picks = std::move(*picks);
    if (uses) {
        m_uses = std::move(*uses);
    } else {
        // Older files had no totals: rebuild them from the per-query counts.
        for (const Counts& counts : std::as_const(m_picks))
            for (auto it = counts.begin(); it != counts.end(); ++it)
                m_uses[it.key()] += it.value();
    }
}

void UserData::recordPick(const QString& id, const QString& query) {
    m_recents.removeAll(id);
    m_recents.prepend(id);
    if (m_recents.size() > maxRecents)
        m_recents.resize(maxRecents);
    const QString k = key(query);
    if (!k.isEmpty())
        ++m_picks[k][id];
    ++m_uses[id];
    save();
}

QStringList UserData::mostUsedIDs(int minUses, int limit) const {
    if (limit < 0)
        qFatal("UserData::mostUsedIDs: negative limit %d", limit);
    QHash<QString, qsizetype> position;
    for (qsizetype i = m_recents.size() - 1; i >= 0; --i)
        position.insert(m_recents[i], i); // the first occurrence wins
    struct Entry {
        QString id;
        qint64 count;
        qsizetype position;
    };
    std::vector<Entry> entries;
    for (auto it = m_uses.begin(); it != m_uses.end(); ++it)
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
    const qsizetype at = m_favorites.indexOf(id);
    if (at >= 0)
        m_favorites.removeAt(at);
    else
        m_favorites.prepend(id);
    save();
    return m_favorites.contains(id);
}

void UserData::clearHistory() {
    m_recents.clear();
    m_uses.clear();
    m_picks.clear();
    save();
}

qint64 UserData::pickCount(const QString& queryKey, const QString& id) const {
    const auto query = m_picks.constFind(queryKey);
    return query == m_picks.constEnd() ? 0 : query->value(id, 0);
}

void UserData::save() {
    // Restarting the timer cancels the pending write: a burst ends in one write.
    m_saveTimer.start();
}

QByteArray UserData::encode() const {
    nlohmann::ordered_json doc;
    json favorites = json::array(), recents = json::array(), picks = json::object();
    for (const QString& id : m_favorites)
        favorites.push_back(id.toStdString());
    for (const QString& id : m_recents)
        recents.push_back(id.toStdString());
    for (auto it = m_picks.begin(); it != m_picks.end(); ++it)
        picks[it.key().toStdString()] = countsToJson(it.value());
    doc["favorites"] = std::move(favorites);
    doc["recents"] = std::move(recents);
    doc["picks"] = std::move(picks);
    doc["uses"] = countsToJson(m_uses);
    return QByteArray::fromStdString(doc.dump(-1, ' ', false, json::error_handler_t::replace));
}

void UserData::writeNow() {
    // The state is copied now, on the GUI thread; the worker touches only its copy.
    m_writer.post([this, bytes = encode(), path = m_path] {
        const bool ok = writeFileAtomically(path, bytes);
        QMetaObject::invokeMethod(this, [this, ok] { emit saved(ok); }, Qt::QueuedConnection);
    });
}
