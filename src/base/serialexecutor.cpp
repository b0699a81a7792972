// SPDX-License-Identifier: MIT
#include "base/serialexecutor.h"

#include <pthread.h>

SerialExecutor::SerialExecutor(const QString& name) : m_name(name) {
    m_thread = std::thread([this] { run(); });
    // Named, so the queue shows up as such in debuggers and top.
    pthread_setname_np(m_thread.native_handle(), name.left(15).toUtf8().constData());
}

SerialExecutor::~SerialExecutor() {
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_one();
    m_thread.join();
}

void SerialExecutor::post(std::function<void()> job) {
    {
        std::lock_guard lock(m_mutex);
        m_jobs.push_back(std::move(job));
    }
    m_wake.notify_one();
}

void SerialExecutor::waitForIdle() {
    std::unique_lock lock(m_mutex);
    m_idle.wait(lock, [this] { return m_jobs.empty() && !m_running; });
}

void SerialExecutor::run() {
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [this] { return !m_jobs.empty() || m_stopping; });
        if (m_jobs.empty())
            return; // stopping, with nothing left to run
        std::function<void()> job = std::move(m_jobs.front());
        m_jobs.pop_front();
        m_running = true;
        lock.unlock();
        job();
        lock.lock();
        m_running = false;
        if (m_jobs.empty())
            m_idle.notify_all();
    }
}
