// SPDX-License-Identifier: MIT
// Drags out of the panel as a user makes them: xdotool presses on a cell, pulls, moves in
// small steps over another program's window and lets go there. The targets are the project's
// own recording window, a web page in Chromium and the pcmanfm file manager.
#include "catalog/faultyserver.h"
#include "insert/dragitem.h"
#include "insert/dragsource.h"
#include "pastefixture.h"
#include "ui/resultsgridmodel.h"
#include "userdata/userdata.h"

#include <QClipboard>
#include <QDir>
#include <QDirIterator>
#include <QListView>
#include <QStandardPaths>
#include <QTimer>

namespace {

// Where the target windows go: below the panel, which opens in the upper part of the screen.
const QRect targetArea(100, 580, 1000, 200);

std::vector<nlohmann::json> dragInserts() {
    std::vector<nlohmann::json> found;
    for (nlohmann::json& event : TestEnv::loggedEvents("insert"))
        if (event.value("method", "") == "drag")
            found.push_back(std::move(event));
    return found;
}

bool placeWindow(const QString& name, const QRect& area) {
    return Desktop::xdotool({QStringLiteral("search"), QStringLiteral("--sync"),
                             QStringLiteral("--onlyvisible"), QStringLiteral("--name"), name,
                             QStringLiteral("windowmove"), QString::number(area.x()),
                             QString::number(area.y()), QStringLiteral("windowsize"),
                             QString::number(area.width()), QString::number(area.height())});
}

QStringList moveArgs(QPoint from, QPoint to, int steps) {
    QStringList args;
    for (int i = 1; i <= steps; ++i) {
        const QPoint at = from + (to - from) * i / steps;
        args << QStringLiteral("mousemove") << QString::number(at.x()) << QString::number(at.y())
             << QStringLiteral("sleep") << QStringLiteral("0.03");
    }
    return args;
}

} // namespace

class DragOnTheDesktop : public AppOnTheDesktop {
protected:
    void TearDown() override {
        EXPECT_FALSE(m_hiddenDuringDrag) << "the panel hid while a drag ran";
        m_watch.stop();
        if (m_mover.state() != QProcess::NotRunning) {
            m_mover.kill();
            m_mover.waitForFinished(3000);
        }
        AppOnTheDesktop::TearDown();
    }

    void startApp() {
        AppOnTheDesktop::startApp();
        // The panel must stay while a drag runs; it is polled as the drag runs in Qt's own
        // event loop.
        QObject::connect(&m_watch, &QTimer::timeout, &panel(), [this] {
            if (drags().isBusy() && !panel().isVisible())
                m_hiddenDuringDrag = true;
        });
        m_watch.start(10);
        // The drag runs in an event loop of its own until the button comes up: the pointer
        // moves on from another process.
        QObject::connect(&drags(), &DragSource::dragStarted, &panel(), [this] {
            QStringList args{QStringLiteral("mouseup"), QStringLiteral("1")};
            if (m_dropAt) {
                // XDND needs the target's answer to a position before the drop.
                const QPoint to = *m_dropAt;
                args = moveArgs(QCursor::pos(), to, 16) + moveArgs(to, to + QPoint(6, 0), 3) +
                       QStringList{QStringLiteral("sleep"), QStringLiteral("0.2")} + args;
            } else {
                ADD_FAILURE() << "a drag started that the test did not expect";
            }
            m_dropAt.reset();
            m_mover.start(QStringLiteral("xdotool"), args);
        });
    }
    DragSource& drags() { return panel().dragSource(); }
    QString jpegCopyOf(const Meme& meme) {
        return drags().jpegDir() + QLatin1Char('/') + DragItem::nameStem(meme) +
               QStringLiteral(".jpg");
    }
    QListView* grid() { return panel().panel()->findChild<QListView*>(QStringLiteral("grid")); }
    QPoint cellCenter(int row) {
        QListView* view = grid();
        return view->viewport()->mapToGlobal(
            view->visualRect(view->model()->index(row, 0)).center());
    }

