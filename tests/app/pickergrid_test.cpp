// SPDX-License-Identifier: MIT
// The picker in the resident app, driven with the keyboard as the user does.
#include "support/appondesktop.h"

#include <QLabel>
#include <QListView>

using Desktop::key;
using PickerGrid = AppOnTheDesktop;

// Typing searches, Tab and Shift+Tab switch tabs, the Collections tab counts in proper
// English and writes each collection's name on its card, Esc hides, and the hotkey brings the
// panel back with the query selected so typing replaces it.
TEST_F(PickerGrid, CollectionCardsShowTheirNames) {
    ASSERT_TRUE(serveCatalog(3, 2));
    startApp();
    PickerModel& model = app->pickerModel();
    ASSERT_TRUE(panelOpensWithKeyboard());
    ASSERT_TRUE(key("Tab"));
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return model.showingCollectionList() && model.collectionList().size() == 1; },
        15000));
    const auto* status = panel().panel()->findChild<QLabel*>(QStringLiteral("status"));
    EXPECT_EQ(status->text(),
              QStringLiteral("1 collection · ↵ open · drag to insert · ⇥ memes · esc close"));

    // Once the cover has come, the card shows it with the name written in the window's
    // text colour (the cover itself is one light colour, the selection ring blue).
    auto* grid = panel().panel()->findChild<QListView*>(QStringLiteral("grid"));
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

    ASSERT_TRUE(key("shift+Tab"));
    EXPECT_TRUE(QTest::qWaitFor([&] { return model.tab() == PickerModel::Tab::memes; }, 5000));
    // The index cached by an earlier test may answer first; this catalog's follows.
    ASSERT_TRUE(Desktop::type(QStringLiteral("cat")));
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return model.query() == QLatin1String("cat") && model.results().size() == 3; },
        15000));
    EXPECT_EQ(status->text(), QStringLiteral("3 results · ↵ paste · drag to insert · Ctrl+D "
                                             "favorite · Ctrl+E caption · esc close"));
    ASSERT_TRUE(key("Escape"));
    EXPECT_TRUE(QTest::qWaitFor([&] { return !panel().isVisible(); }, 5000));
    ASSERT_TRUE(panelOpensWithKeyboard());
    ASSERT_TRUE(Desktop::type(QStringLiteral("dog")));
    EXPECT_TRUE(QTest::qWaitFor([&] { return model.query() == QLatin1String("dog"); }, 5000))
        << model.query().toStdString();
    EXPECT_EQ(model.results().size(), 2);
}

// "Reset picker size" puts a moved, resized panel back where and how it opens.
TEST_F(PickerGrid, ResetPickerSizeRecentres) {
    startApp();
    PickerPanel* picker = panel().panel();
    panel().show();
    ASSERT_TRUE(QTest::qWaitFor([&] { return picker->isVisible(); }, 5000));
    const QRect opened = picker->geometry();
    EXPECT_EQ(opened.size(), QSize(640, 460));
    // Moved and resized as the desktop would on a drag.
    const QString window = QString::number(picker->winId());
    ASSERT_TRUE(Desktop::xdotool({QStringLiteral("windowmove"), QStringLiteral("--sync"), window,
                                  QStringLiteral("20"), QStringLiteral("30")}));
    ASSERT_TRUE(Desktop::xdotool({QStringLiteral("windowsize"), QStringLiteral("--sync"), window,
                                  QStringLiteral("800"), QStringLiteral("540")}));
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return picker->x() < opened.x() && picker->width() == 800; }, 5000))
        << picker->x() << "," << picker->y() << " " << picker->width();
    app->resetPickerSize();
    EXPECT_TRUE(QTest::qWaitFor([&] { return picker->geometry() == opened; }, 5000))
        << picker->geometry().x() << "," << picker->geometry().y() << " "
        << picker->geometry().width() << "x" << picker->geometry().height();
}
