// SPDX-License-Identifier: MIT
#include "telemetry/metrics.h"

#include "base/apppaths.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cmath>

Metrics::Metrics(QString path) : m_path(std::move(path)) {
    QDir().mkpath(QFileInfo(m_path).absolutePath());
}

void Metrics::write(const QString& event, nlohmann::json fields) {
    if (!fields.is_object())
        fields = nlohmann::json::object();
    fields["event"] = event.toStdString();
    m_queue.post([this, fields = std::move(fields)]() mutable {
        fields["t"] = QDateTime::currentDateTimeUtc().toString(Qt::ISODate).toStdString();
        std::string line;
        try {
            line = fields.dump() + '\n';
        } catch (const nlohmann::json::exception&) {
            return; // e.g. a field holding invalid UTF-8
        }
        QFile file(m_path);
        // One write call per line, and only this queue writes, so lines never interleave.
        if (file.open(QIODevice::WriteOnly | QIODevice::Append))
            file.write(line.data(), qint64(line.size()));
    });
}

void Metrics::flush() { m_queue.waitForIdle(); }

Metrics& Metrics::shared() {
    static Metrics instance(url());
    return instance;
}

void Metrics::log(const QString& event, nlohmann::json fields) {
    shared().write(event, std::move(fields));
}

QString Metrics::url() { return AppPaths::stateDir() + QStringLiteral("/spike.jsonl"); }

double Metrics::ms(double seconds) { return std::round(seconds * 10000.0) / 10.0; }
