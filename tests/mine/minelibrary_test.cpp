// SPDX-License-Identifier: MIT
#include "catalog/ocrengine.h"
#include "mine/emoji.h"
#include "mine/minelibrary.h"
#include "mine/minesearch.h"
#include "support/images.h"
#include "support/testenv.h"

#include <QDir>
#include <QFile>
#include <QFont>
#include <QPainter>
#include <QUrl>
#include <QtEndian>
#include <gtest/gtest.h>

// Readable failures: the ids themselves rather than their bytes.
QT_BEGIN_NAMESPACE
inline void PrintTo(const QString& text, std::ostream* out) {
    *out << text.toStdString();
}
QT_END_NAMESPACE

namespace {

using Record = MineLibrary::Record;
using Source = MineLibrary::Source;

Record added(const MineLibrary::Added& result) {
    if (const QString* error = std::get_if<QString>(&result))
        ADD_FAILURE() << "refused: " << error->toStdString();
    return std::get_if<Record>(&result) ? std::get<Record>(result) : Record();
}

QString refusal(const MineLibrary::Added& result) {
    const QString* error = std::get_if<QString>(&result);
    return error ? *error : QStringLiteral("(added)");
}

QStringList ids(const QList<Record>& records) {
    QStringList out;
    for (const Record& r : records)
        out.append(r.id);
    return out;
}

QStringList ids(const MemeList& memes) {
    QStringList out;
    for (const Meme& m : memes)
        out.append(m.id);
    return out;
}

// Big dark words on a light picture, the way a caption sits on a meme.
QImage captioned(const QString& words, QSize size = {1000, 1000}) {
    QImage image(size, QImage::Format_RGB32);
    image.fill(QColor(245, 240, 230));
    QPainter painter(&image);
    QFont font(QStringLiteral("DejaVu Sans"));
    font.setPixelSize(size.height() / 8);
    font.setBold(true);
    painter.setFont(font);
    painter.setPen(Qt::black);
    painter.drawText(image.rect(), Qt::AlignCenter, words);
    return image;
}

QString writeTemp(const QString& name, const QByteArray& bytes) {
    const QString path = TestEnv::freshDir() + QLatin1Char('/') + name;
    TestEnv::writeFile(path, bytes);
    return path;
}

int colouredPixels(const QImage& image) {
    int count = 0;
    const QImage argb = image.convertToFormat(QImage::Format_ARGB32);
    for (int y = 0; y < argb.height(); ++y)
        for (int x = 0; x < argb.width(); ++x) {
            const QRgb px = argb.pixel(x, y);
            if (qAlpha(px) > 0 && (qRed(px) != qGreen(px) || qGreen(px) != qBlue(px)))
                ++count;
        }
    return count;
}

} // namespace

