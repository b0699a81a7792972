// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QFont>
#include <QImage>
#include <QSize>
#include <QString>
#include <optional>

// Classic meme captions: white capitals with a black outline, the top line hanging from the
// top edge and the bottom line standing on the bottom edge, each shrunk until it fits its band.
// Stateless and safe on any thread (each call paints into its own image).
//
// Layout, for an output of W × H pixels: each band is 0.3 H high and 0.94 W wide, 0.03 W from
// the sides and 0.02 H from its edge. A line starts at 0.62 × band height and steps down by 2 px
// until its word-wrapped block fits the band, or until it is 12 px or less (then it may spill).
// The outline is 6 % of the font size, so it scales with the text.
namespace CaptionRenderer {
inline constexpr int previewMaxSide = 560;
inline constexpr double bandShare = 0.3;
inline constexpr double startSizeShare = 0.62;
inline constexpr double sizeStepPx = 2;
inline constexpr double smallestFittedPx = 12;
inline constexpr double outlineShare = 0.06;

// The size render() draws at: the source's own, or scaled down (truncated, at least 1 × 1)
// so that its longer side is `maxSide`. Never scaled up.
QSize outputSize(QSize source, std::optional<int> maxSide);

// A copy of `image`, scaled to outputSize(), with `top` and `bottom` drawn upper-cased. An
// empty line draws nothing. None when the image is empty or the bitmap cannot be made.
std::optional<QImage> render(const QImage& image, const QString& top, const QString& bottom,
                             std::optional<int> maxSide = std::nullopt);

// The caption face at `pixelSize`: Impact when installed, otherwise the system's sans serif
// at its heaviest weight.
QFont font(int pixelSize);
} // namespace CaptionRenderer
