// SPDX-License-Identifier: MIT
// Importing a folder through the import window, then finding its images in the Memes tab by
// the words the tagging server gave them and by the collection's name.
#include "catalog/memestore.h"
#include "menutitles.h"
#include "support/appondesktop.h"
#include "ui/importwindow.h"

#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPainter>
#include <QPushButton>
#include <QTimer>

namespace {

// Two photos with a word written on them, black on a pale ground as a caption would be, and
// one without text.
QString holidayFolder() {
    const QString dir = TestEnv::freshDir() + QStringLiteral("/Holiday");
    QDir().mkpath(dir);
    int hue = 0;
    for (const auto& [name, word] :
         {std::pair{"beach.jpg", "FLAMINGO"}, {"plain.jpg", ""}, {"sunset.jpg", "LIGHTHOUSE"}}) {
        QImage image(900, 600, QImage::Format_RGB32);
        image.fill(QColor::fromHsv(hue += 100, 40, 245));
        QPainter painter(&image);
        QFont font(QStringLiteral("DejaVu Sans"));
        font.setBold(true);
        font.setPixelSize(110);
        painter.setFont(font);
        painter.setPen(Qt::black);
        painter.drawText(image.rect(), Qt::AlignCenter, QLatin1String(word));
        painter.end();
        image.save(dir + u'/' + QLatin1String(name));
    }
    return dir;
}

bool clickOn(const QWidget* widget) {
    return widget && Desktop::click(widget->mapToGlobal(widget->rect().center()));
}

template <typename W> W* visibleChild(const QString& name) {
    for (QWidget* widget : QApplication::allWidgets())
        if (auto* w = qobject_cast<W*>(widget); w && w->objectName() == name && w->isVisible())
            return w;
    return nullptr;
}

} // namespace

class ImportOnTheDesktop : public AppOnTheDesktop {};

TEST_F(ImportOnTheDesktop, AnImportedFolderIsFoundByTheWordsOnItsImagesAndItsName) {
    // The catalog's own server tags the imports: it reads the words on them.
    ASSERT_TRUE(serveCatalog(4, 4));
    settings = TestEnv::installConfig({{QStringLiteral("MEME_SERVER"), catalog.url().toString()},
                                       {QStringLiteral("MEME_API"), catalog.url().toString()}});
    startApp();
    PickerModel& model = app->pickerModel();
    ASSERT_TRUE(QTest::qWaitFor([&] { return model.hasIndex(); }, 15000));
    const QString folder = holidayFolder();

    // Choose the folder in the window's file dialog, as the user types it.
    app->importCollection();
    ImportWindow* window = app->importWindow();
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->isActiveWindow(); }, 5000));
    QPushButton* chooseFolder = nullptr;
    for (QPushButton* b : window->findChildren<QPushButton*>())
        if (b->text() == QStringLiteral("Choose folder…"))
            chooseFolder = b;
    ASSERT_TRUE(clickOn(chooseFolder));
    QFileDialog* dialog = nullptr;
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            dialog = visibleChild<QFileDialog>(QStringLiteral("importChooser"));
            return dialog && dialog->isActiveWindow();
        },
        5000));
    ASSERT_TRUE(Desktop::key("ctrl+a"));
    ASSERT_TRUE(Desktop::type(folder));
    ASSERT_TRUE(Desktop::key("Return"));
    QLineEdit* name = window->findChild<QLineEdit*>(QStringLiteral("collectionName"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return name->isVisible() && name->hasFocus(); }, 5000));
    EXPECT_EQ(name->text(), QStringLiteral("Holiday"));
    const auto labels = window->findChildren<QLabel*>();
    EXPECT_TRUE(std::any_of(labels.begin(), labels.end(), [](const QLabel* l) {
        return l->isVisible() && l->text() == ImportWindow::explanationText;
    }));

    ASSERT_TRUE(Desktop::key("ctrl+a"));
    ASSERT_TRUE(Desktop::type(QStringLiteral("Summer snaps")));
    ASSERT_TRUE(Desktop::key("Return"));
    QLabel* status = window->findChild<QLabel*>(QStringLiteral("importStatus"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return status->text().startsWith("Imported"); }, 60000))
        << status->text().toStdString();
    EXPECT_EQ(status->text(), QStringLiteral("Imported 3 images, 3 tagged"));
    EXPECT_EQ(model.tab(), PickerModel::Tab::collections);
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            return !model.collectionList().isEmpty() &&
                   model.collectionList().first().name == QStringLiteral("Summer snaps");
        },
        5000));
    const auto done = TestEnv::loggedEvents("import_done");
    ASSERT_EQ(done.size(), 1u);
    EXPECT_EQ(done[0]["added"], 3);
    EXPECT_EQ(done[0]["tagged"], 3);
    EXPECT_EQ(done[0]["skipped"], 0);

    // In the Memes tab: the word written on a photo finds it, the collection's name all three.
    ASSERT_TRUE(panelOpensWithKeyboard());
    ASSERT_TRUE(Desktop::key("shift+Tab"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return model.tab() == PickerModel::Tab::memes; }, 5000));
    const QString id = app->userCollections().list().first().id;
    const auto imported = [&] {
        return std::count_if(model.results().cbegin(), model.results().cend(),
                             [&](const Meme& m) { return m.collection_id == id; });
    };
    ASSERT_TRUE(Desktop::type(QStringLiteral("flamingo")));
    EXPECT_TRUE(QTest::qWaitFor([&] { return imported() == 1; }, 5000));
    EXPECT_EQ(model.results().size(), 1);
    // Its pictures are this computer's files, shown and pasted from where the import put them.
    EXPECT_TRUE(app->memeStore().isLocalOrigin(model.results().first()));
    ASSERT_TRUE(Desktop::key("ctrl+a"));
    ASSERT_TRUE(Desktop::type(QStringLiteral("summer")));
    EXPECT_TRUE(QTest::qWaitFor([&] { return imported() == 3; }, 5000)) << imported();

    // Deleting the collection takes its images out of the results.
    QTimer confirm;
    QObject::connect(&confirm, &QTimer::timeout, [&] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget()))
            for (QAbstractButton* b : box->buttons())
                if (b->text() == QStringLiteral("Delete"))
                    b->click();
    });
    confirm.start(50);
    app->deleteImported(id);
    confirm.stop();
    EXPECT_TRUE(QTest::qWaitFor([&] { return imported() == 0; }, 5000));
    EXPECT_TRUE(app->userCollections().list().isEmpty());
}
