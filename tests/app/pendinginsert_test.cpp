// SPDX-License-Identifier: MIT
// Enter on an item whose image is still downloading, then Esc: the user has changed their
// mind, so the late download must paste nothing.
#include "app/appdelegate.h"
#include "app/panelcontroller.h"
#include "catalog/faultyserver.h"
#include "catalog/memestore.h"
#include "search/pickermodel.h"
#include "support/catalogfixture.h"
#include "support/desktop.h"
#include "support/testenv.h"
#include "support/xvfbsession.h"
#include "ui/pickerpanel.h"
#include "ui/resultsgridmodel.h"

#include <QDir>
#include <QDirIterator>
#include <QListView>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>

namespace {

bool xdotool(const QStringList& args) {
    return XvfbSession::run(QStringLiteral("xdotool"), args);
}
bool key(const char* keys) {
    return xdotool({QStringLiteral("key"), QLatin1String(keys)});
}

// Keeps the event loop running meanwhile: when the clipboard is ours, we must answer xclip.
QByteArray clipboardText() {
    QProcess xclip;
    xclip.start(QStringLiteral("xclip"),
                {QStringLiteral("-o"), QStringLiteral("-selection"), QStringLiteral("clipboard"),
                 QStringLiteral("-t"), QStringLiteral("UTF8_STRING")});
    if (!QTest::qWaitFor([&] { return xclip.state() == QProcess::NotRunning; }, 10000))
        return {};
    return xclip.readAllStandardOutput();
}

} // namespace

TEST(PendingInsert, EscWhileTheImageDownloadsPastesNothing) {
    GLIMMET_REQUIRE_DESKTOP();
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
    ASSERT_TRUE(XvfbSession::run(
        QStringLiteral("xclip"),
        {QStringLiteral("-selection"), QStringLiteral("clipboard"), QStringLiteral("-i"), before}));
    QProcess target;
    XvfbSession::endWithTest(target);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    target.setProcessEnvironment(env);
    target.start(QStringLiteral(PASTE_TARGET_BINARY), {});
    ASSERT_TRUE(target.waitForReadyRead(10000));
    ASSERT_TRUE(xdotool({QStringLiteral("search"), QStringLiteral("--sync"),
                         QStringLiteral("--name"), QStringLiteral("Orvane paste target"),
                         QStringLiteral("windowactivate"), QStringLiteral("--sync")}));

    AppDelegate app{CommandLine{}};
    app.start();
    PickerModel& model = app.pickerModel();
    PanelController& panel = app.panelController();
    ASSERT_TRUE(QTest::qWaitFor([&] { return model.hasIndex(); }, 15000));
    QSignalSpy inserted(&panel, &PanelController::inserted);

    ASSERT_TRUE(key("ctrl+m"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return panel.panelHasKeyboard(); }, 5000));
    ASSERT_TRUE(xdotool({QStringLiteral("type"), QStringLiteral("cat")}));
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return model.query() == QLatin1String("cat") && model.results().size() == 3; },
        5000));
    const Meme chosen = model.results().at(model.selected());
    ASSERT_TRUE(key("Return"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return panel.isInserting(); }, 5000));

    // The cell shows that its image is on its way.
    const auto* grid = panel.panel()->findChild<QListView*>(QStringLiteral("grid"));
    const QModelIndex cell = grid->model()->index(model.selected(), 0);
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return cell.data(ResultsGridModel::InsertProgressRole).isValid(); }, 5000));

    ASSERT_TRUE(key("Escape"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !panel.isVisible(); }, 5000));
    EXPECT_FALSE(panel.isInserting());
    EXPECT_FALSE(cell.data(ResultsGridModel::InsertProgressRole).isValid());

    // The download ends after all and lands in the cache, but nothing is pasted.
    ASSERT_TRUE(app.memeStore().isInFlight(chosen));
    for (const QString& path : fullImages)
        server.release(path);
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            return !app.memeStore().isInFlight(chosen) &&
                   app.memeStore().cachedFullURL(chosen).has_value();
        },
        10000));
    EXPECT_EQ(inserted.count(), 0);
    EXPECT_EQ(clipboardText(), QByteArray("the user's own text"));
    const QByteArray targetSaw = target.readAllStandardOutput();
    EXPECT_FALSE(targetSaw.contains("\"formats\"")) << targetSaw.toStdString();

    // Enter works again at once: the cancelled insert does not hold the guard.
    ASSERT_TRUE(key("ctrl+m"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return panel.panelHasKeyboard(); }, 5000));
    ASSERT_TRUE(key("Return"));
    EXPECT_TRUE(inserted.wait(5000));
    target.kill();
    target.waitForFinished(3000);
}
