// SPDX-License-Identifier: MIT
#pragma once

#include <QBuffer>
#include <QColor>
#include <QImage>

namespace TestImages {

inline QByteArray encode(const QImage& image, const char* format) {
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, format);
    return bytes;
}

inline QImage filled(int width, int height, QColor color) {
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(color);
    return image;
}

} // namespace TestImages
