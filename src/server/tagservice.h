// SPDX-License-Identifier: MIT
#pragma once

#include "server/catalogserver.h"
#include "server/searchapi.h"

#include <QImage>
#include <QString>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

class OcrEngine;
class TagStore;
class Tagger;

// How much the tagging endpoint takes from one device, and how large an upload may be.
struct TagLimits {
    // Uploads per minute per device, in bursts of up to that many; 0 turns the limit off.
    double perMinute = 60;
    // Tagged pictures kept per device; past it uploads are refused.
    std::int64_t perDeviceCap = 10000;
    std::size_t maxBodyBytes = 8 * 1024 * 1024;
    // The declared size of a picture, checked before it is decoded: a small file can declare
    // a huge picture that would take gigabytes to decode.
    int maxSide = 8192;
    std::int64_t maxPixels = 25'000'000;
    // Threads that decode and read pictures, and uploads that may wait for one; past that
    // uploads get 503 with Retry-After rather than wait without bound.
    int workers = 2;
    std::size_t maxQueued = 16;
};

// The tagging endpoints of orvane-server:
//   POST   /v1/import/tag    a picture (JPEG or PNG) → its search tags, kept under X-Device
//   DELETE /v1/import/data   forgets everything kept under X-Device
// Uploads are checked on the event thread (headers, limits, the picture's declared size);
// decoding and reading the text run on the workers, each with its own OCR engine, while the
// connection waits suspended. Refusals are JSON {"code", "error"} and logged in one line.
class TagService {
public:
    // `tessdata` holds Tesseract's English model (empty: Tesseract's default); `appKey`, when
    // set, is the x-app-key every request must carry. `store` and `tagger` must outlive this.
    TagService(TagStore& store, const Tagger& tagger, TagLimits limits = {}, QString tessdata = {},
               std::string appKey = {});
    // Stops the workers; uploads still waiting are answered 503.
    ~TagService();
    TagService(const TagService&) = delete;
    TagService& operator=(const TagService&) = delete;

    void install(CatalogServer& server);

    void tag(HttpRequest request, CatalogServer::Respond respond);
    HttpResponse deleteData(const HttpRequest& request);

    // Why an upload is refused.
    struct Refusal {
        int status = 400;
        std::string code;
        std::string error;
    };
    // The checks on the event thread: a JPEG or PNG whose declared size is within `limits`.
    // Reads only the header, never the pixels.
    static std::optional<Refusal> checkPicture(const std::string& body, const TagLimits& limits);
    // Decodes a picture that passed checkPicture(), turned upright; a refusal when it cannot.
    static std::variant<QImage, Refusal> decodePicture(const std::string& body);
    // Qt's process-wide cap on one decoded picture, a second line of defence behind the
    // declared-size check.
    static void limitDecoding(const TagLimits& limits);

private:
    using Job = std::function<void(OcrEngine&)>;
    void work();
    void runTag(const HttpRequest& request, const CatalogServer::Respond& respond, OcrEngine& ocr);

    TagStore& m_store;
    const Tagger& m_tagger;
    TagLimits m_limits;
    QString m_tessdata;
    std::string m_appKey;
    RateLimiter m_rate;

    std::mutex m_queueLock;
    std::condition_variable m_queueChanged;
    std::deque<std::pair<Job, CatalogServer::Respond>> m_queue;
    bool m_stopping = false;
    std::vector<std::thread> m_workers;
};
