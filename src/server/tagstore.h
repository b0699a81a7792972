// SPDX-License-Identifier: MIT
#pragma once

#include "server/imagehash.h"

#include <QString>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

struct sqlite3;

// What the tagging service keeps, in one SQLite file: the tags it gave each device (never the
// pictures), and the perceptual prints of the catalog's pictures keyed by file, size and
// modification time, so a restart does not decode the whole catalog again.
//
// Any thread may call every method; they are serialised.
class TagStore {
public:
    struct Record {
        std::string device;
        std::string installId;
        std::string collection;
        std::string file;
        std::string tagsJson;
    };
    enum class Added { stored, overCap, failed };

    // Opens (creating) the database file at `path`, creating its folder; nullptr when it
    // cannot (logged).
    static std::unique_ptr<TagStore> open(const QString& path);
    ~TagStore();
    TagStore(const TagStore&) = delete;
    TagStore& operator=(const TagStore&) = delete;

    // Stores `record` unless its device already has `cap` records (then overCap).
    Added add(const Record& record, std::int64_t cap);
    // How many tagged pictures the device has.
    std::int64_t count(const std::string& device);
    // Removes everything kept for the device; the number of records removed, or absent when
    // SQLite fails (logged).
    std::optional<std::int64_t> removeDevice(const std::string& device);

    struct StoredPrint {
        std::int64_t size = 0;
        std::int64_t mtimeNs = 0;
        ImageHash::Print print;
    };
    // Every stored print of a catalog picture, by path: read at once, not one query each.
    std::unordered_map<std::string, StoredPrint> prints();
    void storePrint(const std::string& path, std::int64_t size, std::int64_t mtimeNs,
                    const ImageHash::Print& print);

private:
    explicit TagStore(sqlite3* db) : m_db(db) {}
    bool exec(const char* sql);

    sqlite3* m_db = nullptr;
    std::mutex m_lock;
};
