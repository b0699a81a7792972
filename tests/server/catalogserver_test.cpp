// SPDX-License-Identifier: MIT
#include "rawhttp.h"
#include "server/catalogserver.h"
#include "support/testenv.h"

#include <QDir>
#include <QFile>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <gtest/gtest.h>
#include <httplib.h>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct Reply {
    int status = 0;
    std::string type;
    std::string body;
};

Reply fetch(int port, const std::string& target, bool head = false) {
    httplib::Client client("127.0.0.1", port);
    // Send the target byte for byte, the way a hostile client would.
    client.set_url_encode(false);
    const auto result = head ? client.Head(target) : client.Get(target);
    if (!result)
        return {};
    return {result->status, result->get_header_value("Content-Type"), result->body};
}

const QByteArray secretMarker = "TOP-SECRET-OUTSIDE-THE-ROOT";

// A catalog folder, plus a secret file and folder beside it that links inside try to reach.
struct CatalogFolder {
    QString base = TestEnv::freshDir();
    QString root = base + QStringLiteral("/catalog");

    CatalogFolder() {
        TestEnv::writeFile(root + "/index.json", R"([{"id":"a"}])");
        TestEnv::writeFile(root + "/f/1.png", QByteArray("\x89PNG\r\n\x1a\n\0\0binary", 16));
        TestEnv::writeFile(root + "/f/2.JPG", "jpeg bytes");
        TestEnv::writeFile(root + "/t/1.webp", "RIFF....WEBP");
        TestEnv::writeFile(root + "/f/blob", "no extension");
        TestEnv::writeFile(root + "/LICENSE.txt", "licence text");
        TestEnv::writeFile(root + "/.hidden", secretMarker);
        TestEnv::writeFile(base + "/secret.txt", secretMarker);
        TestEnv::writeFile(base + "/secrets/secret.txt", secretMarker);
        fs::create_symlink("../secret.txt", path("link-to-secret.txt"));
        fs::create_symlink("../secrets", path("linked-dir"));
        fs::create_symlink("1.png", path("f/alias.png"));
    }
    fs::path path(const QString& relative) const {
        return fs::path((root + '/' + relative).toStdString());
    }
};

} // namespace

TEST(CatalogServer, ServesDocumentsAndImagesWithTheirContentTypes) {
    CatalogFolder folder;
    CatalogServer server(folder.root.toStdString());
    const int port = server.start("127.0.0.1", 0);
    ASSERT_GT(port, 0);

    const std::pair<const char*, const char*> expected[] = {
        {"/index.json", "application/json"},
        {"/f/1.png", "image/png"},
        {"/f/2.JPG", "image/jpeg"},
        {"/t/1.webp", "image/webp"},
        {"/LICENSE.txt", "text/plain; charset=utf-8"},
        {"/f/blob", "application/octet-stream"},
        {"/f/alias.png", "image/png"},        // a link that stays inside the root is fine
        {"//index.json", "application/json"}, // base URL with a trailing slash + "/index.json"
    };
    for (const auto& [path, type] : expected) {
        const Reply reply = fetch(port, path);
        EXPECT_EQ(reply.status, 200) << path;
        EXPECT_EQ(reply.type, type) << path;
    }
    // Bodies are byte-exact, binary included.
    EXPECT_EQ(QByteArray::fromStdString(fetch(port, "/f/1.png").body),
              TestEnv::readFile(folder.root + "/f/1.png"));

    const Reply head = fetch(port, "/index.json", true);
    EXPECT_EQ(head.status, 200);
    EXPECT_EQ(head.type, "application/json");
    EXPECT_TRUE(head.body.empty());

    // A rebuilt catalog is served at once, without a restart.
    TestEnv::writeFile(folder.root + "/index.json", "[]");
    EXPECT_EQ(fetch(port, "/index.json").body, "[]");
}

