// SPDX-License-Identifier: MIT
// The resident app, started in-process on the test display. Without a catalog it is pointed
// at a server that is not there: the menu, the tray and the hotkey do not need one.
#pragma once

#include "app/appdelegate.h"
#include "app/panelcontroller.h"
#include "search/pickermodel.h"
#include "support/catalogfixture.h"
#include "support/desktop.h"
#include "support/testenv.h"
#include "ui/pickerpanel.h"
#include "ui/toast.h"

#include <QApplication>

class AppOnTheDesktop : public testing::Test {
protected:
    void SetUp() override {
        GLIMMET_REQUIRE_DESKTOP();
        settings = TestEnv::installConfig(
            {{QStringLiteral("MEME_SERVER"), QStringLiteral("http://127.0.0.1:9")}});
    }
    void TearDown() override { app.reset(); }

    // Serves a catalog of `cats` and `dogs` (see CatalogFixture) to the app started next.
    bool serveCatalog(int cats, int dogs, QSize imageSize = QSize(64, 64)) {
        const QString root = TestEnv::freshDir();
        CatalogFixture::writeCatalog(root, cats, dogs, imageSize);
        QString why;
        if (!catalog.start(QStringLiteral(ORVANE_SERVER_BINARY), root, &why)) {
            ADD_FAILURE() << why.toStdString();
            return false;
        }
        settings =
            TestEnv::installConfig({{QStringLiteral("MEME_SERVER"), catalog.url().toString()}});
        return true;
    }
    void startApp() {
        app = std::make_unique<AppDelegate>(CommandLine{});
        app->start();
    }
    PanelController& panel() { return app->panelController(); }
    bool panelHasKeyboard() {
        return QTest::qWaitFor([&] { return panel().panelHasKeyboard(); }, 5000);
    }
    // The hotkey, as the user presses it.
    bool panelOpensWithKeyboard() { return Desktop::key("ctrl+m") && panelHasKeyboard(); }

    static QStringList visibleToasts() {
        QStringList texts;
        for (const QWidget* widget : QApplication::allWidgets())
            if (const auto* toast = qobject_cast<const Toast*>(widget); toast && toast->isVisible())
                texts.append(toast->text());
        return texts;
    }

    CatalogFixture catalog;
    std::shared_ptr<SettingsStore> settings;
    std::unique_ptr<AppDelegate> app;
};