    // Opens the panel and types `query` over the last one; true once its results show.
    bool openWithResults(const char* query, qsizetype count) {
        PickerModel& model = app->pickerModel();
        QSignalSpy typed(&model, &PickerModel::queryChanged);
        if (!panelOpensWithKeyboard() || !Desktop::type(QLatin1String(query)))
            return false;
        return QTest::qWaitFor(
            [&] {
                return typed.size() >= qsizetype(qstrlen(query)) &&
                       model.query() == QLatin1String(query) && model.results().size() == count;
            },
            5000);
    }

    // Presses on cell `row` and pulls it past the drag distance; the button stays down.
    bool pressAndPull(int row) {
        const QPoint at = cellCenter(row);
        QStringList args{QStringLiteral("mousemove"), QString::number(at.x()),
                         QString::number(at.y()), QStringLiteral("mousedown"), QStringLiteral("1")};
        args << moveArgs(at, at + QPoint(0, 20), 4);
        return Desktop::xdotool(args);
    }
    // Once the drag runs, the pointer moves on to `to` in small steps and lets go there.
    void releaseOverOnceDragging(QPoint to) { m_dropAt = to; }
    // Drags cell `row` to `to` and waits until the drag is over; whether it was dropped.
    bool dragCell(int row, QPoint to) {
        QSignalSpy ended(&drags(), &DragSource::ended);
        releaseOverOnceDragging(to);
        if (!pressAndPull(row) || !QTest::qWaitFor([&] { return !ended.isEmpty(); }, 20000))
            return false;
        return QTest::qWaitFor([&] { return m_mover.state() == QProcess::NotRunning; }, 5000) &&
               ended.first().at(1).toBool();
    }

    QProcess m_mover;
    std::optional<QPoint> m_dropAt;
    QTimer m_watch;
    bool m_hiddenDuringDrag = false;
};

TEST_F(DragOnTheDesktop, EachPayloadDropsIntoAQtWindowAndCountsAsAnInsert) {
    ASSERT_TRUE(serveCatalog(3, 2));
    PasteTarget target;
    ASSERT_TRUE(target.start());
    ASSERT_TRUE(placeWindow(QStringLiteral("Orvane paste target"), targetArea));
    startApp();
    ASSERT_TRUE(QTest::qWaitFor([&] { return app->pickerModel().hasIndex(); }, 15000));
    PickerModel& model = app->pickerModel();
    MemeStore& store = app->memeStore();

    for (const DragPayload payload : {DragPayload::a, DragPayload::b, DragPayload::c}) {
        const std::string raw = rawValue(payload).toStdString();
        SCOPED_TRACE(raw);
        DebugFlags::setDragPayload(payload);
        ASSERT_TRUE(openWithResults("cat", 3));
        const Meme meme = model.results().at(1);
        // Prefetched by now: the drag starts at once.
        ASSERT_TRUE(QTest::qWaitFor([&] { return store.cachedFullURL(meme).has_value(); }, 5000));
        const QByteArray cached = TestEnv::readFile(store.cachedFullURL(meme)->toLocalFile());
        const qsizetype before = target.drops().size();

        ASSERT_TRUE(dragCell(1, targetArea.center()));
        ASSERT_TRUE(QTest::qWaitFor([&] { return target.drops().size() > before; }, 5000));
        const QJsonObject drop = target.drops().last();
        const QStringList formats = formatsOf(drop);
        EXPECT_TRUE(formats.contains(QStringLiteral("text/uri-list")))
            << formats.join(' ').toStdString();
        EXPECT_EQ(formats.contains(QStringLiteral("image/png")), payload == DragPayload::b)
            << formats.join(' ').toStdString();
        const QString url = drop["urls"].toArray().at(0).toString();
        const QByteArray file = TestEnv::readFile(QUrl(url).toLocalFile());
        if (payload == DragPayload::c) {
            // What the JPEG copy holds is DragItem's own test; here, that the drop names it.
            EXPECT_EQ(QUrl(url).toLocalFile(), jpegCopyOf(meme));
        } else {
            EXPECT_EQ(sha256(file), sha256(cached)) << url.toStdString();
        }
        if (payload == DragPayload::b) {
            EXPECT_EQ(drop["sha256"]["image/png"].toString().toLatin1(), sha256(cached));
        }

        // The panel went after the drop as after a paste; the pick is recorded.
        EXPECT_TRUE(QTest::qWaitFor([&] { return !panel().isVisible(); }, 5000));
        EXPECT_EQ(app->userData().recents().value(0), meme.id);
        const auto inserts = dragInserts();
        ASSERT_FALSE(inserts.empty());
        EXPECT_EQ(inserts.back()["id"], meme.id.toStdString());
        EXPECT_EQ(inserts.back()["payload"], raw);
        EXPECT_EQ(inserts.back()["target"], "orvane-paste-target");
        EXPECT_EQ(inserts.back()["cached"], true);
    }
    EXPECT_TRUE(target.pastes().isEmpty());
}

