// SPDX-License-Identifier: MIT
#include "collections/usercollections.h"
#include "server/catalogserver.h"
#include "support/testenv.h"
#include "telemetry/deviceid.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QScopeGuard>
#include <QUrl>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>
#include <utility>

namespace {

const std::string tagsJSON =
    R"({"ocr_text":"NOPE","description":"a cat saying no","character":"cat",)"
    R"("emotions":["annoyed"],"actions":["glaring"],"use_cases":["declining"],)"
    R"("keywords":["refusal"],"language":"en","nsfw":false,"hateful":false})";

constexpr auto patience = std::chrono::seconds(30);

// The tagging endpoints on 127.0.0.1, answering with what the test sets; records requests.
// Tag requests can be held and answered one by one.
class TagServer {
public:
    using Answer = std::function<HttpResponse(int /*request number, from 1*/)>;

    TagServer() : m_server(TestEnv::freshDir().toStdString()) {
        m_server.addAsyncRoute(
            "POST", "/v1/import/tag",
            [this](HttpRequest request, CatalogServer::Respond respond) {
                std::unique_lock guard(m_mutex);
                m_requests.push_back(std::move(request));
                m_changed.notify_all();
                if (m_holding) {
                    m_held.push_back(std::move(respond));
                    return;
                }
                HttpResponse response = m_answer(int(m_requests.size()));
                guard.unlock();
                respond(std::move(response));
            },
            16 * 1024 * 1024);
        m_server.addRoute("DELETE", "/v1/import/data", [this](const HttpRequest& request) {
            const std::lock_guard guard(m_mutex);
            m_requests.push_back(request);
            return m_answer(int(m_requests.size()));
        });
        const int port = m_server.start("127.0.0.1", 0);
        EXPECT_GT(port, 0);
        TestEnv::installConfig(
            {{QStringLiteral("MEME_API"), QStringLiteral("http://127.0.0.1:%1/").arg(port)},
             {QStringLiteral("MEME_APP_KEY"), QStringLiteral("k3y")}});
    }
    void answer(Answer answer) {
        const std::lock_guard guard(m_mutex);
        m_answer = std::move(answer);
    }
    void answerAlways(int status, std::string body) {
        answer([=](int) { return HttpResponse{status, "application/json", body, {}}; });
    }
    std::vector<HttpRequest> requests() {
        const std::lock_guard guard(m_mutex);
        return m_requests;
    }
    // From now on tag requests wait for release() or answerHeld().
    void hold() {
        const std::lock_guard guard(m_mutex);
        m_holding = true;
    }
    // Answers the oldest waiting tag request; false when none came.
    bool release(HttpResponse response) {
        std::unique_lock guard(m_mutex);
        if (!m_changed.wait_for(guard, patience, [this] { return !m_held.empty(); }))
            return false;
        const CatalogServer::Respond respond = std::move(m_held.front());
        m_held.pop_front();
        guard.unlock();
        respond(std::move(response));
        return true;
    }
    // Ends holding: the waiting and all later requests get the usual answer.
    void answerHeld() {
        std::unique_lock guard(m_mutex);
        m_holding = false;
        std::deque<CatalogServer::Respond> held = std::exchange(m_held, {});
        const Answer answer = m_answer;
        guard.unlock();
        for (const CatalogServer::Respond& respond : held)
            respond(answer(0));
    }
    bool waitForRequests(std::size_t count) {
        std::unique_lock guard(m_mutex);
        return m_changed.wait_for(guard, patience, [&] { return m_requests.size() >= count; });
    }

private:
    CatalogServer m_server;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_holding = false;
    std::deque<CatalogServer::Respond> m_held;
    Answer m_answer;
    std::vector<HttpRequest> m_requests;
};

// A folder of `count` small photos and one transparent PNG sticker.
QString photos(int count, bool sticker = false,
               QString dir = TestEnv::freshDir() + QStringLiteral("/Cats")) {
    QDir().mkpath(dir);
    for (int i = 0; i < count; ++i) {
        QImage image(64, 48, QImage::Format_RGB32);
        image.fill(QColor::fromHsv(i * 7 % 360, 200, 200));
        image.save(dir + QStringLiteral("/%1.jpg").arg(i, 3, 10, QLatin1Char('0')));
    }
    if (sticker) {
        QImage image(64, 64, QImage::Format_ARGB32);
        image.fill(Qt::transparent);
        image.save(dir + QStringLiteral("/sticker é+1.png"));
    }
    return dir;
}

QString errorOf(const UserCollections::TagResult& result) {
    const auto* error = std::get_if<UserCollections::TagError>(&result);
    return error ? error->message() : QStringLiteral("tags");
}

UserCollections::Result importFolder(UserCollections& collections, const QString& dir) {
    const auto plans = UserCollections::planFolder(dir);
    EXPECT_EQ(plans.size(), 1);
    return collections.importCollection(plans.first(), plans.first().name, [](const QString&) {});
}

} // namespace

