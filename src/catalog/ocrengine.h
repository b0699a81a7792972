// SPDX-License-Identifier: MIT
#pragma once

#include <QImage>
#include <QString>
#include <memory>
#include <vector>

namespace tesseract {
class TessBaseAPI;
}

// Reads the text on a picture with Tesseract (its LSTM engine and the English model of
// Debian's tesseract-ocr-eng). One engine per thread: Tesseract's API is not thread-safe, and
// loading the model takes a while, so an engine is made once and used for many pictures.
class OcrEngine {
public:
    struct Word {
        QString text;
        float confidence = 0; // 0 to 100
    };

    // `dataDir` holds eng.traineddata; empty uses Tesseract's own default. isReady() tells
    // whether the model loaded.
    explicit OcrEngine(const QString& dataDir = {});
    ~OcrEngine();
    OcrEngine(const OcrEngine&) = delete;
    OcrEngine& operator=(const OcrEngine&) = delete;

    bool isReady() const { return m_ready; }
    // The words in reading order; none when the engine is not ready or sees no text.
    std::vector<Word> read(const QImage& image);

private:
    std::unique_ptr<tesseract::TessBaseAPI> m_api;
    bool m_ready = false;
};
