// SPDX-License-Identifier: MIT
#include "server/catalogserver.h"

#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sys/socket.h>

namespace {

void ignoreSigpipe() {
    // httplib writes with plain send(): a client hanging up mid-response would otherwise kill
    // the whole process with SIGPIPE.
    static std::once_flag once;
    std::call_once(once, [] { std::signal(SIGPIPE, SIG_IGN); });
}

// The Accept-Encoding value without its brotli entry.
std::string withoutBrotli(const std::string& accepted) {
    std::string out;
    std::size_t start = 0;
    while (start <= accepted.size()) {
        std::size_t end = accepted.find(',', start);
        if (end == std::string::npos)
            end = accepted.size();
        std::string token = accepted.substr(start, end - start);
        token.erase(0, token.find_first_not_of(' '));
        if (!token.empty() && token.rfind("br", 0) != 0)
            out += (out.empty() ? "" : ", ") + token;
        start = end + 1;
    }
    return out;
}

bool readWholeFile(const std::filesystem::path& path, std::string& out) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

} // namespace

CatalogServer::CatalogServer(const std::filesystem::path& root) : m_files(root) {
    ignoreSigpipe();
    m_http.set_default_headers({{"X-Content-Type-Options", "nosniff"}});
    // WORKAROUND: Debian's cpp-httplib prefers brotli at its slowest setting, which takes
    // seconds for a catalog-sized document (Qt asks for it); gzip is nearly as small and far
    // faster. The request is ours to adjust before routing.
    m_http.set_pre_routing_handler([](const httplib::Request& request, httplib::Response&) {
        auto& headers = const_cast<httplib::Headers&>(request.headers);
        const auto range = headers.equal_range("Accept-Encoding");
        for (auto it = range.first; it != range.second; ++it)
            it->second = withoutBrotli(it->second);
        return httplib::Server::HandlerResponse::Unhandled;
    });
    // httplib's default also sets SO_REUSEPORT, which lets a second server silently share a
    // port that is already taken. Keep only SO_REUSEADDR, for quick restarts.
    m_http.set_socket_options([](socket_t socket) {
        const int yes = 1;
        ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
}

CatalogServer::~CatalogServer() {
    stop();
    if (m_thread.joinable())
        m_thread.join();
}

int CatalogServer::bind(const std::string& host, int port) {
    if (!m_fileRouteAdded) {
        registerFileRoute();
        m_fileRouteAdded = true;
    }
    m_port =
        port == 0 ? m_http.bind_to_any_port(host) : (m_http.bind_to_port(host, port) ? port : -1);
    return m_port;
}

bool CatalogServer::serve() {
    m_inServe = true;
    bool served = false;
    if (!m_stopRequested && m_port >= 0)
        served = m_http.listen_after_bind();
    m_inServe = false;
    return served || m_stopRequested;
}

int CatalogServer::start(const std::string& host, int port) {
    if (bind(host, port) < 0)
        return -1;
    m_thread = std::thread([this] {
        serve();
        m_serveReturned = true;
    });
    // Waiting until connections are accepted makes a following stop() or request predictable.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!m_http.is_running() && !m_serveReturned && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    return m_http.is_running() ? m_port : -1;
}

void CatalogServer::stop() {
    m_stopRequested = true;
    // httplib's stop() does nothing until listening has begun; wait for that (or for serve()
    // to give up) so a stop that races a start is never lost.
    while (m_inServe && !m_http.is_running())
        std::this_thread::yield();
    m_http.stop();
}

void CatalogServer::registerFileRoute() {
    static constexpr const char* anyPath = "/.*";
    m_http.Get(anyPath, [this](const httplib::Request& request, httplib::Response& response) {
        serveFile(request, response);
    });
}

void CatalogServer::serveFile(const httplib::Request& request, httplib::Response& response) const {
    const auto file = m_files.resolve(request.path);
    std::string body;
    if (!file || !readWholeFile(*file, body)) {
        response.status = 404;
        response.set_content("not found\n", "text/plain; charset=utf-8");
        return;
    }
    const std::string type = CatalogFiles::contentType(request.path);
    // Documents change in place when the catalog is rebuilt; make caches ask again.
    if (type == "application/json")
        response.set_header("Cache-Control", "no-cache");
    // Moved in rather than through set_content(), which would copy a catalog-sized body.
    response.body = std::move(body);
    response.set_header("Content-Type", type);
}
