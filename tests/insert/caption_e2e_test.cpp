// SPDX-License-Identifier: MIT
// A caption as the user writes it: Ctrl+E on a result, a top and a bottom line typed into the
// editor, Enter, and the picture that arrives in the program in front.
#include "base/apppaths.h"
#include "insert/captionfile.h"
#include "pastefixture.h"
#include "ui/captioneditor.h"
#include "userdata/userdata.h"

#include <QDir>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QPushButton>

namespace {

// Caption ink in rows [fromRow, toRow): white letters and their black outline. The catalog's
// pictures are one mid-bright colour, so neither occurs where no caption is.
testing::AssertionResult captionInk(const QImage& image, int fromRow, int toRow) {
    int white = 0;
    int black = 0;
    for (int y = fromRow; y < toRow; ++y)
        for (int x = 0; x < image.width(); ++x) {
            const QColor c = image.pixelColor(x, y);
            white += c.red() > 225 && c.green() > 225 && c.blue() > 225;
            black += c.red() < 40 && c.green() < 40 && c.blue() < 40;
        }
    if (white > 50 && black > 50)
        return testing::AssertionSuccess() << white << " white and " << black << " black pixels";
    return testing::AssertionFailure() << white << " white and " << black << " black pixels";
}

class CaptionOnTheDesktop : public PasteOnTheDesktop {
protected:
    CaptionOnTheDesktop() { imageSize = QSize(400, 300); }
    void SetUp() override {
        // Earlier tests of this process left their catalog and its small images behind.
        QDir(AppPaths::dataDir()).removeRecursively();
        QDir(AppPaths::cacheDir()).removeRecursively();
        PasteOnTheDesktop::SetUp();
    }

    CaptionEditor* editor() { return panel().panel()->findChild<CaptionEditor*>(); }
    QListView* grid() { return panel().panel()->findChild<QListView*>(QStringLiteral("grid")); }
    bool editorShowsPreview() {
        return QTest::qWaitFor(
            [&] { return editor()->isVisible() && !editor()->preview().isNull(); }, 10000);
    }
};

} // namespace

TEST_F(CaptionOnTheDesktop, CtrlEWritesTheCaptionThatArrivesAndEscGoesBack) {
    const QString received = TestEnv::freshDir();
    PasteTarget target;
    ASSERT_TRUE(target.start({QStringLiteral("--save"), received}));
    ASSERT_TRUE(Desktop::copyFile(writeFile(QStringLiteral("before.txt"), "the user's words")));
    QSignalSpy finished(&paster(), &Paster::finished);
    PickerModel& model = app->pickerModel();

    ASSERT_TRUE(panelOpensWithKeyboard());
    ASSERT_TRUE(Desktop::type(QStringLiteral("cat")));
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return model.query() == QLatin1String("cat") && model.results().size() == 3; },
        5000));
    const MemeList results = model.results();
    const Meme chosen = results.at(model.selected());

    // The editor takes the grid's place, with its hint and buttons; Esc goes back to the
    // results as they were and drops what was typed.
    ASSERT_TRUE(key("ctrl+e"));
    ASSERT_TRUE(editorShowsPreview());
    EXPECT_FALSE(grid()->isVisible());
    EXPECT_EQ(editor()->findChild<QLabel*>(QStringLiteral("captionHint"))->text(),
              QStringLiteral("↵ done · tab next line · esc back"));
    QStringList buttons;
    for (const QPushButton* button : editor()->findChildren<QPushButton*>())
        buttons.append(button->text());
    EXPECT_EQ(buttons, QStringList({QStringLiteral("Back"), QStringLiteral("Done")}));
    ASSERT_TRUE(Desktop::type(QStringLiteral("forget me")));
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return model.caption() && model.caption()->top == QLatin1String("forget me"); },
        5000));
    ASSERT_TRUE(key("Escape"));
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return grid()->isVisible() && !editor()->isVisible(); }, 5000));
    EXPECT_TRUE(panel().isVisible());
    EXPECT_FALSE(model.caption());
    EXPECT_TRUE(editor()->preview().isNull());
    EXPECT_EQ(model.results(), results);
    EXPECT_EQ(QApplication::focusWidget()->objectName(), QStringLiteral("search"));

    // Again from empty lines: the top line, Tab, the bottom line, and the preview follows.
    ASSERT_TRUE(key("ctrl+e"));
    ASSERT_TRUE(editorShowsPreview());
    const QImage uncaptioned = editor()->preview();
    EXPECT_TRUE(editor()->findChild<QLineEdit*>(QStringLiteral("captionTop"))->text().isEmpty());
    ASSERT_TRUE(Desktop::type(QStringLiteral("top text")));
    ASSERT_TRUE(key("Tab"));
    ASSERT_TRUE(Desktop::type(QStringLiteral("bottom text")));
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return model.caption() && model.caption()->bottom == QLatin1String("bottom text"); },
        5000));
    EXPECT_EQ(model.caption()->top, QStringLiteral("top text"));
    // The preview is redrawn with each keystroke: by now it shows both lines.
    EXPECT_TRUE(captionInk(editor()->preview(), 6, 96));
    EXPECT_TRUE(captionInk(editor()->preview(), 204, 294));
    EXPECT_FALSE(captionInk(uncaptioned, 0, uncaptioned.height()));

    // Enter pastes the captioned picture like any other: the panel goes, the user's clipboard
    // comes back, the pick is remembered.
    ASSERT_TRUE(key("Return"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return target.pastes().size() == 1; }, 10000));
    const QJsonObject paste = target.pastes().first();
    const QString file = paste["files"].toObject()["image/png"].toString();
    ASSERT_FALSE(file.isEmpty()) << formatsOf(paste).join(u' ').toStdString();
    const QImage arrived(file);
    ASSERT_EQ(arrived.size(), QSize(400, 300));
    // Bands of 90 px, 6 px from the edges: white capitals with black edges in both, none
    // between them, and none anywhere in the plain picture.
    EXPECT_TRUE(captionInk(arrived, 6, 96));
    EXPECT_TRUE(captionInk(arrived, 204, 294));
    EXPECT_FALSE(captionInk(arrived, 110, 190));
    const QImage plain =
        QImage::fromData(TestEnv::readFile(app->memeStore().cachedFullURL(chosen)->toLocalFile()));
    ASSERT_EQ(plain.size(), QSize(400, 300));
    EXPECT_FALSE(captionInk(plain, 0, 300));

    ASSERT_TRUE(pasteEnds(finished));
    EXPECT_TRUE(finished[0][1].toBool()) << finished[0][2].toString().toStdString();
    EXPECT_EQ(clipboardAs(QStringLiteral("UTF8_STRING")), "the user's words");
    EXPECT_FALSE(panel().isVisible());
    EXPECT_EQ(app->userData().recents().value(0), chosen.id);
    const QStringList saved =
        QDir(CaptionFile::folderBeside(app->memeStore().cacheDir())).entryList(QDir::Files);
    ASSERT_EQ(saved.size(), 1);
    EXPECT_TRUE(saved.first().startsWith(chosen.id + QLatin1Char('-')))
        << saved.first().toStdString();
    EXPECT_TRUE(saved.first().endsWith(QLatin1String(".jpg")));
}
