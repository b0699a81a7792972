// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

// A named queue that runs its jobs one at a time, in the order they were posted, on its own
// background thread. Posting never blocks. Built on the standard library's primitives so
// that ThreadSanitizer sees every hand-over (Qt's own are invisible to it).
class SerialExecutor {
public:
    explicit SerialExecutor(const QString& name);
    // Runs what was posted, then ends the thread.
    ~SerialExecutor();
    SerialExecutor(const SerialExecutor&) = delete;
    SerialExecutor& operator=(const SerialExecutor&) = delete;

    void post(std::function<void()> job);
    // Blocks until every job posted so far has run. For shutdown and tests.
    void waitForIdle();
    const QString& name() const { return m_name; }

private:
    void run();

    QString m_name;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::condition_variable m_idle;
    std::deque<std::function<void()>> m_jobs;
    bool m_running = false;
    bool m_stopping = false;
    std::thread m_thread;
};
