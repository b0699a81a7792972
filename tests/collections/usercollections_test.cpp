// SPDX-License-Identifier: MIT
#include "collections/usercollections.h"
#include "support/testenv.h"

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QImageWriter>
#include <QtEndian>
#include <csignal>
#include <gtest/gtest.h>

namespace {

// A picture of `size` with distinct corners, written as `path` (format from the extension).
void writeImage(
    const QString& path, QSize size, bool alpha = false,
    QImageIOHandler::Transformations transformation = QImageIOHandler::TransformationNone) {
    QImage image(size, alpha ? QImage::Format_ARGB32 : QImage::Format_RGB32);
    image.fill(alpha ? QColor(200, 30, 30, 120) : QColor(30, 120, 200));
    // A corner of its own, to see where the top left went.
    for (int y = 0; y < size.height() / 4; ++y)
        for (int x = 0; x < size.width() / 4; ++x)
            image.setPixelColor(x, y, Qt::yellow);
    QDir().mkpath(QFileInfo(path).absolutePath());
    QImageWriter writer(path);
    writer.setTransformation(transformation);
    ASSERT_TRUE(writer.write(image)) << path.toStdString();
}

// Two 1×1 frames on a 40×40 screen: animated, though each frame alone would be fine.
QByteArray animatedGif() {
    const QByteArray frame = QByteArray::fromHex("21f90400"
                                                 "0a000000"
                                                 "2c00000000010001000002024401"
                                                 "00");
    return QByteArray::fromHex("474946383961"
                               "28002800"
                               "800000"
                               "000000ffffff") +
           frame + frame + QByteArray::fromHex("3b");
}

quint32 crc32(const QByteArray& data) {
    quint32 crc = 0xffffffffu;
    for (const char c : data) {
        crc ^= quint8(c);
        for (int k = 0; k < 8; ++k)
            crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

// A valid PNG header that claims `side`×`side` pixels, followed by a one-pixel body.
QByteArray pngClaiming(int side) {
    QImage one(1, 1, QImage::Format_RGB32);
    one.fill(Qt::red);
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    one.save(&buffer, "png");
    // IHDR's data starts after the 8-byte signature, its length and its type.
    qToBigEndian<quint32>(quint32(side), png.data() + 16);
    qToBigEndian<quint32>(quint32(side), png.data() + 20);
    qToBigEndian<quint32>(crc32(png.mid(12, 17)), png.data() + 29);
    return png;
}

QImage decoded(const QByteArray& bytes) {
    return QImage::fromData(bytes);
}

QStringList names(const QList<UserCollections::Plan>& plans) {
    QStringList out;
    for (const auto& p : plans) {
        QStringList files;
        for (const QString& f : p.files)
            files.append(QFileInfo(f).fileName());
        out.append(p.name + QStringLiteral(": ") + files.join(u','));
    }
    return out;
}

} // namespace

TEST(UserCollections, PlansFoldersOneLevelDeepAndLooseFilesAsOneMore) {
    const QString root = TestEnv::freshDir() + QStringLiteral("/Memes");
    for (const char* f : {"b.PNG", "a.jpg", "B.gif", ".hidden.jpg", "notes.txt", "Sub/x.webp",
                          "Sub/Deeper/y.jpg", "Empty/readme.md", ".Hidden/z.jpg", "Other/c.jpeg"})
        TestEnv::writeFile(root + u'/' + QString::fromLatin1(f), "x");
    EXPECT_EQ(names(UserCollections::planFolder(root)),
              QStringList({"Memes: B.gif,a.jpg,b.PNG", "Other: c.jpeg", "Sub: x.webp"}));
    EXPECT_TRUE(UserCollections::hasSubfolders({root}));
    EXPECT_FALSE(UserCollections::hasSubfolders({root + QStringLiteral("/Sub/Deeper")}));

    // Loose files from one folder are named after it; from several, "My collection".
    EXPECT_EQ(names(UserCollections::plan({root + "/a.jpg", root + "/notes.txt", root + "/b.PNG"})),
              QStringList({"Memes: a.jpg,b.PNG"}));
    EXPECT_EQ(
        names(UserCollections::plan({root + "/Other", root + "/a.jpg", root + "/Sub/x.webp"})),
        QStringList({"Other: c.jpeg", "My collection: a.jpg,x.webp"}));
    EXPECT_TRUE(UserCollections::plan({root + "/notes.txt", root + "/Empty"}).isEmpty());

    // A symlink loop is neither file nor folder; planning must still end.
    QFile::link(root + QStringLiteral("/loop.jpg"), root + QStringLiteral("/loop.jpg"));
    QFile::link(root, root + QStringLiteral("/Sub/up"));
    EXPECT_EQ(names(UserCollections::planFolder(root)).first(), "Memes: B.gif,a.jpg,b.PNG");
}

TEST(UserCollections, ResizesPhotosAndKeepsSmallTransparentImages) {
    const QString dir = TestEnv::freshDir();
    writeImage(dir + "/photo.jpg", QSize(4000, 3000));
    const auto photo = UserCollections::resize(dir + "/photo.jpg");
    ASSERT_TRUE(photo);
    EXPECT_EQ(photo->extension, "jpg");
    EXPECT_EQ(decoded(photo->full).size(), QSize(640, 480));
    EXPECT_EQ(decoded(photo->thumb).size(), QSize(256, 192));
    EXPECT_EQ(photo->size, QSize(640, 480));

    writeImage(dir + "/sticker.png", QSize(300, 200), true);
    const auto sticker = UserCollections::resize(dir + "/sticker.png");
    ASSERT_TRUE(sticker);
    EXPECT_EQ(sticker->extension, "png");
    EXPECT_EQ(decoded(sticker->full).size(), QSize(300, 200));
    EXPECT_TRUE(decoded(sticker->full).hasAlphaChannel());
    EXPECT_EQ(decoded(sticker->thumb).size(), QSize(256, 171));

    writeImage(dir + "/big.png", QSize(1024, 2048), true);
    EXPECT_EQ(decoded(UserCollections::resize(dir + "/big.png")->full).size(), QSize(256, 512));

    // Taken with the camera on its side: stored 400×200, shown 200×400.
    writeImage(dir + "/turned.jpg", QSize(400, 200), false,
               QImageIOHandler::TransformationRotate90);
    const auto turned = UserCollections::resize(dir + "/turned.jpg");
    ASSERT_TRUE(turned);
    EXPECT_EQ(decoded(turned->full).size(), QSize(200, 400));
    const QColor corner = decoded(turned->full).pixelColor(190, 10);
    EXPECT_TRUE(corner.red() > 200 && corner.green() > 200 && corner.blue() < 80)
        << "orientation applied";
}

TEST(UserCollections, RefusesWhatCannotOrShouldNotBeImported) {
    const QString dir = TestEnv::freshDir();
    writeImage(dir + "/thin.png", QSize(20, 400));
    TestEnv::writeFile(dir + "/anim.gif", animatedGif());
    TestEnv::writeFile(dir + "/huge.png", pngClaiming(30000));
    TestEnv::writeFile(dir + "/broken.jpg", "not a jpeg at all");
    for (const char* name : {"thin.png", "anim.gif", "huge.png", "broken.jpg", "missing.jpg"})
        EXPECT_FALSE(UserCollections::resize(dir + u'/' + QString::fromLatin1(name))) << name;
}

TEST(UserCollections, ImportsWritesAnOrderedManifestAndLoadsAsCatalogRecords) {
    const QString src = TestEnv::freshDir() + QStringLiteral("/Reactions");
    writeImage(src + "/1.jpg", QSize(800, 600));
    writeImage(src + "/2.png", QSize(100, 100), true);
    writeImage(src + "/3.png", QSize(10, 100));
    TestEnv::writeFile(src + "/4.jpg", "corrupt");
    // No tagging server: the import still keeps every image, untagged.
    TestEnv::installConfig({{QStringLiteral("MEME_API"), QStringLiteral("http://127.0.0.1:9/")}});
    UserCollections collections(TestEnv::freshDir());
    QStringList progress;
    const auto plans = UserCollections::planFolder(src);
    ASSERT_EQ(plans.size(), 1);
    const auto result = collections.importCollection(plans.first(), QStringLiteral("Reactions"),
                                                     [&](const QString& p) { progress.append(p); });
    EXPECT_EQ(result.added, 2);
    EXPECT_EQ(result.skipped, 2);
    EXPECT_EQ(result.tagged, 0);
    ASSERT_TRUE(result.tagError);
    EXPECT_TRUE(result.tagError->startsWith("could not reach the server ("))
        << result.tagError->toStdString();
    EXPECT_EQ(progress.first(), "Importing Reactions: resizing 1/4");
    EXPECT_TRUE(progress.contains("Importing Reactions: resizing 4/4"));

    const auto rows = collections.list();
    ASSERT_EQ(rows.size(), 1);
    const QString id = rows[0].id;
    EXPECT_EQ(rows[0].name, "Reactions");
    EXPECT_EQ(rows[0].count, 2);
    EXPECT_EQ(rows[0].untagged, 2);
    EXPECT_TRUE(progress.contains(QStringLiteral("Tagging %1: 1/2…").arg(id)));
    EXPECT_EQ(id, id.toUpper());
    EXPECT_FALSE(QUuid::fromString(id).isNull());

    const QString folder = collections.root() + u'/' + id;
    const QByteArray manifest = TestEnv::readFile(folder + "/collection.json");
    const auto json = nlohmann::ordered_json::parse(manifest.toStdString());
    std::vector<std::string> keys;
    for (const auto& [key, value] : json.items())
        keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{"id", "name", "created", "items"}));
    keys.clear();
    for (const auto& [key, value] : json["items"][1].items())
        keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{"id", "file", "thumb", "orig", "width", "height"}));
    EXPECT_EQ(json["items"][0]["file"], "0001.jpg");
    EXPECT_EQ(json["items"][1]["file"], "0002.png");
    EXPECT_EQ(json["items"][1]["orig"], "2.png");
    EXPECT_EQ(json["items"][0]["width"], 640);
    EXPECT_TRUE(QFile::exists(folder + "/thumb/0002.png"));

    // Tags arriving later make the item findable by their words.
    auto stored = collections.stored(id);
    ASSERT_TRUE(stored);
    stored->items[0].tags = UserCollections::Tags{
        "NOPE",        "a cat refusing", "grumpy cat", {"annoyed"}, {"glaring"},
        {"saying no"}, {"cat", "no"},    "en",         false,       false};
    TestEnv::writeFile(folder + "/collection.json", UserCollections::encodeStored(*stored));
    const auto loaded = collections.load();
    ASSERT_EQ(loaded.collections.size(), 1);
    EXPECT_EQ(loaded.collections[0].source, "import");
    EXPECT_EQ(loaded.collections[0].count, 2);
    ASSERT_EQ(loaded.stickers.size(), 2);
    const Meme& tagged = loaded.stickers[0];
    EXPECT_EQ(tagged.full, QUrl::fromLocalFile(folder + "/full/0001.jpg").toString());
    EXPECT_EQ(tagged.thumb, QUrl::fromLocalFile(folder + "/thumb/0001.jpg").toString());
    EXPECT_EQ(tagged.ocr_text, "NOPE");
    EXPECT_EQ(tagged.emotions, QStringList{"annoyed"});
    EXPECT_EQ(tagged.character, "grumpy cat");
    EXPECT_EQ(tagged.template_, "Reactions");
    EXPECT_EQ(tagged.collection_id, id);
    EXPECT_GT(tagged.bytes, 0);
    EXPECT_TRUE(loaded.stickers[1].description.isEmpty());
    EXPECT_TRUE(loaded.stickers[1].isPNG());
    EXPECT_EQ(loaded.collections[0].cover, tagged.thumb);
    EXPECT_EQ(collections.previewIcon(id, 32).size(), QSize(32, 32));

    EXPECT_TRUE(collections.rename(id, QStringLiteral("Nopes")));
    EXPECT_EQ(collections.list()[0].name, "Nopes");
    EXPECT_FALSE(collections.remove(QStringLiteral("../..")));
    EXPECT_TRUE(collections.remove(id));
    EXPECT_TRUE(collections.load().collections.isEmpty());
}

