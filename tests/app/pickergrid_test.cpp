// SPDX-License-Identifier: MIT
#include "app/appdelegate.h"
#include "app/panelcontroller.h"
#include "search/pickermodel.h"
#include "support/catalogfixture.h"
#include "support/desktop.h"
#include "support/testenv.h"
#include "support/xvfbsession.h"
#include "ui/pickerpanel.h"

#include <QLabel>
#include <QListView>
#include <QTest>

namespace {

bool key(const char* keys) {
    return XvfbSession::run(QStringLiteral("xdotool"),
                            {QStringLiteral("key"), QLatin1String(keys)});
}

// The items of the grid's first row as drawn.
int itemsInFirstRow(const QListView* grid) {
    const int top = grid->visualRect(grid->model()->index(0, 0)).top();
    int count = 0;
    for (int row = 0; row < grid->model()->rowCount(); ++row)
        if (grid->visualRect(grid->model()->index(row, 0)).top() == top)
            ++count;
    return count;
}

} // namespace

// The grid the user sees and the arrow keys agree on how many thumbnails make a row.
TEST(PickerGrid, DownMovesToTheThumbnailBelow) {
    GLIMMET_REQUIRE_DESKTOP();
    QString why;
    CatalogFixture server;
    ASSERT_TRUE(server.serveAsConfigured(QStringLiteral(ORVANE_SERVER_BINARY), 30, 0, &why))
        << why.toStdString();
    AppDelegate app{CommandLine{}};
    app.start();
    PickerModel& model = app.pickerModel();
    ASSERT_TRUE(QTest::qWaitFor([&] { return model.hasIndex(); }, 15000));

    app.panelController().show();
    ASSERT_TRUE(QTest::qWaitFor([&] { return app.panelController().panelHasKeyboard(); }, 5000));
    ASSERT_TRUE(XvfbSession::run(QStringLiteral("xdotool"),
                                 {QStringLiteral("type"), QStringLiteral("cat")}));
    // The index cached by an earlier test may answer first; this catalog's follows.
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return model.query() == QLatin1String("cat") && model.results().size() == 30; },
        15000));
    const auto* grid = app.panelController().panel()->findChild<QListView*>(QStringLiteral("grid"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return grid->model()->rowCount() > 0; }, 5000));

    EXPECT_GE(grid->visualRect(grid->model()->index(0, 0)).width(), PickerPanel::minimumCell);
    EXPECT_EQ(itemsInFirstRow(grid), model.columns());
    ASSERT_EQ(model.selected(), 0);
    ASSERT_TRUE(key("Down"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return model.selected() != 0; }, 5000));
    const QRect first = grid->visualRect(grid->model()->index(0, 0));
    const QRect below = grid->visualRect(grid->model()->index(model.selected(), 0));
    EXPECT_EQ(below.left(), first.left());
    EXPECT_EQ(below.top(), first.bottom() + 1);
}

// The Collections tab counts in proper English and writes each collection's name on its
// card, over the cover image.
TEST(PickerGrid, CollectionCardsShowTheirNames) {
    GLIMMET_REQUIRE_DESKTOP();
    QString why;
    CatalogFixture server;
    ASSERT_TRUE(server.serveAsConfigured(QStringLiteral(ORVANE_SERVER_BINARY), 3, 0, &why))
        << why.toStdString();
    AppDelegate app{CommandLine{}};
    app.start();
    PickerModel& model = app.pickerModel();
    PickerPanel* panel = app.panelController().panel();
    app.panelController().show();
    ASSERT_TRUE(QTest::qWaitFor([&] { return app.panelController().panelHasKeyboard(); }, 5000));
    ASSERT_TRUE(key("Tab"));
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return model.showingCollectionList() && model.collectionList().size() == 1; },
        15000));
    const auto* status = panel->findChild<QLabel*>(QStringLiteral("status"));
    EXPECT_EQ(status->text(),
              QStringLiteral("1 collection · ↵ open · drag to insert · ⇥ memes · esc close"));

    // Once the cover has come, the card shows it with the name written in the window's
    // text colour (the cover itself is one light colour, the selection ring blue).
    auto* grid = panel->findChild<QListView*>(QStringLiteral("grid"));
    const QModelIndex card = grid->model()->index(0, 0);
    ASSERT_TRUE(QTest::qWaitFor([&] { return card.data(Qt::DecorationRole).isValid(); }, 10000));
    grid->viewport()->repaint();
    const QImage drawn = grid->viewport()->grab(grid->visualRect(card)).toImage();
    const QColor text = grid->palette().color(QPalette::WindowText);
    int textPixels = 0;
    for (int y = 0; y < drawn.height(); ++y)
        for (int x = 0; x < drawn.width(); ++x)
            if (const QColor c = drawn.pixelColor(x, y); std::abs(c.red() - text.red()) < 60 &&
                                                         std::abs(c.green() - text.green()) < 60 &&
                                                         std::abs(c.blue() - text.blue()) < 60)
                ++textPixels; // anti-aliased glyphs come close to the colour
    EXPECT_GT(textPixels, 20);
    EXPECT_EQ(grid->model()->data(card, Qt::DisplayRole).toString(), QStringLiteral("Stickers"));
}

// "Reset picker size" puts a moved, resized panel back where and how it opens.
TEST(PickerGrid, ResetPickerSizeRecentres) {
    GLIMMET_REQUIRE_DESKTOP();
    AppDelegate app{CommandLine{}};
    app.start();
    PickerPanel* panel = app.panelController().panel();
    app.panelController().show();
    ASSERT_TRUE(QTest::qWaitFor([&] { return panel->isVisible(); }, 5000));
    const QRect opened = panel->geometry();
    // Moved and resized as the desktop would on a drag.
    const QString window = QString::number(panel->winId());
    ASSERT_TRUE(XvfbSession::run(QStringLiteral("xdotool"),
                                 {QStringLiteral("windowmove"), QStringLiteral("--sync"), window,
                                  QStringLiteral("20"), QStringLiteral("30")}));
    ASSERT_TRUE(XvfbSession::run(QStringLiteral("xdotool"),
                                 {QStringLiteral("windowsize"), QStringLiteral("--sync"), window,
                                  QStringLiteral("800"), QStringLiteral("540")}));
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return panel->x() < opened.x() && panel->width() == 800; }, 5000))
        << panel->x() << "," << panel->y() << " " << panel->width();
    app.resetPickerSize();
    EXPECT_TRUE(QTest::qWaitFor([&] { return panel->geometry() == opened; }, 5000))
        << panel->geometry().x() << "," << panel->geometry().y() << " " << panel->geometry().width()
        << "x" << panel->geometry().height();
    EXPECT_EQ(panel->size(), PickerPanel::defaultSize);
}
