// SPDX-License-Identifier: MIT
#pragma once

#include <arpa/inet.h>
#include <chrono>
#include <cstdlib>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

// A client socket to 127.0.0.1 that sends bytes exactly as given, for requests no HTTP library
// would send, and for clients that connect and then say nothing.
class RawConnection {
public:
    using Clock = std::chrono::steady_clock;

    struct Reply {
        int status = 0;
        std::string headers; // lower-cased
        std::string body;
    };

    explicit RawConnection(int port) {
        m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (m_fd >= 0 &&
            ::connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            ::close(m_fd);
            m_fd = -1;
        }
    }
    ~RawConnection() {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    bool connected() const { return m_fd >= 0; }

    // False once the server has closed or reset the connection.
    bool send(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t n = ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (n <= 0)
                return false;
            bytes.remove_prefix(static_cast<size_t>(n));
        }
        return true;
    }

    // Says the request is complete: no more bytes will follow (a half-close).
    void finishSending() { ::shutdown(m_fd, SHUT_WR); }

    // One response (its body per Content-Length, else up to the close), or nothing when none
    // came within `timeout`.
    std::optional<Reply> read(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        const auto deadline = Clock::now() + timeout;
        size_t end;
        while ((end = m_buffer.find("\r\n\r\n")) == std::string::npos)
            if (!fill(deadline))
                return std::nullopt;
        Reply reply;
        reply.status = m_buffer.size() > 12 ? std::atoi(m_buffer.c_str() + 9) : 0;
        for (size_t i = 0; i < end; ++i)
            reply.headers +=
                static_cast<char>(std::tolower(static_cast<unsigned char>(m_buffer[i])));
        m_buffer.erase(0, end + 4);
        const size_t at = reply.headers.find("\r\ncontent-length:");
        if (at == std::string::npos) {
            while (fill(deadline)) {
            }
            reply.body = std::move(m_buffer);
            m_buffer.clear();
            return reply;
        }
        const size_t length = std::strtoull(reply.headers.c_str() + at + 17, nullptr, 10);
        while (m_buffer.size() < length)
            if (!fill(deadline))
                return std::nullopt;
        reply.body = m_buffer.substr(0, length);
        m_buffer.erase(0, length);
        return reply;
    }

    // Whether the server closes the connection within `timeout`; meanwhile `trickle` goes out
    // one byte at a time, one every `every`.
    bool closedWithin(std::chrono::milliseconds timeout, std::string_view trickle = {},
                      std::chrono::milliseconds every = std::chrono::milliseconds(50)) {
        const auto deadline = Clock::now() + timeout;
        while (Clock::now() < deadline) {
            pollfd p{m_fd, POLLIN, 0};
            if (::poll(&p, 1, static_cast<int>(every.count())) > 0) {
                char chunk[4096];
                if (::recv(m_fd, chunk, sizeof chunk, 0) <= 0)
                    return true;
                continue;
            }
            if (!trickle.empty()) {
                if (::send(m_fd, trickle.data(), 1, MSG_NOSIGNAL) <= 0)
                    return true;
                trickle.remove_prefix(1);
            }
        }
        return false;
    }

private:
    bool fill(Clock::time_point deadline) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd p{m_fd, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0)
            return false;
        char chunk[65536];
        const ssize_t n = ::recv(m_fd, chunk, sizeof chunk, 0);
        if (n <= 0)
            return false;
        m_buffer.append(chunk, static_cast<size_t>(n));
        return true;
    }

    int m_fd = -1;
    std::string m_buffer;
};

inline std::string rawGet(std::string_view target, std::string_view extraHeaders = {}) {
    return "GET " + std::string(target) + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" +
           std::string(extraHeaders) + "\r\n";
}
