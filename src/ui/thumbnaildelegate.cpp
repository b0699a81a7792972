// SPDX-License-Identifier: MIT
#include "ui/thumbnaildelegate.h"

#include "ui/resultsgridmodel.h"

#include <QPainter>
#include <QPainterPath>

void ThumbnailDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                              const QModelIndex& index) const {
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing);
    painter->setRenderHint(QPainter::SmoothPixmapTransform);
    const QPalette& palette = option.palette;
    const QRectF cell = QRectF(option.rect).adjusted(3, 3, -3, -3);
    const bool selected = option.state & QStyle::State_Selected;

    QPainterPath rounded;
    rounded.addRoundedRect(cell, 8, 8);
    painter->fillPath(rounded, palette.color(QPalette::AlternateBase));

    const QPixmap pixmap = index.data(Qt::DecorationRole).value<QPixmap>();
    if (!pixmap.isNull()) {
        const QRectF inner = cell.adjusted(4, 4, -4, -4);
        QSizeF size = pixmap.deviceIndependentSize();
        size.scale(inner.size(), Qt::KeepAspectRatio);
        const QRectF target(inner.center() - QPointF(size.width() / 2, size.height() / 2), size);
        painter->setClipPath(rounded);
        painter->drawPixmap(target, pixmap, pixmap.rect());
        painter->setClipping(false);
    } else {
        // Placeholder while loading (or a caption when the image is missing).
        painter->setPen(palette.color(QPalette::PlaceholderText));
        const QString text = index.data(ResultsGridModel::LoadingRole).toBool()
                                 ? QStringLiteral("…")
                                 : index.data(Qt::DisplayRole).toString();
        painter->drawText(cell.adjusted(6, 6, -6, -6), Qt::AlignCenter | Qt::TextWordWrap, text);
    }

    const QString section = index.data(ResultsGridModel::SectionTitleRole).toString();
    if (!section.isEmpty()) {
        QFont font = option.font;
        font.setPointSizeF(font.pointSizeF() * 0.8);
        font.setBold(true);
        painter->setFont(font);
        const QRectF tag(cell.left() + 4, cell.top() + 4, cell.width() - 8,
                         painter->fontMetrics().height() + 4);
        QPainterPath tagPath;
        tagPath.addRoundedRect(tag, 4, 4);
        QColor back = palette.color(QPalette::Window);
        back.setAlpha(220);
        painter->fillPath(tagPath, back);
        painter->setPen(palette.color(QPalette::WindowText));
        painter->drawText(tag, Qt::AlignCenter, section);
    }

    if (index.data(ResultsGridModel::FavoriteRole).toBool()) {
        painter->setPen(QColor(0xF5, 0xB3, 0x01));
        QFont font = option.font;
        font.setPointSizeF(font.pointSizeF() * 1.2);
        painter->setFont(font);
        painter->drawText(cell.adjusted(0, 2, -6, 0), Qt::AlignTop | Qt::AlignRight,
                          QStringLiteral("★"));
    }

    if (selected) {
        QPen ring(palette.color(QPalette::Highlight), 3);
        painter->setPen(ring);
        painter->drawRoundedRect(cell.adjusted(1.5, 1.5, -1.5, -1.5), 7, 7);
    }
    painter->restore();
}
