// SPDX-License-Identifier: MIT
#pragma once

#include "server/catalogfiles.h"
#include "server/gzipcache.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

struct MHD_Daemon;
struct MHD_Connection;

// How much one client may take of the server.
struct ServerLimits {
    // A request's headers (and body) must have arrived this long after the connection opened
    // or the previous answer went out; a kept-alive connection waits no longer for its next
    // request. A client that trickles its request is cut off here.
    std::chrono::milliseconds requestDeadline{10000};
    // A connection on which nothing moves for this long is closed (e.g. a client that stops
    // reading its answer).
    unsigned idleTimeoutSeconds = 30;
    // Connections served at once; further ones wait in the listen backlog, not refused.
    unsigned maxConnections = 1000;
    int listenBacklog = 4096;
    // Per connection, for the request line and headers; larger requests get 431 (or 414).
    std::size_t connectionMemory = 32 * 1024;
    unsigned maxHeaders = 64;
    // Event threads; 0 picks one per core (at least 2).
    unsigned threads = 0;
};

struct HttpRequest {
    std::string method;
    std::string path;   // decoded, without the query
    std::string target; // as sent
    std::vector<std::pair<std::string, std::string>> headers;
    // The query's parameters, decoded, in order.
    std::vector<std::pair<std::string, std::string>> arguments;
    std::string body;
    // The client's address as text ("127.0.0.1", "::1"); empty when unknown.
    std::string peer;
    // The first header of that name (case-insensitive), or empty.
    std::string header(std::string_view name) const;
    // The first query parameter of that name, absent when not given.
    std::optional<std::string> argument(std::string_view name) const;
};

struct HttpResponse {
    int status = 200;
    std::string contentType = "text/plain; charset=utf-8";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
};

// The catalog server: serves the files of a catalog folder (the JSON documents and the images
// they point at) over plain HTTP, event-driven (libmicrohttpd, poll() per event thread), so idle or
// slow clients hold a socket, never a thread. Endpoints added with addRoute() take precedence over
// files.
class CatalogServer {
public:
    using Handler = std::function<HttpResponse(const HttpRequest&)>;
    // Sends the answer to one request; callable from any thread, once (later calls are
    // ignored), also after the server stopped (then it does nothing).
    using Respond = std::function<void(HttpResponse)>;
    // A slow endpoint's handler: it may call `respond` before it returns or later from another
    // thread. Until then the connection is suspended, so its event thread serves the others.
    using AsyncHandler = std::function<void(HttpRequest, Respond)>;

    // `root` must name an existing folder.
    explicit CatalogServer(const std::filesystem::path& root, ServerLimits limits = {});
    // Stops serving.
    ~CatalogServer();
    CatalogServer(const CatalogServer&) = delete;
    CatalogServer& operator=(const CatalogServer&) = delete;

    // An endpoint for `method` on exactly `path`; only before serving starts. A request body
    // larger than `maxBodyBytes` is refused with 413 and `tooLarge`'s body and type when it has
    // one (the endpoint's own error shape), and a log line.
    void addRoute(std::string method, std::string path, Handler handler,
                  std::size_t maxBodyBytes = 0, HttpResponse tooLarge = {});
    // Like addRoute(), for a handler that answers later. Requests still waiting when the
    // server stops get 503.
    void addAsyncRoute(std::string method, std::string path, AsyncHandler handler,
                       std::size_t maxBodyBytes = 0, HttpResponse tooLarge = {});
    const CatalogFiles& files() const { return m_files; }

    // Binds host:port and listens (connections queue from here on); port 0 picks a free one.
    // Returns the bound port, or -1 when binding fails.
    int bind(const std::string& host, int port);
    // Serves until stop(). False when it could not serve at all.
    bool serve();
    // bind() and serving in the background; returns once requests are being accepted.
    // Returns the bound port, or -1.
    int start(const std::string& host, int port);
    // Ends serving from any thread, also when it has not got going yet. Idempotent.
    void stop();

    int port() const { return m_port; }

    // libmicrohttpd's callbacks; public only so the C callbacks in the .cpp can reach them.
    struct Connection;
    struct Exchange;
    struct Pending;
    struct Route {
        std::string method;
        std::string path;
        Handler handler;
        AsyncHandler asyncHandler;
        std::size_t maxBodyBytes = 0;
        HttpResponse tooLarge;
    };
    int onRequest(MHD_Connection* connection, const char* method, const char* uploadData,
                  std::size_t* uploadSize, void** exchange);
    void onConnection(MHD_Connection* connection, void** context, bool opened);
    void onCompleted(void** exchange);

private:
    bool startDaemon();
    void stopDaemon();
    void watch();
    int answer(MHD_Connection* connection, Exchange& exchange);
    int answerLater(MHD_Connection* connection, Exchange& exchange);
    int serveFile(MHD_Connection* connection, const Exchange& exchange);
    int refuseBody(MHD_Connection* connection, const Route& route);

    CatalogFiles m_files;
    ServerLimits m_limits;
    GzipCache m_gzip;
    std::vector<Route> m_routes;
    int m_listenFd = -1;
    bool m_ipv6 = false;
    int m_port = -1;

    std::mutex m_stopMutex; // two stop()s at once wait for each other
    std::mutex m_stateMutex;
    std::condition_variable m_stateChanged;
    bool m_stopRequested = false;
    MHD_Daemon* m_daemon = nullptr;

    // Open connections, for the request deadline; the watchdog shuts overdue ones down.
    std::mutex m_connectionsMutex;
    std::list<Connection*> m_connections;
    std::thread m_watchdog;

    // Requests of async routes whose answer has not come yet, answered with 503 on stop.
    std::mutex m_pendingMutex;
    std::list<std::weak_ptr<Pending>> m_pending;
    // Set by stop(): from then on an async answer is not waited for but refused at once, so
    // no connection is left suspended when libmicrohttpd stops.
    bool m_refuseAsync = false;
};