TEST(MineLibrary, AddsLoadsRelabelsAndRemovesItems) {
    MineLibrary library(TestEnv::freshDir());
    const QByteArray png = TestImages::encode(TestImages::filled(400, 300, Qt::red), "png");
    const QByteArray jpeg = TestImages::encode(TestImages::filled(1200, 600, Qt::blue), "jpg");
    const QByteArray bmp = TestImages::encode(TestImages::filled(64, 64, Qt::green), "bmp");

    const Record file = added(library.addFile(writeTemp("Cat on keyboard.png", png), Source::file));
    const Record drop = added(library.addData(jpeg, Source::drop));
    const Record paste =
        added(library.addData(bmp, Source::paste, QStringLiteral("  green\n  box ")));

    EXPECT_TRUE(file.id.startsWith(QLatin1String("g_")));
    EXPECT_EQ(file.label, QStringLiteral("Cat on keyboard"));
    EXPECT_EQ(paste.label, QStringLiteral("green box"));
    // The user's bytes stay as they were; a format others do not take becomes PNG.
    EXPECT_EQ(TestEnv::readFile(library.imagePath(file)), png);
    EXPECT_EQ(TestEnv::readFile(library.imagePath(drop)), jpeg);
    EXPECT_TRUE(library.imagePath(drop).endsWith(QLatin1String(".jpg")));
    EXPECT_TRUE(TestEnv::readFile(library.imagePath(paste)).startsWith("\x89PNG"));
    const QImage thumb(library.folder(drop.id) + QLatin1Char('/') + drop.thumb);
    EXPECT_EQ(thumb.size(), QSize(256, 128));

    const QByteArray json =
        TestEnv::readFile(library.folder(file.id) + QStringLiteral("/item.json"));
    for (const char* expected : {"\"label\": \"Cat on keyboard\"", "\"source\": \"file\"",
                                 "\"width\": 400", "\"height\": 300", "\"ocr\": null"})
        EXPECT_TRUE(json.contains(expected)) << expected << "\n" << json.toStdString();

    MineLibrary::Loaded loaded = MineLibrary(library.root()).load();
    EXPECT_EQ(ids(loaded.records), (QStringList{paste.id, drop.id, file.id}));
    EXPECT_TRUE(loaded.skipped.isEmpty());
    EXPECT_EQ(loaded.records.last(), file);

    ASSERT_TRUE(library.setLabel(drop.id, QStringLiteral("blue sky")));
    ASSERT_TRUE(library.setOcr(drop.id, QStringLiteral("GOOD  MORNING")));
    const Meme meme = library.toMeme(*library.record(drop.id));
    EXPECT_EQ(meme.description, QStringLiteral("blue sky"));
    EXPECT_EQ(meme.ocr_text, QStringLiteral("GOOD MORNING"));
    EXPECT_EQ(QUrl(meme.full).toLocalFile(), library.imagePath(drop));
    EXPECT_EQ(meme.width, 1200);

    EXPECT_TRUE(library.remove(drop.id));
    EXPECT_FALSE(QFileInfo::exists(library.folder(drop.id)));
    EXPECT_FALSE(library.remove(drop.id));
    EXPECT_FALSE(library.remove(QStringLiteral("g_../../x")));
    loaded = library.load();
    EXPECT_EQ(ids(loaded.records), (QStringList{paste.id, file.id}));
    // The removed item's folder went whole, leaving nothing hidden behind.
    QStringList left =
        QDir(library.root()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    QStringList kept{file.id, paste.id};
    left.sort();
    kept.sort();
    EXPECT_EQ(left, kept);
}

TEST(MineLibrary, RefusesWhatIsNotAUsableImageWithAReason) {
    MineLibrary library(TestEnv::freshDir());
    const QByteArray png = TestImages::encode(TestImages::filled(300, 300, Qt::red), "png");
    // A bitmap header that claims 10,000 × 10,000 pixels, with hardly any pixels behind it.
    QByteArray huge = TestImages::encode(TestImages::filled(4, 4, Qt::red), "bmp");
    qToLittleEndian<qint32>(10000, huge.data() + 18);
    qToLittleEndian<qint32>(10000, huge.data() + 22);

    EXPECT_EQ(refusal(library.addFile(writeTemp("empty.png", {}), Source::drop)),
              QStringLiteral("is empty"));
    EXPECT_EQ(refusal(library.addFile(writeTemp("notes.png", "just some text\n"), Source::drop)),
              QStringLiteral("is not an image"));
    EXPECT_EQ(
        refusal(library.addFile(writeTemp("cut.png", png.left(png.size() / 2)), Source::drop)),
        QStringLiteral("could not be read (damaged or incomplete)"));
    EXPECT_EQ(refusal(library.addData(huge, Source::paste)),
              QStringLiteral("is too large (10000 × 10000 pixels)"));
    EXPECT_EQ(refusal(library.addFile(TestEnv::freshDir(), Source::drop)),
              QStringLiteral("is a folder"));
    EXPECT_EQ(refusal(library.addEmoji(QStringLiteral("hello"))),
              QStringLiteral("is not an emoji"));

    // Nothing of the refused ones was left behind.
    EXPECT_TRUE(QDir(library.root())
                    .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot)
                    .isEmpty());
}

TEST(MineLibrary, SkipsFoldersThatDoNotReadBackAndKeepsTheirFiles) {
    MineLibrary library(TestEnv::freshDir());
    const QByteArray png = TestImages::encode(TestImages::filled(100, 100, Qt::red), "png");
    const Record good = added(library.addData(png, Source::drop, QStringLiteral("good")));
    const Record badJson = added(library.addData(png, Source::drop));
    const Record noImage = added(library.addData(png, Source::drop));
    const Record noThumb = added(library.addData(png, Source::drop, QStringLiteral("thumbless")));
    const QString root = library.root();

    TestEnv::writeFile(library.folder(badJson.id) + QStringLiteral("/item.json"), "{\"id\": \"g_");
    QFile::remove(library.imagePath(noImage));
    QFile::remove(library.folder(noThumb.id) + QLatin1Char('/') + noThumb.thumb);
    // A picture someone put there by hand, and a folder that is not ours at all.
    TestEnv::writeFile(root + QStringLiteral("/g_byhand/cat.png"), png);
    TestEnv::writeFile(root + QStringLiteral("/Holiday/beach.png"), png);
    // What a crash in the middle of an add or a removal leaves.
    TestEnv::writeFile(root + QStringLiteral("/.new-g_1234/image.png"), png.left(10));
    TestEnv::writeFile(root + QStringLiteral("/.del-g_5678/image.png"), png);

    const MineLibrary::Loaded loaded = library.load();
    EXPECT_EQ(ids(loaded.records), (QStringList{noThumb.id, good.id}));
    // Without its thumbnail an item shows its image.
    EXPECT_EQ(loaded.records.first().thumb, noThumb.file);
    QStringList skipped = loaded.skipped;
    skipped.sort();
    QStringList expected{badJson.id, noImage.id, QStringLiteral("g_byhand")};
    expected.sort();
    EXPECT_EQ(skipped, expected);

    EXPECT_TRUE(QFileInfo::exists(library.imagePath(badJson)));
    EXPECT_TRUE(QFileInfo::exists(root + QStringLiteral("/g_byhand/cat.png")));
    EXPECT_TRUE(QFileInfo::exists(root + QStringLiteral("/Holiday/beach.png")));
    EXPECT_FALSE(QFileInfo::exists(root + QStringLiteral("/.new-g_1234")));
    EXPECT_FALSE(QFileInfo::exists(root + QStringLiteral("/.del-g_5678")));
    // A record that does not read is never written over.
    EXPECT_FALSE(library.setLabel(badJson.id, QStringLiteral("x")));
    EXPECT_EQ(TestEnv::readFile(library.folder(badJson.id) + QStringLiteral("/item.json")),
              QByteArray("{\"id\": \"g_"));
}

