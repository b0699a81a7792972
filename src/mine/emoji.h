// SPDX-License-Identifier: MIT
#pragma once

#include <QImage>
#include <QString>
#include <QStringList>

// Emoji the user drops or pastes as text become pictures of their own. Unicode's emoji
// properties and character names come from ICU; the picture from the system's colour emoji
// font. Rendering paints text, so it needs a QGuiApplication (any thread may call it).
namespace Emoji {
inline const QString fontFamily = QStringLiteral("Noto Color Emoji");
constexpr int renderSide = 160;

// The emoji in `text`, one per user-perceived character, white space between them allowed.
// Empty when `text` holds anything else (a word, a letter, a lone digit) or no emoji at all.
QStringList split(const QString& text);
// The lower-case Unicode names of the code points of `emoji`, joiners and variation
// selectors left out: "😂" gives "face with tears of joy".
QString name(const QString& emoji);
// `emoji` drawn with the colour emoji font, centred on a transparent square of `side`
// pixels. A null image when nothing was drawn (no font that has it).
QImage render(const QString& emoji, int side = renderSide);
} // namespace Emoji
