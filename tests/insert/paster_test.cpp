// SPDX-License-Identifier: MIT
// The paste where the desktop lets us only copy (no synthetic keys): what lands on the
// clipboard, what the user is told, and what is logged. The typing path is covered by the
// desktop tests.
#include "catalog/debugflags.h"
#include "catalog/memestore.h"
#include "insert/clipboardsnapshot.h"
#include "insert/paster.h"
#include "platform/atspi/atspifocusprobe.h"
#include "platform/none/nullkeysynthesizer.h"
#include "platform/none/nullwindowactivator.h"
#include "platform/none/qtclipboardreader.h"
#include "support/images.h"
#include "support/testenv.h"
#include "telemetry/metrics.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QImage>
#include <QMimeData>
#include <QSignalSpy>
#include <QTest>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

class CopyOnlyPaste : public testing::Test {
protected:
    void SetUp() override {
        TestEnv::installConfig();
        QFile::remove(Metrics::url());
        MemeStore::Options options;
        options.base = QUrl(QStringLiteral("http://127.0.0.1:9/"));
        options.cacheDir = dir + QStringLiteral("/full");
        store = std::make_unique<MemeStore>(options);
        paster = std::make_unique<Paster>(Paster::Desktop{&windows, &keys, &focus, &reader}, *store,
                                          QGuiApplication::clipboard(),
                                          [this](const QString& text, int ms) {
                                              toasts.append({text, ms});
                                          });

        png = TestImages::encode(TestImages::filled(10, 10, Qt::blue), "PNG");
        TestEnv::writeFile(dir + QStringLiteral("/cat.png"), png);
        meme.id = QStringLiteral("cat1");
        meme.full = QStringLiteral("/f/cat1.png");
        auto* before = new QMimeData;
        before->setText(QStringLiteral("the user's words"));
        QGuiApplication::clipboard()->setMimeData(before);
    }

    Paster::Request request(const QString& file) {
        Paster::Request r;
        r.meme = meme;
        r.file = QUrl::fromLocalFile(file);
        r.cached = true;
        r.target = {42, 4242, QStringLiteral("Mousepad")};
        r.hidePanel = [this] { ++hides; };
        return r;
    }

    QString dir = TestEnv::freshDir();
    NullWindowActivator windows;
    NullKeySynthesizer keys;
    AtSpiFocusProbe focus;
    QtClipboardReader reader;
    std::unique_ptr<MemeStore> store;
    std::unique_ptr<Paster> paster;
    QList<QPair<QString, int>> toasts;
    QByteArray png;
    Meme meme;
    int hides = 0;
};

} // namespace

TEST_F(CopyOnlyPaste, LeavesTheImageOnTheClipboardAndTellsTheUserToPaste) {
    // A stored payload that names no case pastes as PNG only.
    DebugFlags::settings().set(QStringLiteral("pastePayload"), std::string("gifPlease"));
    ASSERT_FALSE(paster->isTrusted());
    QSignalSpy finished(paster.get(), &Paster::finished);
    paster->paste(request(dir + QStringLiteral("/cat.png")));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !finished.isEmpty(); }, 5000));

    const QMimeData* now = QGuiApplication::clipboard()->mimeData();
    EXPECT_EQ(now->data(QStringLiteral("image/png")), png);
    EXPECT_FALSE(now->hasText());
    EXPECT_FALSE(now->data(QStringLiteral("application/x-orvane-owner")).isEmpty());
    EXPECT_EQ(hides, 1);
    EXPECT_EQ(toasts, (QList<QPair<QString, int>>{
                          {"Copied — press Ctrl+V. Turn on Paste for you in the menu to paste "
                           "automatically.",
                           3000}}));
    EXPECT_FALSE(finished[0][1].toBool());

    EXPECT_EQ(TestEnv::loggedEvents("insert"),
              std::vector{nlohmann::json::parse(R"({"event": "insert",
        "method": "paste", "id": "cat1", "source": "library", "payload": "pngOnly",
        "target": "Mousepad", "trusted": false, "cached": true, "captioned": false})")});
    EXPECT_EQ(
        TestEnv::loggedEvents("paste"),
        std::vector{nlohmann::json::parse(
            R"({"event": "paste", "id": "cat1", "method": "fallback", "target": "Mousepad"})")});
}

TEST_F(CopyOnlyPaste, AnImageThatCannotBePreparedLeavesEverythingAsItWas) {
    TestEnv::writeFile(dir + QStringLiteral("/broken.png"), "truncated");
    QSignalSpy failed(paster.get(), &Paster::failed);
    paster->paste(request(dir + QStringLiteral("/broken.png")));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !failed.isEmpty(); }, 5000));
    EXPECT_EQ(QGuiApplication::clipboard()->text(), QStringLiteral("the user's words"));
    EXPECT_EQ(hides, 0);
    EXPECT_EQ(toasts, (QList<QPair<QString, int>>{{"Could not prepare image", 1800}}));
    EXPECT_TRUE(TestEnv::loggedEvents("insert").empty());
}

TEST_F(CopyOnlyPaste, ItemsOfTheUsersOwnLibraryComeFromItsBuilder) {
    meme.id = QStringLiteral("g_mine");
    QUrl askedFor;
    paster->setMineItemBuilder([&askedFor](const QUrl& file) -> std::optional<ClipboardItem> {
        askedFor = file;
        return ClipboardItem{{QStringLiteral("image/png"), "own bytes"}};
    });
    QSignalSpy finished(paster.get(), &Paster::finished);
    paster->paste(request(dir + QStringLiteral("/cat.png")));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !finished.isEmpty(); }, 5000));
    EXPECT_EQ(askedFor, QUrl::fromLocalFile(dir + QStringLiteral("/cat.png")));
    EXPECT_EQ(QGuiApplication::clipboard()->mimeData()->data(QStringLiteral("image/png")),
              "own bytes");
    EXPECT_EQ(TestEnv::loggedEvents("insert").at(0)["source"], "mine");
}
