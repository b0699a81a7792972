// SPDX-License-Identifier: MIT
#pragma once

#include <QImage>
#include <array>
#include <bit>
#include <cstdint>

// A perceptual hash of a picture (the DCT "pHash"): 64 bits that stay nearly the same when the
// picture is resized or re-encoded as JPEG, so two copies of one meme template are a small
// Hamming distance apart while different pictures are about 32 bits apart.
//
// Computed here on a 32×32 grey copy that Qt scales down, rather than with OpenCV's img_hash:
// that module comes only with Debian's libopencv-contrib-dev, which pulls in some 180 packages
// (VTK, GDAL, Qt 5) for one small function.
//
// The grey hash cannot tell apart pictures that differ only in colour (one emoji in five skin
// tones), so a print also keeps the colours at a glance: the mean RGB of 8×8 cells.
namespace ImageHash {
using Colours = std::array<std::uint8_t, 192>;
struct Print {
    std::uint64_t shape = 0;
    Colours colours{};
};

// Transparent parts count as white, as they become when a client converts to JPEG. A null
// image gives a print of zeros.
Print of(const QImage& image);
inline int distance(std::uint64_t a, std::uint64_t b) {
    return std::popcount(a ^ b);
}
// Sum of the channels' differences, 0 to 192 × 255.
int colourDistance(const Colours& a, const Colours& b);
} // namespace ImageHash