TEST(Tagging, SendsEachImageOnceWithItsHeadersAndStoresTheTags) {
    TagServer server;
    server.answerAlways(200, tagsJSON);
    UserCollections collections(TestEnv::freshDir());
    const auto result = importFolder(collections, photos(2, true));
    EXPECT_EQ(result.added, 3);
    EXPECT_EQ(result.tagged, 3);
    EXPECT_FALSE(result.tagError);

    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 3u);
    const QString id = collections.list().first().id;
    const auto sticker = std::find_if(requests.begin(), requests.end(), [](const HttpRequest& r) {
        return r.header("X-File") == "sticker%20%C3%A9%2B1%2Epng";
    });
    ASSERT_NE(sticker, requests.end()) << "every character but letters and digits is escaped";
    EXPECT_EQ(sticker->header("X-Collection"), QUrl::toPercentEncoding(id, {}, "-").toStdString());
    EXPECT_EQ(sticker->header("X-Device"), DeviceID::value().toStdString());
    EXPECT_EQ(sticker->header("x-install-id").size(), DebugFlags::installID().size());
    EXPECT_EQ(sticker->header("x-app-key"), "k3y");
    EXPECT_EQ(sticker->header("Content-Type"), "application/octet-stream");
    // The transparent PNG travels as JPEG.
    EXPECT_EQ(sticker->body.substr(0, 3), "\xff\xd8\xff");

    const auto stored = collections.stored(id);
    ASSERT_TRUE(stored);
    for (const auto& item : stored->items) {
        ASSERT_TRUE(item.tags);
        EXPECT_EQ(item.tags->emotions, QStringList{"annoyed"});
    }
    // Nothing left to send.
    EXPECT_EQ(collections.retryAll([](const QString&) {}).tagged, 0);
    EXPECT_EQ(server.requests().size(), 3u);
}

TEST(Tagging, TellsEveryKindOfFailureApart) {
    TagServer server;
    const auto ask = [] { return UserCollections::requestTags("jpeg", "c", "f.jpg"); };
    server.answerAlways(200, "");
    EXPECT_EQ(errorOf(ask()), "the tagging server answered HTTP 200");
    server.answerAlways(200, R"({"ocr_text":"x"})");
    EXPECT_EQ(errorOf(ask()), "the tagging server answered HTTP 200");
    server.answerAlways(503, "busy");
    EXPECT_EQ(errorOf(ask()), "the tagging server answered HTTP 503");
    server.answerAlways(429, R"({"code":"device_cap"})");
    EXPECT_EQ(errorOf(ask()), "the tagging limit for this device is reached");
    server.answerAlways(429, R"({"code":"slow_down"})");
    EXPECT_EQ(errorOf(ask()), "the tagging server asked us to slow down");
    server.answerAlways(429, "not json");
    EXPECT_EQ(errorOf(ask()), "the tagging server asked us to slow down");
    server.answerAlways(200, tagsJSON);
    EXPECT_EQ(errorOf(ask()), "tags");

    TestEnv::installConfig({{QStringLiteral("MEME_API"), QStringLiteral("http://127.0.0.1:9/")}});
    EXPECT_TRUE(errorOf(ask()).startsWith("could not reach the server ("))
        << errorOf(ask()).toStdString();
}

