// SPDX-License-Identifier: MIT
#pragma once

#include <QLatin1String>
#include <QStringList>
#include <QtGlobal>
#include <mutex>
#include <utility>

// Collects the log lines of every thread while alive: answers are decoded and statements run
// on worker threads. With a category, only that category's lines.
class LogCapture {
public:
    explicit LogCapture(const char* category = nullptr) {
        {
            const std::lock_guard guard(s_mutex);
            s_lines.clear();
            s_category = category;
        }
        m_previous = qInstallMessageHandler(collect);
    }
    ~LogCapture() { qInstallMessageHandler(m_previous); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    QStringList read() const {
        const std::lock_guard guard(s_mutex);
        return s_lines;
    }
    QStringList take() {
        const std::lock_guard guard(s_mutex);
        return std::exchange(s_lines, {});
    }

private:
    static void collect(QtMsgType, const QMessageLogContext& context, const QString& message) {
        const std::lock_guard guard(s_mutex);
        if (!s_category || QLatin1String(context.category) == QLatin1String(s_category))
            s_lines.append(message);
    }
    static inline std::mutex s_mutex;
    static inline QStringList s_lines;
    static inline const char* s_category = nullptr;
    QtMessageHandler m_previous = nullptr;
};
