// SPDX-License-Identifier: MIT
#include "server/catalogserver.h"

#include "server/httpparsing.h"
#include "server/serverlog.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <csignal>
#include <fcntl.h>
#include <microhttpd.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

std::int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

void ignoreSigpipe() {
    // sendfile() to a client that hung up raises SIGPIPE, which would end the whole process.
    static std::once_flag once;
    std::call_once(once, [] { std::signal(SIGPIPE, SIG_IGN); });
}

bool equalsNoCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

std::string_view headerValue(MHD_Connection* connection, const char* name) {
    const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    return value ? std::string_view(value) : std::string_view();
}

bool hasHeader(MHD_Connection* connection, const char* name) {
    return MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name) != nullptr;
}

MHD_Response* bufferResponse(const std::string& body) {
    return MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()),
                                           MHD_RESPMEM_MUST_COPY);
}

// The cached gzip copy is handed to libmicrohttpd without copying; the response holds a
// reference until it is sent.
MHD_Response* sharedResponse(std::shared_ptr<const std::string> body) {
    auto* holder = new std::shared_ptr<const std::string>(std::move(body));
    MHD_Response* response = MHD_create_response_from_buffer_with_free_callback_cls(
        (*holder)->size(), const_cast<char*>((*holder)->data()),
        [](void* cls) { delete static_cast<std::shared_ptr<const std::string>*>(cls); }, holder);
    if (!response)
        delete holder;
    return response;
}

} // namespace

struct CatalogServer::Connection {
    int fd = -1;
    // While a request is being received: since when (the connection opened or the previous
    // answer went out).
    std::atomic<bool> receiving{true};
    std::atomic<std::int64_t> phaseStartNs{nowNs()};
    bool cutOff = false; // guarded by m_connectionsMutex
    std::string target;  // of the request being received
    std::list<Connection*>::iterator self;
};

// The answer of an async route, shared by the exchange and the handler's Respond.
struct CatalogServer::Pending {
    std::mutex lock;
    // Set while the connection is suspended; cleared by whoever resumes it.
    MHD_Connection* suspended = nullptr;
    bool answered = false;
    HttpResponse reply;
};

struct CatalogServer::Exchange {
    std::string target;
    std::shared_ptr<Pending> pending;
    bool started = false;
    bool bodyTooLarge = false;
    bool servesFile = false;
    const Route* route = nullptr;
    HttpRequest request;
};

