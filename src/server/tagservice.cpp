// SPDX-License-Identifier: MIT
#include "server/tagservice.h"

#include "catalog/ocrengine.h"
#include "server/jsonresponse.h"
#include "server/serverlog.h"
#include "server/tagger.h"
#include "server/tagstore.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QImageReader>
#include <QUrl>
#include <clocale>
#include <cmath>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::ordered_json;

HttpResponse refusal(const HttpRequest& request, int status, const std::string& code,
                     const std::string& message) {
    qCWarning(lcServer).noquote() << QString::fromStdString(
        request.method + ' ' + request.path + " from " + request.peer + ": " + message + " (" +
        std::to_string(status) + ')');
    return jsonResponse(status, {{"code", code}, {"error", message}});
}

HttpResponse retryLater(HttpResponse response, int seconds) {
    response.headers.emplace_back("Retry-After", std::to_string(seconds));
    return response;
}

bool sameKey(const std::string& given, const std::string& expected) {
    const auto digest = [](const std::string& key) {
        return QCryptographicHash::hash(QByteArrayView(key), QCryptographicHash::Sha256);
    };
    return digest(given) == digest(expected);
}

std::string percentDecoded(const std::string& value) {
    return QUrl::fromPercentEncoding(QByteArray::fromStdString(value)).toStdString();
}

constexpr std::size_t maxDeviceIdBytes = 200;

} // namespace

TagService::TagService(TagStore& store, const Tagger& tagger, TagLimits limits, QString tessdata,
                       std::string appKey)
    : m_store(store), m_tagger(tagger), m_limits(limits), m_tessdata(std::move(tessdata)),
      m_appKey(std::move(appKey)), m_rate(limits.perMinute / 60, std::max(1.0, limits.perMinute)) {
    // Tesseract parses its model's numbers with the C library and needs the "C" locale for
    // them, which QCoreApplication replaced with the user's. Set here, before any worker
    // thread exists, because setlocale() is not thread-safe.
    std::setlocale(LC_NUMERIC, "C");
    limitDecoding(m_limits);
    for (int i = 0; i < std::max(1, m_limits.workers); ++i)
        m_workers.emplace_back([this] { work(); });
}

TagService::~TagService() {
    {
        const std::lock_guard lock(m_queueLock);
        m_stopping = true;
    }
    m_queueChanged.notify_all();
    for (std::thread& worker : m_workers)
        worker.join();
    for (auto& [job, respond] : m_queue)
        respond(jsonResponse(503, {{"code", "stopping"}, {"error", "server stopping"}}));
}

void TagService::install(CatalogServer& server) {
    server.addAsyncRoute(
        "POST", "/v1/import/tag",
        [this](HttpRequest request, CatalogServer::Respond respond) {
            tag(std::move(request), std::move(respond));
        },
        m_limits.maxBodyBytes,
        jsonResponse(
            413, {{"code", "too_large"},
                  {"error", "picture over " + std::to_string(m_limits.maxBodyBytes) + " bytes"}}));
    server.addRoute("DELETE", "/v1/import/data",
                    [this](const HttpRequest& request) { return deleteData(request); });
}

void TagService::tag(HttpRequest request, CatalogServer::Respond respond) {
    if (!m_appKey.empty() && !sameKey(request.header("x-app-key"), m_appKey))
        return respond(refusal(request, 401, "bad_app_key", "x-app-key missing or wrong"));
    const std::string device = request.header("X-Device");
    if (device.empty() || device.size() > maxDeviceIdBytes)
        return respond(refusal(request, 400, "missing_device",
                               "X-Device header required (at most 200 bytes)"));
    if (request.body.empty())
        return respond(refusal(request, 400, "empty_body", "no picture in the request body"));

    if (const std::optional<Refusal> refused = checkPicture(request.body, m_limits))
        return respond(refusal(request, refused->status, refused->code, refused->error));

    if (m_store.count(device) >= m_limits.perDeviceCap)
        return respond(refusal(request, 429, "device_cap",
                               "this device has " + std::to_string(m_limits.perDeviceCap) +
                                   " tagged pictures, the most kept per device"));
    if (!m_rate.allow(device))
        return respond(retryLater(
            refusal(request, 429, "rate_limited", "too many pictures from this device; slow down"),
            int(std::ceil(60 / std::max(1.0, m_limits.perMinute)))));

    std::unique_lock lock(m_queueLock);
    if (m_stopping || m_queue.size() >= m_limits.maxQueued) {
        lock.unlock();
        return respond(retryLater(
            refusal(request, 503, "busy", "every tagging worker is busy; try again shortly"), 2));
    }
    auto shared = std::make_shared<HttpRequest>(std::move(request));
    m_queue.emplace_back([this, shared, respond](OcrEngine& ocr) { runTag(*shared, respond, ocr); },
                         respond);
    lock.unlock();
    m_queueChanged.notify_one();
}

