// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/meme.h"

#include <QAbstractListModel>
#include <QCache>
#include <QPixmap>
#include <QSet>

class PickerModel;
class ThumbnailCache;

// Presents the picker's cells (results, or the collection list) to a QListView. Thumbnails
// are asked for only when a cell is painted, so only visible cells cost anything; until one
// arrives the cell has no decoration and the delegate draws a placeholder.
class ResultsGridModel : public QAbstractListModel {
    Q_OBJECT
public:
    enum Role {
        FavoriteRole = Qt::UserRole + 1, // bool
        SectionTitleRole,                // QString on the first cell of a Recent section
        LoadingRole,                     // bool: the thumbnail is on its way
        InsertProgressRole, // double on the cell waiting for its full image to paste: the
                            // fraction received, or -1 while the size is unknown
        CaptionRole,        // QString: the name written on a collection card
    };

    ResultsGridModel(PickerModel& picker, ThumbnailCache* thumbnails, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    // Results can be dragged out; collection cards cannot.
    Qt::ItemFlags flags(const QModelIndex& index) const override;

    // The item whose paste waits for its download, with the fraction received (< 0 unknown);
    // an empty id clears it.
    void setInsertProgress(const QString& id, double fraction);
    const QString& insertPendingId() const { return m_insertId; }

private:
    void reset();
    void emitChangedFor(const QString& id, const QList<int>& roles);
    std::optional<Meme> memeAt(int row) const;
    QPixmap thumbnailFor(const Meme& meme) const;

    PickerModel& m_picker;
    ThumbnailCache* m_thumbnails;
    // Two pages of cells; the thumbnail cache behind it keeps more, and its pixmaps share
    // their pixels with it.
    mutable QCache<QString, QPixmap> m_pixmaps{120};
    mutable QSet<QString> m_pending;
    mutable QSet<QString> m_missing;
    QString m_insertId;
    double m_insertFraction = -1;
};