TEST_F(DragOnTheDesktop, AnUncachedImageIsDraggedOnlyIfTheButtonIsStillDownWhenItArrives) {
    // The catalog from a server that holds the full images back until the test says.
    const QString root = TestEnv::freshDir();
    CatalogFixture::writeCatalog(root, 3, 0);
    FaultyServer server;
    ASSERT_TRUE(server.started());
    for (QDirIterator it(root, QDir::Files, QDirIterator::Subdirectories); it.hasNext();) {
        const QString path = QDir(root).relativeFilePath(it.next());
        FaultyServer::Answer answer(200, TestEnv::readFile(root + '/' + path));
        if (path.startsWith(QLatin1String("f/")))
            answer.heldBack();
        server.put(path, answer);
    }
    TestEnv::installConfig({{QStringLiteral("MEME_SERVER"), server.base().toString()}});
    // Nothing cached by the tests before.
    qputenv("XDG_CACHE_HOME", TestEnv::freshDir().toLocal8Bit());
    PasteTarget target;
    ASSERT_TRUE(target.start());
    ASSERT_TRUE(placeWindow(QStringLiteral("Orvane paste target"), targetArea));
    DebugFlags::setDragPayload(DragPayload::a);
    const auto events = [](const char* name, size_t skip) {
        auto all = TestEnv::loggedEvents(name);
        return std::vector<nlohmann::json>(all.begin() + qMin(skip, all.size()), all.end());
    };
    const size_t missesBefore = TestEnv::loggedEvents("drag_miss").size();
    const size_t waitsBefore = TestEnv::loggedEvents("drag_wait").size();
    const size_t insertsBefore = dragInserts().size();
    startApp();
    ASSERT_TRUE(QTest::qWaitFor([&] { return app->pickerModel().hasIndex(); }, 15000));
    ASSERT_TRUE(openWithResults("cat", 3));
    PickerModel& model = app->pickerModel();
    MemeStore& store = app->memeStore();
    QSignalSpy started(&drags(), &DragSource::dragStarted);
    QSignalSpy ended(&drags(), &DragSource::ended);
    const auto fullPath = [](const Meme& m) { return m.full.mid(1); };

    // Let go while the image is on its way: no drag, but the image lands in the cache.
    const Meme first = model.results().at(0);
    ASSERT_TRUE(pressAndPull(0));
    const QModelIndex cell = grid()->model()->index(0, 0);
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return cell.data(ResultsGridModel::InsertProgressRole).isValid(); }, 5000));
    auto misses = events("drag_miss", missesBefore);
    ASSERT_EQ(misses.size(), 1u);
    EXPECT_EQ(misses[0]["id"], first.id.toStdString());
    ASSERT_TRUE(Desktop::xdotool({QStringLiteral("mouseup"), QStringLiteral("1")}));
    ASSERT_TRUE(QTest::qWaitFor([] { return QGuiApplication::mouseButtons() == 0; }, 5000));
    server.release(fullPath(first));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !ended.isEmpty(); }, 10000));
    EXPECT_FALSE(ended[0][1].toBool());
    EXPECT_TRUE(started.isEmpty());
    EXPECT_TRUE(store.cachedFullURL(first).has_value());
    EXPECT_FALSE(cell.data(ResultsGridModel::InsertProgressRole).isValid());
    EXPECT_TRUE(panel().isVisible());
    auto waits = events("drag_wait", waitsBefore);
    ASSERT_EQ(waits.size(), 1u);
    EXPECT_EQ(waits[0]["ok"], true);
    EXPECT_EQ(waits[0]["still_holding"], false);
    EXPECT_TRUE(waits[0]["ms"].is_number());

    // Still holding when it arrives: the drag starts then and drops as usual.
    const Meme second = model.results().at(2);
    releaseOverOnceDragging(targetArea.center());
    ASSERT_TRUE(pressAndPull(2));
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return events("drag_miss", missesBefore).size() == 2; }, 5000));
    EXPECT_TRUE(started.size() == 0 && store.isInFlight(second));
    server.release(fullPath(second));
    ASSERT_TRUE(QTest::qWaitFor([&] { return ended.size() == 2; }, 20000));
    EXPECT_TRUE(ended[1][1].toBool());
    ASSERT_TRUE(QTest::qWaitFor([&] { return target.drops().size() == 1; }, 5000));
    EXPECT_EQ(QUrl(target.drops()[0]["urls"].toArray().at(0).toString()),
              *store.cachedFullURL(second));
    waits = events("drag_wait", waitsBefore);
    ASSERT_EQ(waits.size(), 2u);
    EXPECT_EQ(waits[1]["still_holding"], true);
    const auto inserts = dragInserts();
    ASSERT_EQ(inserts.size(), insertsBefore + 1);
    EXPECT_EQ(inserts.back()["id"], second.id.toStdString());
    EXPECT_EQ(inserts.back()["cached"], false);
    for (const Meme& m : model.results())
        server.release(fullPath(m));
}

