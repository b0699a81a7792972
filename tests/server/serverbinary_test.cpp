// SPDX-License-Identifier: MIT
#include "catalog/catalogjson.h"
#include "rawhttp.h"
#include "support/images.h"
#include "support/testenv.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <QRegularExpression>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <httplib.h>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

namespace {

Meme sampleMeme(int n) {
    Meme meme;
    meme.id = QStringLiteral("s%1").arg(n);
    meme.thumb = QStringLiteral("/t/%1.webp").arg(n);
    meme.full = QStringLiteral("/f/%1.png").arg(n);
    return meme;
}

// orvane-server as a child process, with its start-up line read back.
class ServerProcess {
public:
    // With `sigintIgnored`, started the way `orvane-server &` in a script starts it.
    explicit ServerProcess(const QStringList& args, bool sigintIgnored = false) {
        if (!sigintIgnored) {
            m_process.start(QStringLiteral(ORVANE_SERVER_BINARY), args);
            return;
        }
        m_process.start(QStringLiteral("/bin/sh"),
                        QStringList{QStringLiteral("-c"),
                                    QStringLiteral("trap '' INT; exec \"$0\" \"$@\""),
                                    QStringLiteral(ORVANE_SERVER_BINARY)} +
                            args);
    }
    ~ServerProcess() {
        if (m_process.state() != QProcess::NotRunning) {
            m_process.kill();
            m_process.waitForFinished(10000);
        }
    }
    // The first line on stdout, or empty when none came in time.
    QString startupLine() {
        const QDeadlineTimer deadline(20000);
        while (!m_process.canReadLine() && !deadline.hasExpired() &&
               m_process.state() != QProcess::NotRunning)
            m_process.waitForReadyRead(static_cast<int>(deadline.remainingTime()));
        return QString::fromUtf8(m_process.readLine()).trimmed();
    }
    QProcess& process() { return m_process; }

private:
    QProcess m_process;
};

int portIn(const QString& line) {
    const auto match =
        QRegularExpression(QStringLiteral("at http://127\\.0\\.0\\.1:(\\d+)/ ")).match(line);
    return match.hasMatch() ? match.captured(1).toInt() : -1;
}

struct Finished {
    int exitCode = -1;
    QString err;
};

Finished runToEnd(const QStringList& args) {
    QProcess process;
    process.start(QStringLiteral(ORVANE_SERVER_BINARY), args);
    if (!process.waitForFinished(20000))
        return {};
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromUtf8(process.readAllStandardError())};
}

// The peak resident memory of a process, in MB, from /proc.
long peakMegabytes(qint64 pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmHWM:", 0) == 0)
            return std::stol(line.substr(6)) / 1024;
    return -1;
}

// A catalog folder with a small index and image, served by a child orvane-server.
struct ServedCatalog {
    QString root = TestEnv::freshDir();
    std::unique_ptr<ServerProcess> server;
    int port = -1;

    ServedCatalog() {
        TestEnv::writeFile(root + "/index.json", CatalogJson::encodeMemes({sampleMeme(1)}));
        TestEnv::writeFile(root + "/f/1.png", QByteArray(4096, 'p'));
    }
    void start() {
        server = std::make_unique<ServerProcess>(QStringList{
            QStringLiteral("--root"), root, QStringLiteral("--port"), QStringLiteral("0")});
        port = portIn(server->startupLine());
    }
};

} // namespace

TEST(OrvaneServer, ServesANormalClientWhileIdleAndTricklingClientsHoldConnections) {
    ServedCatalog catalog;
    catalog.start();
    ASSERT_GT(catalog.port, 0);

    std::vector<std::unique_ptr<RawConnection>> idle;
    std::vector<std::unique_ptr<RawConnection>> trickling;
    for (int i = 0; i < 200; ++i)
        idle.push_back(std::make_unique<RawConnection>(catalog.port));
    for (int i = 0; i < 20; ++i)
        trickling.push_back(std::make_unique<RawConnection>(catalog.port));
    std::mutex mutex;
    std::condition_variable stopped;
    bool stop = false;
    std::thread trickle([&] {
        const std::string request = rawGet("/index.json", "X-Slow: " + std::string(500, 'a'));
        std::unique_lock lock(mutex);
        for (size_t at = 0;
             !stopped.wait_for(lock, std::chrono::milliseconds(200), [&] { return stop; }); ++at)
            for (const auto& connection : trickling)
                connection->send(std::string_view(request).substr(at % request.size(), 1));
    });

    // Each request must finish within its 5 s time-outs (the old server took about 30 s).
    for (int i = 0; i < 20; ++i) {
        httplib::Client client("127.0.0.1", catalog.port);
        client.set_connection_timeout(5);
        client.set_read_timeout(5);
        const auto reply = client.Get(i % 2 ? "/f/1.png" : "/index.json");
        ASSERT_TRUE(reply) << "request " << i << ": " << httplib::to_string(reply.error());
        EXPECT_EQ(reply->status, 200);
    }
    {
        const std::lock_guard lock(mutex);
        stop = true;
    }
    stopped.notify_all();
    trickle.join();
}

