// SPDX-License-Identifier: MIT
#pragma once

#include <QStyledItemDelegate>

// Paints one grid cell: the thumbnail fitted into the cell, a placeholder while it loads,
// the selection ring, a ★ on favourites, a section title where a Recent section starts, the
// name on collection cards and a progress bar while a paste waits for the full image.
class ThumbnailDelegate : public QStyledItemDelegate {
    Q_OBJECT
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    void setCellSize(QSize size) { m_cellSize = size; }
    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem&, const QModelIndex&) const override {
        return m_cellSize;
    }

private:
    QSize m_cellSize{120, 120};
};
