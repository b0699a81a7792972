// SPDX-License-Identifier: MIT
#pragma once

#include "base/serialexecutor.h"

#include <QByteArrayView>
#include <QHash>
#include <QObject>
#include <QStringList>
#include <QTimer>
#include <limits>
#include <optional>

// What the user did with items: recents (newest first, at most 30), use counts per item and
// per normalised query, and favourites (newest first). Lives on the GUI thread; persists to
// userdata.json with a 0.5 s debounced, atomic write on a background thread, and a final
// synchronous one through flush() (at quit, and from the destructor).
class UserData : public QObject {
    Q_OBJECT
public:
    using Counts = QHash<QString, qint64>;
    using PickTable = QHash<QString, Counts>;

    struct State {
        QStringList favorites;
        QStringList recents;
        PickTable picks;
        Counts uses;
        friend bool operator==(const State&, const State&) = default;
    };

    static constexpr int maxRecents = 30;
    static constexpr int saveDelayMs = 500;
    // Counts stop here instead of wrapping.
    static constexpr qint64 maxCount = std::numeric_limits<qint64>::max();

    // `file` absent: $XDG_DATA_HOME/Glimmet/userdata.json. A missing or unreadable file
    // starts empty; a damaged one keeps every entry that still decodes. The file is left in
    // place until the next save.
    explicit UserData(std::optional<QString> file = std::nullopt, QObject* parent = nullptr);
    // Flushes a pending write.
    ~UserData() override;

    static QString defaultPath();
    // Decodes entry by entry: a bad value drops that value (or its entry), never the rest.
    // Counts above maxCount read as maxCount; counts below 1 and non-integers are dropped.
    static State decode(QByteArrayView json);
    static QByteArray encode(const State& state);
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

    const QStringList& favorites() const { return m_s.favorites; }
    const QStringList& recents() const { return m_s.recents; }
    const PickTable& picks() const { return m_s.picks; }
    const Counts& uses() const { return m_s.uses; }
    // Picks of `id` under an already normalised query key; 0 when none.
    qint64 pickCount(const QString& queryKey, const QString& id) const;

    const QString& path() const { return m_path; }
    bool hasPendingWrite() const { return m_saveTimer.isActive(); }
    // Writes a pending change now, on the calling thread, after any write already in
    // flight; returns when the file is replaced. Nothing pending: does nothing.
    void flush();

signals:
    // A deferred write finished (ok = the file was replaced). On the GUI thread.
    void saved(bool ok);

private:
    void load();
    void save();
    void writeNow();

    QString m_path;
    State m_s;
    QTimer m_saveTimer;
    SerialExecutor m_writer{QStringLiteral("userdata")};
};
