// SPDX-License-Identifier: MIT
#include "app/appdelegate.h"
#include "app/panelcontroller.h"
#include "search/pickermodel.h"
#include "support/catalogfixture.h"
#include "support/desktop.h"
#include "support/testenv.h"
#include "support/xvfbsession.h"
#include "ui/pickerpanel.h"

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
