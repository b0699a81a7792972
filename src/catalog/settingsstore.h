// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>

// The user's preference store: one JSON object in a file, rewritten atomically on every
// change. Values keep their JSON type across restarts (an integer stays an integer, the
// string "800" stays a string). Safe to use from any thread.
class SettingsStore {
public:
    // Loads `path` if it holds a JSON object; anything else starts empty (and is
    // replaced by the next write).
    explicit SettingsStore(QString path);

    const QString& path() const { return m_path; }

    std::optional<nlohmann::json> value(const QString& key) const;
    bool contains(const QString& key) const;
    // Typed reads: absent, or present with another JSON type, gives nullopt.
    std::optional<std::int64_t> integer(const QString& key) const;
    std::optional<QString> string(const QString& key) const;
    // A plain boolean read: absent or not a boolean reads false.
    bool boolean(const QString& key) const;

    // Writes go to memory at once and to disk before returning; a disk failure is
    // logged and the value stays in memory for this run.
    void set(const QString& key, nlohmann::json value);
    void remove(const QString& key);
    // Returns the stored string, or stores and returns `make()` when there is none,
    // atomically with respect to other callers.
    QString stringOrInsert(const QString& key, const std::function<QString()>& make);

private:
    void saveLocked() const;

    QString m_path;
    mutable std::mutex m_mutex;
    nlohmann::json m_values = nlohmann::json::object();
};