TEST(Tagging, RetriesOnlyWhenAskedToSlowDownAtMostFiveTimes) {
    TagServer server;
    qputenv("MEME_TAG_RETRY_DELAY", "0.01");
    const UserCollections collections(TestEnv::freshDir());
    qunsetenv("MEME_TAG_RETRY_DELAY");
    EXPECT_DOUBLE_EQ(collections.retryDelaySeconds(), 0.01);
    EXPECT_DOUBLE_EQ(UserCollections(TestEnv::freshDir()).retryDelaySeconds(), 10);

    server.answer([](int n) {
        return n <= 2 ? HttpResponse{429, "application/json", "{}", {}}
                      : HttpResponse{200, "application/json", tagsJSON, {}};
    });
    EXPECT_EQ(errorOf(collections.requestTagsRetrying("jpeg", "c", "f")), "tags");
    EXPECT_EQ(server.requests().size(), 3u);

    server.answerAlways(429, "{}");
    EXPECT_EQ(errorOf(collections.requestTagsRetrying("jpeg", "c", "f")),
              "the tagging server asked us to slow down");
    EXPECT_EQ(server.requests().size(), 3u + 5u);

    server.answerAlways(500, "");
    EXPECT_EQ(errorOf(collections.requestTagsRetrying("jpeg", "c", "f")),
              "the tagging server answered HTTP 500");
    EXPECT_EQ(server.requests().size(), 3u + 5u + 1u);
}

TEST(Tagging, StopsAtTheCapAfterThreeFailuresInARowOrOnQuitAndResumesLater) {
    TagServer server;
    UserCollections collections(TestEnv::freshDir());
    server.answerAlways(429, R"({"code":"device_cap"})");
    const auto capped = importFolder(collections, photos(30));
    EXPECT_EQ(capped.added, 30);
    EXPECT_EQ(capped.tagged, 0);
    EXPECT_EQ(capped.tagError, "the tagging limit for this device is reached");
    // Only the requests already under way when the cap came back.
    EXPECT_LE(server.requests().size(), std::size_t(UserCollections::maxTagsInFlight));

    const QString id = collections.list().first().id;
    const std::size_t before = server.requests().size();
    server.answerAlways(500, "");
    const auto failing = collections.tagPending(id, [](const QString&) {});
    EXPECT_EQ(failing.firstError, "the tagging server answered HTTP 500");
    const std::size_t sent = server.requests().size() - before;
    EXPECT_GE(sent, 3u);
    EXPECT_LE(sent, std::size_t(UserCollections::failuresInARowToStop +
                                UserCollections::maxTagsInFlight - 1));

    // A success starts the count of failures again: F,F,S,F,F,S goes on. Each answer waits
    // until the one before is counted, so they are counted in this order.
    UserCollections quitting(collections.root());
    std::mutex mutex;
    std::condition_variable counted;
    int done = 0;
    bool ended = false;
    const auto waitForDone = [&](int count) {
        std::unique_lock guard(mutex);
        return counted.wait_for(guard, patience, [&] { return done >= count; });
    };
    server.hold();
    const std::size_t start = server.requests().size();
    UserCollections::TagRun stopped;
    std::thread tagging([&] {
        stopped = quitting.tagPending(id, [&](const QString&) {
            const std::lock_guard guard(mutex);
            ++done;
            counted.notify_all();
        });
        const std::lock_guard guard(mutex);
        ended = true;
        counted.notify_all();
    });
    const auto finish = [&] {
        server.answerHeld();
        if (tagging.joinable())
            tagging.join();
    };
    const auto finishOnFailure = qScopeGuard(finish);
    const std::string answers = "FFSFFS";
    for (std::size_t n = 0; n < answers.size(); ++n) {
        ASSERT_TRUE(server.release(answers[n] == 'S'
                                       ? HttpResponse{200, "application/json", tagsJSON, {}}
                                       : HttpResponse{500, "text/plain", "", {}}));
        ASSERT_TRUE(waitForDone(int(n + 1)));
    }
    const std::size_t sentBeforeQuit = answers.size() + UserCollections::maxTagsInFlight;
    ASSERT_TRUE(server.waitForRequests(start + sentBeforeQuit));
    // Quitting abandons the requests under way (the server never answers them), starts no
    // more and keeps the tags received.
    quitting.stop();
    {
        std::unique_lock guard(mutex);
        EXPECT_TRUE(counted.wait_for(guard, patience, [&] { return ended; }));
    }
    server.answerAlways(200, tagsJSON);
    finish();
    EXPECT_EQ(stopped.tagged, 2);
    EXPECT_EQ(server.requests().size(), start + sentBeforeQuit);
    EXPECT_EQ(collections.list().first().untagged, 30 - stopped.tagged);

    // "Retry tagging" later finishes the job, saving along the way.
    const auto retried = collections.retryAll([](const QString&) {});
    EXPECT_EQ(retried.tagged, 30 - stopped.tagged);
    EXPECT_FALSE(retried.firstError);
    EXPECT_EQ(collections.list().first().untagged, 0);
}

