// SPDX-License-Identifier: MIT
#include "search/pickertexts.h"

namespace PickerTexts {

namespace {

// Recent and Mine rows have no caption hint: captions are drawn on catalog memes only.
const QString listHints =
    QStringLiteral(" · ↵ paste · drag to insert · Ctrl+D favorite · ⇥ next tab · esc close");

} // namespace

QString memesStatus(const QString& query, qsizetype results, qsizetype mine, bool all) {
    QString line;
    if (query.isEmpty()) {
        line = QStringLiteral("★ favorites, recents, then a fresh mix every day");
    } else {
        line = QStringLiteral("%1 results").arg(results);
        if (mine > 0)
            line += QStringLiteral(" (%1 of yours)").arg(mine);
    }
    if (all)
        line += QStringLiteral(" (all)");
    return line + QStringLiteral(
                      " · ↵ paste · drag to insert · Ctrl+D favorite · Ctrl+E caption · esc close");
}

QString remoteStatus(qsizetype results, qsizetype added) {
    QString line = QStringLiteral("%1 results").arg(results);
    if (added > 0)
        line += QStringLiteral(" (+%1 from cloud)").arg(added);
    return line + QStringLiteral(" · ↵ paste · drag to insert · Ctrl+D favorite · esc close");
}

QString recentStatus(qsizetype recent, qsizetype mostUsed) {
    return QStringLiteral("%1 recent · %2 most used").arg(recent).arg(mostUsed) + listHints;
}

QString mineStatus(qsizetype mine, qsizetype favoriteStickers) {
    return QStringLiteral("%1 yours · %2 favorite stickers").arg(mine).arg(favoriteStickers) +
           listHints;
}

QString collectionListStatus(qsizetype collections) {
    return (collections == 1 ? QStringLiteral("1 collection")
                             : QStringLiteral("%1 collections").arg(collections)) +
           QStringLiteral(" · ↵ open · drag to insert · ⇥ memes · esc close");
}

QString openCollectionStatus(qsizetype shown, qint64 total, const QString& title) {
    return QStringLiteral("%1 of %2 %3 in %4 · ↵ paste · drag to insert · ⇥ memes · esc back")
        .arg(shown)
        .arg(total)
        .arg(total == 1 ? QStringLiteral("sticker") : QStringLiteral("stickers"))
        .arg(title);
}

QString openCollectionPlaceholder(const QString& title) {
    return QStringLiteral("Search in ") + title + QStringLiteral("…");
}

} // namespace PickerTexts