TEST(CatalogServer, MissingFilesAndFoldersAreNotFoundWithoutAListing) {
    CatalogFolder folder;
    CatalogServer server(folder.root.toStdString());
    const int port = server.start("127.0.0.1", 0);
    ASSERT_GT(port, 0);
    for (const char* path : {"/missing.json", "/f/missing.png", "/", "/f", "/f/", "/t/"}) {
        const Reply reply = fetch(port, path);
        EXPECT_EQ(reply.status, 404) << path;
        EXPECT_EQ(reply.body.find("1.png"), std::string::npos) << path;
        EXPECT_EQ(reply.body.find("index.json"), std::string::npos) << path;
    }
}

TEST(CatalogServer, NeverServesAnythingOutsideTheRootOrHidden) {
    CatalogFolder folder;
    CatalogServer server(folder.root.toStdString());
    const int port = server.start("127.0.0.1", 0);
    ASSERT_GT(port, 0);
    for (const char* target : {
             "/../secret.txt",
             "/f/../../secret.txt",
             "/%2e%2e/secret.txt",
             "/f/%2E%2E/%2e%2e/secret.txt",
             "/..%2fsecret.txt",
             "/%2e%2e%2fsecret.txt",
             "/f/..%5c..%5csecret.txt",
             "/link-to-secret.txt",
             "/linked-dir/secret.txt",
             "/.hidden",
             "/%2ehidden",
             "/f/./1.png",
             "/index.json%00.png",
         }) {
        const Reply reply = fetch(port, target);
        EXPECT_EQ(reply.status, 404) << target;
        EXPECT_EQ(reply.body.find(secretMarker.toStdString()), std::string::npos) << target;
    }
}

TEST(CatalogServer, EndpointsWinOverFilesAndTakeBoundedBodies) {
    CatalogFolder folder;
    TestEnv::writeFile(folder.root + "/v1/ping", "a file");
    CatalogServer server(folder.root.toStdString());
    server.addRoute("GET", "/v1/ping", [](const HttpRequest&) {
        return HttpResponse{200, "text/plain", "pong", {}};
    });
    server.addRoute(
        "POST", "/v1/echo",
        [](const HttpRequest& request) {
            return HttpResponse{
                200, "application/json", request.body, {{"X-Seen", request.header("x-probe")}}};
        },
        16);
    const int port = server.start("127.0.0.1", 0);
    ASSERT_GT(port, 0);
    EXPECT_EQ(fetch(port, "/v1/ping").body, "pong");
    EXPECT_EQ(fetch(port, "/index.json").status, 200);

    httplib::Client client("127.0.0.1", port);
    const auto echoed =
        client.Post("/v1/echo", {{"X-Probe", "yes"}}, "{\"a\":1}", "application/json");
    ASSERT_TRUE(echoed);
    EXPECT_EQ(echoed->status, 200);
    EXPECT_EQ(echoed->body, "{\"a\":1}");
    EXPECT_EQ(echoed->get_header_value("X-Seen"), "yes");
    const auto tooLarge = client.Post("/v1/echo", std::string(17, 'x'), "application/json");
    ASSERT_TRUE(tooLarge);
    EXPECT_EQ(tooLarge->status, 413);
    // Chunked, so the size is only known while reading.
    RawConnection chunked(port);
    ASSERT_TRUE(chunked.send("POST /v1/echo HTTP/1.1\r\nHost: 127.0.0.1\r\nTransfer-Encoding: "
                             "chunked\r\n\r\n20\r\n" +
                             std::string(32, 'x') + "\r\n0\r\n\r\n"));
    const auto chunkedReply = chunked.read();
    ASSERT_TRUE(chunkedReply);
    EXPECT_EQ(chunkedReply->status, 413);
    EXPECT_EQ(client.Get("/v1/echo")->status, 405);
}

