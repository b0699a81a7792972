// SPDX-License-Identifier: MIT
#include "ui/thumbnaildelegate.h"

#include "ui/resultsgridmodel.h"

#include <QDateTime>
#include <QPainter>
#include <QPainterPath>

namespace {

// How long the indeterminate bar's segment takes to sweep the cell once.
constexpr int sweepMs = 1200;

} // namespace

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

    const QString caption = index.data(ResultsGridModel::CaptionRole).toString();
    if (!caption.isEmpty()) {
        painter->setFont(option.font);
        const QFontMetricsF metrics(option.font);
        const QRectF band(cell.left(), cell.bottom() - metrics.height() - 8, cell.width(),
                          metrics.height() + 8);
        QColor back = palette.color(QPalette::Window);
        back.setAlpha(225);
        painter->save();
        painter->setClipPath(rounded);
        painter->fillRect(band, back);
        painter->restore();
        painter->setPen(palette.color(QPalette::WindowText));
        painter->drawText(band.adjusted(6, 0, -6, 0), Qt::AlignCenter,
                          metrics.elidedText(caption, Qt::ElideRight, band.width() - 12));
    }

    if (const QVariant progress = index.data(ResultsGridModel::InsertProgressRole);
        progress.isValid()) {
        const double fraction = progress.toDouble();
        painter->save();
        const QRectF track(cell.left() + 8, cell.bottom() - 10, cell.width() - 16, 4);
        QColor trackColor = palette.color(QPalette::Window);
        trackColor.setAlpha(200);
        painter->setPen(Qt::NoPen);
        painter->setBrush(trackColor);
        painter->drawRoundedRect(track, 2, 2);
        QRectF bar = track;
        if (fraction >= 0) {
            bar.setWidth(track.width() * qBound(0.0, fraction, 1.0));
        } else {
            // Size unknown: a segment sweeps across the track.
            const double phase =
                double(QDateTime::currentMSecsSinceEpoch() % sweepMs) / double(sweepMs);
            const double segment = track.width() / 3;
            bar.setLeft(track.left() + (track.width() + segment) * phase - segment);
            bar.setWidth(segment);
            bar = bar.intersected(track);
        }
        painter->setBrush(palette.color(QPalette::Highlight));
        painter->drawRoundedRect(bar, 2, 2);
        painter->restore();
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
