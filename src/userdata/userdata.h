// SPDX-License-Identifier: MIT
#pragma once

#include "base/serialexecutor.h"

#include <QHash>
#include <QObject>
#include <QStringList>
#include <QTimer>
#include <optional>

// What the user did with items: recents (newest first, at most 30), use counts per item and
// per normalised query, and favourites (newest first). Lives on the GUI thread; persists to
// userdata.json with a 0.5 s debounced, atomic write on a background thread.
class UserData : public QObject {
    Q_OBJECT
public:
    using Counts = QHash<QString, qint64>;
    using PickTable = QHash<QString, Counts>;

    static constexpr int maxRecents = 30;
    static constexpr int saveDelayMs = 500;

    // `file` absent: $XDG_DATA_HOME/Glimmet/userdata.json. A missing, unreadable or
    // malformed file starts empty and is left in place until the next save.
    explicit UserData(std::optional<QString> file = std::nullopt, QObject* parent = nullptr);
    ~UserData() override;

    static QString defaultPath();
    // The per-query key: folded tokens joined by single spaces ("" for punctuation only).
    static QString key(QStringView query);

    void recordPick(const QString& id, const QString& query);
    // Ids used at least `minUses` times, most used first; among equals the more recent
    // first, ids no longer in recents last. `limit` must not be negative.
    QStringList mostUsedIDs(int minUses, int limit) const;
    // Returns whether `id` is a favourite afterwards.
    bool toggleFavorite(const QString& id);
    // Forgets recents and counts; keeps favourites.
    void clearHistory();

    const QStringList& favorites() const { return m_favorites; }
    const QStringList& recents() const { return m_recents; }
    const PickTable& picks() const { return m_picks; }
    const Counts& uses() const { return m_uses; }
    // Picks of `id` under an already normalised query key; 0 when none.
    qint64 pickCount(const QString& queryKey, const QString& id) const;

    const QString& path() const { return m_path; }
    bool hasPendingWrite() const { return m_saveTimer.isActive(); }

signals:
    // A deferred write finished (ok = the file was replaced). On the GUI thread.
    void saved(bool ok);

private:
    void load();
    void save();
    void writeNow();
    QByteArray encode() const;

    QString m_path;
    QStringList m_favorites;
    QStringList m_recents;
    PickTable m_picks;
    Counts m_uses;
    QTimer m_saveTimer;
    SerialExecutor m_writer{QStringLiteral("userdata")};
};
