// SPDX-License-Identifier: MIT
// orvane-remote-roundtrip: keystroke to merged list through the cloud search, the whole way
// the picker goes (debounce, request, decode, fusion, status), over a synthetic catalog.
//   orvane-remote-roundtrip [--runs 50] [--size 10000] [--worker]  in-process server
//   orvane-remote-roundtrip --api http://127.0.0.1:8787             a running worker service
//   orvane-remote-roundtrip --search-url URL --search-key KEY       a search-engine service
// The in-process server answers both dialects with 20 catalog records from memory.
#include "catalog/debugflags.h"
#include "percentile.h"
#include "search/localindex.h"
#include "search/pickermodel.h"
#include "search/pickertexts.h"
#include "syntheticcatalog.h"
#include "telemetry/metrics.h"
#include "userdata/userdata.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QTemporaryDir>
#include <QTimer>
#include <algorithm>
#include <cstdio>
#include <httplib.h>
#include <thread>

namespace {

// The tail only a merged status has (the local one also offers captions).
const QString mergedTail = PickerTexts::remoteStatus(0, 0).section(QStringLiteral(" results"), 1);

void report(const char* what, const std::vector<double>& ms) {
    std::printf("%-34s median %7.2f ms   p95 %7.2f ms   min %7.2f ms   max %7.2f ms\n", what,
                percentile(ms, 0.5), percentile(ms, 0.95), percentile(ms, 0.0),
                percentile(ms, 1.0));
}

} // namespace

int main(int argc, char** argv) {
    // Private folders for the settings, user data and metrics of this run.
    QTemporaryDir home;
    for (const char* name :
         {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CACHE_HOME"})
        qputenv(name, home.path().toUtf8());
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    const QCommandLineOption runsOpt(QStringLiteral("runs"), QStringLiteral("Queries (50)."),
                                     QStringLiteral("N"), QStringLiteral("50"));
    const QCommandLineOption sizeOpt(QStringLiteral("size"),
                                     QStringLiteral("Local catalog size (10000)."),
                                     QStringLiteral("N"), QStringLiteral("10000"));
    const QCommandLineOption apiOpt(QStringLiteral("api"),
                                    QStringLiteral("Worker service base (as MEME_API)."),
                                    QStringLiteral("URL"));
    const QCommandLineOption urlOpt(QStringLiteral("search-url"),
                                    QStringLiteral("Search-engine base."), QStringLiteral("URL"));
    const QCommandLineOption keyOpt(QStringLiteral("search-key"),
                                    QStringLiteral("Search-engine key."), QStringLiteral("KEY"));
    const QCommandLineOption workerOpt(QStringLiteral("worker"),
                                       QStringLiteral("Ask the in-process server as the worker."));
    parser.addOptions({runsOpt, sizeOpt, apiOpt, urlOpt, keyOpt, workerOpt});
    parser.process(app);
    const int runs = parser.value(runsOpt).toInt();
    const MemeList catalog = SyntheticCatalog::generate(parser.value(sizeOpt).toInt(), 7);

    // The in-process service, unless one was named.
    httplib::Server server;
    std::thread serving;
    std::string answer;
    {
        nlohmann::ordered_json hits = nlohmann::ordered_json::array();
        for (int i = 0; i < 20 && i < catalog.size(); ++i)
            hits.push_back(CatalogJson::encode(catalog[catalog.size() - 1 - i]));
        answer = nlohmann::ordered_json{{"hits", hits}}.dump();
    }
    QString searchURL = parser.value(urlOpt);
    QString searchKey = parser.value(keyOpt);
    QString api = parser.value(apiOpt);
    const bool worker = parser.isSet(apiOpt) || parser.isSet(workerOpt);
    if (api.isEmpty() && searchURL.isEmpty()) {
        const auto handle = [&](const httplib::Request&, httplib::Response& res) {
            res.set_content(answer, "application/json");
        };
        // Without it, a kept-alive connection's answer waits out the client's delayed ACK
        // (about 40 ms on Linux), which would swamp what the app itself spends.
        server.set_tcp_nodelay(true);
        server.Post("/indexes/memes/search", handle);
        server.Get("/v1/search", handle);
        const int port = server.bind_to_any_port("127.0.0.1");
        serving = std::thread([&] { server.listen_after_bind(); });
        searchURL = QStringLiteral("http://127.0.0.1:%1").arg(port);
        searchKey = QStringLiteral("bench");
        if (worker)
            api = searchURL;
    }

    ConfigSources sources = ConfigSources::fromProcess();
    sources.environment.remove(QStringLiteral("MEME_API"));
    if (worker)
        sources.environment.insert(QStringLiteral("MEME_API"), api);
    DebugFlags::installSources(sources);
    DebugFlags::settings().set(QStringLiteral("searchURL"), searchURL.toStdString());
    DebugFlags::settings().set(QStringLiteral("searchKey"), searchKey.toStdString());

    auto index = std::shared_ptr<LocalIndex>(
        LocalIndex::open(home.path() + QStringLiteral("/index.sqlite")));
    index->rebuild(catalog, QString(64, QLatin1Char('b')));
    index->waitUntilCommitted();
    UserData userData(home.path() + QStringLiteral("/userdata.json"));
    PickerModel model(nullptr, &userData);
    model.setIndex(index, catalog);

    // The worker is asked only for queries the local index barely answers.
    QStringList queries;
    if (worker) {
        for (int i = 0; i < runs; ++i)
            queries.append(QStringLiteral("zqx%1").arg(i));
    } else {
        queries = SyntheticCatalog::queries(runs, 11);
    }

    std::vector<double> total;
    int failed = 0;
    for (const QString& q : queries) {
        QEventLoop loop;
        QElapsedTimer clock;
        const auto merged = QObject::connect(&model, &PickerModel::statusChanged, &loop, [&] {
            if (model.status().endsWith(mergedTail))
                loop.quit();
        });
        QTimer::singleShot(10'000, &loop, [&] {
            ++failed;
            loop.quit();
        });
        clock.start();
        model.searchTextEdited(q);
        loop.exec();
        QObject::disconnect(merged);
        if (model.status().endsWith(mergedTail))
            total.push_back(double(clock.nsecsElapsed()) / 1e6);
    }
    if (serving.joinable()) {
        server.stop();
        serving.join();
    }
    if (total.empty()) {
        std::fprintf(stderr, "no answer merged (%d failed)\n", failed);
        return 1;
    }
    const double debounce =
        worker ? PickerModel::remoteDelayWorkerMs : PickerModel::remoteDelayEngineMs;
    std::vector<double> afterPause;
    for (double ms : total)
        afterPause.push_back(ms - debounce);
    std::printf("%s dialect, %zu of %lld queries merged, catalog %lld items\n",
                worker ? "worker" : "search-engine", total.size(), qlonglong(queries.size()),
                qlonglong(catalog.size()));
    // The request alone, as the picker logs it.
    std::vector<double> request;
    Metrics::shared().flush();
    QFile log(Metrics::shared().path());
    if (log.open(QIODevice::ReadOnly)) {
        for (const QByteArray& line : log.readAll().split('\n')) {
            const auto event = nlohmann::json::parse(line.begin(), line.end(), nullptr, false);
            if (event.is_object() && event.value("event", "") == "search_remote")
                request.push_back(event.value("ms", 0.0));
        }
    }
    report("keystroke to merged list", total);
    report("  of which after the pause", afterPause);
    if (!request.empty())
        report("  request to decoded answer", request);
    return failed ? 1 : 0;
}
