// SPDX-License-Identifier: MIT
// Enter on an item whose image is still downloading, then Esc: the user has changed their
// mind, so the late download must paste nothing.
#include "catalog/faultyserver.h"
#include "catalog/memestore.h"
#include "insert/pastetarget.h"
#include "support/appondesktop.h"
#include "ui/resultsgridmodel.h"

#include <QDir>
#include <QDirIterator>
#include <QListView>
#include <QSignalSpy>

using Desktop::key;

using PendingInsert = AppOnTheDesktop;

TEST_F(PendingInsert, EscWhileTheImageDownloadsPastesNothing) {
    // The catalog and its images from a server that holds the full images back.
    const QString root = TestEnv::freshDir();
    CatalogFixture::writeCatalog(root, 3, 0);
    FaultyServer server;
    ASSERT_TRUE(server.started());
    QStringList fullImages;
    for (QDirIterator it(root, QDir::Files, QDirIterator::Subdirectories); it.hasNext();) {
        const QString path = QDir(root).relativeFilePath(it.next());
        FaultyServer::Answer answer(200, TestEnv::readFile(root + '/' + path));
        if (path.startsWith(QLatin1String("f/"))) {
            answer.heldBack();
            fullImages.append(path);
        }
        server.put(path, answer);
    }
    TestEnv::installConfig({{QStringLiteral("MEME_SERVER"), server.base().toString()}});

    // Something of the user's on the clipboard, and a program in front to paste into.
    const QString before = TestEnv::freshDir() + QStringLiteral("/before.txt");
    TestEnv::writeFile(before, "the user's own text");
    ASSERT_TRUE(Desktop::copyFile(before));
    PasteTarget target;
    ASSERT_TRUE(target.start());

    startApp();
    PickerModel& model = app->pickerModel();
    ASSERT_TRUE(QTest::qWaitFor([&] { return model.hasIndex(); }, 15000));
    QSignalSpy inserted(&panel(), &PanelController::inserted);

    ASSERT_TRUE(panelOpensWithKeyboard());
    ASSERT_TRUE(Desktop::type(QStringLiteral("cat")));
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return model.query() == QLatin1String("cat") && model.results().size() == 3; },
        5000));
    const Meme chosen = model.results().at(model.selected());
    ASSERT_TRUE(key("Return"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return panel().isInserting(); }, 5000));

    // The cell shows that its image is on its way.
    const auto* grid = panel().panel()->findChild<QListView*>(QStringLiteral("grid"));
    const QModelIndex cell = grid->model()->index(model.selected(), 0);
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return cell.data(ResultsGridModel::InsertProgressRole).isValid(); }, 5000));

    ASSERT_TRUE(key("Escape"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !panel().isVisible(); }, 5000));
    EXPECT_FALSE(panel().isInserting());
    EXPECT_FALSE(cell.data(ResultsGridModel::InsertProgressRole).isValid());

    // The download ends after all and lands in the cache, but nothing is pasted.
    ASSERT_TRUE(app->memeStore().isInFlight(chosen));
    for (const QString& path : fullImages)
        server.release(path);
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            return !app->memeStore().isInFlight(chosen) &&
                   app->memeStore().cachedFullURL(chosen).has_value();
        },
        10000));
    EXPECT_EQ(inserted.count(), 0);
    EXPECT_EQ(Desktop::clipboardAs(QStringLiteral("UTF8_STRING")), "the user's own text");
    EXPECT_TRUE(target.pastes().isEmpty());

    // Enter works again at once: the cancelled insert does not hold the guard.
    ASSERT_TRUE(panelOpensWithKeyboard());
    ASSERT_TRUE(key("Return"));
    EXPECT_TRUE(inserted.wait(5000));
}
