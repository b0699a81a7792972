// SPDX-License-Identifier: MIT
#include "telemetry/learning.h"

#include "base/apppaths.h"
#include "base/logcategories.h"
#include "base/urlpath.h"
#include "catalog/debugflags.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <nlohmann/json.hpp>

namespace {

const QString pendingName = QStringLiteral("events_pending.jsonl");
const QString inflightName = QStringLiteral("events_inflight.jsonl");

bool isOwnItem(const QString& id) {
    return id.startsWith(QLatin1String("g_"));
}

// The events of a batch file as one JSON array; lines that do not parse are left out.
std::pair<QByteArray, int> batchOf(const QByteArray& file) {
    nlohmann::json events = nlohmann::json::array();
    for (const QByteArray& line : file.split('\n')) {
        if (line.trimmed().isEmpty())
            continue;
        nlohmann::json event = nlohmann::json::parse(line.begin(), line.end(), nullptr, false);
        if (event.is_object())
            events.push_back(std::move(event));
    }
    return {QByteArray::fromStdString(events.dump()), int(events.size())};
}

} // namespace

Learning::Learning(Options options, QObject* parent)
    : QObject(parent), m_options(std::move(options)) {
    AppPaths::ensureDir(m_options.folder);
    m_timer.setInterval(flushIntervalMs);
    connect(&m_timer, &QTimer::timeout, this, &Learning::flush);
}

Learning::Options Learning::defaultOptions() {
    Options options;
    options.folder = AppPaths::dataDir();
    options.enabled = [] { return DebugFlags::settings().boolean(QStringLiteral("shareUsage")); };
    options.apiBase = [] { return DebugFlags::apiURL(); };
    options.installID = [] { return DebugFlags::installID(); };
    options.appKey = [] { return DebugFlags::appKey(); };
    return options;
}

Learning::~Learning() {
    // Queued appends reach the disk; their hand-backs to this object are then discarded.
    m_queue.waitForIdle();
}

QString Learning::pendingPath() const {
    return QDir(m_options.folder).filePath(pendingName);
}

QString Learning::inflightPath() const {
    return QDir(m_options.folder).filePath(inflightName);
}

void Learning::start() {
    m_timer.start();
    flush();
}

void Learning::recordPick(const QString& query, const QStringList& shown, const QString& picked,
                          const QString& method) {
    if (isOwnItem(picked) || !m_options.enabled())
        return;
    nlohmann::json reported = nlohmann::json::array();
    for (const QString& id : shown) {
        if (reported.size() == shownLimit)
            break;
        if (!isOwnItem(id))
            reported.push_back(id.toStdString());
    }
    // Sorted keys: nlohmann's default object is an ordered map.
    const nlohmann::json event = {
        {"query", query.toStdString()},
        {"results_shown", std::move(reported)},
        {"picked_id", picked.toStdString()},
        {"position", shown.indexOf(picked)},
        {"method", method.toStdString()},
        {"timestamp", QDateTime::currentDateTimeUtc().toString(Qt::ISODate).toStdString()}};
    QByteArray line = QByteArray::fromStdString(
        event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    line += '\n';
    m_queue.post([path = pendingPath(), line] {
        QFile file(path);
        // One write of a whole line: a crash leaves at most a torn last line, which the
        // upload drops.
        if (file.open(QIODevice::WriteOnly | QIODevice::Append))
            file.write(line);
    });
}

void Learning::flush() {
    if (m_uploading || !m_options.enabled())
        return;
    m_uploading = true;
    m_queue.post([this, pending = pendingPath(), inflight = inflightPath()] {
        // A batch left in flight (failed upload, or a crash during one) goes first and as it
        // is; new events keep collecting in the pending file meanwhile.
        if (!QFile::exists(inflight) && !QFile::rename(pending, inflight)) {
            QMetaObject::invokeMethod(this, [this] { m_uploading = false; });
            return;
        }
        QFile file(inflight);
        const QByteArray bytes = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        file.close();
        // Not a structured binding: clang cannot capture those.
        const std::pair<QByteArray, int> batch = batchOf(bytes);
        const QByteArray body = batch.first;
        const int events = batch.second;
        if (events == 0) {
            QFile::remove(inflight);
            QMetaObject::invokeMethod(this, [this] { m_uploading = false; });
            return;
        }
        QMetaObject::invokeMethod(this, [this, body, events] { upload(body, events); });
    });
}

void Learning::upload(const QByteArray& body, int events) {
    if (!m_network)
        m_network = new QNetworkAccessManager(this);
    QNetworkRequest request(appendedPath(m_options.apiBase(), QStringLiteral("v1/events")));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    request.setRawHeader("x-install-id", m_options.installID().toUtf8());
    if (const auto key = m_options.appKey())
        request.setRawHeader("x-app-key", key->toUtf8());
    request.setTransferTimeout(m_options.uploadTimeoutMs);
    QNetworkReply* reply = m_network->post(request, body);
    connect(reply, &QNetworkReply::finished, this, [this, reply, events] {
        reply->deleteLater();
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        const bool delivered = reply->error() == QNetworkReply::NoError && status == 200;
        if (!delivered)
            qCInfo(lcTelemetry).noquote()
                << "usage upload failed:"
                << (status != 0 ? QString::number(status) : reply->errorString());
        auto finish = [this, delivered, events] {
            m_uploading = false;
            emit uploadFinished(delivered, events);
        };
        if (!delivered) {
            finish();
            return;
        }
        m_queue.post([this, inflight = inflightPath(), finish] {
            QFile::remove(inflight);
            QMetaObject::invokeMethod(this, finish);
        });
    });
}

void Learning::waitForIdle() {
    m_queue.waitForIdle();
}
