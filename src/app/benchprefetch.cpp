// SPDX-License-Identifier: MIT
#include "app/benchprefetch.h"

#include "catalog/memestore.h"
#include "telemetry/metrics.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QTemporaryDir>
#include <QTimer>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <httplib.h>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

namespace {

constexpr double linkBytesPerSecond = 2'000'000;
constexpr int imageBytes = 400'000;
constexpr int resultCount = 24;
// The picker asks for the selection followed by the first 12 results.
constexpr int prefetchWindow = 12;
constexpr int keyRepeatMs = 150;
// Down presses before Enter, one trial each.
constexpr int movesPerTrial[] = {2, 4, 5, 6, 8, 10, 12, 14};

// One image server behind one slow link: every connection's bytes queue for the same wire,
// so parallel downloads split the bandwidth between them as they would on a real line.
class ThrottledServer {
public:
    ThrottledServer() : m_image(imageBytes, 'j') {
        // More workers than the client will ever open connections.
        m_server.set_tcp_nodelay(true);
        m_server.new_task_queue = [] { return new httplib::ThreadPool(32); };
        m_server.Get(R"(/img/(\d+)\.jpg)", [this](const httplib::Request&, httplib::Response& res) {
            ++m_requests;
            res.set_content_provider(m_image.size(), "image/jpeg",
                                     [this](size_t offset, size_t length, httplib::DataSink& sink) {
                                         const size_t n = std::min<size_t>(length, chunkBytes);
                                         sendSlot(n);
                                         if (!sink.write(m_image.data() + offset, n))
                                             return false;
                                         m_bytesSent += n;
                                         return true;
                                     });
        });
    }
    ~ThrottledServer() {
        m_server.stop();
        if (m_thread.joinable())
            m_thread.join();
    }

    bool start() {
        m_port = m_server.bind_to_any_port("127.0.0.1");
        if (m_port <= 0)
            return false;
        m_thread = std::thread([this] { m_server.listen_after_bind(); });
        while (!m_server.is_running())
            std::this_thread::yield();
        return true;
    }
    QUrl url() const { return QUrl(QStringLiteral("http://127.0.0.1:%1/").arg(m_port)); }
    int requests() const { return m_requests; }
    qint64 bytesSent() const { return m_bytesSent; }

private:
    static constexpr size_t chunkBytes = 8192;

    // Books the next free slot on the wire for `bytes` and waits until it has passed.
    void sendSlot(size_t bytes) {
        using Clock = std::chrono::steady_clock;
        const auto length = std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(double(bytes) / linkBytesPerSecond));
        Clock::time_point done;
        {
            std::lock_guard lock(m_wire);
            m_wireFree = std::max(m_wireFree, Clock::now()) + length;
            done = m_wireFree;
        }
        std::this_thread::sleep_until(done);
    }

    const std::string m_image;
    httplib::Server m_server;
    std::thread m_thread;
    int m_port = 0;
    std::mutex m_wire;
    std::chrono::steady_clock::time_point m_wireFree{};
    std::atomic<int> m_requests{0};
    std::atomic<qint64> m_bytesSent{0};
};

struct Mode {
    const char* label;
    int maxConcurrentPrefetch;
    bool preemptOnDemand;
};

struct Trial {
    double waitMs = 0;
    bool ok = false;
};