TEST(UserCollections, LeavesOutUnreadableManifestsAndKeepsTheOthers) {
    UserCollections collections(TestEnv::freshDir());
    const QString good = QStringLiteral("9B2F4C2E-0000-4000-8000-000000000001");
    UserCollections::Stored stored{good, "Good", "2026-01-02T03:04:05.000Z", {}};
    stored.items.append({"u_1", "0001.jpg", "0001.jpg", "a.jpg", 10, 10, std::nullopt});
    TestEnv::writeFile(collections.root() + u'/' + good + "/collection.json",
                       UserCollections::encodeStored(stored));
    // Half a manifest (what a crash without atomic writes would leave), a missing one, and
    // tags lacking a key.
    TestEnv::writeFile(collections.root() + "/A/collection.json", "{\"id\":\"A\",\"name\":");
    QDir().mkpath(collections.root() + "/B/full");
    QByteArray badTags = UserCollections::encodeStored({"C", "C", "2026-01-01T00:00:00Z", {}});
    TestEnv::writeFile(collections.root() + "/C/collection.json",
                       badTags.replace("[]", R"([{"id":"x","file":"f","thumb":"f","orig":"o",)"
                                             R"("width":1,"height":1,"tags":{"ocr_text":""}}])"));
    const auto rows = collections.list();
    ASSERT_EQ(rows.size(), 1);
    EXPECT_EQ(rows[0].id, good);
    EXPECT_EQ(rows[0].untagged, 1);
}