namespace {

CatalogServer* serverOf(void* cls) {
    return static_cast<CatalogServer*>(cls);
}

CatalogServer::Connection* connectionState(MHD_Connection* connection) {
    const MHD_ConnectionInfo* info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return info ? static_cast<CatalogServer::Connection*>(info->socket_context) : nullptr;
}

// Keeps the raw request target, before libmicrohttpd decodes it into a C string (where "%00"
// would cut the path short). It is kept with the connection, not the request: a request that
// libmicrohttpd refuses itself (too large, no Host) never reaches onCompletedCb to be freed.
void* onUri(void*, const char* uri, MHD_Connection* connection) {
    if (CatalogServer::Connection* state = connectionState(connection))
        state->target = uri ? uri : "";
    return nullptr;
}

MHD_Result onAccess(void* cls, MHD_Connection* connection, const char* url, const char* method,
                    const char*, const char* uploadData, size_t* uploadSize, void** exchange) {
    if (!*exchange) {
        auto* created = new CatalogServer::Exchange;
        const CatalogServer::Connection* state = connectionState(connection);
        created->target = state ? state->target : url;
        *exchange = created;
    }
    return serverOf(cls)->onRequest(connection, method, uploadData, uploadSize, exchange) == MHD_YES
               ? MHD_YES
               : MHD_NO;
}

void onCompletedCb(void* cls, MHD_Connection* connection, void** exchange,
                   MHD_RequestTerminationCode) {
    serverOf(cls)->onCompleted(exchange);
    // The answer is out: the connection now waits for its next request.
    const MHD_ConnectionInfo* info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    if (info && info->socket_context) {
        auto* state = static_cast<CatalogServer::Connection*>(info->socket_context);
        state->phaseStartNs = nowNs();
        state->receiving = true;
    }
}

void onConnectionCb(void* cls, MHD_Connection* connection, void** context,
                    MHD_ConnectionNotificationCode code) {
    serverOf(cls)->onConnection(connection, context, code == MHD_CONNECTION_NOTIFY_STARTED);
}

// Queues `response` (taking it), with the headers every answer carries.
int queue(MHD_Connection* connection, unsigned status, MHD_Response* response) {
    if (!response)
        return MHD_NO;
    MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
    if (CatalogServer::Connection* state = connectionState(connection))
        state->receiving = false;
    const MHD_Result queued = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return queued;
}

int queueText(MHD_Connection* connection, unsigned status, const std::string& text,
              bool close = false) {
    MHD_Response* response = bufferResponse(text);
    if (response) {
        MHD_add_response_header(response, "Content-Type", "text/plain; charset=utf-8");
        // The unread body of a refused request cannot be told apart from a next request.
        if (close)
            MHD_add_response_header(response, "Connection", "close");
    }
    return queue(connection, status, response);
}

int queueReply(MHD_Connection* connection, const HttpResponse& reply) {
    MHD_Response* response = bufferResponse(reply.body);
    if (!response)
        return MHD_NO;
    MHD_add_response_header(response, "Content-Type", reply.contentType.c_str());
    for (const auto& [name, value] : reply.headers)
        MHD_add_response_header(response, name.c_str(), value.c_str());
    return queue(connection, static_cast<unsigned>(reply.status), response);
}

std::string peerOf(MHD_Connection* connection) {
    const MHD_ConnectionInfo* info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    char host[NI_MAXHOST] = {};
    if (!info || !info->client_addr)
        return {};
    const socklen_t length =
        info->client_addr->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    if (::getnameinfo(info->client_addr, length, host, sizeof host, nullptr, 0, NI_NUMERICHOST) !=
        0)
        return {};
    return host;
}

} // namespace

std::string HttpRequest::header(std::string_view name) const {
    for (const auto& [key, value] : headers)
        if (equalsNoCase(key, name))
            return value;
    return {};
}

std::optional<std::string> HttpRequest::argument(std::string_view name) const {
    for (const auto& [key, value] : arguments)
        if (key == name)
            return value;
    return std::nullopt;
}

CatalogServer::CatalogServer(const std::filesystem::path& root, ServerLimits limits)
    : m_files(root), m_limits(limits), m_gzip(8 * 1024 * 1024, 32 * 1024 * 1024) {
    ignoreSigpipe();
}

CatalogServer::~CatalogServer() {
    stop();
    if (m_listenFd >= 0)
        ::close(m_listenFd);
}

void CatalogServer::addRoute(std::string method, std::string path, Handler handler,
                             std::size_t maxBodyBytes, HttpResponse tooLarge) {
    m_routes.push_back({std::move(method), std::move(path), std::move(handler), nullptr,
                        maxBodyBytes, std::move(tooLarge)});
}

void CatalogServer::addAsyncRoute(std::string method, std::string path, AsyncHandler handler,
                                  std::size_t maxBodyBytes, HttpResponse tooLarge) {
    m_routes.push_back({std::move(method), std::move(path), nullptr, std::move(handler),
                        maxBodyBytes, std::move(tooLarge)});
}

int CatalogServer::refuseBody(MHD_Connection* connection, const Route& route) {
    qCWarning(lcServer).noquote() << QString::fromStdString(
        route.method + ' ' + route.path + " from " + peerOf(connection) + ": body over " +
        std::to_string(route.maxBodyBytes) + " bytes, refused (413)");
    if (route.tooLarge.body.empty())
        return queueText(connection, MHD_HTTP_CONTENT_TOO_LARGE, "request body too large\n", true);
    MHD_Response* response = bufferResponse(route.tooLarge.body);
    if (response) {
        MHD_add_response_header(response, "Content-Type", route.tooLarge.contentType.c_str());
        MHD_add_response_header(response, "Connection", "close");
    }
    return queue(connection, MHD_HTTP_CONTENT_TOO_LARGE, response);
}