TEST_F(DragOnTheDesktop, WebPageGetsTheFileOfEachPayload) {
    const QString chromium = QStandardPaths::findExecutable(QStringLiteral("chromium"));
    if (chromium.isEmpty())
        GTEST_SKIP() << "chromium is not installed";
    ASSERT_TRUE(serveCatalog(3, 2));
    // The page lists what each drop carried in its title, where xdotool can read it.
    const QString page = writeFile(QStringLiteral("drop.html"), R"(<!doctype html>
<title>drop here</title>
<body style="margin:0;height:100vh">
<script>
let drops = 0;
document.addEventListener('dragover', event => event.preventDefault());
document.addEventListener('drop', event => {
  event.preventDefault();
  const data = event.dataTransfer;
  const files = [...data.files].map(f => f.name + ':' + f.type + ':' + f.size);
  document.title = 'drop ' + (++drops) + ' ' + [...data.types].join(',') + ' ' + files.join(',');
});
</script>
)");
    Desktop::Program browser;
    browser.process.setStandardErrorFile(QProcess::nullDevice());
    browser.process.start(
        chromium,
        {QStringLiteral("--no-sandbox"), QStringLiteral("--user-data-dir=") + TestEnv::freshDir(),
         QStringLiteral("--no-first-run"), QStringLiteral("--disable-gpu"),
         QStringLiteral("--disable-background-networking"),
         QStringLiteral("--disable-component-update"), QStringLiteral("--disable-sync"),
         QStringLiteral("--app=") + QUrl::fromLocalFile(page).toString()});
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return placeWindow(QStringLiteral("drop here"), targetArea); }, 30000));
    startApp();
    ASSERT_TRUE(QTest::qWaitFor([&] { return app->pickerModel().hasIndex(); }, 15000));
    MemeStore& store = app->memeStore();

    int drops = 0;
    // Chromium takes the file of a drop and leaves the PNG bytes, so B would drop as A does.
    for (const DragPayload payload : {DragPayload::a, DragPayload::c}) {
        SCOPED_TRACE(rawValue(payload).toStdString());
        DebugFlags::setDragPayload(payload);
        ASSERT_TRUE(openWithResults("dog", 2));
        const Meme meme = app->pickerModel().results().at(0);
        ASSERT_TRUE(QTest::qWaitFor([&] { return store.cachedFullURL(meme).has_value(); }, 5000));
        ASSERT_TRUE(dragCell(0, targetArea.center()));
        QString title;
        const QString prefix = QStringLiteral("drop %1 ").arg(++drops);
        ASSERT_TRUE(QTest::qWaitFor(
            [&] {
                return !(title = Desktop::windowNameMatching(QLatin1Char('^') + prefix)).isEmpty();
            },
            10000));
        const QString cached = store.cachedFullURL(meme)->toLocalFile();
        const QFileInfo file(payload == DragPayload::c ? jpegCopyOf(meme) : cached);
        const QString expected = QStringLiteral("%1:%2:%3")
                                     .arg(file.fileName())
                                     .arg(payload == DragPayload::c ? "image/jpeg" : "image/png")
                                     .arg(file.size());
        EXPECT_TRUE(title.contains(QStringLiteral("Files"))) << title.toStdString();
        EXPECT_TRUE(title.endsWith(expected)) << title.toStdString();
        const auto inserts = dragInserts();
        ASSERT_FALSE(inserts.empty());
        EXPECT_NE(inserts.back().value("target", "").find("hromium"), std::string::npos)
            << inserts.back().dump();
    }
}

