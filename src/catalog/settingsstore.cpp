// SPDX-License-Identifier: MIT
#include "catalog/settingsstore.h"

#include "base/atomicfile.h"
#include "base/logcategories.h"

#include <QFile>

using nlohmann::json;

SettingsStore::SettingsStore(QString path) : m_path(std::move(path)) {
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly))
        return;
    const QByteArray bytes = file.readAll();
    json loaded = json::parse(bytes.begin(), bytes.end(), nullptr, false);
    if (loaded.is_object())
        m_values = std::move(loaded);
    else
        qCWarning(lcConfig) << "settings: decode failed, starting with defaults:" << m_path;
}

std::optional<json> SettingsStore::value(const QString& key) const {
    std::lock_guard lock(m_mutex);
    const auto it = m_values.find(key.toStdString());
    if (it == m_values.end())
        return std::nullopt;
    return *it;
}

bool SettingsStore::contains(const QString& key) const {
    return value(key).has_value();
}

std::optional<std::int64_t> SettingsStore::integer(const QString& key) const {
    const auto v = value(key);
    if (!v || !v->is_number_integer())
        return std::nullopt;
    if (v->is_number_unsigned() && v->get<std::uint64_t>() > std::uint64_t(INT64_MAX))
        return std::nullopt;
    return v->get<std::int64_t>();
}

std::optional<QString> SettingsStore::string(const QString& key) const {
    const auto v = value(key);
    if (!v || !v->is_string())
        return std::nullopt;
    return QString::fromStdString(v->get<std::string>());
}

bool SettingsStore::boolean(const QString& key) const {
    const auto v = value(key);
    return v && v->is_boolean() && v->get<bool>();
}

void SettingsStore::set(const QString& key, json value) {
    std::lock_guard lock(m_mutex);
    m_values[key.toStdString()] = std::move(value);
    saveLocked();
}

void SettingsStore::remove(const QString& key) {
    std::lock_guard lock(m_mutex);
    if (m_values.erase(key.toStdString()) > 0)
        saveLocked();
}

QString SettingsStore::stringOrInsert(const QString& key, const std::function<QString()>& make) {
    std::lock_guard lock(m_mutex);
    const std::string k = key.toStdString();
    const auto it = m_values.find(k);
    if (it != m_values.end() && it->is_string())
        return QString::fromStdString(it->get<std::string>());
    const QString made = make();
    m_values[k] = made.toStdString();
    saveLocked();
    return made;
}

void SettingsStore::saveLocked() const {
    // Written under the lock so that two writers cannot reorder their files.
    const QByteArray bytes = QByteArray::fromStdString(m_values.dump(2)) + '\n';
    if (!writeFileAtomically(m_path, bytes))
        qCWarning(lcConfig) << "settings: could not write" << m_path;
}
