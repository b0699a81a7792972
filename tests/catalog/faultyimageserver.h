// SPDX-License-Identifier: MIT
#pragma once

#include "support/httptestserver.h"

#include <QByteArray>
#include <QHash>
#include <QString>
#include <condition_variable>
#include <mutex>

// An image server on 127.0.0.1 whose answers the test scripts per path: a status, a body,
// a connection cut part-way through the body, failures before success, and answers held
// back until the test releases them. It counts the requests per path.
class FaultyImageServer {
public:
    struct Answer {
        int status = 200;
        QByteArray body;
        qint64 cutAfter = -1;  // announce the whole body but close after this many bytes
        int failuresFirst = 0; // answer 500 to this many requests before the scripted answer
        bool held = false;     // wait for release() before answering
        QByteArray location;   // a redirect target

        static Answer of(QByteArray body, int status = 200) {
            Answer a;
            a.body = std::move(body);
            a.status = status;
            return a;
        }
        static Answer redirectTo(QByteArray target) {
            Answer a;
            a.status = 302;
            a.location = std::move(target);
            return a;
        }
        Answer& cutAt(qint64 bytes) { return cutAfter = bytes, *this; }
        Answer& failingFirst(int count) { return failuresFirst = count, *this; }
        Answer& heldBack() { return held = true, *this; }
    };

    FaultyImageServer() {
        m_http.server().Get(R"(/(.*))", [this](const httplib::Request& req,
                                               httplib::Response& res) { answer(req, res); });
        // Without it, delayed acknowledgements add 40 ms to every small answer.
        m_http.server().set_tcp_nodelay(true);
        m_started = m_http.start();
    }
    ~FaultyImageServer() {
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
        if (!m_answers.contains(path)) {
            res.status = 404;
            return;
        }
        const Answer a = m_answers.value(path);
        if (seen <= a.failuresFirst) {
            res.status = 500;
            return;
        }
        res.status = a.status;
        if (!a.location.isEmpty())
            res.set_header("Location", a.location.toStdString());
        const std::string body = a.body.toStdString();
        if (a.cutAfter < 0) {
            res.set_content(body, "application/octet-stream");
            return;
        }
        res.set_content_provider(
            body.size(), "application/octet-stream",
            [body, cut = size_t(a.cutAfter)](size_t, size_t, httplib::DataSink& sink) {
                sink.write(body.data(), cut);
                return false; // drops the connection
            });
    }

    HttpTestServer m_http;
    bool m_started = false;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    QHash<QString, Answer> m_answers;
    QHash<QString, int> m_requests;
    bool m_stopping = false;
};
