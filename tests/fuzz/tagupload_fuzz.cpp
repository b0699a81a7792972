// SPDX-License-Identifier: MIT
// The tagging endpoint's handling of an uploaded picture before OCR: the header checks of
// format and declared size, then decoding under the allocation limit the server sets. Any
// bytes are refused or decode to a picture within the limits; nothing crashes or runs away.
#include "server/tagservice.h"

#include <QCoreApplication>
#include <cstdlib>
#include <string>

namespace {

const TagLimits limits;

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    // The JPEG reader is a plugin, found through the application.
    static QCoreApplication app(*argc, *argv);
    TagService::limitDecoding(limits);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string body(reinterpret_cast<const char*>(data), size);
    if (TagService::checkPicture(body, limits))
        return 0;
    const auto decoded = TagService::decodePicture(body);
    if (const QImage* image = std::get_if<QImage>(&decoded))
        if (image->width() > limits.maxSide || image->height() > limits.maxSide ||
            qint64(image->width()) * image->height() > limits.maxPixels)
            std::abort();
    return 0;
}
