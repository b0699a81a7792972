// SPDX-License-Identifier: MIT
// Usage events: what is recorded, and at-least-once upload against a real local server.
#include "support/httptestserver.h"
#include "support/testenv.h"
#include "telemetry/learning.h"

#include <QProcess>
#include <QSignalSpy>
#include <QThread>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <gtest/gtest.h>
#include <mutex>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

// The events server: answers `status`, keeps every body it was sent.
struct EventsServer {
    HttpTestServer http;
    std::mutex mutex;
    std::vector<json> batches;
    std::vector<std::string> installIDs;
    std::atomic<int> status{200};

    EventsServer() {
        http.server().Post("/v1/events",
                           [this](const httplib::Request& request, httplib::Response& response) {
                               const std::lock_guard lock(mutex);
                               batches.push_back(json::parse(request.body, nullptr, false));
                               installIDs.push_back(request.get_header_value("x-install-id") + "|" +
                                                    request.get_header_value("Content-Type"));
                               response.status = status;
                           });
        EXPECT_TRUE(http.start());
    }
    json batch(size_t n) {
        const std::lock_guard lock(mutex);
        return n < batches.size() ? batches[n] : json();
    }
};

struct Fixture {
    QString folder;
    bool shared = true;
    Learning learning;

    explicit Fixture(const QUrl& api = QUrl(QStringLiteral("http://127.0.0.1:9")),
                     QString folderToUse = TestEnv::freshDir())
        : folder(std::move(folderToUse)),
          learning(Learning::Options{folder, [this] { return shared; }, [api] { return api; },
                                     [] { return QStringLiteral("install-1"); },
                                     [] { return std::optional<QString>(); }, 60000}) {}

    std::vector<json> lines(const QString& path) {
        learning.waitForIdle();
        std::vector<json> events;
        for (const QByteArray& line : TestEnv::readFile(path).split('\n'))
            if (!line.isEmpty())
                events.push_back(json::parse(line.toStdString(), nullptr, false));
        return events;
    }
    // Flushes and waits for the upload's outcome.
    bool flushDelivered() {
        QSignalSpy finished(&learning, &Learning::uploadFinished);
        learning.flush();
        if (!finished.wait(10000))
            return false;
        return finished.first().first().toBool();
    }
};

QStringList ids(int count, int ownEvery = 0) {
    QStringList list;
    for (int i = 0; i < count; ++i)
        list.append((ownEvery && i % ownEvery == 0 ? QStringLiteral("g_%1") : QStringLiteral("m%1"))
                        .arg(i));
    return list;
}

} // namespace

TEST(Learning, RecordsOnlyWhenSharedAndNeverTheUsersOwnItems) {
    Fixture f;
    f.shared = false;
    f.learning.recordPick(QStringLiteral("cat"), ids(3), QStringLiteral("m1"),
                          QStringLiteral("paste"));
    f.learning.waitForIdle();
    EXPECT_FALSE(QFile::exists(f.learning.pendingPath()));

    f.shared = true;
    // 20 shown, every third one the user's own: the first 12 others are reported.
    const QStringList shown = ids(20, 3);
    f.learning.recordPick(QStringLiteral("Cat  typed"), shown, QStringLiteral("m5"),
                          QStringLiteral("paste"));
    f.learning.recordPick(QStringLiteral("cat"), shown, QStringLiteral("g_3"),
                          QStringLiteral("paste"));
    f.learning.recordPick(QStringLiteral("cat"), shown, QStringLiteral("elsewhere"),
                          QStringLiteral("drag"));
    const QByteArray raw = (f.learning.waitForIdle(), TestEnv::readFile(f.learning.pendingPath()));
    EXPECT_TRUE(raw.startsWith(R"({"method":"paste","picked_id":"m5","position":5,"query":)"))
        << raw.toStdString();
    const auto events = f.lines(f.learning.pendingPath());
    ASSERT_EQ(events.size(), 2u) << "the pick of an own item makes no event";
    EXPECT_EQ(events[0]["query"], "Cat  typed");
    EXPECT_EQ(events[0]["results_shown"],
              json({"m1", "m2", "m4", "m5", "m7", "m8", "m10", "m11", "m13", "m14", "m16", "m17"}));
    EXPECT_TRUE(QDateTime::fromString(QString::fromStdString(events[0]["timestamp"]), Qt::ISODate)
                    .isValid());
    EXPECT_EQ(events[1]["position"], -1);
    EXPECT_EQ(events[1]["method"], "drag");
}

