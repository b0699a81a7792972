// SPDX-License-Identifier: MIT
// orvane-server-load: drives a catalog server on 127.0.0.1 with hostile and busy clients and
// prints what a normal client sees. Every scenario is bounded in connections and time.
//   orvane-server-load latency   --port P --path /f/1.png [--idle 200] [--trickle 20]
//                                [--requests 100] [--seconds 60]
//   orvane-server-load ranges    --port P --path /big.bin --size BYTES [--parts 300]
//                                [--clients 4]
//   orvane-server-load keepalive --port P --path /f/1.png [--clients 200] [--seconds 10]
#include "percentile.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

int g_port = 0;

// A blocking socket to 127.0.0.1:g_port whose reads and writes give up after `timeout`.
int connectLocal(std::chrono::milliseconds timeout) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(timeout.count() / 1000);
    tv.tv_usec = static_cast<suseconds_t>((timeout.count() % 1000) * 1000);
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    const int yes = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(g_port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool sendAll(int fd, const std::string& data) {
    size_t sent = 0;
    while (sent < data.size()) {
        const ssize_t n = ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

struct Reply {
    int status = 0;
    std::uint64_t bodyBytes = 0;
};

// Reads one response (headers, then Content-Length bytes, or up to EOF without one) and keeps
// at most the headers in memory. `pending` carries bytes read past the end into the next call.
std::optional<Reply> readReply(int fd, std::string& pending, bool head = false) {
    std::string buffer = std::move(pending);
    pending.clear();
    char chunk[65536];
    size_t end;
    while ((end = buffer.find("\r\n\r\n")) == std::string::npos) {
        if (buffer.size() > 1 << 20)
            return std::nullopt;
        const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0)
            return std::nullopt;
        buffer.append(chunk, static_cast<size_t>(n));
    }
    Reply reply;
    if (buffer.size() < 12 || buffer.compare(0, 5, "HTTP/") != 0)
        return std::nullopt;
    reply.status = std::atoi(buffer.c_str() + 9);
    std::string headers = buffer.substr(0, end);
    std::transform(headers.begin(), headers.end(), headers.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    std::optional<std::uint64_t> length;
    if (const size_t at = headers.find("\r\ncontent-length:"); at != std::string::npos)
        length = std::strtoull(headers.c_str() + at + 17, nullptr, 10);
    if (head)
        length = 0;
    std::string rest = buffer.substr(end + 4);
    if (length && rest.size() >= *length) {
        reply.bodyBytes = *length;
        pending = rest.substr(*length);
        return reply;
    }
    reply.bodyBytes = rest.size();
    while (!length || reply.bodyBytes < *length) {
        const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n == 0 && !length)
            return reply;
        if (n <= 0)
            return std::nullopt;
        reply.bodyBytes += static_cast<std::uint64_t>(n);
    }
    return reply;
}

std::string get(const std::string& path, const std::string& extra = {}) {
    return "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + extra + "\r\n";
}

double ms(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

struct Options {
    std::map<std::string, std::string> values;
    std::string text(const std::string& name, const std::string& fallback) const {
        const auto it = values.find(name);
        return it == values.end() ? fallback : it->second;
    }
    long number(const std::string& name, long fallback) const {
        const auto it = values.find(name);
        return it == values.end() ? fallback : std::strtol(it->second.c_str(), nullptr, 10);
    }
};

// A normal client's latency (fresh connection per request) while idle and trickling
// connections are held open.
int latency(const Options& options) {
    const std::string path = options.text("path", "/index.json");
    const long idleCount = std::clamp(options.number("idle", 200), 0L, 2000L);
    const long trickleCount = std::clamp(options.number("trickle", 20), 0L, 200L);
    const long requests = std::clamp(options.number("requests", 100), 1L, 10000L);
    const auto budget = std::chrono::seconds(std::clamp(options.number("seconds", 60), 1L, 600L));
    const auto perRequest = std::chrono::milliseconds(30000);

    std::vector<int> idle;
    for (long i = 0; i < idleCount; ++i)
        if (const int fd = connectLocal(perRequest); fd >= 0)
            idle.push_back(fd);
    std::vector<int> tricklers;
    for (long i = 0; i < trickleCount; ++i)
        if (const int fd = connectLocal(perRequest); fd >= 0)
            tricklers.push_back(fd);
    std::atomic<bool> done{false};
    // One byte of a never-ending request on each trickling connection every 2 s.
    std::thread trickle([&] {
        const std::string request = get(path, "X-Slow: ") + std::string(100000, 'a');
        size_t at = 0;
        while (!done) {
            for (const int fd : tricklers)
                ::send(fd, request.data() + at % request.size(), 1, MSG_NOSIGNAL | MSG_DONTWAIT);
            ++at;
            for (int i = 0; i < 20 && !done; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });

    std::vector<double> times;
    long failures = 0;
    const auto start = Clock::now();
    for (long i = 0; i < requests && Clock::now() - start < budget; ++i) {
        const auto begin = Clock::now();
        const int fd = connectLocal(perRequest);
        std::string pending;
        const bool ok = fd >= 0 && sendAll(fd, get(path, "Connection: close\r\n"));
        const auto reply = ok ? readReply(fd, pending) : std::nullopt;
        if (fd >= 0)
            ::close(fd);
        if (reply && reply->status == 200)
            times.push_back(ms(Clock::now() - begin));
        else
            ++failures;
    }
    done = true;
    trickle.join();
    for (const int fd : idle)
        ::close(fd);
    for (const int fd : tricklers)
        ::close(fd);
    std::printf("latency: %zu idle + %zu trickling open; %zu of %ld requests answered, %ld failed; "
                "p50 %.1f ms, p99 %.1f ms, max %.1f ms\n",
                idle.size(), tricklers.size(), times.size(), requests, failures,
                percentile(times, 0.5), percentile(times, 0.99), percentile(times, 1.0));
    return 0;
}

// Concurrent requests for many Range parts of one large file.
int ranges(const Options& options) {
    const std::string path = options.text("path", "/big.bin");
    const auto size = static_cast<std::uint64_t>(std::max(options.number("size", 0), 1L));
    const long parts = std::clamp(options.number("parts", 300), 1L, 1000L);
    const long clients = std::clamp(options.number("clients", 4), 1L, 64L);
    // Parts of 100 KB spread over the whole file.
    std::string range = "Range: bytes=";
    const std::uint64_t stride = size / static_cast<std::uint64_t>(parts);
    for (long i = 0; i < parts; ++i) {
        const std::uint64_t first = static_cast<std::uint64_t>(i) * stride;
        range += (i ? "," : "") + std::to_string(first) + '-' +
                 std::to_string(first + std::min<std::uint64_t>(stride, 102400) - 1);
    }
    range += "\r\n";
    std::vector<std::thread> threads;
    std::vector<Reply> replies(static_cast<size_t>(clients));
    const auto start = Clock::now();
    for (long i = 0; i < clients; ++i)
        threads.emplace_back([&, i] {
            const int fd = connectLocal(std::chrono::milliseconds(120000));
            std::string pending;
            if (fd >= 0 && sendAll(fd, get(path, range + "Connection: close\r\n")))
                if (const auto reply = readReply(fd, pending))
                    replies[static_cast<size_t>(i)] = *reply;
            if (fd >= 0)
                ::close(fd);
        });
    for (auto& thread : threads)
        thread.join();
    std::printf("ranges: %ld clients x %ld parts (%zu-byte request) in %.0f ms:", clients, parts,
                range.size(), ms(Clock::now() - start));
    for (const Reply& reply : replies)
        std::printf(" [%d, %llu bytes]", reply.status,
                    static_cast<unsigned long long>(reply.bodyBytes));
    std::printf("\n");
    return 0;
}

// Requests per second of many clients, each on one kept-alive connection.
int keepalive(const Options& options) {
    const std::string path = options.text("path", "/index.json");
    const long clients = std::clamp(options.number("clients", 200), 1L, 2000L);
    const auto duration = std::chrono::seconds(std::clamp(options.number("seconds", 10), 1L, 120L));
    std::atomic<long> answered{0};
    std::atomic<long> failed{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    const std::string request = get(path);
    for (long i = 0; i < clients; ++i)
        threads.emplace_back([&] {
            while (!go)
                std::this_thread::yield();
            const auto end = Clock::now() + duration;
            int fd = -1;
            std::string pending;
            while (Clock::now() < end) {
                if (fd < 0) {
                    fd = connectLocal(std::chrono::milliseconds(5000));
                    pending.clear();
                    if (fd < 0) {
                        ++failed;
                        continue;
                    }
                }
                const auto reply = sendAll(fd, request) ? readReply(fd, pending) : std::nullopt;
                if (reply && reply->status == 200 && Clock::now() < end) {
                    ++answered;
                } else if (!reply) {
                    ++failed;
                    ::close(fd);
                    fd = -1;
                }
            }
            if (fd >= 0)
                ::close(fd);
        });
    const auto start = Clock::now();
    go = true;
    for (auto& thread : threads)
        thread.join();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("keepalive: %ld clients for %.1f s: %ld answered (%.0f requests/s), %ld failed\n",
                clients, seconds, answered.load(), static_cast<double>(answered) / seconds,
                failed.load());
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s latency|ranges|keepalive --port P [--name value]...\n",
                     argv[0]);
        return 2;
    }
    Options options;
    for (int i = 2; i + 1 < argc; i += 2)
        if (std::strncmp(argv[i], "--", 2) == 0)
            options.values[argv[i] + 2] = argv[i + 1];
    g_port = static_cast<int>(options.number("port", 0));
    if (g_port <= 0 || g_port > 65535) {
        std::fprintf(stderr, "--port is required\n");
        return 2;
    }
    const std::string scenario = argv[1];
    if (scenario == "latency")
        return latency(options);
    if (scenario == "ranges")
        return ranges(options);
    if (scenario == "keepalive")
        return keepalive(options);
    std::fprintf(stderr, "unknown scenario %s\n", scenario.c_str());
    return 2;
}