TEST_F(DragOnTheDesktop, FileManagerCopiesTheImageIntoTheFolder) {
    const QString pcmanfm = QStandardPaths::findExecutable(QStringLiteral("pcmanfm"));
    if (pcmanfm.isEmpty())
        GTEST_SKIP() << "pcmanfm is not installed";
    ASSERT_TRUE(serveCatalog(3, 2));
    const QString folder = TestEnv::freshDir() + QStringLiteral("/dropfolder");
    QDir().mkpath(folder);
    Desktop::Program files;
    files.process.setStandardErrorFile(QProcess::nullDevice());
    files.process.start(pcmanfm, {folder});
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return placeWindow(QStringLiteral("dropfolder"), targetArea); }, 30000));
    startApp();
    ASSERT_TRUE(QTest::qWaitFor([&] { return app->pickerModel().hasIndex(); }, 15000));
    MemeStore& store = app->memeStore();

    // Right of the middle: away from the icons of files already dropped.
    const QPoint dropAt = targetArea.center() + QPoint(300, 0);
    for (const DragPayload payload : {DragPayload::a, DragPayload::c}) {
        SCOPED_TRACE(rawValue(payload).toStdString());
        DebugFlags::setDragPayload(payload);
        ASSERT_TRUE(openWithResults("cat", 3));
        const Meme meme = app->pickerModel().results().at(0);
        ASSERT_TRUE(QTest::qWaitFor([&] { return store.cachedFullURL(meme).has_value(); }, 5000));
        const QString source =
            payload == DragPayload::c ? jpegCopyOf(meme) : store.cachedFullURL(meme)->toLocalFile();
        // pcmanfm asks for the data under the pointer with its own, wrong clock, and Qt
        // answers only requests stamped with the time it sent; it takes that time over from
        // the first request, so at worst the first drag is refused. A user drags again.
        ASSERT_TRUE(dragCell(0, dropAt) || dragCell(0, dropAt));
        const QString copy = folder + QLatin1Char('/') + QFileInfo(source).fileName();
        ASSERT_TRUE(QTest::qWaitFor(
            [&] {
                return !TestEnv::readFile(copy).isEmpty() &&
                       TestEnv::readFile(copy) == TestEnv::readFile(source);
            },
            10000))
            << QDir(folder).entryList(QDir::Files).join(' ').toStdString();
        // Copied, not moved: the cache keeps its file.
        EXPECT_TRUE(QFileInfo::exists(source));
        EXPECT_EQ(dragInserts().back()["target"], "Pcmanfm");
    }
    // pcmanfm asks for a drop's data with a timestamp far ahead of the X server's clock; the
    // clipboard must take our writes again once the drop is over (with that time adopted, the
    // X server would ignore every one of them).
    EXPECT_TRUE(QTest::qWaitFor(
        [] {
            QGuiApplication::clipboard()->setText(QStringLiteral("after the drops"));
            return Desktop::clipboardAs(QStringLiteral("UTF8_STRING")) == "after the drops";
        },
        5000));
}
