// SPDX-License-Identifier: MIT
#pragma once

#include "server/catalogfiles.h"

#include <atomic>
#include <filesystem>
#include <httplib.h>
#include <string>
#include <thread>

// The catalog server: serves the files of a catalog folder (the JSON documents and the images
// they point at) over plain HTTP. Further endpoints are added to http() before serving starts;
// they take precedence over files, because the file route is registered last.
class CatalogServer {
public:
    // `root` must name an existing folder.
    explicit CatalogServer(const std::filesystem::path& root);
    // Stops serving and joins the background thread, if any.
    ~CatalogServer();
    CatalogServer(const CatalogServer&) = delete;
    CatalogServer& operator=(const CatalogServer&) = delete;

    // For adding endpoints; only before bind().
    httplib::Server& http() { return m_http; }
    const CatalogFiles& files() const { return m_files; }

    // Binds host:port; port 0 picks a free one. Returns the bound port, or -1 when binding fails.
    int bind(const std::string& host, int port);
    // Serves on the calling thread until stop(). False when it could not serve at all.
    bool serve();
    // bind() and serve() on a thread of its own; returns once requests are being accepted.
    // Returns the bound port, or -1.
    int start(const std::string& host, int port);
    // Ends serve() from any thread, also when it has not got going yet. Idempotent.
    void stop();

    int port() const { return m_port; }

private:
    void registerFileRoute();
    void serveFile(const httplib::Request& request, httplib::Response& response) const;

    CatalogFiles m_files;
    httplib::Server m_http;
    std::thread m_thread;
    int m_port = -1;
    std::atomic<bool> m_stopRequested{false};
    bool m_fileRouteAdded = false;
    std::atomic<bool> m_inServe{false};
    std::atomic<bool> m_serveReturned{false};
};
