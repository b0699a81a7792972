// SPDX-License-Identifier: MIT
#include "app/appdelegate.h"
#include "app/panelcontroller.h"
#include "catalog/catalogjson.h"
#include "search/pickermodel.h"
#include "support/catalogfixture.h"
#include "support/desktop.h"
#include "support/testenv.h"
#include "support/xvfbsession.h"
#include "ui/pickerpanel.h"

#include <QLabel>
#include <QTest>

namespace {

// The resident app on a private display, its catalog from one orvane-server and its cloud
// search (MEME_API) from a second one whose catalog also knows an item the app's does not.
class CloudOnTheDesktop : public testing::Test {
protected:
    void SetUp() override {
        QString why;
        if (!desktopAvailable(&why))
            GTEST_SKIP() << why.toStdString();
        const QString root = TestEnv::freshDir();
        CatalogFixture::writeCatalog(root, 12, 5);
        ASSERT_TRUE(catalog.start(QStringLiteral(ORVANE_SERVER_BINARY), root, &why))
            << why.toStdString();

        const QString cloudRoot = TestEnv::freshDir();
        CatalogFixture::writeCatalog(cloudRoot, 12, 5);
        MemeList cloudItems =
            CatalogJson::decodeMemes(TestEnv::readFile(cloudRoot + QStringLiteral("/index.json")))
                .value_or(MemeList());
        ASSERT_FALSE(cloudItems.isEmpty());
        // Drawn with a catalog image, so its cell has a picture.
        Meme cloudOnly = cloudItems.last();
        cloudOnly.id = QStringLiteral("cloud_1");
        cloudOnly.description = QStringLiteral("a dog number 14 from the cloud");
        cloudItems.append(cloudOnly);
        TestEnv::writeFile(cloudRoot + QStringLiteral("/index.json"),
                           CatalogJson::encodeMemes(cloudItems));
        ASSERT_TRUE(cloud.start(QStringLiteral(ORVANE_SERVER_BINARY), cloudRoot, &why))
            << why.toStdString();
        TestEnv::installConfig({{QStringLiteral("MEME_SERVER"), catalog.url().toString()},
                                {QStringLiteral("MEME_API"), cloud.url().toString()}});

        app = std::make_unique<AppDelegate>(CommandLine{});
        app->start();
        ASSERT_TRUE(QTest::qWaitFor([&] { return app->pickerModel().hasIndex(); }, 15000));
    }
    void TearDown() override { app.reset(); }

    QString statusLine() {
        return app->panelController().panel()->findChild<QLabel*>(QStringLiteral("status"))->text();
    }

    CatalogFixture catalog;
    CatalogFixture cloud;
    std::unique_ptr<AppDelegate> app;
};

} // namespace

TEST_F(CloudOnTheDesktop, AQueryTheIndexBarelyAnswersShowsCloudResults) {
    PickerModel& model = app->pickerModel();
    ASSERT_TRUE(Desktop::key("ctrl+m"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return app->panelController().panelHasKeyboard(); }, 5000));

    ASSERT_TRUE(Desktop::xdotool({QStringLiteral("type"), QStringLiteral("--delay"),
                                  QStringLiteral("30"), QStringLiteral("dog number 14")}));
    const QString merged = QStringLiteral(
        "2 results (+1 from cloud) · ↵ paste · drag to insert · Ctrl+D favorite · esc close");
    EXPECT_TRUE(QTest::qWaitFor([&] { return statusLine() == merged; }, 10000))
        << statusLine().toStdString();
    ASSERT_EQ(model.results().size(), 2);
    EXPECT_EQ(model.results()[0].id, QStringLiteral("m_00014"));
    EXPECT_EQ(model.results()[0].description, QStringLiteral("a dog number 14"))
        << "the local record wins over the cloud's copy";
    EXPECT_EQ(model.results()[1].id, QStringLiteral("cloud_1"));
}