int CatalogServer::bind(const std::string& host, int port) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
        return -1;
    for (addrinfo* ai = found; ai && m_listenFd < 0; ai = ai->ai_next) {
        // Non-blocking: several event threads accept from this one socket.
        const int fd = ::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                                ai->ai_protocol);
        if (fd < 0)
            continue;
        // SO_REUSEADDR for quick restarts; never SO_REUSEPORT, which would let a second server
        // silently share a port that is already taken.
        const int yes = 1;
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        if (::bind(fd, ai->ai_addr, ai->ai_addrlen) != 0 ||
            ::listen(fd, m_limits.listenBacklog) != 0) {
            ::close(fd);
            continue;
        }
        m_listenFd = fd;
        m_ipv6 = ai->ai_family == AF_INET6;
    }
    ::freeaddrinfo(found);
    if (m_listenFd < 0)
        return -1;
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    ::getsockname(m_listenFd, reinterpret_cast<sockaddr*>(&address), &length);
    m_port = ntohs(address.ss_family == AF_INET6
                       ? reinterpret_cast<const sockaddr_in6*>(&address)->sin6_port
                       : reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
    return m_port;
}

bool CatalogServer::serve() {
    if (!startDaemon()) {
        const std::lock_guard lock(m_stateMutex);
        return m_stopRequested;
    }
    {
        std::unique_lock lock(m_stateMutex);
        m_stateChanged.wait(lock, [this] { return m_stopRequested; });
    }
    stopDaemon();
    return true;
}

int CatalogServer::start(const std::string& host, int port) {
    if (bind(host, port) < 0 || !startDaemon())
        return -1;
    return m_port;
}

void CatalogServer::stop() {
    stopDaemon();
}

bool CatalogServer::startDaemon() {
    const std::lock_guard lock(m_stateMutex);
    if (m_daemon)
        return true;
    if (m_stopRequested || m_listenFd < 0)
        return false;

    unsigned threads = m_limits.threads;
    if (threads == 0)
        threads = std::clamp(std::thread::hardware_concurrency(), 2U, 8U);
    // Each connection needs a descriptor; leave room for the files being sent.
    unsigned connections = m_limits.maxConnections;
    rlimit files{};
    if (::getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur != RLIM_INFINITY)
        connections = static_cast<unsigned>(std::min<rlim_t>(connections, files.rlim_cur / 2));
    // The limit is shared out among the event threads; each needs at least one.
    connections = std::max(connections, threads);

    // poll(), level-triggered, not epoll: libmicrohttpd 0.9.75's edge-triggered epoll loses the
    // end of stream that arrives together with a request's last bytes, so a client that
    // half-closes after its request held its connection until the request deadline.
    const unsigned flags =
        MHD_USE_POLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | (m_ipv6 ? MHD_USE_IPv6 : 0);
    m_daemon = MHD_start_daemon(
        flags, 0, nullptr, nullptr, &onAccess, this, MHD_OPTION_LISTEN_SOCKET, m_listenFd,
        MHD_OPTION_THREAD_POOL_SIZE, threads, MHD_OPTION_CONNECTION_LIMIT, connections,
        MHD_OPTION_CONNECTION_TIMEOUT, m_limits.idleTimeoutSeconds,
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, m_limits.connectionMemory, MHD_OPTION_URI_LOG_CALLBACK,
        &onUri, this, MHD_OPTION_NOTIFY_COMPLETED, &onCompletedCb, this,
        MHD_OPTION_NOTIFY_CONNECTION, &onConnectionCb, this, MHD_OPTION_SIGPIPE_HANDLED_BY_APP, 1,
        MHD_OPTION_END);
    if (!m_daemon)
        return false;
    m_listenFd = -1; // the daemon closes it when it stops
    m_watchdog = std::thread([this] { watch(); });
    return true;
}

