// SPDX-License-Identifier: MIT
// The catalog server's request handling under arbitrary bytes. The first byte picks the part:
// even — the pure parsers (Range, request target, path resolution, Accept-Encoding) on the
// rest; odd — the rest sent as a raw request to an in-process server on 127.0.0.1, whose
// answer is read until it closes.
#include "server/catalogfiles.h"
#include "server/catalogserver.h"
#include "server/httpparsing.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

// A small catalog folder with a secret beside it, made once per process.
const fs::path& catalogRoot() {
    static const fs::path root = [] {
        std::string base = (fs::temp_directory_path() / "serverrequest-fuzz-XXXXXX").string();
        if (!::mkdtemp(base.data()))
            std::abort();
        const fs::path dir = fs::path(base) / "catalog";
        fs::create_directories(dir / "f");
        std::ofstream(dir / "index.json") << R"([{"id":"a"}])";
        std::ofstream(dir / "f" / "1.png") << "0123456789abcdef";
        std::ofstream(fs::path(base) / "secret.txt") << "secret";
        fs::create_symlink("../secret.txt", dir / "link.txt");
        return dir;
    }();
    return root;
}

void parsers(std::string_view input) {
    const CatalogFiles files(catalogRoot());
    std::uint64_t size = 0;
    for (size_t i = 0; i < 8 && i < input.size(); ++i)
        size = size << 8 | static_cast<unsigned char>(input[i]);
    const std::string_view rest = input.size() > 8 ? input.substr(8) : std::string_view();

    const RangeRequest range = RangeRequest::parse(rest, size);
    if (range.kind == RangeRequest::Kind::Part &&
        (range.length == 0 || range.first >= size || range.length > size - range.first))
        std::abort(); // a part must lie inside the file
    (void)acceptsGzip(rest);

    const auto path = CatalogFiles::decodeTarget(input);
    if (path && path->find('\0') != std::string::npos)
        std::abort();
    if (const auto file = files.resolve(path.value_or(std::string(input)))) {
        // Whatever resolves lies inside the root.
        const std::string root = files.root().string() + '/';
        if (file->string().compare(0, root.size(), root) != 0)
            std::abort();
    }
}

using Clock = std::chrono::steady_clock;

// Waits until `fd` is ready for `events`; false when `deadline` passed first. libFuzzer's -timeout
// keeps a SIGALRM timer going on this thread, and a poll() it interrupts returns early with EINTR:
// that is neither an answer nor a held connection.
bool waitFor(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd p{fd, events, 0};
        const int ready = ::poll(&p, 1, static_cast<int>(std::max<decltype(left)>(left, 0)));
        if (ready >= 0)
            return ready > 0;
        if (errno != EINTR)
            std::abort();
    }
}

void rawRequest(std::string_view input) {
    static CatalogServer* server = [] {
        ServerLimits limits;
        // Short, because a request the input leaves unfinished (one the server cannot tell is
        // cut short, such as a body shorter than announced) is only ended by this deadline.
        limits.requestDeadline = std::chrono::milliseconds(50);
        auto* s = new CatalogServer(catalogRoot(), limits);
        if (s->start("127.0.0.1", 0) < 0)
            std::abort();
        return s;
    }();
    // Generous: a loaded machine running sanitizers may be slow; a held connection is not.
    constexpr auto patience = std::chrono::seconds(20);
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        std::abort();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(server->port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        // An interrupted connect() goes on in the background; its outcome is in SO_ERROR.
        int error = 0;
        socklen_t length = sizeof error;
        if (errno != EINTR || !waitFor(fd, POLLOUT, Clock::now() + patience) ||
            ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0)
            std::abort();
    }
    while (!input.empty()) {
        const ssize_t n = ::send(fd, input.data(), input.size(), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        input.remove_prefix(static_cast<size_t>(n));
    }
    ::shutdown(fd, SHUT_WR);
    // The server must answer and close (or just close) within its request deadline.
    char buffer[65536];
    for (;;) {
        if (!waitFor(fd, POLLIN, Clock::now() + patience)) {
            std::fprintf(stderr, "no answer in 20 s: the server holds the connection\n");
            std::abort();
        }
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
    }
    ::close(fd);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] % 2 == 0)
        parsers(input);
    else
        rawRequest(input);
    return 0;
}
