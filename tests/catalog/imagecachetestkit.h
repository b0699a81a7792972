// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/memestore.h"
#include "faultyserver.h"
#include "support/testenv.h"
#include "telemetry/loggedevents.h"

#include <QTest>
#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

// What the image cache tests share: a faulty server, a private cache folder and metrics log,
// and a clock the test moves by hand.
struct ImageCacheRig {
    FaultyServer server;
    QString root = TestEnv::freshDir();
    Metrics log{root + QStringLiteral("/spike.jsonl")};
    std::shared_ptr<std::atomic<qint64>> clockMs =
        std::make_shared<std::atomic<qint64>>(QDateTime::currentMSecsSinceEpoch());

    MemeStore::Options options() {
        MemeStore::Options o;
        o.base = server.base();
        o.cacheDir = root + QStringLiteral("/cache/full");
        o.clock = [ms = clockMs] { return QDateTime::fromMSecsSinceEpoch(*ms, Qt::UTC); };
        o.metrics = &log;
        o.transferTimeoutMs = 10000;
        return o;
    }
    void advance(qint64 ms) { *clockMs += ms; }

    std::vector<nlohmann::json> events(const char* name) { return loggedEvents(log, name); }
};

inline Meme imageItem(const QString& id, const QString& full, qint64 bytes = 0,
                      const QString& thumb = {}) {
    Meme m;
    m.id = id;
    m.full = full;
    m.thumb = thumb.isEmpty() ? QStringLiteral("t/%1.png").arg(id) : thumb;
    m.bytes = bytes;
    return m;
}

// Polls the event loop until `done` holds; generous, since sanitizer builds are slow.
inline bool eventually(const std::function<bool()>& done) {
    return QTest::qWaitFor(done, 15000);
}

// ensureFull, waiting for its answer on the event loop.
inline std::optional<QUrl> fetchFull(MemeStore& store, const Meme& meme) {
    // Shared, so a late answer after a failed wait lands somewhere valid.
    auto got = std::make_shared<std::optional<std::optional<QUrl>>>();
    store.ensureFull(meme, [got](std::optional<QUrl> file) { *got = file; });
    if (!eventually([&] { return got->has_value(); })) {
        ADD_FAILURE() << "no answer for " << meme.id.toStdString();
        return std::nullopt;
    }
    return **got;
}