TEST(UserCollections, AnImportCutShortKeepsWhatWasImported) {
    const QString src = TestEnv::freshDir() + QStringLiteral("/Going");
    for (int i = 0; i < 4; ++i)
        writeImage(src + QStringLiteral("/%1.jpg").arg(i), QSize(64, 64));
    TestEnv::installConfig({{QStringLiteral("MEME_API"), QStringLiteral("http://127.0.0.1:9/")}});
    UserCollections collections(TestEnv::freshDir());
    const auto result = collections.importCollection(
        UserCollections::planFolder(src).first(), QStringLiteral("Going"), [&](const QString& p) {
            if (p.endsWith(QLatin1String("resizing 3/4")))
                QDir(src).removeRecursively();
        });
    EXPECT_EQ(result.added, 2);
    EXPECT_EQ(result.skipped, 2);
    ASSERT_EQ(collections.list().size(), 1);
    EXPECT_EQ(collections.load().stickers.size(), 2);

    // The collection's own folder going away stops the import with the reason.
    writeImage(src + "/a.jpg", QSize(64, 64));
    writeImage(src + "/b.jpg", QSize(64, 64));
    const auto stopped = collections.importCollection(
        UserCollections::planFolder(src).first(), QStringLiteral("Gone"), [&](const QString& p) {
            if (p.endsWith(QLatin1String("resizing 2/2")))
                for (const auto& row : collections.list())
                    if (row.name == QStringLiteral("Gone"))
                        QDir(collections.root() + u'/' + row.id).removeRecursively();
        });
    EXPECT_EQ(stopped.added, 1);
    ASSERT_TRUE(stopped.stopped);
    EXPECT_TRUE(stopped.stopped->startsWith("could not save the images ("));
    EXPECT_EQ(collections.list().size(), 1) << "the first collection is untouched";

    // Quitting ends the import after the image at hand and keeps that one.
    const auto quit = collections.importCollection(
        UserCollections::planFolder(src).first(), QStringLiteral("Quit"), [&](const QString& p) {
            if (p.endsWith(QLatin1String("resizing 1/2")))
                collections.stop();
        });
    EXPECT_EQ(quit.added, 1);
    EXPECT_FALSE(quit.stopped);
    const auto rows = collections.list();
    ASSERT_EQ(rows.size(), 2);
    EXPECT_EQ(rows.last().name, QStringLiteral("Quit"));
    EXPECT_EQ(rows.last().count, 1);
}

