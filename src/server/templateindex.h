// SPDX-License-Identifier: MIT
#pragma once

#include "server/imagehash.h"

#include <QString>
#include <QStringList>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

class TagStore;

// The meme templates of the served catalog, recognised by picture: the perceptual hash
// (ImageHash) of every record's full image. The prints are computed on a thread of its own
// after start(), cached in the tag store by file, size and modification time, so a restart
// only reads them back; until then match() answers from those done so far.
//
// match() may be called from any thread.
class TemplateIndex {
public:
    struct Template {
        QString id;
        QString description;
        QString character;
        QStringList emotions;
        QStringList actions;
        QStringList useCases;
        QStringList keywords;
        ImageHash::Print print;
    };
    struct Match {
        Template found;
        int distance = 0;
    };

    // `catalog` is the catalog document (index.json) inside `root`; `cache` may be null.
    // Pictures at most `maxDistance` bits apart count as the same template.
    TemplateIndex(std::filesystem::path root, std::string catalog, TagStore* cache,
                  int maxDistance = 10);
    // Stops hashing.
    ~TemplateIndex();
    TemplateIndex(const TemplateIndex&) = delete;
    TemplateIndex& operator=(const TemplateIndex&) = delete;

    void start();
    // Waits until every template is hashed; false when `timeout` passed first.
    bool waitUntilReady(std::chrono::milliseconds timeout);
    std::size_t size() const;
    // The nearest template within the distance, if any; among templates of about the same
    // shape, the one nearest in colour.
    std::optional<Match> match(const ImageHash::Print& print) const;

private:
    void build();

    std::filesystem::path m_root;
    std::string m_catalog;
    TagStore* m_cache;
    int m_maxDistance;
    std::thread m_builder;
    std::atomic<bool> m_stop{false};
    mutable std::mutex m_lock;
    std::condition_variable m_readyChanged;
    bool m_ready = false;
    std::vector<Template> m_templates;
};