// Presses Down `moves` times, one press per key-repeat interval, re-asking for prefetches as
// the picker does, then presses Enter and times the wait for the selected image.
Trial runTrial(const QUrl& base, const Mode& mode, int trial, int moves, Metrics& log) {
    QTemporaryDir cache;
    MemeStore::Options options;
    options.base = base;
    options.cacheDir = cache.path() + QStringLiteral("/full");
    options.metrics = &log;
    options.maxConcurrentPrefetch = mode.maxConcurrentPrefetch;
    options.preemptOnDemand = mode.preemptOnDemand;
    MemeStore store(options);

    QList<Meme> results;
    for (int i = 0; i < resultCount; ++i) {
        Meme m;
        m.id = QStringLiteral("bench_%1_%2").arg(trial).arg(i);
        m.full = QStringLiteral("img/%1.jpg").arg(trial * 100 + i);
        m.bytes = imageBytes;
        results.append(m);
    }
    const auto wishList = [&](int selected) {
        QList<Meme> wish{results[selected]};
        wish += results.mid(0, prefetchWindow);
        return wish;
    };

    Trial outcome;
    QEventLoop loop;
    bool done = false;
    int selected = 0;
    store.prefetch(wishList(selected));
    QTimer keys;
    keys.setInterval(keyRepeatMs);
    QObject::connect(&keys, &QTimer::timeout, &loop, [&] {
        if (selected < moves) {
            store.prefetch(wishList(++selected));
            return;
        }
        keys.stop();
        QElapsedTimer waited;
        waited.start();
        store.ensureFull(results[selected], [&, waited](std::optional<QUrl> file) {
            outcome = {double(waited.nsecsElapsed()) / 1e6, file.has_value()};
            done = true;
            loop.quit();
        });
    });
    keys.start();
    QTimer::singleShot(120'000, &loop, &QEventLoop::quit);
    if (!done)
        loop.exec();
    return outcome;
}

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    const size_t rank = size_t(std::ceil(p * double(values.size())));
    return values[std::clamp<size_t>(rank, 1, values.size()) - 1];
}

} // namespace

int runPrefetchBench(QTextStream& out) {
    ThrottledServer server;
    if (!server.start()) {
        out << "bench-prefetch: could not start the local server" << Qt::endl;
        return 1;
    }
    // The benchmark's own waits must not land in the user's metrics log.
    QTemporaryDir scratch;
    Metrics log(scratch.path() + QStringLiteral("/spike.jsonl"));

    const Mode modes[] = {{"scheduler (selected + 1, on-demand pre-empts)", 1, true},
                          {"unprioritised (12 parallel, no pre-emption)", prefetchWindow, false}};
    constexpr int modeCount = int(std::size(modes));
    constexpr int trials = int(std::size(movesPerTrial));
    std::vector<double> waits[modeCount];
    int ok[modeCount] = {};
    int requests[modeCount] = {};
    qint64 bytes[modeCount] = {};

    out.setRealNumberNotation(QTextStream::FixedNotation);
    out.setRealNumberPrecision(1);
    out << "bench-prefetch: link " << linkBytesPerSecond / 1e6
        << " MB/s shared by all connections, " << resultCount << " results of " << imageBytes / 1000
        << " kB, " << trials << " trials: Down every " << keyRepeatMs << " ms, Enter after "
        << movesPerTrial[0] << " to " << movesPerTrial[trials - 1] << " presses" << Qt::endl;
    // Alternating modes trial by trial keeps any drift of the machine out of the comparison.
    for (int t = 0; t < trials; ++t) {
        for (int m = 0; m < modeCount; ++m) {
            const int requestsBefore = server.requests();
            const qint64 bytesBefore = server.bytesSent();
            const Trial trial = runTrial(server.url(), modes[m], t, movesPerTrial[t], log);
            waits[m].push_back(trial.waitMs);
            ok[m] += trial.ok ? 1 : 0;
            requests[m] += server.requests() - requestsBefore;
            bytes[m] += server.bytesSent() - bytesBefore;
        }
    }

    double medians[modeCount];
    for (int m = 0; m < modeCount; ++m) {
        medians[m] = percentile(waits[m], 0.5);
        const double mean =
            std::accumulate(waits[m].begin(), waits[m].end(), 0.0) / double(waits[m].size());
        out << "bench-prefetch: " << modes[m].label << ": wait p50 " << medians[m] << " ms, p90 "
            << percentile(waits[m], 0.9) << " ms, max " << percentile(waits[m], 1.0) << " ms, mean "
            << mean << " ms; " << ok[m] << "/" << trials << " images; " << requests[m]
            << " requests, " << double(bytes[m]) / 1e6 << " MB sent" << Qt::endl;
    }
    if (medians[0] > 0)
        out << "bench-prefetch: median wait " << medians[1] / medians[0]
            << "x shorter with the scheduler" << Qt::endl;
    else
        out << "bench-prefetch: median wait 0 ms with the scheduler (image already prefetched)"
            << Qt::endl;
    return ok[0] == trials && ok[1] == trials ? 0 : 1;
}
