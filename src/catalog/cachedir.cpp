// SPDX-License-Identifier: MIT
#include "catalog/cachedir.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <limits>
#include <vector>

namespace CacheDir {

std::optional<TrimResult> trim(const QString& dir, qint64 maxBytes, const QDateTime& now) {
    const QDir folder(dir);
    if (!folder.exists())
        return std::nullopt;

    struct Entry {
        QString path;
        qint64 size;
        qint64 modifiedMs;
    };
    std::vector<Entry> entries;
    qint64 total = 0;
    // Hidden files count too: a crash can leave a half-written download behind.
    for (const QFileInfo& info : folder.entryInfoList(QDir::Files | QDir::Hidden)) {
        const QDateTime modified = info.lastModified();
        entries.push_back({info.absoluteFilePath(), info.size(),
                           modified.isValid() ? modified.toMSecsSinceEpoch()
                                              : std::numeric_limits<qint64>::min()});
        total += info.size();
    }
    if (total <= maxBytes)
        return std::nullopt;

    std::stable_sort(entries.begin(), entries.end(),
                     [](const Entry& a, const Entry& b) { return a.modifiedMs < b.modifiedMs; });
    TrimResult result;
    result.bytesBefore = total;
    const qint64 cutoffMs = now.toMSecsSinceEpoch() - qint64(graceSeconds) * 1000;
    for (const Entry& entry : entries) {
        if (total <= maxBytes)
            break;
        if (entry.modifiedMs >= cutoffMs)
            continue;
        if (QFile::remove(entry.path)) {
            total -= entry.size;
            ++result.deleted;
        }
    }
    result.bytesAfter = total;
    return result;
}

bool touch(const QString& path, const QDateTime& when) {
    QFile file(path);
    // Opening read-only is enough: the owner may set the times of any open file.
    return file.open(QIODevice::ReadOnly) &&
           file.setFileTime(when, QFileDevice::FileModificationTime);
}

void recreate(const QString& dir) {
    QDir(dir).removeRecursively();
    QDir().mkpath(dir);
}

} // namespace CacheDir
