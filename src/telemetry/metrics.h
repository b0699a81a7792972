// SPDX-License-Identifier: MIT
#pragma once

#include "base/serialexecutor.h"

#include <QString>
#include <nlohmann/json.hpp>

// The local, append-only log of timing and outcome events (JSON Lines, sorted keys).
// It never leaves the machine and never blocks or fails the caller.
class Metrics {
public:
    explicit Metrics(QString path);

    // Callable from any thread; returns at once. Adds "event" and "t" (UTC, whole seconds),
    // overriding fields of those names. A write failure drops the line.
    void write(const QString& event, nlohmann::json fields = nlohmann::json::object());
    const QString& path() const { return m_path; }
    // Blocks until the lines logged so far are on disk. For tests and shutdown.
    void flush();

    // The process-wide log at $XDG_STATE_HOME/Glimmet/spike.jsonl.
    static Metrics& shared();
    static void log(const QString& event, nlohmann::json fields = nlohmann::json::object());
    static QString url();
    // Seconds as milliseconds rounded to one decimal, the unit of every timing field.
    static double ms(double seconds);

private:
    QString m_path;
    SerialExecutor m_queue{QStringLiteral("metrics")};
};