TEST(MineLibrary, FindsItemsByTheirLabelsAndTheWordsReadOnThem) {
    MineLibrary library(TestEnv::freshDir());
    OcrEngine engine;
    ASSERT_TRUE(engine.isReady());

    const Record poster =
        added(library.addImage(captioned(QStringLiteral("BANANA\nPARTY")), Source::paste));
    const QString words = MineLibrary::readWords(library.imagePath(poster), engine);
    EXPECT_TRUE(words.contains(QStringLiteral("BANANA"))) << words.toStdString();
    EXPECT_TRUE(words.contains(QStringLiteral("PARTY"))) << words.toStdString();
    ASSERT_TRUE(library.setOcr(poster.id, words));
    // A plain picture has nothing to read.
    const Record plain = added(
        library.addData(TestImages::encode(TestImages::filled(500, 500, Qt::darkGreen), "png"),
                        Source::drop, QStringLiteral("Bananas for scale")));
    EXPECT_EQ(MineLibrary::readWords(library.imagePath(plain), engine), QString());
    const Record other =
        added(library.addData(TestImages::encode(TestImages::filled(50, 50, Qt::gray), "png"),
                              Source::drop, QStringLiteral("Café party")));

    MemeList items;
    for (const Record& r : library.load().records)
        items.append(library.toMeme(r));
    ASSERT_EQ(ids(items), (QStringList{other.id, plain.id, poster.id}));

    // Found by the words read, folded; the user's own label, even a word it only begins,
    // ranks above words read.
    EXPECT_EQ(ids(MineSearch::search(QStringLiteral("banana"), items, 8)),
              (QStringList{plain.id, poster.id}));
    EXPECT_EQ(ids(MineSearch::search(QStringLiteral("BANANAS"), items, 8)),
              (QStringList{plain.id}));
    EXPECT_EQ(ids(MineSearch::search(QStringLiteral("party"), items, 8)),
              (QStringList{other.id, poster.id}));
    EXPECT_EQ(ids(MineSearch::search(QStringLiteral("cafe par"), items, 8)),
              (QStringList{other.id}));
    EXPECT_EQ(ids(MineSearch::search(QStringLiteral("banana party"), items, 8)),
              (QStringList{poster.id}));
    EXPECT_TRUE(MineSearch::search(QStringLiteral("pineapple"), items, 8).isEmpty());
    EXPECT_EQ(ids(MineSearch::search(QStringLiteral("  "), items, 2)),
              (QStringList{other.id, plain.id}));
}

TEST(MineLibrary, KeepsEmojiAsPicturesNamedByUnicode) {
    EXPECT_EQ(Emoji::split(QStringLiteral("😂")), QStringList{QStringLiteral("😂")});
    EXPECT_EQ(Emoji::split(QStringLiteral(" 👍🏽  🇫🇮 ")),
              (QStringList{QStringLiteral("👍🏽"), QStringLiteral("🇫🇮")}));
    EXPECT_EQ(Emoji::split(QStringLiteral("👩‍💻")),
              QStringList{QStringLiteral("👩‍💻")});
    for (const char* notEmoji : {"hello", "😂 lol", "1", "#", "é", ""})
        EXPECT_TRUE(Emoji::split(QString::fromUtf8(notEmoji)).isEmpty()) << notEmoji;
    EXPECT_EQ(Emoji::name(QStringLiteral("😂")), QStringLiteral("face with tears of joy"));
    EXPECT_EQ(Emoji::name(QStringLiteral("❤️")), QStringLiteral("heavy black heart"));

    MineLibrary library(TestEnv::freshDir());
    const Record joy = added(library.addEmoji(QStringLiteral("😂")));
    EXPECT_EQ(joy.label, QStringLiteral("face with tears of joy"));
    EXPECT_EQ(joy.source, QStringLiteral("emoji"));
    EXPECT_EQ(joy.ocr, QString());
    const QImage image(library.imagePath(joy));
    ASSERT_EQ(image.size(), QSize(160, 160));
    // Mostly yellow face: far more colour than an empty box or a grey fallback glyph.
    EXPECT_GT(colouredPixels(image), 160 * 160 / 4);

    const Meme meme = library.toMeme(joy);
    EXPECT_EQ(meme.character, QStringLiteral("😂"));
    EXPECT_EQ(ids(MineSearch::search(QStringLiteral("tears"), {meme}, 8)), QStringList{joy.id});
}
