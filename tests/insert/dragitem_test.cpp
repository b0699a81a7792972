// SPDX-License-Identifier: MIT
#include "insert/dragitem.h"
#include "support/images.h"
#include "support/testenv.h"

#include <QImage>
#include <QUrl>
#include <gtest/gtest.h>

namespace {

using TestImages::encode;

QByteArray bytesOf(const ClipboardItem& item, const QString& type) {
    for (const auto& [t, bytes] : item)
        if (t == type)
            return bytes;
    return {};
}

QString fileOf(const ClipboardItem& item) {
    return QUrl(QString::fromUtf8(bytesOf(item, QStringLiteral("text/uri-list")).trimmed()))
        .toLocalFile();
}

} // namespace

// The cache keeps a served JPEG under ".img": what each payload makes of it.
TEST(DragItem, AJPEGDownloadGoesOutAsProperImageFiles) {
    const QString dir = TestEnv::freshDir();
    QImage image(20, 10, QImage::Format_RGB32);
    image.fill(QColor(30, 120, 200));
    const QByteArray jpeg = encode(image, "JPEG");
    DragItem::Source source;
    source.file = dir + QStringLiteral("/k.img");
    source.pngSibling = dir + QStringLiteral("/k.png");
    source.jpegFile = dir + QStringLiteral("/drag/a-cat.jpg");
    TestEnv::writeFile(source.file, jpeg);

    // No PNG rendering yet: b makes one now and names the file as it is.
    auto item = DragItem::make(source, DragPayload::b);
    ASSERT_TRUE(item);
    EXPECT_EQ(fileOf(*item), source.file);
    EXPECT_EQ(QImage::fromData(bytesOf(*item, QStringLiteral("image/png")), "PNG").size(),
              image.size());

    // Once the rendering is there, receivers get a file named ".png".
    TestEnv::writeFile(source.pngSibling, encode(image, "PNG"));
    item = DragItem::make(source, DragPayload::a);
    ASSERT_TRUE(item);
    EXPECT_EQ(fileOf(*item), source.pngSibling);
    EXPECT_TRUE(bytesOf(*item, QStringLiteral("image/png")).isEmpty());

    // c hands the JPEG on unchanged, under the meme's name.
    item = DragItem::make(source, DragPayload::c);
    ASSERT_TRUE(item);
    EXPECT_EQ(fileOf(*item), source.jpegFile);
    EXPECT_EQ(TestEnv::readFile(source.jpegFile), jpeg);

    // A file that is not an image cannot be dragged as one.
    TestEnv::writeFile(source.file, "not an image");
    EXPECT_FALSE(DragItem::make(source, DragPayload::c));
}

TEST(DragItem, NameStemIsTheMemesWordsOrItsFileName) {
    Meme meme;
    meme.id = QStringLiteral("m_1");
    meme.full = QStringLiteral("/f/m_1.webp");
    meme.description = QStringLiteral("Ça, c'est   \"NOT\" fine!");
    EXPECT_EQ(DragItem::nameStem(meme), QStringLiteral("ça-c-est-not-fine"));
    meme.template_ = QString(70, QLatin1Char('x')) + QStringLiteral(" tail");
    EXPECT_EQ(DragItem::nameStem(meme).size(), 60);
    meme.template_ = QStringLiteral("?!");
    EXPECT_EQ(DragItem::nameStem(meme), QStringLiteral("m_1"));
}
