// SPDX-License-Identifier: MIT
// orvane-server: hosts a catalog folder (index.json, index_stress.json, collections.json,
// stickers.json and the images they name) for Orvane over plain HTTP, and answers searches
// over that catalog, usage events and the tagging of pictures users import.
#include "server/catalogserver.h"
#include "server/catalogsummary.h"
#include "server/eventstore.h"
#include "server/searchapi.h"
#include "server/searchservice.h"
#include "server/tagger.h"
#include "server/tagservice.h"
#include "server/tagstore.h"
#include "server/templateindex.h"
#include "server/wordnet.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>
#include <QStandardPaths>
#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <memory>
#include <pthread.h>
#include <sys/resource.h>
#include <thread>

namespace {

constexpr int defaultPort = 8787;

[[noreturn]] void fail(const QString& message, int code = 2) {
    std::fprintf(stderr, "orvane-server: %s\n", qPrintable(message));
    std::exit(code);
}

QString urlFor(const QString& host, int port) {
    // IPv6 literals need brackets in a URL.
    const QString shownHost = host.contains(QLatin1Char(':')) ? '[' + host + ']' : host;
    return QStringLiteral("http://%1:%2/").arg(shownHost).arg(port);
}

} // namespace

int main(int argc, char** argv) {
    // Blocked before any thread exists, so every thread inherits the mask and only the
    // waiting thread below ever sees these signals. A script's `orvane-server &` hands us
    // SIGINT ignored, and POSIX lets a blocked, ignored signal be dropped before sigwait().
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    // Every connection is a descriptor; the usual soft limit of 1024 would cap the server near
    // 500 connections (half go to files being sent). Raise it as far as we are allowed.
    rlimit files{};
    if (::getrlimit(RLIMIT_NOFILE, &files) == 0 &&
        files.rlim_cur < std::min<rlim_t>(files.rlim_max, 8192)) {
        files.rlim_cur = std::min<rlim_t>(files.rlim_max, 8192);
        ::setrlimit(RLIMIT_NOFILE, &files);
    }

    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("orvane-server"));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Serves an Orvane catalog folder over HTTP (GET only, no listings)."));
    parser.addHelpOption();
    const QCommandLineOption rootOption(
        QStringLiteral("root"), QStringLiteral("Catalog folder to serve."), QStringLiteral("DIR"));
    const QCommandLineOption hostOption(QStringLiteral("host"),
                                        QStringLiteral("Address to listen on (default 127.0.0.1)."),
                                        QStringLiteral("HOST"), QStringLiteral("127.0.0.1"));
    const QCommandLineOption portOption(
        QStringLiteral("port"),
        QStringLiteral("Port to listen on (default %1; 0 picks a free one).").arg(defaultPort),
        QStringLiteral("PORT"), QString::number(defaultPort));
    parser.addOptions({rootOption, hostOption, portOption});

    const SearchApiLimits defaults;
    const auto option = [](const char* name, const QString& help, const char* value,
                           const QString& fallback = {}) {
        return QCommandLineOption(QLatin1String(name), help, QLatin1String(value), fallback);
    };
    const QCommandLineOption dataOption =
        option("data",
               QStringLiteral("Folder for the usage events database (default %1).")
                   .arg(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
                        QStringLiteral("/orvane-server")),
               "DIR");
    const QCommandLineOption searchKeyOption = option(
        "search-key",
        QStringLiteral("Bearer key of /indexes/memes/search (else $MEME_SEARCH_KEY; none: open)."),
        "KEY");
    const QCommandLineOption appKeyOption = option(
        "app-key", QStringLiteral("x-app-key that /v1/search and /v1/events require (none: any)."),
        "KEY");
    const QCommandLineOption catalogOption =
        option("search-catalog",
               QStringLiteral("Catalog document in DIR that searches answer from (default "
                              "index.json)."),
               "NAME", QStringLiteral("index.json"));
    const QCommandLineOption wordnetOption =
        option("wordnet",
               QStringLiteral("WordNet database folder for hybrid search (default "
                              "/usr/share/wordnet, Debian's wordnet-base)."),
               "DIR", QStringLiteral("/usr/share/wordnet"));
    const QCommandLineOption maxLimitOption =
        option("max-limit",
               QStringLiteral("Most hits per search, and the deepest hit reached (default %1).")
                   .arg(defaults.maxLimit),
               "N", QString::number(defaults.maxLimit));
    const QCommandLineOption searchRateOption = option(
        "search-rate",
        QStringLiteral("Searches per second per client address, bursts of twice that; 0 = no "
                       "limit (default %1).")
            .arg(defaults.searchPerSecond),
        "N", QString::number(defaults.searchPerSecond));
    const QCommandLineOption eventsRateOption = option(
        "events-rate",
        QStringLiteral("Event uploads per second per client address; 0 = no limit (default %1).")
            .arg(defaults.eventsPerSecond),
        "N", QString::number(defaults.eventsPerSecond));
    const QCommandLineOption searchBodyOption =
        option("max-search-body",
               QStringLiteral("Largest search request body in bytes (default %1).")
                   .arg(defaults.maxSearchBodyBytes),
               "BYTES", QString::number(defaults.maxSearchBodyBytes));
    const QCommandLineOption eventsBodyOption =
        option("max-events-body",
               QStringLiteral("Largest events upload in bytes (default %1).")
                   .arg(defaults.maxEventsBodyBytes),
               "BYTES", QString::number(defaults.maxEventsBodyBytes));
    const QCommandLineOption eventsBatchOption = option(
        "max-events-batch",
        QStringLiteral("Most events in one upload (default %1).").arg(defaults.maxEventsPerBatch),
        "N", QString::number(defaults.maxEventsPerBatch));
    const QCommandLineOption checkOption = option(
        "catalog-check-ms",
        QStringLiteral("How often a search looks whether the catalog changed (default 1000)."),
        "MS", QStringLiteral("1000"));
    const QCommandLineOption benchOption(
        QStringLiteral("bench-reference"),
        QStringLiteral("Also serve POST /bench/fts5-search: the plain FTS5 query, for "
                       "measurements."));
    const TagLimits tagDefaults;
    const QCommandLineOption tagDbOption = option(
        "tag-db",
        QStringLiteral("Database of the tags kept per device (default tags.sqlite in the --data "
                       "folder)."),
        "PATH");
    const QCommandLineOption tagRateOption =
        option("tag-rate",
               QStringLiteral("Pictures tagged per minute per device, in bursts of as many; 0 = no "
                              "limit (default %1).")
                   .arg(tagDefaults.perMinute),
               "N", QString::number(tagDefaults.perMinute));
    const QCommandLineOption tagCapOption =
        option("tag-cap",
               QStringLiteral("Tagged pictures kept per device (default %1).")
                   .arg(tagDefaults.perDeviceCap),
               "N", QString::number(tagDefaults.perDeviceCap));
    const QCommandLineOption tagBodyOption =
        option("max-tag-body",
               QStringLiteral("Largest picture upload in bytes (default %1).")
                   .arg(tagDefaults.maxBodyBytes),
               "BYTES", QString::number(tagDefaults.maxBodyBytes));
    const QCommandLineOption tagWorkersOption =
        option("tag-workers",
               QStringLiteral("Threads reading pictures (default %1).").arg(tagDefaults.workers),
               "N", QString::number(tagDefaults.workers));
    const QCommandLineOption tagQueueOption =
        option("tag-queue",
               QStringLiteral("Uploads that may wait for a thread; more get 503 (default %1).")
                   .arg(tagDefaults.maxQueued),
               "N", QString::number(tagDefaults.maxQueued));
    const QCommandLineOption tessdataOption =
        option("tessdata",
               QStringLiteral("Folder with Tesseract's eng.traineddata (default: Tesseract's own, "
                              "Debian's tesseract-ocr-eng)."),
               "DIR");
    parser.addOptions({dataOption,       searchKeyOption,  appKeyOption,      catalogOption,
                       wordnetOption,    maxLimitOption,   searchRateOption,  eventsRateOption,
                       searchBodyOption, eventsBodyOption, eventsBatchOption, checkOption,
                       benchOption,      tagDbOption,      tagRateOption,     tagCapOption,
                       tagBodyOption,    tagWorkersOption, tagQueueOption,    tessdataOption});
    parser.process(app);

    if (!parser.positionalArguments().isEmpty())
        fail(QStringLiteral("unexpected argument \"%1\" (see --help)")
                 .arg(parser.positionalArguments().constFirst()));
    if (!parser.isSet(rootOption))
        fail(QStringLiteral("--root DIR is required (see --help)"));
    const QString root = parser.value(rootOption);
    if (!QFileInfo(root).isDir())
        fail(QStringLiteral("--root %1: not a folder").arg(root));
    bool portOk = false;
    const int port = parser.value(portOption).toInt(&portOk);
    if (!portOk || port < 0 || port > 65535)
        fail(QStringLiteral("--port %1: not a port number (0 to 65535)")
                 .arg(parser.value(portOption)));
    const QString host = parser.value(hostOption);

    const auto number = [&](const QCommandLineOption& o, double low, double high) {
        bool ok = false;
        const double value = parser.value(o).toDouble(&ok);
        if (!ok || value < low || value > high)
            fail(QStringLiteral("--%1 %2: not a number from %3 to %4")
                     .arg(o.names().constFirst(), parser.value(o))
                     .arg(low)
                     .arg(high));
        return value;
    };
    SearchApiLimits limits;
    limits.maxLimit = int(number(maxLimitOption, 1, 100000));
    limits.searchPerSecond = number(searchRateOption, 0, 1e6);
    limits.eventsPerSecond = number(eventsRateOption, 0, 1e6);
    limits.maxSearchBodyBytes = std::size_t(number(searchBodyOption, 64, 1 << 30));
    limits.maxEventsBodyBytes = std::size_t(number(eventsBodyOption, 64, 1 << 30));
    limits.maxEventsPerBatch = std::size_t(number(eventsBatchOption, 1, 1e7));

    TagLimits tagLimits;
    tagLimits.perMinute = number(tagRateOption, 0, 1e6);
    tagLimits.perDeviceCap = std::int64_t(number(tagCapOption, 0, 1e12));
    tagLimits.maxBodyBytes = std::size_t(number(tagBodyOption, 1024, 1 << 30));
    tagLimits.workers = int(number(tagWorkersOption, 1, 64));
    tagLimits.maxQueued = std::size_t(number(tagQueueOption, 0, 1e6));

    SearchApi::Keys keys;
    keys.searchKey = parser.isSet(searchKeyOption)
                         ? parser.value(searchKeyOption).toStdString()
                         : qEnvironmentVariable("MEME_SEARCH_KEY").toStdString();
    keys.appKey = parser.value(appKeyOption).toStdString();

    const QString dataDir =
        parser.isSet(dataOption)
            ? parser.value(dataOption)
            : QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
                  QStringLiteral("/orvane-server");
    const std::unique_ptr<EventStore> events = EventStore::open(dataDir);
    if (!events)
        fail(QStringLiteral("--data %1: cannot keep the events database there").arg(dataDir), 1);
    // Without WordNet a hybrid search is a keyword search; say so once.
    const std::unique_ptr<WordNet> wordNet = WordNet::open(parser.value(wordnetOption));
    if (!wordNet)
        std::fprintf(stderr,
                     "orvane-server: no WordNet database in %s (Debian: wordnet-base); hybrid "
                     "searches match keywords only\n",
                     qPrintable(parser.value(wordnetOption)));

    SearchService::Options searchOptions;
    searchOptions.catalog = (root + '/' + parser.value(catalogOption)).toStdString();
    searchOptions.checkInterval = std::chrono::milliseconds(qint64(number(checkOption, 0, 3.6e6)));
    searchOptions.maxTotalHits = limits.maxLimit;
    searchOptions.indexDir = dataDir;
    SearchService search(searchOptions, wordNet.get(), events.get());
    SearchApi api(search, events.get(), keys, limits);

    const QString tagDb = parser.isSet(tagDbOption) ? parser.value(tagDbOption)
                                                    : dataDir + QStringLiteral("/tags.sqlite");
    const std::unique_ptr<TagStore> tagStore = TagStore::open(tagDb);
    if (!tagStore)
        fail(QStringLiteral("--tag-db %1: cannot keep the tags database there").arg(tagDb), 1);
    TemplateIndex templates(root.toStdString(), parser.value(catalogOption).toStdString(),
                            tagStore.get());
    templates.start();
    const Tagger tagger(wordNet.get(), &templates);
    TagService tagging(*tagStore, tagger, tagLimits, parser.value(tessdataOption), keys.appKey);

    CatalogServer server(root.toStdString());
    api.install(server);
    tagging.install(server);
    if (parser.isSet(benchOption))
        api.installBenchReference(server);
    const int bound = server.bind(host.toStdString(), port);
    if (bound < 0)
        fail(QStringLiteral("could not listen on %1:%2 (address in use or not available here)")
                 .arg(host)
                 .arg(port),
             1);

    const CatalogSummary summary = CatalogSummary::read(server.files().root());
    std::printf("orvane-server: serving %s at %s (%s); searching %lld items of %s\n",
                qPrintable(QString::fromStdString(server.files().root().string())),
                qPrintable(urlFor(host, bound)), qPrintable(summary.describe()),
                static_cast<long long>(search.itemCount()),
                qPrintable(parser.value(catalogOption)));
    std::fflush(stdout);

    std::atomic<bool> finished{false};
    std::thread signalWaiter([&] {
        int signal = 0;
        sigwait(&stopSignals, &signal);
        if (finished)
            return; // woken by main after serving ended on its own
        std::printf("orvane-server: %s, stopping\n",
                    signal == SIGINT ? "interrupted" : "terminated");
        std::fflush(stdout);
        server.stop();
    });

    const bool served = server.serve();
    finished = true;
    pthread_kill(signalWaiter.native_handle(), SIGTERM);
    signalWaiter.join();
    if (!served)
        fail(QStringLiteral("stopped serving unexpectedly"), 1);
    return 0;
}