TEST(CatalogServer, StopIsNeverLostWhenItRacesTheStart) {
    CatalogFolder folder;
    // serve() may not have begun listening when stop() arrives; either way it must return.
    for (int round = 0; round < 25; ++round) {
        CatalogServer server(folder.root.toStdString());
        ASSERT_GT(server.bind("127.0.0.1", 0), 0);
        std::thread serving([&] { EXPECT_TRUE(server.serve()); });
        server.stop();
        serving.join();
    }
}

TEST(CatalogServer, CompressesDocumentsWithGzipWhenAskedAndOnlyThen) {
    CatalogFolder folder;
    const QByteArray document =
        "[" + QByteArray(R"({"id":"a","keywords":["cat"]},)").repeated(500) + "{}]";
    TestEnv::writeFile(folder.root + "/index.json", document);
    CatalogServer server(folder.root.toStdString());
    const int port = server.start("127.0.0.1", 0);
    ASSERT_GT(port, 0);
    httplib::Client client("127.0.0.1", port);
    client.set_decompress(false);
    // What Qt's network stack offers by default.
    const auto gzipped = client.Get("/index.json", {{"Accept-Encoding", "gzip, deflate, br"}});
    ASSERT_TRUE(gzipped);
    EXPECT_EQ(gzipped->status, 200);
    EXPECT_EQ(gzipped->get_header_value("Content-Encoding"), "gzip");
    EXPECT_EQ(gzipped->get_header_value("Cache-Control"), "no-cache");
    EXPECT_LT(gzipped->body.size(), static_cast<size_t>(document.size()) / 4);
    client.set_decompress(true);
    const auto decoded = client.Get("/index.json", {{"Accept-Encoding", "gzip, deflate, br"}});
    ASSERT_TRUE(decoded);
    EXPECT_EQ(QByteArray::fromStdString(decoded->body), document);

    // Which offers accept gzip is the header parser's business: one refusal is enough here.
    const auto plain = client.Get("/index.json", {{"Accept-Encoding", "identity"}});
    ASSERT_TRUE(plain);
    EXPECT_FALSE(plain->has_header("Content-Encoding"));
    EXPECT_EQ(QByteArray::fromStdString(plain->body), document);
    // Images are sent as they are.
    EXPECT_FALSE(
        client.Get("/f/1.png", {{"Accept-Encoding", "gzip"}})->has_header("Content-Encoding"));
    // A rebuilt document is compressed afresh.
    TestEnv::writeFile(folder.root + "/index.json", "[]");
    EXPECT_EQ(client.Get("/index.json", {{"Accept-Encoding", "gzip"}})->body, "[]");
}

TEST(CatalogServer, AnswersOneRangePartAndRefusesManyOrUnsatisfiable) {
    CatalogFolder folder;
    TestEnv::writeFile(folder.root + "/f/digits.bin", "0123456789abcdef");
    CatalogServer server(folder.root.toStdString());
    const int port = server.start("127.0.0.1", 0);
    ASSERT_GT(port, 0);
    struct Case {
        const char* range;
        int status;
        const char* contentRange;
        const char* body;
    };
    for (const Case& c : {
             Case{"bytes=2-5", 206, "bytes 2-5/16", "2345"},
             Case{"bytes=0-0,2-3", 416, "bytes */16", nullptr},
             Case{"bytes=16-", 416, "bytes */16", nullptr},
             Case{"items=0-1", 200, "", "0123456789abcdef"},
         }) {
        httplib::Client client("127.0.0.1", port);
        const auto reply = client.Get("/f/digits.bin", {{"Range", c.range}});
        ASSERT_TRUE(reply) << c.range;
        EXPECT_EQ(reply->status, c.status) << c.range;
        EXPECT_EQ(reply->get_header_value("Content-Range"), c.contentRange) << c.range;
        if (c.body) {
            EXPECT_EQ(reply->body, c.body) << c.range;
        }
    }
}

