// SPDX-License-Identifier: MIT
#include "server/catalogserver.h"
#include "support/testenv.h"

#include <QDir>
#include <QFile>
#include <filesystem>
#include <gtest/gtest.h>
#include <httplib.h>

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
        TestEnv::writeFile(root + "/index_stress.json", "[]");
        TestEnv::writeFile(root + "/collections.json", "[]");
        TestEnv::writeFile(root + "/stickers.json", "[]");
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
        {"/index_stress.json", "application/json"},
        {"/collections.json", "application/json"},
        {"/stickers.json", "application/json"},
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

TEST(CatalogServer, EndpointsAddedBeforeServingWinOverFiles) {
    CatalogFolder folder;
    TestEnv::writeFile(folder.root + "/v1/ping", "a file");
    CatalogServer server(folder.root.toStdString());
    server.http().Get("/v1/ping", [](const httplib::Request&, httplib::Response& response) {
        response.set_content("pong", "text/plain");
    });
    const int port = server.start("127.0.0.1", 0);
    ASSERT_GT(port, 0);
    EXPECT_EQ(fetch(port, "/v1/ping").body, "pong");
    EXPECT_EQ(fetch(port, "/index.json").status, 200);
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

TEST(CatalogServer, CompressesDocumentsWithGzipEvenWhenBrotliIsOffered) {
    CatalogFolder folder;
    CatalogServer server(folder.root.toStdString());
    const int port = server.start("127.0.0.1", 0);
    ASSERT_GT(port, 0);
    // What Qt's network stack offers by default.
    const httplib::Headers offer = {{"Accept-Encoding", "gzip, deflate, br"}};
    httplib::Client client("127.0.0.1", port);
    client.set_decompress(false);
    const auto result = client.Get("/index.json", offer);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 200);
    EXPECT_EQ(result->get_header_value("Content-Encoding"), "gzip");
}
