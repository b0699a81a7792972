// SPDX-License-Identifier: MIT
#include "server/catalogfiles.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

namespace {

bool isInside(const fs::path& path, const fs::path& root) {
    return std::mismatch(root.begin(), root.end(), path.begin(), path.end()).first == root.end();
}

std::string lowerExtension(std::string_view fileName) {
    const size_t dot = fileName.rfind('.');
    if (dot == std::string_view::npos || fileName.find('/', dot) != std::string_view::npos)
        return {};
    std::string ext(fileName.substr(dot + 1));
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext;
}

} // namespace

CatalogFiles::CatalogFiles(const fs::path& root) : m_root(fs::canonical(root)) {}

std::optional<fs::path> CatalogFiles::resolve(std::string_view requestPath) const {
    if (requestPath.empty() || requestPath.front() != '/')
        return std::nullopt;
    // The path arrives percent-decoded, so "%2e%2e" and "%00" are plain bytes by now.
    if (requestPath.find('\0') != std::string_view::npos ||
        requestPath.find('\\') != std::string_view::npos)
        return std::nullopt;

    fs::path candidate = m_root;
    bool any = false;
    size_t start = 1;
    while (start <= requestPath.size()) {
        size_t end = requestPath.find('/', start);
        if (end == std::string_view::npos)
            end = requestPath.size();
        const std::string_view segment = requestPath.substr(start, end - start);
        start = end + 1;
        if (segment.empty())
            continue; // "//" from a base URL ending in "/" joined with "/t/1.webp"
        // Covers "." and ".." as well as dot files such as .git or the build stamp.
        if (segment.front() == '.')
            return std::nullopt;
        candidate /= fs::path(std::string(segment));
        any = true;
    }
    if (!any)
        return std::nullopt;

    // canonical() follows every symlink, so a link that points out of the root is caught below.
    std::error_code error;
    const fs::path real = fs::canonical(candidate, error);
    if (error || !isInside(real, m_root) || !fs::is_regular_file(real, error))
        return std::nullopt;
    return real;
}

std::optional<std::string> CatalogFiles::decodeTarget(std::string_view target) {
    target = target.substr(0, target.find_first_of("?#"));
    if (target.empty() || target.front() != '/')
        return std::nullopt;
    const auto hex = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    std::string path;
    path.reserve(target.size());
    for (size_t i = 0; i < target.size(); ++i) {
        char c = target[i];
        if (c == '%') {
            if (target.size() - i < 3)
                return std::nullopt;
            const int high = hex(target[i + 1]);
            const int low = hex(target[i + 2]);
            if (high < 0 || low < 0)
                return std::nullopt;
            c = static_cast<char>(high * 16 + low);
            i += 2;
        }
        if (c == '\0')
            return std::nullopt;
        path += c;
    }
    return path;
}

std::string CatalogFiles::contentType(std::string_view fileName) {
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 14> types{{
        {"json", "application/json"},
        {"png", "image/png"},
        {"jpg", "image/jpeg"},
        {"jpeg", "image/jpeg"},
        {"webp", "image/webp"},
        {"gif", "image/gif"},
        {"heic", "image/heic"},
        {"avif", "image/avif"},
        {"tif", "image/tiff"},
        {"tiff", "image/tiff"},
        {"svg", "image/svg+xml"},
        {"txt", "text/plain; charset=utf-8"},
        {"md", "text/markdown; charset=utf-8"},
        {"csv", "text/csv; charset=utf-8"},
    }};
    const std::string ext = lowerExtension(fileName);
    for (const auto& [known, type] : types)
        if (ext == known)
            return std::string(type);
    return "application/octet-stream";
}
