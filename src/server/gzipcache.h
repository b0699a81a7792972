// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>

// Gzip copies of the JSON documents, kept in memory so each version of a document is compressed
// once and not once per client. A version is the file's identity, size and modification time,
// so a catalog rebuilt in place (or renamed over the old one) is compressed afresh.
class GzipCache {
public:
    struct Version {
        std::uint64_t device = 0;
        std::uint64_t inode = 0;
        std::uint64_t size = 0;
        std::int64_t mtimeNs = 0;
        bool operator==(const Version&) const = default;
    };

    // Documents larger than `maxDocument` are not compressed; the copies together stay under
    // `maxTotal` (the least recently used go first).
    GzipCache(std::size_t maxDocument, std::size_t maxTotal);

    // The gzip copy of the open file `fd` (at `path`, of `version`), or null when it is too
    // large or cannot be read.
    std::shared_ptr<const std::string> get(const std::string& path, const Version& version, int fd);

private:
    struct Entry {
        std::string path;
        Version version;
        std::shared_ptr<const std::string> gzip;
    };

    std::size_t m_maxDocument;
    std::size_t m_maxTotal;
    std::size_t m_total = 0;
    // Held while compressing, so clients asking at once for a new version wait for one copy.
    std::mutex m_mutex;
    std::list<Entry> m_entries; // most recently used first
};
