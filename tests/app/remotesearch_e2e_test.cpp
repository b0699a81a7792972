// SPDX-License-Identifier: MIT
#include "app/appdelegate.h"
#include "app/panelcontroller.h"
#include "catalog/catalogjson.h"
#include "search/pickermodel.h"
#include "support/catalogfixture.h"
#include "support/desktop.h"
#include "support/httptestserver.h"
#include "support/testenv.h"
#include "support/xvfbsession.h"
#include "ui/pickerpanel.h"

#include <QLabel>
#include <QTest>
#include <mutex>

namespace {

// The resident app on a private display, its catalog from orvane-server and its cloud
// search (MEME_API) from a worker service on 127.0.0.1 that records the queries it is asked.
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

        // A cloud copy of a local item and an item only the cloud knows, drawn with a
        // catalog image so its cell has a picture.
        Meme cloudOnly;
        cloudOnly.id = QStringLiteral("cloud_1");
        cloudOnly.description = QStringLiteral("a dog from the cloud");
        cloudOnly.thumb = QStringLiteral("/t/m_00001.png");
        cloudOnly.full = QStringLiteral("/f/m_00001.png");
        cloudOnly.width = cloudOnly.height = 64;
        cloudOnly.bytes = 1;
        Meme known = cloudOnly;
        known.id = QStringLiteral("m_00014");
        const std::string answer =
            nlohmann::ordered_json{
                {"hits", {CatalogJson::encode(cloudOnly), CatalogJson::encode(known)}}}
                .dump();
        cloud.server().Get("/v1/search",
                           [this, answer](const httplib::Request& req, httplib::Response& res) {
                               {
                                   std::lock_guard lock(mutex);
                                   asked.push_back(req.get_param_value("q"));
                               }
                               res.set_content(answer, "application/json");
                           });
        ASSERT_TRUE(cloud.start());
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
    std::vector<std::string> queries() {
        std::lock_guard lock(mutex);
        return asked;
    }

    CatalogFixture catalog;
    HttpTestServer cloud;
    std::mutex mutex;
    std::vector<std::string> asked;
    std::unique_ptr<AppDelegate> app;
};

bool xdotool(const QStringList& args) {
    return XvfbSession::run(QStringLiteral("xdotool"), args);
}

} // namespace

TEST_F(CloudOnTheDesktop, AQueryTheIndexBarelyAnswersShowsCloudResults) {
    PickerModel& model = app->pickerModel();
    ASSERT_TRUE(xdotool({QStringLiteral("key"), QStringLiteral("ctrl+m")}));
    ASSERT_TRUE(QTest::qWaitFor([&] { return app->panelController().panelHasKeyboard(); }, 5000));

    // "dog" alone finds five local items: the worker is not asked for it.
    ASSERT_TRUE(xdotool({QStringLiteral("type"), QStringLiteral("--delay"), QStringLiteral("30"),
                         QStringLiteral("dog number 14")}));
    const QString merged = QStringLiteral(
        "2 results (+1 from cloud) · ↵ paste · drag to insert · Ctrl+D favorite · esc close");
    EXPECT_TRUE(QTest::qWaitFor([&] { return statusLine() == merged; }, 10000))
        << statusLine().toStdString();
    ASSERT_EQ(model.results().size(), 2);
    EXPECT_EQ(model.results()[0].id, QStringLiteral("m_00014"));
    EXPECT_EQ(model.results()[0].description, QStringLiteral("a dog number 14"))
        << "the local record wins over the cloud's copy";
    EXPECT_EQ(model.results()[1].id, QStringLiteral("cloud_1"));
    ASSERT_FALSE(queries().empty());
    EXPECT_EQ(queries().back(), "dog number 14");
    for (const std::string& q : queries())
        EXPECT_NE(q, "dog");
}