void CatalogServer::stopDaemon() {
    const std::lock_guard stopLock(m_stopMutex);
    MHD_Daemon* daemon = nullptr;
    {
        const std::lock_guard lock(m_stateMutex);
        m_stopRequested = true;
        daemon = std::exchange(m_daemon, nullptr);
    }
    m_stateChanged.notify_all();
    if (m_watchdog.joinable())
        m_watchdog.join();
    {
        // libmicrohttpd must not stop with suspended connections; a handler that answers
        // after this finds its connection gone and does nothing.
        std::vector<std::shared_ptr<Pending>> owed;
        {
            const std::lock_guard lock(m_pendingMutex);
            m_refuseAsync = true;
            for (const std::weak_ptr<Pending>& weak : m_pending)
                if (std::shared_ptr<Pending> pending = weak.lock())
                    owed.push_back(std::move(pending));
            m_pending.clear();
        }
        // Each Pending's own lock is taken without m_pendingMutex held: answerLater() takes
        // them the other way round.
        for (const std::shared_ptr<Pending>& pending : owed) {
            const std::lock_guard pendingLock(pending->lock);
            if (!pending->suspended)
                continue;
            pending->answered = true;
            pending->reply = {503, "text/plain; charset=utf-8", "server stopping\n", {}};
            MHD_resume_connection(std::exchange(pending->suspended, nullptr));
        }
    }
    if (daemon)
        MHD_stop_daemon(daemon);
}

void CatalogServer::watch() {
    const auto deadline =
        std::chrono::duration_cast<std::chrono::nanoseconds>(m_limits.requestDeadline).count();
    const auto tick = std::clamp<std::chrono::milliseconds>(m_limits.requestDeadline / 4,
                                                            std::chrono::milliseconds(10),
                                                            std::chrono::milliseconds(500));
    std::unique_lock lock(m_stateMutex);
    while (!m_stateChanged.wait_for(lock, tick, [this] { return m_stopRequested; })) {
        const std::int64_t now = nowNs();
        const std::lock_guard connectionsLock(m_connectionsMutex);
        for (Connection* connection : m_connections) {
            if (connection->cutOff || !connection->receiving ||
                now - connection->phaseStartNs < deadline)
                continue;
            // The daemon sees end-of-stream and closes the connection on its own thread. Safe
            // because the descriptor is only closed after onConnection() has removed it here.
            ::shutdown(connection->fd, SHUT_RDWR);
            connection->cutOff = true;
        }
    }
}

