// SPDX-License-Identifier: MIT
#include "mine/minesearch.h"
#include "mine/mineservice.h"
#include "support/images.h"
#include "support/testenv.h"

#include <QDir>
#include <QFont>
#include <QPainter>
#include <QSignalSpy>
#include <QTest>
#include <gtest/gtest.h>

namespace {

QStringList ids(const MemeList& memes) {
    QStringList out;
    for (const Meme& m : memes)
        out.append(m.id);
    return out;
}

QStringList notices(const QSignalSpy& spy) {
    QStringList out;
    for (const QList<QVariant>& args : spy)
        out.append(args.at(0).toString());
    return out;
}

} // namespace

TEST(MineService, ABatchAddsInOrderReadsWordsAndReportsOnce) {
    const QString root = TestEnv::freshDir();
    const QString from = TestEnv::freshDir();
    QStringList paths;
    for (int i = 0; i < 4; ++i) {
        paths.append(from + QStringLiteral("/photo%1.png").arg(i));
        TestEnv::writeFile(paths.last(),
                           TestImages::encode(TestImages::filled(80, 60, Qt::blue), "png"));
    }
    QImage sign(900, 500, QImage::Format_RGB32);
    sign.fill(Qt::white);
    {
        QPainter painter(&sign);
        QFont font(QStringLiteral("DejaVu Sans"));
        font.setPixelSize(120);
        font.setBold(true);
        painter.setFont(font);
        painter.drawText(sign.rect(), Qt::AlignCenter, QStringLiteral("WALRUS"));
    }
    paths.insert(2, from + QStringLiteral("/sign.png"));
    sign.save(paths[2]);
    paths.append(from + QStringLiteral("/readme.txt"));
    TestEnv::writeFile(paths.last(), "hello");
    paths.append(from + QStringLiteral("/empty.jpg"));
    TestEnv::writeFile(paths.last(), {});

    MineService service(root);
    QSignalSpy notice(&service, &MineService::notice);
    QSignalSpy added(&service, &MineService::added);
    QSignalSpy changed(&service, &MineService::itemsChanged);
    // Whoever shows the new items on added() finds them published already.
    qsizetype publishedAtAdded = -1;
    QObject::connect(&service, &MineService::added, &service, [&] {
        publishedAtAdded = changed.isEmpty() ? 0 : changed.last().at(0).value<MemeList>().size();
    });
    service.load();
    service.addFiles(paths, MineService::Source::drop);
    ASSERT_TRUE(QTest::qWaitFor([&] { return added.size() == 1; }, 20000));
    ASSERT_TRUE(QTest::qWaitFor([&] { return service.pendingReads() == 0; }, 60000));

    const QStringList got = notices(notice);
    ASSERT_FALSE(got.isEmpty());
    EXPECT_EQ(got.first(), QStringLiteral("Adding 1 of 7…"));
    EXPECT_EQ(got.last(),
              QStringLiteral(
                  "Added 5 images to your images · 2 skipped (“readme.txt” is not an image, …)"));
    EXPECT_EQ(publishedAtAdded, 5);
    const MemeList items = service.items();
    ASSERT_EQ(items.size(), 5);
    // Newest first: the last file dropped leads.
    EXPECT_EQ(items.first().description, QStringLiteral("photo3"));
    EXPECT_EQ(items.last().description, QStringLiteral("photo0"));
    EXPECT_EQ(added.first().at(0).toStringList(), ids(items));
    const MemeList walrus = MineSearch::search(QStringLiteral("walrus"), items, 8);
    ASSERT_EQ(walrus.size(), 1);
    EXPECT_EQ(walrus.first().description, QStringLiteral("sign"));

    // The words survive a restart; a removal takes the files.
    const QString walrusID = walrus.first().id;
    service.remove(walrusID);
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            return notice.size() &&
                   notice.last().at(0) == QStringLiteral("Removed from your images");
        },
        5000));
    EXPECT_FALSE(QFileInfo::exists(root + u'/' + walrusID));
    MineService again(root);
    again.load();
    ASSERT_TRUE(QTest::qWaitFor([&] { return again.isLoaded(); }, 5000));
    EXPECT_EQ(again.records().size(), 4);
    EXPECT_EQ(again.pendingReads(), 0) << "words are read once";
}

TEST(MineService, TextBecomesEmojiItemsOrIsRefused) {
    MineService service(TestEnv::freshDir());
    QSignalSpy notice(&service, &MineService::notice);
    service.load();
    service.addText(QStringLiteral("just words"));
    ASSERT_EQ(notice.size(), 1);
    EXPECT_EQ(notice.first().at(0),
              QStringLiteral("Only images and emoji can be added to your images"));
    EXPECT_TRUE(notice.first().at(1).toBool());

    service.addText(QStringLiteral("🐙 🌮"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return notice.size() == 2; }, 10000));
    EXPECT_EQ(notice.last().at(0), QStringLiteral("Added 2 emoji to your images"));
    ASSERT_EQ(service.records().size(), 2);
    EXPECT_EQ(service.records().first().label, QStringLiteral("taco"));
    EXPECT_EQ(service.items().last().character, QStringLiteral("🐙"));

    service.addText(QStringLiteral("🦆"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return notice.size() == 3; }, 10000));
    EXPECT_EQ(notice.last().at(0), QStringLiteral("Added 🦆 to your images"));
    EXPECT_EQ(service.records().first().label, QStringLiteral("duck"));

    service.setLabel(service.records().first().id, QStringLiteral("  tuesday   lunch "));
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return service.records().first().label == QStringLiteral("tuesday lunch"); }, 5000));
}
