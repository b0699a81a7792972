// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

// Every line the picker panel shows under the grid or in its search field, in one place so
// the wording stays consistent across tabs.
namespace PickerTexts {
inline const QString loadingIndex = QStringLiteral("Loading index…");
inline const QString collectionsLoading =
    QStringLiteral("Collections are loading… (is the server running?)");
inline const QString mineEmpty =
    QStringLiteral("Nothing here yet. Click ＋ Add to bring in your own images or emoji, or "
                   "press Ctrl+D on a sticker. Yours stay on this computer.");

// Memes tab: the count part (or the browse sentence for an empty query), " (all)" once the
// last page is shown, then the key hints. A query of only spaces counts as a query.
QString memesStatus(const QString& query, qsizetype results, qsizetype mine, bool all);
// Memes tab after cloud results were merged in: the count, "(+N from cloud)" when the
// cloud added items, then the key hints without the caption hint.
QString remoteStatus(qsizetype results, qsizetype added);
QString recentStatus(qsizetype recent, qsizetype mostUsed);
QString mineStatus(qsizetype mine, qsizetype favoriteStickers);
QString collectionListStatus(qsizetype collections);
QString openCollectionStatus(qsizetype shown, qint64 total, const QString& title);

inline const QString memesPlaceholder = QStringLiteral("Search memes…");
inline const QString collectionsPlaceholder = QStringLiteral("Search collections…");
inline const QString recentPlaceholder = QStringLiteral("Search memes you used…");
inline const QString minePlaceholder =
    QStringLiteral("Search my images, emoji and favorite stickers…");
QString openCollectionPlaceholder(const QString& title);
} // namespace PickerTexts
