// SPDX-License-Identifier: MIT
#pragma once

#include <QImage>
#include <QString>
#include <cstdint>

// Renders one SVG to the catalog's two image files: a PNG full image and a WebP thumbnail,
// each drawn from the vector art at its own size so neither is a blurry rescale.
// Safe to use from several threads at once (each call has its own renderer).
class EmojiRenderer {
public:
    struct Result {
        bool ok = false;
        std::int64_t fullBytes = 0;
        int width = 0;
        int height = 0;
        QString error;
    };

    EmojiRenderer(int fullSize, int thumbSize) : m_fullSize(fullSize), m_thumbSize(thumbSize) {}

    // Writes `fullPath` (PNG) and `thumbPath` (WebP) from the SVG at `svgPath`.
    Result render(const QString& svgPath, const QString& fullPath, const QString& thumbPath) const;

    // The SVG drawn on a transparent square of `size` pixels; a null image when it cannot be read.
    static QImage rasterize(const QString& svgPath, int size);
    // Writes `image` in `format` ("png", "webp", "jpg"); false when the encoder fails.
    static bool write(const QImage& image, const QString& path, const char* format, int quality);

private:
    int m_fullSize;
    int m_thumbSize;
};