TEST(OrvaneServer, StreamsABigFileAndRefusesManyRangesInBoundedMemory) {
    ServedCatalog catalog;
    const std::string big = (catalog.root + QStringLiteral("/big.bin")).toStdString();
    std::ofstream(big).put('x');
    constexpr std::uintmax_t size = 300ULL * 1024 * 1024; // sparse: no disk, every byte sent
    std::filesystem::resize_file(big, size);
    catalog.start();
    ASSERT_GT(catalog.port, 0);

    std::string ranges = "bytes=";
    for (int i = 0; i < 300; ++i)
        ranges += (i ? "," : "") + std::to_string(i * 1000000) + '-' +
                  std::to_string(i * 1000000 + 99999);
    std::vector<std::thread> clients;
    std::atomic<std::uintmax_t> received[4] = {};
    std::atomic<int> refused{0};
    for (int i = 0; i < 4; ++i)
        clients.emplace_back([&, i] {
            httplib::Client client("127.0.0.1", catalog.port);
            client.set_read_timeout(60);
            client.Get("/big.bin", [&](const char*, size_t length) {
                received[i] += length;
                return true;
            });
            const auto multi = client.Get("/big.bin", {{"Range", ranges}});
            if (multi && multi->status == 416 && multi->body.size() < 100)
                ++refused;
        });
    for (auto& client : clients)
        client.join();
    for (const auto& bytes : received)
        EXPECT_EQ(bytes, size);
    EXPECT_EQ(refused, 4);
    const long peak = peakMegabytes(catalog.server->process().processId());
    EXPECT_GT(peak, 0);
    EXPECT_LT(peak, 100);
}

TEST(OrvaneServer, AnnouncesAddressAndCatalogSizeThenStopsCleanlyOnSignals) {
    const QString root = TestEnv::freshDir();
    TestEnv::writeFile(root + "/index.json",
                       CatalogJson::encodeMemes({sampleMeme(1), sampleMeme(2), sampleMeme(3)}));
    TestEnv::writeFile(root + "/stickers.json", CatalogJson::encodeMemes({sampleMeme(4)}));
    TestEnv::writeFile(root + "/collections.json", "[]");

    const QStringList args{QStringLiteral("--root"), root, QStringLiteral("--port"),
                           QStringLiteral("0")};
    for (const int signal : {SIGTERM, SIGINT}) {
        // SIGINT is tried on a server that inherited it ignored, as from `orvane-server &`.
        ServerProcess server(args, signal == SIGINT);
        const QString line = server.startupLine();
        const int port = portIn(line);
        ASSERT_GT(port, 0) << line.toStdString();
        EXPECT_TRUE(line.contains(QStringLiteral(
            "(index.json: 3 items, index_stress.json: missing, collections.json: 0 collections, "
            "stickers.json: 1 stickers)")))
            << line.toStdString();

        httplib::Client client("127.0.0.1", port);
        const auto reply = client.Get("/index.json");
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->status, 200);

        ::kill(static_cast<pid_t>(server.process().processId()), signal);
        ASSERT_TRUE(server.process().waitForFinished(20000));
        EXPECT_EQ(server.process().exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(server.process().exitCode(), 0);
    }
}

TEST(OrvaneServer, StartsOnABrokenCatalogButSaysWhereItBreaks) {
    const QString root = TestEnv::freshDir();
    TestEnv::writeFile(root + "/index.json", R"([{"id":"x","template":""}])");
    ServerProcess server(
        {QStringLiteral("--root"), root, QStringLiteral("--port"), QStringLiteral("0")});
    const QString line = server.startupLine();
    EXPECT_GT(portIn(line), 0) << line.toStdString();
    EXPECT_TRUE(line.contains(QStringLiteral("index.json: does not decode ([0].")))
        << line.toStdString();
}

