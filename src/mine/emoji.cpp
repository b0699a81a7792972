// SPDX-License-Identifier: MIT
#include "mine/emoji.h"

#include <QFont>
#include <QPainter>
#include <QTextBoundaryFinder>
#include <unicode/uchar.h>

namespace {

constexpr char32_t zeroWidthJoiner = 0x200D;
constexpr char32_t variationText = 0xFE0E;
constexpr char32_t variationEmoji = 0xFE0F;
constexpr char32_t combiningKeycap = 0x20E3;

bool has(char32_t c, UProperty property) {
    return u_hasBinaryProperty(UChar32(c), property) != 0;
}

// A cluster is an emoji when it shows a picture: a pictograph, a flag's regional indicators
// or a keycap; everything else in it must be what emoji sequences are built from.
bool isEmojiCluster(const QString& cluster) {
    bool picture = false;
    for (const char32_t c : cluster.toUcs4()) {
        if (has(c, UCHAR_EXTENDED_PICTOGRAPHIC) || has(c, UCHAR_EMOJI_PRESENTATION) ||
            has(c, UCHAR_REGIONAL_INDICATOR) || c == combiningKeycap)
            picture = true;
        else if (!has(c, UCHAR_EMOJI_COMPONENT) && !has(c, UCHAR_EMOJI_MODIFIER) &&
                 c != zeroWidthJoiner && c != variationEmoji && c != variationText)
            return false;
    }
    return picture;
}

} // namespace

namespace Emoji {

QStringList split(const QString& text) {
    QStringList out;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype start = 0;
    while (finder.toNextBoundary() >= 0) {
        const qsizetype end = finder.position();
        const QString cluster = text.mid(start, end - start);
        start = end;
        if (cluster.trimmed().isEmpty())
            continue;
        if (!isEmojiCluster(cluster))
            return {};
        out.append(cluster);
    }
    return out;
}

QString name(const QString& emoji) {
    QStringList names;
    for (const char32_t c : emoji.toUcs4()) {
        if (c == zeroWidthJoiner || c == variationEmoji || c == variationText)
            continue;
        char buffer[256];
        UErrorCode error = U_ZERO_ERROR;
        const int32_t length =
            u_charName(UChar32(c), U_UNICODE_CHAR_NAME, buffer, sizeof buffer, &error);
        if (U_SUCCESS(error) && length > 0)
            names.append(QString::fromLatin1(buffer, length).toLower());
    }
    return names.join(u' ');
}

QImage render(const QString& emoji, int side) {
    QImage image(side, side, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QFont font(fontFamily);
    // The glyph's ink fills about four fifths of its em square.
    font.setPixelSize(side * 3 / 4);
    font.setStyleStrategy(QFont::PreferDefault);
    {
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setRenderHint(QPainter::SmoothPixmapTransform);
        painter.setFont(font);
        painter.drawText(image.rect(), Qt::AlignCenter, emoji);
    }
    // A font without the emoji draws an empty box or nothing at all; a colour emoji has
    // colour in it.
    int coloured = 0;
    for (int y = 0; y < image.height(); ++y) {
        const auto* line = reinterpret_cast<const QRgb*>(image.constScanLine(y));
        for (int x = 0; x < image.width(); ++x) {
            const QRgb px = line[x];
            if (qAlpha(px) > 0 && (qRed(px) != qGreen(px) || qGreen(px) != qBlue(px)))
                ++coloured;
        }
    }
    return coloured > side ? image : QImage();
}

} // namespace Emoji