void TagService::work() {
    // Each worker keeps its own engine: Tesseract is not thread-safe, and loading the model
    // per picture would cost more than reading it.
    OcrEngine ocr(m_tessdata);
    for (;;) {
        std::unique_lock lock(m_queueLock);
        m_queueChanged.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
        if (m_stopping)
            return;
        Job job = std::move(m_queue.front().first);
        m_queue.pop_front();
        lock.unlock();
        job(ocr);
    }
}

void TagService::runTag(const HttpRequest& request, const CatalogServer::Respond& respond,
                        OcrEngine& ocr) {
    std::variant<QImage, Refusal> decoded = decodePicture(request.body);
    if (const Refusal* refused = std::get_if<Refusal>(&decoded))
        return respond(refusal(request, refused->status, refused->code, refused->error));
    const Tags tags = m_tagger.tag(std::get<QImage>(decoded), ocr);
    const ordered_json answer = tags.toJson();

    TagStore::Record record;
    record.device = request.header("X-Device");
    record.installId = request.header("x-install-id");
    record.collection = percentDecoded(request.header("X-Collection"));
    record.file = percentDecoded(request.header("X-File"));
    record.tagsJson = answer.dump();
    switch (m_store.add(record, m_limits.perDeviceCap)) {
    case TagStore::Added::stored:
        break;
    case TagStore::Added::overCap:
        return respond(refusal(request, 429, "device_cap",
                               "this device has " + std::to_string(m_limits.perDeviceCap) +
                                   " tagged pictures, the most kept per device"));
    case TagStore::Added::failed:
        return respond(refusal(request, 500, "store_failed", "the tags could not be kept"));
    }
    respond(jsonResponse(200, answer));
}

std::optional<TagService::Refusal> TagService::checkPicture(const std::string& body,
                                                            const TagLimits& limits) {
    QByteArray bytes = QByteArray::fromRawData(body.data(), qsizetype(body.size()));
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadOnly);
    QImageReader reader(&buffer);
    const QByteArray format = reader.format();
    if (format != "jpeg" && format != "png")
        return Refusal{400, "not_an_image", "the body is not a JPEG or PNG"};
    const QSize size = reader.size();
    if (!size.isValid() || size.isEmpty())
        return Refusal{400, "bad_image", "the picture's size cannot be read"};
    if (size.width() > limits.maxSide || size.height() > limits.maxSide ||
        std::int64_t(size.width()) * size.height() > limits.maxPixels)
        return Refusal{413, "too_many_pixels",
                       QStringLiteral("a %1×%2 picture; at most %3 pixels a side and %4 in all")
                           .arg(size.width())
                           .arg(size.height())
                           .arg(limits.maxSide)
                           .arg(limits.maxPixels)
                           .toStdString()};
    return std::nullopt;
}

std::variant<QImage, TagService::Refusal> TagService::decodePicture(const std::string& body) {
    QByteArray bytes = QByteArray::fromRawData(body.data(), qsizetype(body.size()));
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadOnly);
    QImageReader reader(&buffer);
    reader.setAutoTransform(true);
    QImage image = reader.read();
    if (image.isNull())
        return Refusal{400, "bad_image",
                       "the picture cannot be decoded: " + reader.errorString().toStdString()};
    return image;
}

void TagService::limitDecoding(const TagLimits& limits) {
    // In MiB of 32-bit pixels; the catalog's pictures are far below it.
    QImageReader::setAllocationLimit(int(limits.maxPixels * 4 / (1024 * 1024) + 1));
}

HttpResponse TagService::deleteData(const HttpRequest& request) {
    if (!m_appKey.empty() && !sameKey(request.header("x-app-key"), m_appKey))
        return refusal(request, 401, "bad_app_key", "x-app-key missing or wrong");
    const std::string device = request.header("X-Device");
    if (device.empty())
        return refusal(request, 400, "missing_device", "X-Device header required");
    const auto removed = m_store.removeDevice(device);
    if (!removed)
        return refusal(request, 500, "store_failed", "the tags could not be deleted");
    qCInfo(lcServer).noquote()
        << QStringLiteral("tagging: deleted %1 records of a device").arg(*removed);
    return jsonResponse(200, {{"deleted", true}});
}
