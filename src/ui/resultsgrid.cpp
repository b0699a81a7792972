// SPDX-License-Identifier: MIT
#include "ui/resultsgrid.h"

#include <QApplication>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>

namespace {

// ThumbnailDelegate's geometry (cell inset, image inset, corner radius), so the image leaves
// the cell looking as it stood there.
constexpr int cellInset = 3;
constexpr int imageInset = 4;
constexpr qreal cornerRadius = 8;

} // namespace

QPixmap ResultsGrid::dragImage(const QModelIndex& index) const {
    const QRect cell = visualRect(index);
    const QPixmap thumbnail = index.data(Qt::DecorationRole).value<QPixmap>();
    if (thumbnail.isNull())
        return viewport()->grab(cell);
    const qreal ratio = devicePixelRatioF();
    QPixmap image(cell.size() * ratio);
    image.setDevicePixelRatio(ratio);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
    // The cell's own card behind the thumbnail: without a compositor the desktop shows the
    // image's transparent parts as an opaque box, which the card then fills.
    const QRectF card =
        QRectF(QPointF(0, 0), cell.size()).adjusted(cellInset, cellInset, -cellInset, -cellInset);
    QPainterPath rounded;
    rounded.addRoundedRect(card, cornerRadius, cornerRadius);
    painter.fillPath(rounded, palette().color(QPalette::AlternateBase));
    const QRectF inner = card.adjusted(imageInset, imageInset, -imageInset, -imageInset);
    const QSizeF size = thumbnail.deviceIndependentSize().scaled(inner.size(), Qt::KeepAspectRatio);
    painter.drawPixmap(QRectF(inner.center() - QPointF(size.width() / 2, size.height() / 2), size),
                       thumbnail, thumbnail.rect());
    return image;
}

void ResultsGrid::mousePressEvent(QMouseEvent* event) {
    m_handedOver = false;
    m_pressed = QPersistentModelIndex();
    if (event->button() == Qt::LeftButton) {
        m_pressPos = event->position().toPoint();
        m_pressed = indexAt(m_pressPos);
    }
    QListView::mousePressEvent(event);
}

void ResultsGrid::mouseMoveEvent(QMouseEvent* event) {
    if (m_handedOver) {
        // Keeps the view from selecting whatever the pointer passes while the drag waits.
        event->accept();
        return;
    }
    const QPoint pos = event->position().toPoint();
    if ((event->buttons() & Qt::LeftButton) && m_pressed.isValid() &&
        (m_pressed.flags() & Qt::ItemIsDragEnabled) &&
        (pos - m_pressPos).manhattanLength() >= QApplication::startDragDistance()) {
        m_handedOver = true;
        const QModelIndex index = m_pressed;
        emit dragRequested(index, dragImage(index), m_pressPos - visualRect(index).topLeft());
        event->accept();
        return;
    }
    QListView::mouseMoveEvent(event);
}

void ResultsGrid::mouseReleaseEvent(QMouseEvent* event) {
    if (m_handedOver) {
        // Released before the drag could start: neither a click nor a selection.
        m_handedOver = false;
        m_pressed = QPersistentModelIndex();
        event->accept();
        return;
    }
    QListView::mouseReleaseEvent(event);
}
