// SPDX-License-Identifier: MIT
#include "catalog/imageconversion.h"

#include "base/atomicfile.h"

#include <QBuffer>
#include <QFile>
#include <QImage>
#include <QImageReader>
#include <QImageWriter>
#include <QPainter>

namespace {
QImage read(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QImageReader reader(&file);
    reader.setDecideFormatFromContent(true);
    return reader.read();
}

std::optional<QByteArray> encode(const QImage& image, const char* format) {
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    QImageWriter writer(&buffer, format);
    if (!writer.write(image))
        return std::nullopt;
    return bytes;
}
} // namespace

namespace ImageConversion {
std::optional<QByteArray> pngData(const QString& source) {
    const QImage image = read(source);
    if (image.isNull())
        return std::nullopt;
    return encode(image, "png");
}

std::optional<QByteArray> jpegData(const QString& source, int quality) {
    return jpegData(read(source), quality);
}

std::optional<QByteArray> jpegData(const QImage& image, int quality) {
    if (image.isNull())
        return std::nullopt;
    QImage flat(image.size(), QImage::Format_RGB32);
    if (flat.isNull())
        return std::nullopt;
    flat.setDevicePixelRatio(image.devicePixelRatio());
    flat.fill(Qt::white);
    {
        QPainter painter(&flat);
        painter.drawImage(0, 0, image);
    }
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    QImageWriter writer(&buffer, "jpeg");
    writer.setQuality(quality);
    if (!writer.write(flat))
        return std::nullopt;
    return bytes;
}

bool makePNG(const QString& source, const QString& target) {
    const QImage image = read(source);
    if (image.isNull())
        return false;
    const auto png = encode(image, "png");
    return png && writeFileAtomically(target, *png);
}

std::optional<QByteArray> tiffData(const QString& source) {
    const QImage image = read(source);
    if (image.isNull())
        return std::nullopt;
    return encode(image, "tiff");
}
} // namespace ImageConversion
