// SPDX-License-Identifier: MIT
#pragma once

#include "support/httptestserver.h"

#include <QByteArray>
#include <QHash>
#include <QString>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

// A server on 127.0.0.1 whose answers the test scripts per path (given without the leading
// slash), in all the ways servers and networks fail: a connection cut part-way through the
// body, a body trickling in far slower than any deadline, one that never ends, a
// decompression bomb, redirects, failures before success, and answers held back until the
// test releases them. Unscripted paths answer 404. It counts the requests per path.
class FaultyServer {
public:
    struct Answer {
        enum Mode { Whole, CutShort, Trickle, Endless, Bomb };
        Answer(int s = 200, QByteArray b = {}, Mode m = Whole)
            : status(s), body(std::move(b)), mode(m) {}

        int status;
        QByteArray body;
        Mode mode;
        int failuresFirst = 0; // answer 500 to this many requests before the scripted answer
        bool held = false;     // wait for release() before answering
        QByteArray location;   // a redirect target

        static Answer redirectTo(QByteArray target) {
            Answer a(302);
            a.location = std::move(target);
            return a;
        }
        Answer& failingFirst(int count) { return failuresFirst = count, *this; }
        Answer& heldBack() { return held = true, *this; }
    };

    FaultyServer() {
        auto& s = m_http.server();
        s.Get(R"(/(.*))",
              [this](const httplib::Request& req, httplib::Response& res) { answer(req, res); });
        // Streams that the client gave up on may hold a worker for a while; enough workers
        // that the next request never waits for one.
        s.new_task_queue = [] { return new httplib::ThreadPool(32); };
        // Without it, delayed acknowledgements add 40 ms to every small answer.
        s.set_tcp_nodelay(true);
        m_started = m_http.start();
    }
    ~FaultyServer() {
        // Handlers use the members below; they must be done before those go away.
        releaseAll();
        m_http.stop();
    }

    bool started() const { return m_started; }
    QUrl base() const { return m_http.url(); }
    void put(const QString& path, Answer answer) {
        std::lock_guard lock(m_mutex);
        m_answers.insert(path, std::move(answer));
    }
    int requests(const QString& path) const {
        std::lock_guard lock(m_mutex);
        return m_requests.value(path);
    }
    void release(const QString& path) {
        std::lock_guard lock(m_mutex);
        m_answers[path].held = false;
        m_changed.notify_all();
    }
    void releaseAll() {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
        m_changed.notify_all();
    }

private:
    void answer(const httplib::Request& req, httplib::Response& res) {
        const QString path = QString::fromStdString(req.path).mid(1);
        std::unique_lock lock(m_mutex);
        const int seen = ++m_requests[path];
        m_changed.wait(lock, [&] { return m_stopping || !m_answers.value(path).held; });
        if (!m_answers.contains(path) || seen <= m_answers.value(path).failuresFirst) {
            res.status = m_answers.contains(path) ? 500 : 404;
            return;
        }
        const Answer a = m_answers.value(path);
        lock.unlock();
        res.status = a.status;
        if (!a.location.isEmpty())
            res.set_header("Location", a.location.toStdString());
        const std::string body = a.body.toStdString();
        const char* type = "application/octet-stream";
        switch (a.mode) {
        case Answer::Whole:
            res.set_content(body, type);
            break;
        case Answer::CutShort: // announces twice what it sends, then hangs up
            res.set_content_provider(body.size() * 2, type,
                                     [body](size_t, size_t, httplib::DataSink& sink) {
                                         sink.write(body.data(), body.size());
                                         return false;
                                     });
            break;
        case Answer::Trickle: // a byte at a time, far slower than any deadline
            res.set_chunked_content_provider(
                type, [this, body, sent = size_t(0)](size_t, httplib::DataSink& sink) mutable {
                    if (m_stopping || sent == body.size() || !sink.is_writable() ||
                        !sink.write(body.data() + sent, 1))
                        return false;
                    ++sent;
                    std::this_thread::sleep_for(std::chrono::milliseconds(200));
                    return true;
                });
            break;
        case Answer::Endless: // a JSON array that never closes, without a length
            res.set_chunked_content_provider(type, [this, chunk = std::string(16 * 1024, ' '),
                                                    first = true](size_t,
                                                                  httplib::DataSink& sink) mutable {
                if (m_stopping)
                    return false;
                const bool ok = first ? sink.write("[", 1) : sink.write(chunk.data(), chunk.size());
                first = false;
                return ok;
            });
            break;
        case Answer::Bomb: { // a few kB that inflate to 50 MB
            const QByteArray zlib = qCompress(QByteArray(50'000'000, '0'), 9).mid(4);
            res.set_header("Content-Encoding", "deflate");
            res.set_content(zlib.toStdString(), type);
            break;
        }
        }
    }

    HttpTestServer m_http;
    bool m_started = false;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    QHash<QString, Answer> m_answers;
    QHash<QString, int> m_requests;
    std::atomic<bool> m_stopping = false;
};
