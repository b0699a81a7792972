// SPDX-License-Identifier: MIT
#include "stresscatalog.h"

#include <QColor>
#include <QFont>
#include <QPainter>

MemeList StressCatalog::records(int count) {
    MemeList memes;
    memes.reserve(count);
    for (int n = 1; n <= count; ++n) {
        Meme meme;
        meme.id = QStringLiteral("m_%1").arg(n, 5, 10, QLatin1Char('0'));
        meme.description = QStringLiteral("a cat number %1").arg(n);
        meme.keywords = {QStringLiteral("cat")};
        meme.thumb = QStringLiteral("/t/%1.webp").arg(n);
        meme.full = QStringLiteral("/f/%1.jpg").arg(n);
        meme.width = pictureSize;
        meme.height = pictureSize;
        meme.bytes = 1;
        meme.popularity = 200 - n;
        memes << meme;
    }
    return memes;
}

QImage StressCatalog::picture(const QImage& cat, int number) {
    QImage image(pictureSize, pictureSize, QImage::Format_RGB32);
    // Neighbouring numbers get clearly different tints, so a scrolled grid shows movement.
    image.fill(QColor::fromHsv((number * 47) % 360, 40, 255));
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setRenderHint(QPainter::TextAntialiasing);
    if (!cat.isNull())
        painter.drawImage(QRect(18, 4, 64, 64), cat);
    QFont font;
    font.setPixelSize(22);
    font.setBold(true);
    painter.setFont(font);
    painter.setPen(QColor(40, 40, 40));
    painter.drawText(QRect(0, 68, pictureSize, 30), Qt::AlignCenter, QString::number(number));
    painter.end();
    return image;
}
