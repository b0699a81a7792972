// SPDX-License-Identifier: MIT
#include "insert/captionfile.h"
#include "insert/captionrenderer.h"
#include "support/testenv.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <gtest/gtest.h>

namespace {

const QColor background(120, 90, 60);

QImage plain(int width, int height) {
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(background);
    return image;
}

QImage captioned(const QImage& source, const char* top, const char* bottom) {
    const std::optional<QImage> image =
        CaptionRenderer::render(source, QLatin1String(top), QLatin1String(bottom));
    return image ? *image : QImage();
}

// The rows of `image` where something was drawn over the plain background.
QList<int> inkRows(const QImage& image) {
    QList<int> rows;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            if (image.pixelColor(x, y).rgb() != background.rgb()) {
                rows.append(y);
                break;
            }
    return rows;
}

// How many rows the first line of text covers: the first unbroken run of ink rows.
int firstLineHeight(const QList<int>& rows) {
    int run = rows.isEmpty() ? 0 : 1;
    while (run < rows.size() && rows[run] == rows[run - 1] + 1)
        ++run;
    return run;
}

// White letters with black edges, as the user sees a meme caption.
testing::AssertionResult whiteWithBlackOutline(const QImage& image, int fromRow, int toRow) {
    int white = 0;
    int black = 0;
    for (int y = fromRow; y < toRow; ++y)
        for (int x = 0; x < image.width(); ++x) {
            const QColor c = image.pixelColor(x, y);
            white += c.red() > 235 && c.green() > 235 && c.blue() > 235;
            black += c.red() < 25 && c.green() < 25 && c.blue() < 25;
        }
    if (white > 20 && black > 20)
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << white << " white and " << black << " black pixels";
}

} // namespace

TEST(CaptionRenderer, SizesAndPlacesTheCaptionAsTheUserSeesIt) {
    // Previews are at most 560 px on their longer side; the final render keeps the full size.
    const QImage wide = plain(2000, 1000);
    EXPECT_EQ(CaptionRenderer::render(wide, QStringLiteral("a"), QStringLiteral("b"),
                                      CaptionRenderer::previewMaxSide)
                  ->size(),
              QSize(560, 280));
    EXPECT_EQ(CaptionRenderer::render(plain(300, 200), QStringLiteral("a"), QStringLiteral("b"),
                                      CaptionRenderer::previewMaxSide)
                  ->size(),
              QSize(300, 200));
    EXPECT_EQ(CaptionRenderer::render(wide, QStringLiteral("a"), QStringLiteral("b"))->size(),
              QSize(2000, 1000));
    EXPECT_FALSE(CaptionRenderer::render(QImage(), QStringLiteral("a"), QStringLiteral("b")));

    // 600 × 400: the bands are 120 px high, 8 px from the top and the bottom edge.
    const QImage source = plain(600, 400);
    const QImage onlyBottom = captioned(source, "", "bottom words");
    const QList<int> bottomRows = inkRows(onlyBottom);
    ASSERT_FALSE(bottomRows.isEmpty());
    EXPECT_GE(bottomRows.first(), 400 - 8 - 120);
    EXPECT_LE(bottomRows.last(), 400 - 8 + 1);
    EXPECT_TRUE(whiteWithBlackOutline(onlyBottom, 272, 393));

    const QImage onlyTop = captioned(source, "top words", "  ");
    const QList<int> topRows = inkRows(onlyTop);
    ASSERT_FALSE(topRows.isEmpty());
    EXPECT_GE(topRows.first(), 8 - 1);
    EXPECT_LE(topRows.last(), 8 + 120);
    EXPECT_TRUE(whiteWithBlackOutline(onlyTop, 7, 129));

    // Lower case is drawn in capitals.
    EXPECT_EQ(captioned(source, "hello there", "general kenobi"),
              captioned(source, "HELLO THERE", "GENERAL KENOBI"));

    // A long line shrinks until its wrapped lines fit the band; a short one keeps the start size.
    const QImage shortLine = captioned(source, "hi", "");
    const QImage longLine = captioned(
        source, "when the build is green on the first try and nobody believes you at all", "");
    const QList<int> longRows = inkRows(longLine);
    ASSERT_FALSE(longRows.isEmpty());
    EXPECT_LE(longRows.last(), 8 + 120);
    EXPECT_LT(firstLineHeight(longRows), firstLineHeight(inkRows(shortLine)) / 2);
}