TEST(CatalogServer, KeepsConnectionsAliveAndRefusesOversizedOrBodiedRequests) {
    CatalogFolder folder;
    CatalogServer server(folder.root.toStdString());
    const int port = server.start("127.0.0.1", 0);
    ASSERT_GT(port, 0);

    RawConnection kept(port);
    for (const char* path : {"/index.json", "/f/2.JPG", "/missing"}) {
        ASSERT_TRUE(kept.send(rawGet(path))) << path;
        const auto reply = kept.read();
        ASSERT_TRUE(reply) << path;
        EXPECT_EQ(reply->status, std::string(path) == "/missing" ? 404 : 200);
    }
    EXPECT_FALSE(kept.read(std::chrono::milliseconds(0)).has_value()); // nothing extra
    ASSERT_TRUE(kept.send(rawGet("/f/2.JPG")));
    EXPECT_EQ(kept.read()->body, "jpeg bytes");

    std::string many;
    for (int i = 0; i < 200; ++i)
        many += "X-Header-" + std::to_string(i) + ": v\r\n";
    std::string huge;
    for (int i = 0; i < 100000; ++i)
        huge += "X: v\r\n";
    RawConnection manyHeaders(port);
    ASSERT_TRUE(manyHeaders.send(rawGet("/index.json", many)));
    const auto refused = manyHeaders.read();
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->status, 431);
    EXPECT_TRUE(manyHeaders.closedWithin(std::chrono::seconds(10)));
    // Refused while still arriving: the answer may be lost to the reset of the unread rest.
    RawConnection hugeHeaders(port);
    hugeHeaders.send(rawGet("/index.json", huge));
    if (const auto reply = hugeHeaders.read()) {
        EXPECT_TRUE(reply->status == 431 || reply->status == 400) << reply->status;
    }
    EXPECT_TRUE(hugeHeaders.closedWithin(std::chrono::seconds(10)));

    RawConnection bodied(port);
    ASSERT_TRUE(bodied.send("GET /index.json HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: "
                            "5\r\n\r\nhello"));
    EXPECT_EQ(bodied.read()->status, 413);
    RawConnection posted(port);
    ASSERT_TRUE(posted.send("DELETE /index.json HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"));
    EXPECT_EQ(posted.read()->status, 405);
}

TEST(CatalogServer, CutsOffClientsThatTrickleOrIdleButServesOthersMeanwhile) {
    CatalogFolder folder;
    ServerLimits limits;
    limits.requestDeadline = std::chrono::milliseconds(300);
    CatalogServer server(folder.root.toStdString(), limits);
    const int port = server.start("127.0.0.1", 0);
    ASSERT_GT(port, 0);

    RawConnection idle(port);
    RawConnection trickler(port);
    RawConnection keptIdle(port);
    ASSERT_TRUE(keptIdle.send(rawGet("/index.json")));
    ASSERT_TRUE(keptIdle.read());
    const std::string slow = rawGet("/index.json", "X-Slow: " + std::string(1000, 'a') + "\r\n");
    EXPECT_EQ(fetch(port, "/index.json").status, 200);
    EXPECT_TRUE(trickler.closedWithin(std::chrono::seconds(20), slow));
    EXPECT_TRUE(idle.closedWithin(std::chrono::seconds(20)));
    EXPECT_TRUE(keptIdle.closedWithin(std::chrono::seconds(20)));
    EXPECT_EQ(fetch(port, "/index.json").status, 200);
}

