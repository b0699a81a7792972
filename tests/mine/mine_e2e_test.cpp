// SPDX-License-Identifier: MIT
// The user's own images on the desktop: a picture dragged from another program onto the
// panel and one pasted into it with Ctrl+V are found by the words written on them, in the
// Mine tab and on top of the Memes tab; Delete removes one after asking. The drag starts in
// pcmanfm, as a user's would.
#include "mine/mineservice.h"
#include "support/appondesktop.h"

#include <QAbstractButton>
#include <QFont>
#include <QInputDialog>
#include <QMessageBox>
#include <QPainter>
#include <QStandardPaths>
#include <QTimer>

namespace {

// A 1000 × 1000 photo-like picture with one word written large across it.
QString pictureWithWord(const QString& dir, const QString& name, const QString& word) {
    QImage image(1000, 1000, QImage::Format_RGB32);
    image.fill(QColor(236, 228, 210));
    QPainter painter(&image);
    QFont font(QStringLiteral("DejaVu Sans"));
    font.setBold(true);
    font.setPixelSize(140);
    painter.setFont(font);
    painter.setPen(Qt::black);
    painter.drawText(image.rect(), Qt::AlignCenter, word);
    painter.end();
    const QString path = dir + u'/' + name;
    image.save(path);
    return path;
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

class MineOnTheDesktop : public AppOnTheDesktop {
protected:
    PickerModel& model() { return app->pickerModel(); }
    std::optional<Meme> shownWithLabel(const QString& label) {
        for (const Meme& meme : model().results())
            if (meme.isMine() && meme.description == label)
                return meme;
        return std::nullopt;
    }
    // Types `query` over the search field's text; true once the model searched for it.
    bool search(const QString& query) {
        return Desktop::key("ctrl+a") && Desktop::type(query) &&
               QTest::qWaitFor([&] { return model().query() == query; }, 5000);
    }
    QWidget* searchField() {
        return panel().panel()->findChild<QWidget*>(QStringLiteral("search"));
    }
};

TEST_F(MineOnTheDesktop, DroppedAndPastedPicturesAreFoundByTheirWords) {
    ASSERT_TRUE(serveCatalog(4, 4));
    startApp();
    ASSERT_TRUE(QTest::qWaitFor([&] { return model().hasIndex(); }, 15000));
    // The file manager's window is named after the folder.
    const QString dir = TestEnv::freshDir() + QStringLiteral("/minedrop");
    QDir().mkpath(dir);
    const QString dropped =
        pictureWithWord(dir, QStringLiteral("holiday-snap.png"), QStringLiteral("PELICAN"));
    const QString pasted =
        pictureWithWord(TestEnv::freshDir(), QStringLiteral("clip.png"), QStringLiteral("GIRAFFE"));

    // "My images…" opens the panel on the Mine tab, with its empty-state advice and "＋ Add".
    app->showMine();
    ASSERT_TRUE(panelHasKeyboard());
    EXPECT_EQ(model().tab(), PickerModel::Tab::mine);
    EXPECT_EQ(model().status(),
              QStringLiteral("Nothing here yet. Click ＋ Add to bring in your own images or emoji, "
                             "or press Ctrl+D on a sticker. Yours stay on this computer."));
    const QWidget* add = panel().panel()->findChild<QWidget*>(QStringLiteral("mineAdd"));
    ASSERT_NE(add, nullptr);
    EXPECT_TRUE(add->isVisible());

    // The file manager, left of the panel, shows the picture; it is dragged from there.
    const QString pcmanfm = QStandardPaths::findExecutable(QStringLiteral("pcmanfm"));
    if (pcmanfm.isEmpty())
        GTEST_SKIP() << "pcmanfm is not installed";
    Desktop::Program files;
    files.process.setStandardErrorFile(QProcess::nullDevice());
    files.process.start(pcmanfm, {QFileInfo(dropped).absolutePath()});
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            return Desktop::xdotool({QStringLiteral("search"), QStringLiteral("--sync"),
                                     QStringLiteral("--onlyvisible"), QStringLiteral("--name"),
                                     QStringLiteral("^minedrop$"), QStringLiteral("windowmove"),
                                     QStringLiteral("0"), QStringLiteral("0"),
                                     QStringLiteral("windowsize"), QStringLiteral("560"),
                                     QStringLiteral("400")});
        },
        30000));
    EXPECT_TRUE(panel().isVisible()) << "the Mine tab stays open beside another program";
    // The folder's only icon, at the top left of pcmanfm's icon view.
    const QPoint from(207, 118);
    ASSERT_LT(from.x(), panel().panel()->frameGeometry().left());
    QWidget* grid = panel().panel()->findChild<QWidget*>(QStringLiteral("grid"));
    const QPoint to = grid->mapToGlobal(grid->rect().center());
    const auto dragged = [&] { return shownWithLabel(QStringLiteral("holiday-snap")).has_value(); };
    // The file manager may still be drawing its icons: the drag is tried again then.
    for (int attempt = 0; attempt < 3 && !dragged(); ++attempt) {
        QProcess mover;
        mover.start(QStringLiteral("xdotool"),
                    QStringList{QStringLiteral("mousemove"), QString::number(from.x()),
                                QString::number(from.y()), QStringLiteral("mousedown"),
                                QStringLiteral("1")} +
                        moveArgs(from, from + QPoint(30, 0), 4) +
                        moveArgs(from + QPoint(30, 0), to, 16) +
                        moveArgs(to, to + QPoint(6, 0), 3) +
                        QStringList{QStringLiteral("sleep"), QStringLiteral("0.2"),
                                    QStringLiteral("mouseup"), QStringLiteral("1")});
        ASSERT_TRUE(QTest::qWaitFor([&] { return mover.state() == QProcess::NotRunning; }, 20000));
        if (QTest::qWaitFor(dragged, 5000))
            break;
    }
    ASSERT_TRUE(dragged()) << "dropped item in the Mine tab; items " << app->mine().records().size()
                           << ", toasts " << visibleToasts().join(u'|').toStdString();
    EXPECT_EQ(model().selectedItem()->description, QStringLiteral("holiday-snap"));

    // Ctrl+V in the panel with a picture on the clipboard.
    ASSERT_TRUE(Desktop::copyFile(pasted, QStringLiteral("image/png")));
    ASSERT_TRUE(Desktop::click(searchField()->mapToGlobal(searchField()->rect().center())));
    ASSERT_TRUE(panelHasKeyboard());
    ASSERT_TRUE(Desktop::key("ctrl+v"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return app->mine().records().size() == 2; }, 10000));
    EXPECT_EQ(app->mine().records().first().source, QStringLiteral("paste"));
    EXPECT_EQ(app->mine().records().last().source, QStringLiteral("drop"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return app->mine().pendingReads() == 0; }, 60000));

    // Found by the words read on them: in the Mine tab...
    ASSERT_TRUE(search(QStringLiteral("pelican")));
    ASSERT_EQ(model().results().size(), 1);
    EXPECT_EQ(model().results().first().description, QStringLiteral("holiday-snap"));
    EXPECT_TRUE(model().status().startsWith(QStringLiteral("1 yours · 0 favorite stickers · ")));
    ASSERT_TRUE(search(QStringLiteral("giraffe")));
    ASSERT_EQ(model().results().size(), 1);
    EXPECT_EQ(model().results().first().id, app->mine().records().first().id);

    // F2 edits the selected item's label, and the new words find it.
    QTimer relabel;
    QObject::connect(&relabel, &QTimer::timeout, [&] {
        if (auto* dialog = qobject_cast<QInputDialog*>(QApplication::activeModalWidget())) {
            dialog->setTextValue(QStringLiteral("tall friend"));
            dialog->accept();
        }
    });
    relabel.start(50);
    ASSERT_TRUE(Desktop::key("F2"));
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return app->mine().records().first().label == QStringLiteral("tall friend"); },
        10000));
    relabel.stop();
    ASSERT_TRUE(panelHasKeyboard()) << "the panel takes the keyboard back after the dialog";
    ASSERT_TRUE(search(QStringLiteral("tall fr")));
    ASSERT_EQ(model().results().size(), 1);
    EXPECT_EQ(model().results().first().id, app->mine().records().first().id);

    // ...and on top of the Memes tab, beside the catalog's cats; "＋ Add" is the Mine tab's.
    ASSERT_TRUE(Desktop::key("Tab"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return model().tab() == PickerModel::Tab::memes; }, 5000));
    EXPECT_FALSE(add->isVisible());
    ASSERT_TRUE(search(QStringLiteral("pelican")));
    ASSERT_FALSE(model().results().isEmpty());
    EXPECT_EQ(model().results().first().description, QStringLiteral("holiday-snap"));
    EXPECT_TRUE(model().status().contains(QStringLiteral("(1 of yours)")))
        << model().status().toStdString();

    // Delete on the selected item asks first, then the files go.
    ASSERT_TRUE(Desktop::key("shift+Tab"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return model().tab() == PickerModel::Tab::mine; }, 5000));
    const MineLibrary::Record doomed = app->mine().records().last();
    ASSERT_EQ(model().selectedItem()->id, doomed.id);
    QString asked;
    QTimer confirm;
    QObject::connect(&confirm, &QTimer::timeout, [&] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget()))
            for (QAbstractButton* b : box->buttons())
                if (b->text() == QStringLiteral("Remove")) {
                    asked = box->text();
                    b->click();
                }
    });
    confirm.start(50);
    ASSERT_TRUE(Desktop::key("Delete"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return app->mine().records().size() == 1; }, 10000));
    confirm.stop();
    EXPECT_EQ(asked, QStringLiteral("Remove “holiday-snap” from your images?"));
    EXPECT_FALSE(QFileInfo::exists(app->mine().library().folder(doomed.id)));
    EXPECT_TRUE(QFileInfo::exists(dropped)) << "the user's own file stays where it was";
    EXPECT_TRUE(QTest::qWaitFor([&] { return model().results().isEmpty(); }, 5000));
}