void CatalogServer::onConnection(MHD_Connection* connection, void** context, bool opened) {
    if (opened) {
        auto* state = new Connection;
        const MHD_ConnectionInfo* info =
            MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
        state->fd = info ? info->connect_fd : -1;
        // Small answers go out at once; with Nagle a kept-alive client's second request waits
        // for a delayed ACK.
        const int yes = 1;
        ::setsockopt(state->fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        const std::lock_guard lock(m_connectionsMutex);
        state->self = m_connections.insert(m_connections.end(), state);
        *context = state;
        return;
    }
    auto* state = static_cast<Connection*>(*context);
    if (!state)
        return;
    {
        const std::lock_guard lock(m_connectionsMutex);
        m_connections.erase(state->self);
    }
    delete state;
    *context = nullptr;
}

void CatalogServer::onCompleted(void** exchange) {
    delete static_cast<Exchange*>(*exchange);
    *exchange = nullptr;
}

int CatalogServer::onRequest(MHD_Connection* connection, const char* method, const char* uploadData,
                             std::size_t* uploadSize, void** context) {
    Exchange& exchange = *static_cast<Exchange*>(*context);
    if (!exchange.started) {
        exchange.started = true;
        HttpRequest& request = exchange.request;
        request.method = method;
        request.target = exchange.target;
        request.path = CatalogFiles::decodeTarget(exchange.target).value_or(std::string());

        const int headerCount =
            MHD_get_connection_values(connection, MHD_HEADER_KIND, nullptr, nullptr);
        if (headerCount < 0 || static_cast<unsigned>(headerCount) > m_limits.maxHeaders)
            return queueText(connection, MHD_HTTP_REQUEST_HEADER_FIELDS_TOO_LARGE,
                             "too many headers\n", true);

        const bool pathKnown = std::any_of(m_routes.begin(), m_routes.end(),
                                           [&](const Route& r) { return r.path == request.path; });
        for (const Route& route : m_routes)
            if (route.path == request.path && route.method == request.method)
                exchange.route = &route;
        const bool hasBody = hasHeader(connection, "Transfer-Encoding") ||
                             (hasHeader(connection, "Content-Length") &&
                              headerValue(connection, "Content-Length") != "0");

        if (!exchange.route) {
            const bool fileMethod = request.method == "GET" || request.method == "HEAD";
            if (pathKnown || !fileMethod) {
                MHD_Response* response = bufferResponse("method not allowed\n");
                if (response) {
                    MHD_add_response_header(response, "Content-Type", "text/plain; charset=utf-8");
                    MHD_add_response_header(response, "Connection", "close");
                    if (!pathKnown)
                        MHD_add_response_header(response, "Allow", "GET, HEAD");
                }
                return queue(connection, MHD_HTTP_METHOD_NOT_ALLOWED, response);
            }
            if (hasBody)
                return queueText(connection, MHD_HTTP_CONTENT_TOO_LARGE,
                                 "request body not allowed\n", true);
            exchange.servesFile = true;
            return MHD_YES; // answered on the next call: an answer queued this early closes
        }                   // the connection instead of keeping it alive

        const std::string_view length = headerValue(connection, "Content-Length");
        if (!length.empty()) {
            const auto announced = std::strtoull(std::string(length).c_str(), nullptr, 10);
            if (announced > exchange.route->maxBodyBytes)
                return refuseBody(connection, *exchange.route);
        }
        return MHD_YES;
    }
    if (exchange.servesFile)
        return serveFile(connection, exchange);

    if (*uploadSize > 0) {
        // A chunked body has no announced length; past the limit it is read and dropped.
        std::string& body = exchange.request.body;
        if (!exchange.bodyTooLarge && body.size() + *uploadSize <= exchange.route->maxBodyBytes)
            body.append(uploadData, *uploadSize);
        else
            exchange.bodyTooLarge = true;
        *uploadSize = 0;
        return MHD_YES;
    }
    if (exchange.bodyTooLarge)
        return refuseBody(connection, *exchange.route);
    return answer(connection, exchange);
}

int CatalogServer::answer(MHD_Connection* connection, Exchange& exchange) {
    if (exchange.pending)
        return answerLater(connection, exchange);
    if (exchange.request.headers.empty())
        MHD_get_connection_values(
            connection, MHD_HEADER_KIND,
            [](void* cls, MHD_ValueKind, const char* key, const char* value) {
                static_cast<HttpRequest*>(cls)->headers.emplace_back(key, value ? value : "");
                return MHD_YES;
            },
            &exchange.request);
    if (exchange.request.arguments.empty())
        MHD_get_connection_values(
            connection, MHD_GET_ARGUMENT_KIND,
            [](void* cls, MHD_ValueKind, const char* key, const char* value) {
                static_cast<HttpRequest*>(cls)->arguments.emplace_back(key, value ? value : "");
                return MHD_YES;
            },
            &exchange.request);
    exchange.request.peer = peerOf(connection);
    if (exchange.route->asyncHandler)
        return answerLater(connection, exchange);
    return queueReply(connection, exchange.route->handler(exchange.request));
}

int CatalogServer::answerLater(MHD_Connection* connection, Exchange& exchange) {
    if (!exchange.pending) {
        auto pending = std::make_shared<Pending>();
        exchange.pending = pending;
        exchange.route->asyncHandler(std::move(exchange.request), [pending](HttpResponse reply) {
            const std::lock_guard lock(pending->lock);
            if (pending->answered)
                return;
            pending->answered = true;
            pending->reply = std::move(reply);
            // libmicrohttpd calls onAccess again, on the connection's event thread.
            if (pending->suspended)
                MHD_resume_connection(std::exchange(pending->suspended, nullptr));
        });
        std::unique_lock lock(pending->lock);
        if (!pending->answered) {
            const std::lock_guard pendingLock(m_pendingMutex);
            if (m_refuseAsync) {
                pending->answered = true;
                pending->reply = {503, "text/plain; charset=utf-8", "server stopping\n", {}};
            } else {
                // Suspended under the lock, so an answer from another thread cannot slip in
                // before there is something to resume, and listed under m_pendingMutex, so
                // stop() either sees it or has already made us refuse.
                MHD_suspend_connection(connection);
                pending->suspended = connection;
                m_pending.remove_if([](const std::weak_ptr<Pending>& p) { return p.expired(); });
                m_pending.push_back(pending);
                lock.unlock();
                // The request is in; the deadline for receiving one does not apply while it
                // is being worked on.
                if (Connection* state = connectionState(connection))
                    state->receiving = false;
                return MHD_YES;
            }
        }
    }
    HttpResponse reply;
    {
        const std::lock_guard lock(exchange.pending->lock);
        if (!exchange.pending->answered)
            return MHD_YES; // called again before the answer came
        reply = std::move(exchange.pending->reply);
    }
    return queueReply(connection, reply);
}

int CatalogServer::serveFile(MHD_Connection* connection, const Exchange& exchange) {
    const std::string& path = exchange.request.path;
    const auto file = m_files.resolve(path);
    const int fd = file ? ::open(file->c_str(), O_RDONLY | O_CLOEXEC) : -1;
    struct stat info {};
    if (fd < 0 || ::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        if (fd >= 0)
            ::close(fd);
        return queueText(connection, MHD_HTTP_NOT_FOUND, "not found\n");
    }
    const auto size = static_cast<std::uint64_t>(info.st_size);
    const std::string type = CatalogFiles::contentType(path);
    const bool json = type == "application/json";

    // A Range with If-Range is only honoured when the validator matches, and we hand out none.
    RangeRequest range;
    if (hasHeader(connection, "Range") && !hasHeader(connection, "If-Range"))
        range = RangeRequest::parse(headerValue(connection, "Range"), size);

    MHD_Response* response = nullptr;
    unsigned status = MHD_HTTP_OK;
    std::string contentRange;
    bool gzipped = false;
    switch (range.kind) {
    case RangeRequest::Kind::Unsatisfiable:
    case RangeRequest::Kind::TooManyParts: {
        ::close(fd);
        response = bufferResponse("range not satisfiable\n");
        if (!response)
            return MHD_NO;
        MHD_add_response_header(response, "Content-Type", "text/plain; charset=utf-8");
        MHD_add_response_header(response, "Content-Range",
                                ("bytes */" + std::to_string(size)).c_str());
        return queue(connection, MHD_HTTP_RANGE_NOT_SATISFIABLE, response);
    }
    case RangeRequest::Kind::Part:
        status = MHD_HTTP_PARTIAL_CONTENT;
        contentRange = "bytes " + std::to_string(range.first) + '-' +
                       std::to_string(range.first + range.length - 1) + '/' + std::to_string(size);
        response = MHD_create_response_from_fd_at_offset64(range.length, fd, range.first);
        break;
    case RangeRequest::Kind::Whole:
        if (json && acceptsGzip(headerValue(connection, "Accept-Encoding"))) {
            const GzipCache::Version version{
                static_cast<std::uint64_t>(info.st_dev), static_cast<std::uint64_t>(info.st_ino),
                size,
                static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec};
            if (auto gzip = m_gzip.get(file->string(), version, fd)) {
                ::close(fd);
                response = sharedResponse(std::move(gzip));
                gzipped = true;
                break;
            }
        }
        // Streamed from the file (sendfile), never read into memory.
        response = size == 0 ? MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT)
                             : MHD_create_response_from_fd_at_offset64(size, fd, 0);
        if (size == 0)
            ::close(fd);
        break;
    }
    if (!response) {
        if (!gzipped && size != 0)
            ::close(fd);
        return MHD_NO;
    }
    MHD_add_response_header(response, "Content-Type", type.c_str());
    MHD_add_response_header(response, "Accept-Ranges", "bytes");
    if (!contentRange.empty())
        MHD_add_response_header(response, "Content-Range", contentRange.c_str());
    if (json) {
        // Documents change in place when the catalog is rebuilt; make caches ask again.
        MHD_add_response_header(response, "Cache-Control", "no-cache");
        MHD_add_response_header(response, "Vary", "Accept-Encoding");
    }
    if (gzipped)
        MHD_add_response_header(response, "Content-Encoding", "gzip");
    return queue(connection, status, response);
}
