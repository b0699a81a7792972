// SPDX-License-Identifier: MIT
#include "catalog/imageconversion.h"
#include "catalog/thumbnailcache.h"
#include "imagecachetestkit.h"
#include "support/images.h"

#include <QFileInfo>
#include <QImage>

namespace {
using Answer = FaultyServer::Answer;

QByteArray encoded(const char* format, QColor color = Qt::red) {
    return TestImages::encode(TestImages::filled(8, 6, color), format);
}

struct Reply {
    bool called = false;
    std::optional<QImage> image;
};

std::shared_ptr<Reply> ask(ThumbnailCache& thumbs, const Meme& meme) {
    auto answer = std::make_shared<Reply>();
    thumbs.thumbnail(meme, [answer](std::optional<QImage> image) {
        answer->called = true;
        answer->image = std::move(image);
    });
    return answer;
}

bool answered(const std::shared_ptr<Reply>& answer) {
    return eventually([&] { return answer->called; });
}
} // namespace

TEST(ThumbnailCache, OneFetchPerNameThenMemoryThenDisk) {
    ImageCacheRig rig;
    rig.server.put("t/cat.png", Answer{200, encoded("PNG")}.heldBack());
    MemeStore store(rig.options());
    auto thumbs = std::make_unique<ThumbnailCache>(store);
    // Two items may share a thumbnail name; they share its fetch too.
    const Meme one = imageItem("one", "f/1.jpg", 0, "t/cat.png");
    const Meme two = imageItem("two", "f/2.jpg", 0, "t/cat.png");

    const auto first = ask(*thumbs, one);
    const auto second = ask(*thumbs, two);
    ASSERT_TRUE(eventually([&] { return rig.server.requests("t/cat.png") == 1; }));
    rig.server.release("t/cat.png");
    ASSERT_TRUE(answered(first) && answered(second));
    ASSERT_TRUE(first->image && second->image);
    EXPECT_EQ(first->image->size(), QSize(8, 6));
    EXPECT_TRUE(ask(*thumbs, one)->called) << "a memory hit answers at once";

    thumbs = std::make_unique<ThumbnailCache>(store);
    const auto fromDisk = ask(*thumbs, one);
    ASSERT_TRUE(answered(fromDisk));
    EXPECT_TRUE(fromDisk->image);
    EXPECT_EQ(rig.server.requests("t/cat.png"), 1);

    store.clearCache();
    EXPECT_EQ(thumbs->memoryCount(), 0);
    EXPECT_FALSE(QFileInfo::exists(store.thumbDir() + "/cat.png"));
    const auto again = ask(*thumbs, one);
    ASSERT_TRUE(answered(again));
    EXPECT_EQ(rig.server.requests("t/cat.png"), 2);
}

TEST(ThumbnailCache, KeepsTheMostRecentlyAskedForWhenTold) {
    ImageCacheRig rig;
    MemeStore store(rig.options());
    ThumbnailCache thumbs(store);
    QList<Meme> items;
    for (const char* name : {"a", "b", "c"}) {
        rig.server.put(QStringLiteral("t/%1.png").arg(name), Answer{200, encoded("PNG")});
        items.append(imageItem(name, "f/x.jpg", 0, QStringLiteral("t/%1.png").arg(name)));
        ASSERT_TRUE(answered(ask(thumbs, items.back())));
    }
    ASSERT_TRUE(ask(thumbs, items[0])->called) << "a, asked for again, is the most recent";
    thumbs.keepRecent(1);
    EXPECT_EQ(thumbs.memoryCount(), 1);
    EXPECT_TRUE(ask(thumbs, items[0])->called) << "kept: answered at once";
    const auto dropped = ask(thumbs, items[2]);
    EXPECT_FALSE(dropped->called) << "read from the folder again";
    ASSERT_TRUE(answered(dropped));
    EXPECT_TRUE(dropped->image);
    EXPECT_EQ(thumbs.memoryCount(), 2) << "the limit is back to normal";
}

TEST(ThumbnailCache, BadAnswersGiveNothingAndLeaveNoFile) {
    ImageCacheRig rig;
    rig.server.put("t/empty.png", Answer{});
    rig.server.put("t/garbage.png", Answer{200, "not an image"});
    rig.server.put("t/error.png", Answer{500, encoded("PNG")});
    MemeStore store(rig.options());
    ThumbnailCache thumbs(store);
    for (const char* name : {"missing", "empty", "garbage", "error"}) {
        const auto answer =
            ask(thumbs, imageItem(name, "f/x.jpg", 0, QStringLiteral("t/%1.png").arg(name)));
        ASSERT_TRUE(answered(answer)) << name;
        EXPECT_FALSE(answer->image) << name;
        EXPECT_FALSE(QFileInfo::exists(store.thumbDir() + QStringLiteral("/%1.png").arg(name)));
    }
    EXPECT_EQ(thumbs.memoryCount(), 0);
}

TEST(ThumbnailCache, LocalFilesOnlyForLocalItems) {
    ImageCacheRig rig;
    MemeStore store(rig.options());
    ThumbnailCache thumbs(store);
    const QString file = rig.root + "/own.png";
    TestEnv::writeFile(file, encoded("PNG", Qt::blue));
    const Meme own = imageItem("g_own", QUrl::fromLocalFile(file).toString(), 0,
                               QUrl::fromLocalFile(file).toString());

    const auto refused = ask(thumbs, own);
    EXPECT_TRUE(refused->called && !refused->image) << "not registered: a remote item";
    store.setLocalItems("mine", {own});
    const auto shown = ask(thumbs, own);
    ASSERT_TRUE(answered(shown));
    ASSERT_TRUE(shown->image);
    EXPECT_EQ(shown->image->pixelColor(0, 0), QColor(Qt::blue));
}

TEST(MemeStoreConversion, NonPNGDownloadsGetAPNGUnlessNoPayloadNeedsOne) {
    ImageCacheRig rig;
    auto settings = TestEnv::installConfig();
    rig.server.put("f/photo.jpg", Answer{200, encoded("JPEG")});
    rig.server.put("f/other.jpg", Answer{200, encoded("JPEG")});
    auto options = rig.options();
    options.convertToPNG = ImageConversion::makePNG;
    MemeStore store(options);

    const Meme photo = imageItem("photo", "f/photo.jpg");
    ASSERT_TRUE(fetchFull(store, photo));
    store.waitForBackgroundWork();
    EXPECT_TRUE(store.fullFileURL(photo).toLocalFile().endsWith("/photo.img"));
    EXPECT_EQ(QImage(store.pngFileURL(photo).toLocalFile(), "PNG").size(), QSize(8, 6));
    EXPECT_TRUE(ImageConversion::tiffData(store.fullFileURL(photo).toLocalFile()));

    DebugFlags::setPastePayload(PastePayload::jpegOnly);
    DebugFlags::setDragPayload(DragPayload::a);
    const Meme other = imageItem("other", "f/other.jpg");
    ASSERT_TRUE(fetchFull(store, other));
    store.waitForBackgroundWork();
    EXPECT_FALSE(QFileInfo::exists(store.pngFileURL(other).toLocalFile()));
}