TEST(Tagging, ReportsEachOutcomeOfDeletingTheServersData) {
    TagServer server;
    using Kind = UserCollections::DeleteOutcome::Kind;
    const auto outcome = [&](int status, std::string body) {
        server.answerAlways(status, std::move(body));
        return UserCollections::deleteCloudData();
    };
    EXPECT_EQ(outcome(200, R"({"deleted":true})").kind, Kind::deleted);
    EXPECT_EQ(outcome(200, "").kind, Kind::deleted);
    EXPECT_EQ(outcome(200, R"({"deleted":"no"})").kind, Kind::deleted);
    const auto partial = outcome(200, R"({"deleted":false})");
    EXPECT_EQ(partial.kind, Kind::failed);
    EXPECT_EQ(partial.text, "some of it is still on the server, try again");
    EXPECT_EQ(outcome(202, "").kind, Kind::pending);
    const auto refused = outcome(403, "");
    EXPECT_EQ(refused.kind, Kind::failed);
    EXPECT_EQ(refused.text, "the server answered HTTP 403");
    const auto request = server.requests().back();
    EXPECT_EQ(request.method, "DELETE");
    EXPECT_EQ(request.header("X-Device"), DeviceID::value().toStdString());

    TestEnv::installConfig({{QStringLiteral("MEME_API"), QStringLiteral("http://127.0.0.1:9/")}});
    const auto unreachable = UserCollections::deleteCloudData();
    EXPECT_EQ(unreachable.kind, Kind::failed);
    EXPECT_TRUE(unreachable.text.startsWith("could not reach the server ("));
}

TEST(TaggingDeathTest, AKillWhileTaggingLosesOnlyTheTagsSinceTheLastCheckpoint) {
    // The child process re-runs this body: it must find the parent's folders.
    const char* rootVariable = "ORVANE_KILLED_TAGGING_ROOT";
    const QString root = qEnvironmentVariableIsSet(rootVariable)
                             ? qEnvironmentVariable(rootVariable)
                             : TestEnv::freshDir();
    qputenv(rootVariable, root.toUtf8());
    const QString src = root + QStringLiteral("/Cats");
    if (!QFile::exists(src))
        photos(40, false, src);
    EXPECT_EXIT(
        {
            TagServer server;
            server.answerAlways(200, tagsJSON);
            UserCollections collections(root + QStringLiteral("/collections"));
            collections.importCollection(UserCollections::planFolder(src).first(),
                                         QStringLiteral("Cats"), [](const QString& p) {
                                             if (p.startsWith(QLatin1String("Tagging")) &&
                                                 p.contains(QLatin1String(": 30/40")))
                                                 ::raise(SIGKILL);
                                         });
        },
        testing::KilledBySignal(SIGKILL), "");
    qunsetenv(rootVariable);
    UserCollections collections(root + QStringLiteral("/collections"));
    const auto rows = collections.list();
    ASSERT_EQ(rows.size(), 1);
    EXPECT_EQ(rows.first().count, 40);
    EXPECT_EQ(rows.first().untagged, 40 - UserCollections::checkpointEvery);
    EXPECT_EQ(collections.load().stickers.size(), 40);
    TagServer server;
    server.answerAlways(200, tagsJSON);
    EXPECT_EQ(collections.retryAll([](const QString&) {}).tagged,
              40 - UserCollections::checkpointEvery);
}
