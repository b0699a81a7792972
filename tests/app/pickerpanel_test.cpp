// SPDX-License-Identifier: MIT
// The panel as drawn: how the grid's rows and the arrow keys agree, and what the status line
// and the cells show, checked on the geometry and text the user gets.
#include "search/pickermodel.h"
#include "support/desktop.h"
#include "support/testenv.h"
#include "ui/fileopener.h"
#include "ui/pickerpanel.h"
#include "userdata/userdata.h"

#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMessageBox>
#include <QPushButton>
#include <QScrollBar>
#include <QTest>
#include <QTextBlock>
#include <QTextDocument>
#include <QTimer>

namespace {

using Tab = PickerModel::Tab;

const QString separator = QStringLiteral(" · ");
// The narrowest a thumbnail cell may get, and the panel's height as it opens.
constexpr int smallestCell = 112;
constexpr int panelHeight = 460;

// The panel over a model holding `count` of the user's own items, shown in the Mine tab.
struct MinePanel {
    explicit MinePanel(int count) {
        TestEnv::installConfig();
        MemeList mine;
        for (int i = 0; i < count; ++i) {
            Meme m;
            m.id = QStringLiteral("g_%1").arg(i);
            m.description = QStringLiteral("mine %1").arg(i);
            mine.append(m);
        }
        model.setMine(mine);
        model.switchTab(Tab::mine);
        panel.show();
    }
    QListView* grid() const { return panel.findChild<QListView*>(QStringLiteral("grid")); }
    QLabel* status() const { return panel.findChild<QLabel*>(QStringLiteral("status")); }
    QRect cell(int row) const { return grid()->visualRect(grid()->model()->index(row, 0)); }
    void press(Qt::Key key) {
        QTest::keyClick(panel.findChild<QLineEdit*>(QStringLiteral("search")), key);
    }
    // Lets the view redo its layout after a resize.
    void resizeTo(int width) {
        panel.resize(width, panelHeight);
        EXPECT_TRUE(QTest::qWaitFor([&] { return panel.width() == width; }, 2000));
        QCoreApplication::processEvents();
        QCoreApplication::processEvents();
    }

    QString root = TestEnv::freshDir();
    UserData userData{root + QStringLiteral("/userdata.json")};
    PickerModel model{nullptr, &userData};
    PickerPanel panel{model, nullptr};
};

} // namespace

// Down lands on the thumbnail straight below and Up comes back, at every width (also those
// the cells divide evenly) and with or without a scroll bar.
TEST(PickerPanelGrid, UpAndDownMoveStraightAtEveryWidth) {
    GLIMMET_REQUIRE_DESKTOP();
    for (const int count : {7, 60}) {
        MinePanel p(count);
        ASSERT_EQ(p.grid()->model()->rowCount(), count);
        bool sawEvenSplit = false;
        bool sawScrolling = false;
        bool sawAllInView = false;
        for (int width = 360; width <= 760; width += 3) {
            SCOPED_TRACE(testing::Message() << count << " items, panel width " << width);
            p.resizeTo(width);
            const int viewport = p.grid()->viewport()->width();
            const int cell = p.cell(0).width();
            sawEvenSplit |= viewport % (viewport / smallestCell) == 0;
            (p.grid()->verticalScrollBar()->maximum() > 0 ? sawScrolling : sawAllInView) = true;

            // The row is as full as the width allows, whether the grid scrolls or not: what
            // is left at its end is only rounding, never an empty strip.
            int perRow = 1;
            while (perRow < count && p.cell(perRow).top() == p.cell(0).top())
                ++perRow;
            if (perRow < count) {
                EXPECT_LE(viewport - 1 - p.cell(perRow - 1).right(), perRow);
            }
            EXPECT_GE(cell, smallestCell);

            const int start = 1;
            p.model.select(start);
            p.press(Qt::Key_Down);
            if (start + perRow >= count)
                continue; // no row below (Down clamps to the last cell)
            ASSERT_LT(p.model.selected(), count);
            const QRect from = p.cell(start);
            const QRect to = p.cell(p.model.selected());
            EXPECT_EQ(to.left(), from.left());
            EXPECT_EQ(to.top(), from.bottom() + 1);
            p.press(Qt::Key_Up);
            EXPECT_EQ(p.model.selected(), start);
        }
        EXPECT_TRUE(sawEvenSplit);
        EXPECT_TRUE(sawAllInView || count == 60);
        EXPECT_TRUE(sawScrolling || count == 7);
    }
}

