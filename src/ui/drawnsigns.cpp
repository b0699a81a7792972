// SPDX-License-Identifier: MIT
#include "ui/drawnsigns.h"

#include <QFontMetricsF>
#include <QGlyphRun>
#include <QImage>
#include <QLabel>
#include <QPainter>
#include <QTextLayout>
#include <QUrl>
#include <QVariant>

namespace {

const QString plusUrl = QStringLiteral("glimmet-sign:plus");

} // namespace

namespace DrawnSigns {

bool fontHas(const QFont& font, QChar c) {
    // Glyph 0 is the missing-glyph box; the layout tries the font's fallbacks first.
    QTextLayout layout(QString(c), font);
    layout.beginLayout();
    layout.createLine();
    layout.endLayout();
    for (const QGlyphRun& run : layout.glyphRuns())
        for (const quint32 glyph : run.glyphIndexes())
            if (glyph == 0)
                return false;
    return true;
}

QImage plus(const QFont& font, const QColor& color, qreal devicePixelRatio) {
    const QFontMetricsF metrics(font);
    // A fullwidth sign is one em wide; its arms reach about as far as a capital's height.
    const qreal em = qMax<qreal>(8, metrics.height());
    const qreal arm = metrics.capHeight() > 0 ? metrics.capHeight() * 0.55 : em * 0.35;
    const qreal stroke = qMax<qreal>(1, em / 11);
    const int side = qCeil(em * devicePixelRatio);
    QImage image(side, side, QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(devicePixelRatio);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    const QPointF centre(em / 2, em / 2);
    painter.fillRect(QRectF(centre.x() - arm, centre.y() - stroke / 2, 2 * arm, stroke), color);
    painter.fillRect(QRectF(centre.x() - stroke / 2, centre.y() - arm, stroke, 2 * arm), color);
    return image;
}

void setText(QLabel* label, const QString& text) {
    if (!text.contains(fullwidthPlus) || fontHas(label->font(), fullwidthPlus)) {
        label->setTextFormat(Qt::PlainText);
        label->setText(text);
        return;
    }
    const QFontMetrics metrics(label->font());
    const QString image = QStringLiteral("<img src=\"%1\" width=\"%2\" height=\"%2\" "
                                         "style=\"vertical-align: middle\">")
                              .arg(plusUrl)
                              .arg(metrics.height());
    // Drawn on demand, so the sign follows the label's colour and the screen's pixel ratio.
    label->setResourceProvider([label](const QUrl& url) -> QVariant {
        if (url.toString() != plusUrl)
            return {};
        return plus(label->font(), label->palette().color(label->foregroundRole()),
                    label->devicePixelRatioF());
    });
    label->setTextFormat(Qt::RichText);
    label->setText(text.toHtmlEscaped().replace(fullwidthPlus, image));
}

QString plainFallback(const QString& text, const QFont& font) {
    if (!text.contains(fullwidthPlus) || fontHas(font, fullwidthPlus))
        return text;
    return QString(text).replace(fullwidthPlus, QLatin1Char('+'));
}

} // namespace DrawnSigns