TEST(OrvaneServer, RefusesBadArgumentsWithAClearMessage) {
    const QString root = TestEnv::freshDir();

    Finished r = runToEnd({});
    EXPECT_NE(r.exitCode, 0);
    EXPECT_TRUE(r.err.contains(QStringLiteral("--root DIR is required"))) << r.err.toStdString();

    r = runToEnd({QStringLiteral("--root"), root + QStringLiteral("/nope")});
    EXPECT_NE(r.exitCode, 0);
    EXPECT_TRUE(r.err.contains(QStringLiteral("not a folder"))) << r.err.toStdString();

    r = runToEnd(
        {QStringLiteral("--root"), root, QStringLiteral("--port"), QStringLiteral("70000")});
    EXPECT_NE(r.exitCode, 0);
    EXPECT_TRUE(r.err.contains(QStringLiteral("not a port number"))) << r.err.toStdString();

    // The port is held by another server process: a server thread in this process would make
    // the fork below unsupported under ThreadSanitizer.
    ServerProcess taken(
        {QStringLiteral("--root"), root, QStringLiteral("--port"), QStringLiteral("0")});
    const int port = portIn(taken.startupLine());
    ASSERT_GT(port, 0);
    r = runToEnd({QStringLiteral("--root"), root, QStringLiteral("--port"), QString::number(port)});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("could not listen on 127.0.0.1:%1").arg(port)))
        << r.err.toStdString();
}

TEST(OrvaneServer, SearchesWithItsKeyAndKeepsEventsInItsDataFolder) {
    ServedCatalog catalog;
    Meme cat = sampleMeme(1);
    cat.description = QStringLiteral("a sleepy cat");
    TestEnv::writeFile(catalog.root + "/index.json", CatalogJson::encodeMemes({cat}));
    const QString data = TestEnv::freshDir();
    ServerProcess server({QStringLiteral("--root"), catalog.root, QStringLiteral("--port"),
                          QStringLiteral("0"), QStringLiteral("--data"), data,
                          QStringLiteral("--search-key"), QStringLiteral("k1")});
    const int port = portIn(server.startupLine());
    ASSERT_GT(port, 0);
    httplib::Client client("127.0.0.1", port);
    const std::string body = R"({"q":"sleepy","limit":60})";
    const auto noKey = client.Post("/indexes/memes/search", body, "application/json");
    ASSERT_TRUE(noKey);
    EXPECT_EQ(noKey->status, 401);
    const auto found = client.Post("/indexes/memes/search", {{"Authorization", "Bearer k1"}}, body,
                                   "application/json");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->status, 200);
    EXPECT_NE(found->body.find(R"("id":"s1")"), std::string::npos) << found->body;

    const auto events = client.Post("/v1/events", {{"x-install-id", "i1"}}, R"([
        {"query":"s1","results_shown":["s1"],"picked_id":"s1","position":0,"method":"paste",
         "timestamp":"2024-05-01T10:00:00Z"}])",
                                    "application/json");
    ASSERT_TRUE(events);
    EXPECT_EQ(events->status, 200);
    EXPECT_TRUE(QFile::exists(data + "/events.sqlite"));
}

TEST(OrvaneServer, TagsPicturesWithItsOptions) {
    ServedCatalog catalog;
    const QString database = TestEnv::freshDir() + QStringLiteral("/t/tags.sqlite");
    ServerProcess server({QStringLiteral("--root"), catalog.root, QStringLiteral("--port"),
                          QStringLiteral("0"), QStringLiteral("--data"), TestEnv::freshDir(),
                          QStringLiteral("--tag-db"), database, QStringLiteral("--tag-cap"),
                          QStringLiteral("1"), QStringLiteral("--tag-workers"),
                          QStringLiteral("1")});
    const int port = portIn(server.startupLine());
    ASSERT_GT(port, 0);
    const QByteArray png = TestImages::encode(TestImages::filled(48, 48, Qt::white), "PNG");

    httplib::Client client("127.0.0.1", port);
    client.set_read_timeout(60);
    const httplib::Headers device = {{"X-Device", "d1"}, {"x-install-id", "i1"}};
    const auto post = [&] {
        return client.Post("/v1/import/tag", device, png.constData(), std::size_t(png.size()),
                           "application/octet-stream");
    };
    const auto tagged = post();
    ASSERT_TRUE(tagged);
    EXPECT_EQ(tagged->status, 200) << tagged->body;
    EXPECT_EQ(nlohmann::json::parse(tagged->body).size(), 10U) << tagged->body;
    const auto capped = post();
    ASSERT_TRUE(capped);
    EXPECT_EQ(capped->status, 429);
    EXPECT_NE(capped->body.find(R"("code":"device_cap")"), std::string::npos) << capped->body;
    EXPECT_TRUE(QFile::exists(database));

    const Finished bad = runToEnd({QStringLiteral("--root"), catalog.root,
                                   QStringLiteral("--tag-rate"), QStringLiteral("fast")});
    EXPECT_NE(bad.exitCode, 0);
    EXPECT_TRUE(bad.err.contains(QStringLiteral("--tag-rate fast"))) << bad.err.toStdString();
}
