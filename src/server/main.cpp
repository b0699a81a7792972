// SPDX-License-Identifier: MIT
// orvane-server: hosts a catalog folder (index.json, index_stress.json, collections.json,
// stickers.json and the images they name) for Orvane over plain HTTP.
#include "server/catalogserver.h"
#include "server/catalogsummary.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>
#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
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

    CatalogServer server(root.toStdString());
    const int bound = server.bind(host.toStdString(), port);
    if (bound < 0)
        fail(QStringLiteral("could not listen on %1:%2 (address in use or not available here)")
                 .arg(host)
                 .arg(port),
             1);

    const CatalogSummary summary = CatalogSummary::read(server.files().root());
    std::printf("orvane-server: serving %s at %s (%s)\n",
                qPrintable(QString::fromStdString(server.files().root().string())),
                qPrintable(urlFor(host, bound)), qPrintable(summary.describe()));
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
