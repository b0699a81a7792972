// SPDX-License-Identifier: MIT
#include "insert/pasteitem.h"

#include "catalog/imageconversion.h"

#include <QFile>
#include <QFileInfo>
#include <QUrl>

namespace {

const QString pngType = QStringLiteral("image/png");

QByteArray readAll(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool isPNGData(const QByteArray& bytes) {
    return bytes.startsWith("\x89PNG\r\n\x1a\n");
}

} // namespace

namespace PasteItem {

std::optional<QByteArray> pngBytes(const Source& source) {
    if (!source.captioned) {
        if (source.isPNG) {
            QByteArray bytes = readAll(source.file);
            // A ".png" that is not one (a mislabelled upload) is re-encoded below.
            if (isPNGData(bytes))
                return bytes;
        } else if (!source.pngSibling.isEmpty() && QFileInfo(source.pngSibling).size() > 0) {
            QByteArray bytes = readAll(source.pngSibling);
            if (!bytes.isEmpty())
                return bytes;
        }
    }
    return ImageConversion::pngData(source.file);
}

QString fileForURL(const Source& source) {
    if (source.file.endsWith(QLatin1String(".img")) && !source.pngSibling.isEmpty() &&
        QFileInfo(source.pngSibling).size() > 0)
        return source.pngSibling;
    return source.file;
}

std::optional<ClipboardItem> make(const Source& source, PastePayload payload) {
    if (source.file.isEmpty())
        return std::nullopt;
    ClipboardItem item;
    if (payload == PastePayload::jpegOnly) {
        const std::optional<QByteArray> jpeg = ImageConversion::jpegData(source.file);
        if (!jpeg)
            return std::nullopt;
        item.append({QStringLiteral("image/jpeg"), *jpeg});
        return item;
    }

    const std::optional<QByteArray> png = pngBytes(source);
    if (!png || png->isEmpty())
        return std::nullopt;
    if (payload == PastePayload::fileURLPng)
        item.append({QStringLiteral("text/uri-list"),
                     QUrl::fromLocalFile(fileForURL(source)).toEncoded() + "\r\n"});
    item.append({pngType, *png});
    if (payload == PastePayload::pngTiff) {
        if (const std::optional<QByteArray> tiff = ImageConversion::tiffData(source.file))
            item.append({QStringLiteral("image/tiff"), *tiff});
    }
    return item;
}

} // namespace PasteItem