TEST(UserCollectionsDeathTest, AnImportKilledHalfWayLeavesACollectionThatLoads) {
    // The child process re-runs this body: it must find the parent's folders.
    const char* rootVariable = "ORVANE_KILLED_IMPORT_ROOT";
    const QString root = qEnvironmentVariableIsSet(rootVariable)
                             ? qEnvironmentVariable(rootVariable)
                             : TestEnv::freshDir();
    qputenv(rootVariable, root.toUtf8());
    const QString src = root + QStringLiteral("/Photos");
    if (!QFile::exists(src))
        for (int i = 0; i < 40; ++i)
            writeImage(src + QStringLiteral("/%1.jpg").arg(i, 2, 10, QLatin1Char('0')),
                       QSize(64, 48));
    TestEnv::installConfig({{QStringLiteral("MEME_API"), QStringLiteral("http://127.0.0.1:9/")}});
    EXPECT_EXIT(
        {
            UserCollections collections(root + QStringLiteral("/collections"));
            collections.importCollection(UserCollections::planFolder(src).first(),
                                         QStringLiteral("Photos"), [](const QString& p) {
                                             if (p.endsWith(QLatin1String("resizing 31/40")))
                                                 ::raise(SIGKILL);
                                         });
        },
        testing::KilledBySignal(SIGKILL), "");
    qunsetenv(rootVariable);
    const UserCollections collections(root + QStringLiteral("/collections"));
    const auto loaded = collections.load();
    ASSERT_EQ(loaded.collections.size(), 1);
    // The last checkpoint: every listed image is there.
    EXPECT_EQ(loaded.stickers.size(), UserCollections::checkpointEvery);
    for (const Meme& m : loaded.stickers)
        EXPECT_TRUE(QFile::exists(QUrl(m.full).toLocalFile()));
}
