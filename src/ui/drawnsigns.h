// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

class QFont;
class QImage;
class QLabel;
class QColor;

// Signs our texts use that common Linux UI fonts lack: "＋" (U+FF0B, fullwidth plus) is in
// none of DejaVu, Liberation or Noto Sans. Where the font cannot draw it, the sign is drawn
// by hand as an inline image in the label's own size and colour, never a missing-glyph box.
namespace DrawnSigns {
inline constexpr QChar fullwidthPlus{0xFF0B};

// Whether `font`, or one of its fallbacks, has a glyph for `c`.
bool fontHas(const QFont& font, QChar c);

// The plus sign as an em-square image for `font`, in `color`, at `devicePixelRatio`.
QImage plus(const QFont& font, const QColor& color, qreal devicePixelRatio);

// Shows `text` in `label` as plain text, or as rich text with each "＋" drawn when the
// label's font lacks it.
void setText(QLabel* label, const QString& text);

// `text` for places that cannot show an image (tool tips): "＋" becomes "+" when `font`
// lacks it.
QString plainFallback(const QString& text, const QFont& font);
} // namespace DrawnSigns
