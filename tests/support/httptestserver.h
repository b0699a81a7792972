// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QUrl>
#include <httplib.h>
#include <thread>

// A real HTTP server on 127.0.0.1 and a free port, running on its own thread for the
// lifetime of the object. Register handlers on server() before start().
class HttpTestServer {
public:
    HttpTestServer() = default;
    ~HttpTestServer() { stop(); }
    HttpTestServer(const HttpTestServer&) = delete;
    HttpTestServer& operator=(const HttpTestServer&) = delete;

    httplib::Server& server() { return m_server; }

    // Binds and starts serving; returns false when no port could be bound.
    bool start() {
        m_port = m_server.bind_to_any_port("127.0.0.1");
        if (m_port <= 0)
            return false;
        // The socket already listens, so clients may connect before the thread runs.
        m_thread = std::thread([this] { m_server.listen_after_bind(); });
        // stop() is a no-op until the loop runs, so do not hand out a server that is not.
        while (!m_server.is_running())
            std::this_thread::yield();
        return true;
    }
    void stop() {
        m_server.stop();
        if (m_thread.joinable())
            m_thread.join();
    }
    int port() const { return m_port; }
    QUrl url() const { return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(m_port)); }

private:
    httplib::Server m_server;
    std::thread m_thread;
    int m_port = 0;
};
