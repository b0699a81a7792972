// SPDX-License-Identifier: MIT
#include "base/serialexecutor.h"

SerialExecutor::SerialExecutor(const QString& name) : m_name(name) {
    m_pool.setObjectName(name);
    // One thread and one priority: QThreadPool then runs jobs first in, first out.
    m_pool.setMaxThreadCount(1);
    m_pool.setExpiryTimeout(30000);
}

SerialExecutor::~SerialExecutor() { m_pool.waitForDone(); }

void SerialExecutor::post(std::function<void()> job) { m_pool.start(std::move(job)); }

void SerialExecutor::waitForIdle() { m_pool.waitForDone(); }