TEST(CaptionFile, SavesAFullSizeJPEGAndClearsOutWhatIsADayOld) {
    const QString dir = TestEnv::freshDir();
    const QString folder = CaptionFile::folderBeside(dir + QStringLiteral("/cache/full"));
    EXPECT_EQ(folder, dir + QStringLiteral("/cache/captioned"));
    ASSERT_TRUE(QDir().mkpath(folder));

    const QDateTime now = QDateTime::fromSecsSinceEpoch(1'800'000'000);
    const auto fileAged = [&](const QString& name, qint64 ageSeconds) {
        const QString path = folder + QLatin1Char('/') + name;
        TestEnv::writeFile(path, "old caption");
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::ReadWrite));
        EXPECT_TRUE(file.setFileTime(now.addSecs(-ageSeconds), QFileDevice::FileModificationTime));
        return path;
    };
    const QString expired = fileAged(QStringLiteral("cat-1.jpg"), 24 * 3600 + 60);
    const QString recent = fileAged(QStringLiteral("cat-2.jpg"), 23 * 3600);

    // A cached download keeps its format to itself (".img"); half of it is transparent.
    QImage image(640, 480, QImage::Format_ARGB32);
    image.fill(background);
    for (int y = 0; y < 240; ++y)
        for (int x = 0; x < 640; ++x)
            image.setPixelColor(x, y, Qt::transparent);
    const QString source = dir + QStringLiteral("/Grumpy.img");
    ASSERT_TRUE(image.save(source, "PNG"));

    const CaptionFile::Result saved =
        CaptionFile::save({source, QStringLiteral("top"), QStringLiteral("bottom"), folder,
                           QStringLiteral("Grumpy"), now});
    ASSERT_EQ(saved.failure, CaptionFile::Result::Failure::none);
    EXPECT_EQ(saved.file, folder + QStringLiteral("/Grumpy-1800000000.jpg"));
    EXPECT_FALSE(QFile::exists(expired));
    EXPECT_TRUE(QFile::exists(recent));

    const QByteArray bytes = TestEnv::readFile(saved.file);
    EXPECT_TRUE(bytes.startsWith("\xff\xd8\xff")) << "not a JPEG";
    const QImage written = QImage::fromData(bytes);
    ASSERT_EQ(written.size(), QSize(640, 480));
    // Transparent parts turn white; the caption is on it.
    const QColor cleared = written.pixelColor(320, 200);
    EXPECT_GT(cleared.lightness(), 245);
    EXPECT_TRUE(whiteWithBlackOutline(written, 330, 470));

    // What cannot be decoded or written is told apart, for the message the user gets.
    TestEnv::writeFile(dir + QStringLiteral("/broken.img"), "not an image");
    EXPECT_EQ(CaptionFile::save({dir + QStringLiteral("/broken.img"), QStringLiteral("a"),
                                 QStringLiteral("b"), folder, QStringLiteral("broken"), now})
                  .failure,
              CaptionFile::Result::Failure::render);
    TestEnv::writeFile(dir + QStringLiteral("/a-file"), "in the way");
    EXPECT_EQ(CaptionFile::save({source, QStringLiteral("a"), QStringLiteral("b"),
                                 dir + QStringLiteral("/a-file/captioned"),
                                 QStringLiteral("Grumpy"), now})
                  .failure,
              CaptionFile::Result::Failure::write);
}
