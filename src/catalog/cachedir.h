// SPDX-License-Identifier: MIT
#pragma once

#include <QDateTime>
#include <QString>
#include <QtGlobal>
#include <optional>

// File operations on one image cache folder. All of them block on the disk and ignore
// file-system errors: a cache that cannot be trimmed or touched is only a bigger cache.
namespace CacheDir {
// Files modified this recently are never evicted: they may be on their way into a paste.
inline constexpr int graceSeconds = 120;

struct TrimResult {
    qint64 bytesBefore = 0;
    qint64 bytesAfter = 0;
    int deleted = 0;
};

// Deletes the least recently modified files of `dir` until it holds at most `maxBytes`, sparing
// files modified within graceSeconds of `now` even when the budget then stays exceeded.
// Returns nothing when the folder cannot be listed or was already within budget.
std::optional<TrimResult> trim(const QString& dir, qint64 maxBytes, const QDateTime& now);

// Sets the modification time of `path` to `when`; false when the file is missing.
bool touch(const QString& path, const QDateTime& when);

// Deletes `dir` with its content and creates it again, empty.
void recreate(const QString& dir);
} // namespace CacheDir
