// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QThreadPool>
#include <functional>

// A named queue that runs its jobs one at a time, in the order they were posted,
// on a background thread. Posting never blocks.
class SerialExecutor {
public:
    explicit SerialExecutor(const QString& name);
    ~SerialExecutor();
    SerialExecutor(const SerialExecutor&) = delete;
    SerialExecutor& operator=(const SerialExecutor&) = delete;

    void post(std::function<void()> job);
    // Blocks until every job posted so far has run. For shutdown and tests.
    void waitForIdle();
    const QString& name() const { return m_name; }

private:
    QString m_name;
    QThreadPool m_pool;
};
