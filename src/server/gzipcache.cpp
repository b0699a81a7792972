// SPDX-License-Identifier: MIT
#include "server/gzipcache.h"

#include <unistd.h>
#include <vector>
#include <zlib.h>

namespace {

std::shared_ptr<const std::string> compress(int fd, std::uint64_t size) {
    z_stream stream{};
    // 15 window bits + 16: a gzip wrapper rather than zlib's own.
    if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) !=
        Z_OK)
        return nullptr;
    auto out = std::make_shared<std::string>();
    std::vector<unsigned char> in(64 * 1024);
    std::vector<unsigned char> chunk(64 * 1024);
    std::uint64_t offset = 0;
    bool ok = true;
    int flush = Z_NO_FLUSH;
    while (ok && flush != Z_FINISH) {
        const ssize_t got = ::pread(fd, in.data(), in.size(), static_cast<off_t>(offset));
        if (got < 0) {
            ok = false;
            break;
        }
        offset += static_cast<std::uint64_t>(got);
        flush = got == 0 || offset >= size ? Z_FINISH : Z_NO_FLUSH;
        stream.next_in = in.data();
        stream.avail_in = static_cast<uInt>(got);
        do {
            stream.next_out = chunk.data();
            stream.avail_out = static_cast<uInt>(chunk.size());
            if (deflate(&stream, flush) == Z_STREAM_ERROR) {
                ok = false;
                break;
            }
            out->append(reinterpret_cast<const char*>(chunk.data()),
                        chunk.size() - stream.avail_out);
        } while (stream.avail_out == 0);
    }
    deflateEnd(&stream);
    // A file that changed while being read is not cached under the version seen before.
    if (!ok || offset != size)
        return nullptr;
    return out;
}

} // namespace

GzipCache::GzipCache(std::size_t maxDocument, std::size_t maxTotal)
    : m_maxDocument(maxDocument), m_maxTotal(maxTotal) {}

std::shared_ptr<const std::string> GzipCache::get(const std::string& path, const Version& version,
                                                  int fd) {
    if (version.size > m_maxDocument)
        return nullptr;
    const std::lock_guard lock(m_mutex);
    for (auto it = m_entries.begin(); it != m_entries.end(); ++it) {
        if (it->path != path)
            continue;
        if (it->version == version) {
            m_entries.splice(m_entries.begin(), m_entries, it);
            return it->gzip;
        }
        m_total -= it->gzip->size();
        m_entries.erase(it);
        break;
    }
    auto gzip = compress(fd, version.size);
    if (!gzip || gzip->size() > m_maxTotal)
        return gzip;
    while (!m_entries.empty() && m_total + gzip->size() > m_maxTotal) {
        m_total -= m_entries.back().gzip->size();
        m_entries.pop_back();
    }
    m_entries.push_front({path, version, gzip});
    m_total += gzip->size();
    return gzip;
}
