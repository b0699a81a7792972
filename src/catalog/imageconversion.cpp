// SPDX-License-Identifier: MIT
#include "catalog/imageconversion.h"

#include "base/atomicfile.h"

#include <QBuffer>
#include <QFile>
#include <QImage>
#include <QImageReader>
#include <QImageWriter>

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