// The key hints are cut between two hints, never inside a word, and what is shown fits.
TEST(PickerPanelText, StatusLineIsCutBetweenHints) {
    GLIMMET_REQUIRE_DESKTOP();
    MinePanel p(7);
    const QString full =
        QStringLiteral("7 yours · 0 favorite stickers · ↵ paste · drag to insert · "
                       "Ctrl+D favorite · ⇥ next tab · esc close");
    ASSERT_EQ(p.model.status(), full);
    bool sawCut = false;
    for (const int width : {360, 480, 640, 1000}) {
        SCOPED_TRACE(width);
        p.resizeTo(width);
        QCoreApplication::processEvents();
        const QLabel* status = p.status();
        const QString shown = status->text();
        EXPECT_LE(status->fontMetrics().horizontalAdvance(shown), status->contentsRect().width());
        EXPECT_FALSE(status->wordWrap() &&
                     status->heightForWidth(status->width()) > status->height());
        if (shown == full)
            continue;
        sawCut = true;
        ASSERT_TRUE(shown.endsWith(separator + QStringLiteral("…"))) << shown.toStdString();
        const QString kept = shown.chopped(separator.size() + 1);
        EXPECT_TRUE(full.startsWith(kept + separator)) << shown.toStdString();
        EXPECT_EQ(status->toolTip(), full);
    }
    EXPECT_TRUE(sawCut);
}

// The empty Mine tab's advice is shown whole, and every sign in it is drawn (no installed
// font has "＋": a missing-glyph box used to show in its place).
TEST(PickerPanelText, EmptyMineAdviceIsWholeAndDrawable) {
    GLIMMET_REQUIRE_DESKTOP();
    MinePanel p(0);
    p.resizeTo(640);
    const QLabel* status = p.status();
    // Laid out the way the label lays it out, with its drawn signs.
    QTextDocument shown;
    shown.setDocumentMargin(0);
    shown.setDefaultFont(status->font());
    shown.setTextWidth(status->contentsRect().width());
    shown.setResourceProvider(status->resourceProvider());
    if (status->textFormat() == Qt::RichText)
        shown.setHtml(status->text());
    else
        shown.setPlainText(status->text());
    const QFontMetrics metrics(status->font());
    QString read;
    for (QTextBlock block = shown.begin(); block.isValid(); block = block.next())
        for (auto it = block.begin(); !it.atEnd(); ++it) {
            const QTextCharFormat format = it.fragment().charFormat();
            if (!format.isImageFormat()) {
                for (const QChar c : it.fragment().text())
                    EXPECT_TRUE(metrics.inFont(c))
                        << "no glyph for U+" << std::hex << int(c.unicode());
                read += it.fragment().text();
                continue;
            }
            const auto sign = qvariant_cast<QImage>(
                shown.resource(QTextDocument::ImageResource, QUrl(format.toImageFormat().name())));
            ASSERT_FALSE(sign.isNull());
            // A plus: ink at the centre and on the arms, none in the corners.
            const int w = sign.width(), h = sign.height();
            EXPECT_GT(qAlpha(sign.pixel(w / 2, h / 2)), 0);
            EXPECT_GT(qAlpha(sign.pixel(w / 2, h / 3)), 0);
            EXPECT_GT(qAlpha(sign.pixel(w / 3, h / 2)), 0);
            EXPECT_EQ(qAlpha(sign.pixel(w / 5, h / 5)), 0);
            read += QChar(0xFF0B);
        }
    EXPECT_EQ(read, QStringLiteral("Nothing here yet. Click ＋ Add to bring in your own images or "
                                   "emoji, or press Ctrl+D on a sticker. Yours stay on this "
                                   "computer."));
    // Every line of it fits the label.
    EXPECT_LE(shown.size().height(), status->contentsRect().height());
}

// A file that no program opens: the user is offered its folder, above the panel, and told
// where the file is when that fails too.
TEST(FileOpener, OffersTheFolderThenShowsThePath) {
    GLIMMET_REQUIRE_DESKTOP();
    MinePanel p(1);
    const QString dir = TestEnv::freshDir();
    const QString log = dir + QStringLiteral("/spike.jsonl");

    for (const bool folderOpens : {false, true}) {
        QList<QUrl> asked;
        QStringList told;
        QWidget* dialogParent = nullptr;
        QString question;
        // The question is modal; answer it as the user would.
        QTimer answer;
        answer.setInterval(20);
        QObject::connect(&answer, &QTimer::timeout, [&] {
            auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
            if (!box || !box->isVisible())
                return;
            answer.stop();
            dialogParent = box->parentWidget();
            question = box->text() + QLatin1Char('\n') + box->informativeText();
            for (QAbstractButton* button : box->buttons())
                if (button->text() == QStringLiteral("Open Folder"))
                    button->click();
        });
        answer.start();
        const auto outcome = FileOpener::open(
            log, &p.panel,
            [&](const QUrl& url) {
                asked.append(url);
                return folderOpens && url == QUrl::fromLocalFile(dir);
            },
            [&](const QString& text) { told.append(text); });

        EXPECT_EQ(dialogParent, &p.panel);
        EXPECT_EQ(question, QStringLiteral("No application opens .jsonl files here.\nOpen the "
                                           "folder that holds spike.jsonl instead?"));
        EXPECT_EQ(asked, (QList<QUrl>{QUrl::fromLocalFile(log), QUrl::fromLocalFile(dir)}));
        if (folderOpens) {
            EXPECT_EQ(outcome, FileOpener::Outcome::folderOpened);
            EXPECT_TRUE(told.isEmpty());
        } else {
            EXPECT_EQ(outcome, FileOpener::Outcome::pathShown);
            EXPECT_EQ(told,
                      QStringList{QStringLiteral("Could not open it. The file is at ") + log});
        }
    }
}