TEST(Learning, ABatchLeavesOnlyAfterA200AndNewEventsWaitBehindIt) {
    EventsServer server;
    Fixture f(server.http.url());
    f.learning.recordPick(QStringLiteral("a"), {}, QStringLiteral("m1"), QStringLiteral("paste"));
    f.learning.recordPick(QStringLiteral("b"), {}, QStringLiteral("m2"), QStringLiteral("paste"));
    f.learning.waitForIdle();
    // A torn line (a crash mid-write) is dropped, the rest of the batch goes.
    TestEnv::writeFile(f.learning.pendingPath(),
                       TestEnv::readFile(f.learning.pendingPath()) + "{\"query\":\"to");

    server.status = 500;
    EXPECT_FALSE(f.flushDelivered());
    EXPECT_TRUE(QFile::exists(f.learning.inflightPath()));
    f.learning.recordPick(QStringLiteral("c"), {}, QStringLiteral("m3"), QStringLiteral("paste"));
    EXPECT_EQ(f.lines(f.learning.pendingPath()).size(), 1u);
    EXPECT_FALSE(f.flushDelivered());
    EXPECT_EQ(server.batch(1), server.batch(0)) << "the same batch is sent again";
    ASSERT_EQ(server.batch(0).size(), 2u);
    EXPECT_EQ(server.batch(0)[1]["picked_id"], "m2");
    EXPECT_EQ(server.installIDs[0], "install-1|application/json");

    server.status = 200;
    EXPECT_TRUE(f.flushDelivered());
    EXPECT_FALSE(QFile::exists(f.learning.inflightPath()));
    EXPECT_TRUE(QFile::exists(f.learning.pendingPath()));
    EXPECT_TRUE(f.flushDelivered());
    ASSERT_EQ(server.batch(3).size(), 1u);
    EXPECT_EQ(server.batch(3)[0]["picked_id"], "m3");
    EXPECT_FALSE(QFile::exists(f.learning.pendingPath()));

    // Turned off: nothing is sent; queued events stay for later.
    f.learning.recordPick(QStringLiteral("d"), {}, QStringLiteral("m4"), QStringLiteral("paste"));
    f.shared = false;
    QSignalSpy finished(&f.learning, &Learning::uploadFinished);
    f.learning.flush();
    f.learning.waitForIdle();
    QCoreApplication::processEvents();
    EXPECT_EQ(finished.size(), 0);
    EXPECT_EQ(f.lines(f.learning.pendingPath()).size(), 1u);
}

TEST(Learning, AnUploadCutShortByAKillIsSentAfterTheRestart) {
    // The server holds the first upload until the sender has been killed.
    EventsServer server;
    std::mutex mutex;
    std::condition_variable released;
    bool killed = false;
    std::atomic<bool> arrived{false};
    server.http.server().Post("/held/v1/events", [&](const httplib::Request&, httplib::Response&) {
        arrived = true;
        std::unique_lock lock(mutex);
        released.wait(lock, [&] { return killed; });
    });
    const QString folder = TestEnv::freshDir();
    QProcess helper;
    helper.start(QStringLiteral(LEARNING_HELPER),
                 {folder, server.http.url().toString() + QStringLiteral("/held/")});
    for (int i = 0; i < 1000 && !arrived; ++i)
        QThread::msleep(10);
    ASSERT_TRUE(arrived);
    helper.kill();
    helper.waitForFinished();
    {
        const std::lock_guard lock(mutex);
        killed = true;
    }
    released.notify_all();

    Fixture f(server.http.url(), folder);
    EXPECT_TRUE(f.flushDelivered());
    ASSERT_EQ(server.batch(0).size(), 3u);
    EXPECT_EQ(server.batch(0)[2]["picked_id"], "c");
}
