// SPDX-License-Identifier: MIT
#include "insert/captionrenderer.h"

#include <QFontDatabase>
#include <QFontInfo>
#include <QGlyphRun>
#include <QPainter>
#include <QPainterPath>
#include <QPen>
#include <QRawFont>
#include <QTextLayout>
#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <tuple>
#include <vector>

namespace {

const QString impact = QStringLiteral("Impact");

struct Face {
    QString family;
    std::optional<int> weight; // none: the family's own (Impact has one weight)
};

const Face& face() {
    static const Face chosen = [] {
        if (QFontDatabase::hasFamily(impact))
            return Face{impact, std::nullopt};
        // The system font may be named by an alias ("Sans Serif"): ask what it resolves to.
        const QString family =
            QFontInfo(QFontDatabase::systemFont(QFontDatabase::GeneralFont)).family();
        int heaviest = -1;
        for (const QString& style : QFontDatabase::styles(family))
            heaviest = std::max(heaviest, QFontDatabase::weight(family, style));
        return Face{family, heaviest > 0 ? heaviest : int(QFont::Black)};
    }();
    return chosen;
}

// The outline of one glyph at the origin. Loading a glyph runs the font's hinting program,
// which costs more than drawing it, and a preview redraws the same glyphs at every keystroke.
// Fonts belong to a thread, and so does the cache.
QPainterPath glyphPath(const QRawFont& font, quint32 glyph) {
    using Key = std::tuple<QString, int, int, qreal, quint32>;
    thread_local std::map<Key, QPainterPath> cache;
    const Key key{font.familyName(), font.weight(), int(font.style()), font.pixelSize(), glyph};
    if (const auto found = cache.find(key); found != cache.end())
        return found->second;
    // A few lines in a few sizes need far fewer; past this the sizes have moved on.
    if (cache.size() >= 4096)
        cache.clear();
    return cache.emplace(key, font.pathForGlyph(glyph)).first->second;
}

// One caption line laid out for drawing: centred, wrapped at word boundaries (inside a word
// only when it alone is too wide), lines stacked without gaps.
struct Block {
    std::unique_ptr<QTextLayout> layout;
    QSizeF size;
};

Block layOut(const QString& text, const QFont& font, qreal width) {
    Block block{std::make_unique<QTextLayout>(text, font), {}};
    QTextOption option(Qt::AlignHCenter);
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    block.layout->setTextOption(option);
    block.layout->setCacheEnabled(true);
    block.layout->beginLayout();
    qreal y = 0;
    qreal widest = 0;
    for (QTextLine line = block.layout->createLine(); line.isValid();
         line = block.layout->createLine()) {
        line.setLineWidth(width);
        line.setPosition(QPointF(0, y));
        y += line.height();
        widest = std::max(widest, line.naturalTextWidth());
    }
    block.layout->endLayout();
    block.size = QSizeF(widest, y);
    return block;
}

// The largest size from 0.62 × band height down in 2 px steps whose block fits the band.
Block fit(const QString& text, const QRectF& band) {
    qreal size = band.height() * CaptionRenderer::startSizeShare;
    Block block = layOut(text, CaptionRenderer::font(std::max(1, qRound(size))), band.width());
    while (size > CaptionRenderer::smallestFittedPx &&
           (block.size.height() > band.height() || block.size.width() > band.width() + 1)) {
        size -= CaptionRenderer::sizeStepPx;
        block = layOut(text, CaptionRenderer::font(std::max(1, qRound(size))), band.width());
    }
    return block;
}

// A caption line's band in an output of `size`.
QRectF bandOf(QSize size, bool top) {
    const double w = size.width();
    const double h = size.height();
    const double height = CaptionRenderer::bandShare * h;
    const double edge = 0.02 * h;
    return QRectF(0.03 * w, top ? edge : h - edge - height, 0.94 * w, height);
}

// Draws `text` in `area`, flush with its top edge for the top line and with its bottom edge
// for the bottom one.
void drawText(QPainter& painter, const QString& text, const QRectF& area, bool top) {
    if (text.isEmpty())
        return;
    const Block block = fit(text, area);
    const QPointF origin(area.left(), top ? area.top() : area.bottom() - block.size.height());
    std::vector<QPainterPath> glyphs;
    for (const QGlyphRun& run : block.layout->glyphRuns()) {
        const QRawFont font = run.rawFont();
        const QList<quint32> indexes = run.glyphIndexes();
        const QList<QPointF> positions = run.positions();
        for (qsizetype i = 0; i < indexes.size(); ++i)
            glyphs.push_back(glyphPath(font, indexes[i]).translated(origin + positions[i]));
    }
    QPen outline(Qt::black, block.layout->font().pixelSize() * CaptionRenderer::outlineShare);
    outline.setJoinStyle(Qt::RoundJoin);
    // Filled white, then stroked black over the fill: the outline's inner half eats into the
    // letters like a marker's edge. Glyph by glyph: on one path holding all of them the
    // rasterizer slows down far more than in proportion.
    for (const QPainterPath& glyph : glyphs)
        painter.fillPath(glyph, Qt::white);
    for (const QPainterPath& glyph : glyphs)
        painter.strokePath(glyph, outline);
}

} // namespace

namespace CaptionRenderer {

QSize outputSize(QSize source, std::optional<int> maxSide) {
    const int longer = std::max(source.width(), source.height());
    if (!maxSide || longer <= *maxSide || longer <= 0)
        return source;
    const double scale = double(*maxSide) / double(longer);
    return QSize(std::max(1, int(source.width() * scale)),
                 std::max(1, int(source.height() * scale)));
}

std::optional<QImage> render(const QImage& image, const QString& top, const QString& bottom,
                             std::optional<int> maxSide) {
    if (image.isNull())
        return std::nullopt;
    const QSize size = outputSize(image.size(), maxSide);
    QImage out(size, QImage::Format_ARGB32_Premultiplied);
    if (out.isNull())
        return std::nullopt;
    QPainter painter(&out);
    painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    painter.drawImage(QRect(QPoint(0, 0), size), image);
    painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
    drawText(painter, top.toUpper(), bandOf(size, true), true);
    drawText(painter, bottom.toUpper(), bandOf(size, false), false);
    return out;
}

QFont font(int pixelSize) {
    const Face& chosen = face();
    QFont font(chosen.family);
    font.setPixelSize(pixelSize);
    if (chosen.weight)
        font.setWeight(QFont::Weight(*chosen.weight));
    // The outline is drawn from the glyph shapes; hinting would only bend them.
    font.setHintingPreference(QFont::PreferNoHinting);
    return font;
}

} // namespace CaptionRenderer
