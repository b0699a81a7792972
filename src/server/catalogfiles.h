// SPDX-License-Identifier: MIT
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

// The files of one catalog folder as the server may hand them out: only regular files that
// really lie inside the folder (after following symlinks), never hidden ones, never folders.
class CatalogFiles {
public:
    // `root` must name an existing folder; it is resolved once, here.
    explicit CatalogFiles(const std::filesystem::path& root);

    const std::filesystem::path& root() const { return m_root; }

    // The file a decoded request path ("/f/1.png") names, or nothing when the path is malformed,
    // has a "." or ".." or hidden segment, leads outside the root, or is not a regular file.
    std::optional<std::filesystem::path> resolve(std::string_view requestPath) const;

    // The path of a raw request target ("/f/a%20b.png?x=1" → "/f/a b.png"): the query and
    // fragment cut off, percent escapes decoded. Nothing for a target that is not a path, has a
    // malformed escape, or would decode to a NUL byte.
    static std::optional<std::string> decodeTarget(std::string_view target);

    // The Content-Type for a file name, chosen by its extension (case-insensitive).
    static std::string contentType(std::string_view fileName);

private:
    std::filesystem::path m_root;
};
