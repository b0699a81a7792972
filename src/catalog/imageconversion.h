// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QImage>
#include <QString>
#include <optional>

// Re-encodings of cached full images for the paste and drag payloads. They block on the disk
// and the decoder, so call them off the GUI thread. The source format is sniffed from the
// content: the cache stores non-PNG images under ".img".
namespace ImageConversion {
// Writes a PNG rendering of `source` to `target` atomically; false when `source` does not
// decode or `target` cannot be written. Suits MemeStore::Options::convertToPNG.
bool makePNG(const QString& source, const QString& target);
// The PNG encoding of `source`, or nothing when it does not decode.
std::optional<QByteArray> pngData(const QString& source);
// The JPEG encoding of `source` (flattened onto white: JPEG has no transparency).
std::optional<QByteArray> jpegData(const QString& source, int quality = 90);
// The same for an image in memory; `quality` runs from 0 to 100.
std::optional<QByteArray> jpegData(const QImage& image, int quality = 90);
// The TIFF encoding of `source`, or nothing when it does not decode.
std::optional<QByteArray> tiffData(const QString& source);
} // namespace ImageConversion
