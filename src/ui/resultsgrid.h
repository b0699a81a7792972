// SPDX-License-Identifier: MIT
#pragma once

#include <QListView>
#include <QPersistentModelIndex>
#include <QPixmap>
#include <QPoint>

// The panel's grid of cells. Clicks and double clicks work as in any list view; a press on a
// cell that can be dragged (Qt::ItemIsDragEnabled) followed by a move beyond the desktop's
// drag distance asks for a drag instead, and the view ignores that press from then on.
class ResultsGrid : public QListView {
    Q_OBJECT
public:
    using QListView::QListView;

    // The cell's thumbnail placed as the cell shows it, on a transparent cell-sized pixmap.
    QPixmap dragImage(const QModelIndex& index) const;

signals:
    // `hotSpot` is where the press was, in the coordinates of dragImage(index).
    void dragRequested(const QModelIndex& index, const QPixmap& image, QPoint hotSpot);

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

private:
    QPersistentModelIndex m_pressed;
    QPoint m_pressPos;
    // The press went to a drag: its moves and release no longer select or click.
    bool m_handedOver = false;
};