TEST(CatalogServer, ClosesAtOnceWhenAClientHalfClosesWithItsRequest) {
    CatalogFolder folder;
    ServerLimits limits;
    // Far beyond the test's patience: only noticing the half-close can end these connections.
    limits.requestDeadline = std::chrono::minutes(10);
    limits.idleTimeoutSeconds = 600;
    CatalogServer server(folder.root.toStdString(), limits);
    const int port = server.start("127.0.0.1", 0);
    ASSERT_GT(port, 0);

    // The end of stream arriving together with the request's last bytes is what used to go
    // unnoticed; many connections make that timing certain to occur.
    const std::string requests[] = {rawGet("/index.json"), "GET /index.json HTTP/1.1\r\nHo", "T"};
    std::vector<std::unique_ptr<RawConnection>> clients;
    for (int i = 0; i < 40; ++i)
        for (const std::string& request : requests) {
            auto client = std::make_unique<RawConnection>(port);
            ASSERT_TRUE(client->send(request));
            client->finishSending();
            clients.push_back(std::move(client));
        }
    int held = 0;
    for (const auto& client : clients)
        held += client->closedWithin(std::chrono::seconds(20)) ? 0 : 1;
    EXPECT_EQ(held, 0);
}

TEST(CatalogServer, ConnectionsBeyondTheLimitWaitInsteadOfBeingRefused) {
    CatalogFolder folder;
    ServerLimits limits;
    limits.maxConnections = 2;
    limits.threads = 1;
    limits.requestDeadline = std::chrono::milliseconds(300);
    CatalogServer server(folder.root.toStdString(), limits);
    const int port = server.start("127.0.0.1", 0);
    ASSERT_GT(port, 0);
    RawConnection first(port);
    RawConnection second(port);
    ASSERT_TRUE(first.connected() && second.connected());
    // Both slots are taken until the idle pair is cut off; the third waits in the backlog.
    httplib::Client client("127.0.0.1", port);
    client.set_read_timeout(20);
    const auto reply = client.Get("/index.json");
    ASSERT_TRUE(reply) << httplib::to_string(reply.error());
    EXPECT_EQ(reply->status, 200);
    EXPECT_TRUE(first.closedWithin(std::chrono::seconds(10)));
}

TEST(CatalogServer, AsyncRoutesAnswerLaterAndStopWithAnswersStillOwed) {
    CatalogFolder folder;
    ServerLimits limits;
    limits.threads = 1;
    CatalogServer server(folder.root.toStdString(), limits);
    std::mutex lock;
    std::condition_variable arrived;
    std::vector<CatalogServer::Respond> owed;
    server.addAsyncRoute(
        "POST", "/slow",
        [&](HttpRequest request, CatalogServer::Respond respond) {
            if (request.body == "now")
                return respond({200, "text/plain", "at once", {}});
            const std::lock_guard guard(lock);
            owed.push_back(std::move(respond));
            arrived.notify_all();
        },
        1024);
    const int port = server.start("127.0.0.1", 0);
    ASSERT_GT(port, 0);
    const auto waitOwed = [&](std::size_t n) {
        std::unique_lock guard(lock);
        return arrived.wait_for(guard, std::chrono::seconds(20), [&] { return owed.size() >= n; });
    };

    httplib::Client client("127.0.0.1", port);
    EXPECT_EQ(client.Post("/slow", "now", "text/plain")->body, "at once");
    auto later = std::async(std::launch::async, [port] {
        return httplib::Client("127.0.0.1", port).Post("/slow", "later", "text/plain");
    });
    ASSERT_TRUE(waitOwed(1));
    // The one event thread is free while the answer is owed.
    EXPECT_EQ(client.Get("/index.json")->status, 200);
    std::thread answering([respond = owed[0]] { respond({201, "text/plain", "done", {}}); });
    const auto answered = later.get();
    answering.join();
    ASSERT_TRUE(answered);
    EXPECT_EQ(answered->status, 201);
    EXPECT_EQ(answered->body, "done");

    auto stranded = std::async(std::launch::async, [port] {
        return httplib::Client("127.0.0.1", port).Post("/slow", "never", "text/plain");
    });
    ASSERT_TRUE(waitOwed(2));
    server.stop();
    const auto stopped = stranded.get();
    EXPECT_TRUE(!stopped || stopped->status == 503);
    owed[1]({200, "text/plain", "too late", {}}); // after the stop: nothing happens
}
