// SPDX-License-Identifier: MIT
#include "catalog/ocrengine.h"

#include <QLoggingCategory>
#include <algorithm>
#include <tesseract/baseapi.h>
#include <tesseract/resultiterator.h>

Q_LOGGING_CATEGORY(lcOcr, "glimmet.ocr", QtInfoMsg)

namespace {

// Tesseract reads best when letters are some 20 to 40 pixels high; a resized upload (at most
// 640 pixels) often has captions smaller than that, so small pictures are enlarged first.
constexpr int minLongSide = 1200;
constexpr double maxUpscale = 3.0;
// Larger pictures are read at this size: reading time grows with the pixels, and a caption
// stays legible.
constexpr int maxLongSide = 2400;

} // namespace

OcrEngine::OcrEngine(const QString& dataDir) : m_api(std::make_unique<tesseract::TessBaseAPI>()) {
    const QByteArray dir = dataDir.toLocal8Bit();
    m_ready = m_api->Init(dataDir.isEmpty() ? nullptr : dir.constData(), "eng",
                          tesseract::OEM_LSTM_ONLY) == 0;
    if (!m_ready) {
        qCWarning(lcOcr).noquote() << "ocr: tesseract could not load its English model"
                                   << (dataDir.isEmpty() ? QString() : "from " + dataDir);
        return;
    }
    // Captions sit anywhere on a picture, in a few short lines: find as much text as possible
    // in no particular order rather than expect a page of columns.
    m_api->SetPageSegMode(tesseract::PSM_SPARSE_TEXT);
    m_api->SetVariable("debug_file", "/dev/null");
}

OcrEngine::~OcrEngine() {
    if (m_ready)
        m_api->End();
}

std::vector<OcrEngine::Word> OcrEngine::read(const QImage& image) {
    std::vector<Word> words;
    if (!m_ready || image.isNull())
        return words;
    QImage grey = image.convertToFormat(QImage::Format_Grayscale8);
    const int longSide = std::max(grey.width(), grey.height());
    const double factor = longSide < minLongSide
                              ? std::min(maxUpscale, double(minLongSide) / longSide)
                          : longSide > maxLongSide ? double(maxLongSide) / longSide
                                                   : 1.0;
    if (factor != 1.0)
        grey = grey.scaled(std::max(1, int(grey.width() * factor)),
                           std::max(1, int(grey.height() * factor)), Qt::IgnoreAspectRatio,
                           Qt::SmoothTransformation);
    m_api->SetImage(grey.constBits(), grey.width(), grey.height(), 1, int(grey.bytesPerLine()));
    // Uploads carry no resolution; saying one keeps Tesseract from guessing and warning.
    m_api->SetSourceResolution(300);
    if (m_api->Recognize(nullptr) != 0)
        return words;
    std::unique_ptr<tesseract::ResultIterator> it(m_api->GetIterator());
    if (!it)
        return words;
    do {
        const std::unique_ptr<char[]> text(it->GetUTF8Text(tesseract::RIL_WORD));
        if (text && *text.get())
            words.push_back(
                {QString::fromUtf8(text.get()).trimmed(), it->Confidence(tesseract::RIL_WORD)});
    } while (it->Next(tesseract::RIL_WORD));
    m_api->Clear();
    return words;
}
