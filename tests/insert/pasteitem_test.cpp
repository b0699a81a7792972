// SPDX-License-Identifier: MIT
#include "insert/pasteitem.h"
#include "support/images.h"
#include "support/testenv.h"

#include <QImage>
#include <gtest/gtest.h>

namespace {

using TestImages::encode;

QImage halfTransparent() {
    QImage image(16, 8, QImage::Format_ARGB32);
    image.fill(QColor(200, 20, 20, 255));
    for (int x = 0; x < 8; ++x)
        for (int y = 0; y < 8; ++y)
            image.setPixelColor(x, y, Qt::transparent);
    return image;
}

QStringList typesOf(const ClipboardItem& item) {
    QStringList types;
    for (const auto& entry : item)
        types.append(entry.first);
    return types;
}

QByteArray bytesOf(const ClipboardItem& item, const QString& type) {
    for (const auto& [t, bytes] : item)
        if (t == type)
            return bytes;
    return {};
}

class PasteItemTest : public testing::Test {
protected:
    QString dir = TestEnv::freshDir();
    QString write(const QString& name, const QByteArray& bytes) {
        TestEnv::writeFile(dir + QLatin1Char('/') + name, bytes);
        return dir + QLatin1Char('/') + name;
    }
};

} // namespace

// A PNG goes out as it is (the desktop paste test compares its bytes); anything else is
// re-encoded.
TEST_F(PasteItemTest, AJPEGGoesOutAsAFreshPNG) {
    // A ".png" that is really a JPEG, and a ".img" without a ready sibling: both re-encoded.
    const QByteArray jpeg = encode(halfTransparent(), "JPEG");
    for (const PasteItem::Source& s :
         {PasteItem::Source{write(QStringLiteral("liar.png"), jpeg), {}, true, false},
          PasteItem::Source{write(QStringLiteral("b.img"), jpeg),
                            write(QStringLiteral("b-empty.png"), {}), false, false}}) {
        const auto made = PasteItem::make(s, PastePayload::pngOnly);
        ASSERT_TRUE(made);
        const QImage decoded = QImage::fromData(bytesOf(*made, QStringLiteral("image/png")), "PNG");
        EXPECT_EQ(decoded.size(), QSize(16, 8));
    }
}

TEST_F(PasteItemTest, AReadyPNGSiblingIsUsedAndNamedInTheFileURL) {
    const QString full = write(QStringLiteral("c.img"), encode(halfTransparent(), "JPEG"));
    const QByteArray sibling = encode(halfTransparent(), "PNG");
    const QString siblingPath = write(QStringLiteral("c.png"), sibling);
    const auto item = PasteItem::make({full, siblingPath, false, false}, PastePayload::fileURLPng);
    ASSERT_TRUE(item);
    EXPECT_EQ(typesOf(*item),
              (QStringList{QStringLiteral("text/uri-list"), QStringLiteral("image/png")}));
    EXPECT_EQ(bytesOf(*item, QStringLiteral("image/png")), sibling);
    EXPECT_EQ(bytesOf(*item, QStringLiteral("text/uri-list")),
              QUrl::fromLocalFile(siblingPath).toEncoded() + "\r\n");

    // A caption is its own file: no sibling stands in for it.
    const QByteArray caption = encode(QImage(4, 4, QImage::Format_RGB32), "PNG");
    const QString captionPath = write(QStringLiteral("caption.png"), caption);
    const auto captioned =
        PasteItem::make({captionPath, siblingPath, false, true}, PastePayload::pngOnly);
    ASSERT_TRUE(captioned);
    EXPECT_EQ(QImage::fromData(bytesOf(*captioned, QStringLiteral("image/png"))).size(),
              QSize(4, 4));
}

TEST_F(PasteItemTest, TIFFAndJPEGPayloadsDecodeToTheSameImage) {
    const QString file = write(QStringLiteral("d.png"), encode(halfTransparent(), "PNG"));
    const auto tiff = PasteItem::make({file, {}, true, false}, PastePayload::pngTiff);
    ASSERT_TRUE(tiff);
    EXPECT_EQ(QImage::fromData(bytesOf(*tiff, QStringLiteral("image/tiff")), "TIFF").size(),
              QSize(16, 8));

    const auto jpeg = PasteItem::make({file, {}, true, false}, PastePayload::jpegOnly);
    ASSERT_TRUE(jpeg);
    const QImage decoded = QImage::fromData(bytesOf(*jpeg, QStringLiteral("image/jpeg")), "JPEG");
    ASSERT_EQ(decoded.size(), QSize(16, 8));
    // JPEG has no transparency: the clear half comes out white, not black.
    EXPECT_GT(decoded.pixelColor(2, 2).lightness(), 240);
    EXPECT_GT(decoded.pixelColor(12, 4).red(), 150);
}

TEST_F(PasteItemTest, NothingIsMadeFromAFileThatIsNotAnImage) {
    const QString junk = write(QStringLiteral("junk.img"), "not an image at all");
    for (PastePayload payload : {PastePayload::pngOnly, PastePayload::pngTiff,
                                 PastePayload::fileURLPng, PastePayload::jpegOnly}) {
        EXPECT_FALSE(PasteItem::make({junk, {}, false, false}, payload)) << int(payload);
        EXPECT_FALSE(
            PasteItem::make({dir + QStringLiteral("/missing.png"), {}, true, false}, payload));
    }
}
