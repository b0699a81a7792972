// SPDX-License-Identifier: MIT
// Caption drawing costs. The preview is redrawn on the GUI thread at every keystroke, so it
// must stay well inside a frame; the full-size render, its JPEG and the file run in the
// background before a paste.
//   orvane-caption-bench [--edits 200] [--runs 20] [--side 2000]
// Prints p50 / p95 / max in milliseconds, wall clock and the thread's CPU time (which other
// programs on a busy machine disturb less), for:
//   preview      one keystroke as the editor draws it: both lines on the picture it decoded at
//                560 px
//   preview-full one keystroke drawn from the full-size picture instead, scaling it each time
//                (what the editor avoids by decoding at preview size)
//   full-render  the caption on the full-size image
//   full-jpeg    its JPEG encoding at quality 0.85
//   full-save    what a captioned paste waits for: decode the cached JPEG, render, encode, write
#include "catalog/imageconversion.h"
#include "insert/captionfile.h"
#include "insert/captionrenderer.h"
#include "percentile.h"

#include <QBuffer>
#include <QDir>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QImageReader>
#include <QPainter>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <functional>
#include <vector>

namespace {

struct Options {
    int edits = 200;
    int runs = 20;
    int side = 2000;
};

Options parse(const QStringList& args) {
    Options o;
    for (qsizetype i = 1; i + 1 < args.size(); i += 2) {
        const int value = args[i + 1].toInt();
        if (args[i] == QLatin1String("--edits"))
            o.edits = std::max(1, value);
        else if (args[i] == QLatin1String("--runs"))
            o.runs = std::max(1, value);
        else if (args[i] == QLatin1String("--side"))
            o.side = std::max(16, value);
    }
    return o;
}

// Something photograph-like: soft gradients, shapes and grain, so the JPEG encoder and the
// smooth scaling have real work to do.
QImage photo(int side) {
    QImage image(side, side, QImage::Format_RGB32);
    QPainter painter(&image);
    QLinearGradient sky(0, 0, side, side);
    sky.setColorAt(0, QColor(40, 90, 160));
    sky.setColorAt(1, QColor(230, 180, 120));
    painter.fillRect(image.rect(), sky);
    QRandomGenerator random(7);
    painter.setRenderHint(QPainter::Antialiasing);
    for (int i = 0; i < 60; ++i) {
        painter.setBrush(QColor::fromHsv(random.bounded(360), 120, 90 + random.bounded(150)));
        painter.setPen(Qt::NoPen);
        const int r = side / 40 + random.bounded(side / 8);
        painter.drawEllipse(QPoint(random.bounded(side), random.bounded(side)), r, r);
    }
    painter.end();
    for (int y = 0; y < side; ++y) {
        auto* line = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = 0; x < side; ++x) {
            const int grain = random.bounded(17) - 8;
            const QRgb p = line[x];
            line[x] =
                qRgb(std::clamp(qRed(p) + grain, 0, 255), std::clamp(qGreen(p) + grain, 0, 255),
                     std::clamp(qBlue(p) + grain, 0, 255));
        }
    }
    return image;
}

// The edits of a user typing a caption, one character at a time, with a few corrections.
std::vector<std::pair<QString, QString>> typing(int edits) {
    const QString top = QStringLiteral("one does not simply write a caption");
    const QString bottom = QStringLiteral("without measuring how long every keystroke takes");
    std::vector<std::pair<QString, QString>> states;
    while (int(states.size()) < edits) {
        for (qsizetype i = 1; i <= top.size() && int(states.size()) < edits; ++i)
            states.emplace_back(top.left(i), QString());
        for (qsizetype i = 1; i <= bottom.size() && int(states.size()) < edits; ++i)
            states.emplace_back(top, bottom.left(i));
        for (qsizetype i = bottom.size() - 1; i >= 0 && int(states.size()) < edits; --i)
            states.emplace_back(top, bottom.left(i));
    }
    return states;
}

struct Sample {
    double wallMs;
    double cpuMs;
};

double threadCpuMs() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) * 1e3 + double(now.tv_nsec) / 1e6;
}

Sample timed(const std::function<void()>& work) {
    QElapsedTimer wall;
    const double cpu = threadCpuMs();
    wall.start();
    work();
    return {double(wall.nsecsElapsed()) / 1e6, threadCpuMs() - cpu};
}

// Nearest rank.
void print(const char* name, const std::vector<Sample>& samples) {
    std::vector<double> wall;
    std::vector<double> cpu;
    for (const Sample& s : samples) {
        wall.push_back(s.wallMs);
        cpu.push_back(s.cpuMs);
    }
    std::printf("%-13s n=%-4zu wall p50 %7.2f  p95 %7.2f  max %7.2f   cpu p50 %7.2f  p95 %7.2f  "
                "max %7.2f ms\n",
                name, samples.size(), percentile(wall, 0.5), percentile(wall, 0.95),
                percentile(wall, 1), percentile(cpu, 0.5), percentile(cpu, 0.95),
                percentile(cpu, 1));
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    const Options options = parse(app.arguments());

    const QImage source = photo(options.side);
    // What the editor holds: the full image decoded at preview size.
    const QImage picture =
        source.scaled(CaptionRenderer::outputSize(source.size(), CaptionRenderer::previewMaxSide),
                      Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    std::printf("caption font: %s; source %d x %d, preview %d x %d\n",
                qPrintable(CaptionRenderer::font(40).family()), source.width(), source.height(),
                picture.width(), picture.height());

    const auto edits = typing(options.edits);
    // One untimed draw: the first use of the font loads it.
    CaptionRenderer::render(picture, edits.front().first, edits.front().second,
                            CaptionRenderer::previewMaxSide);
    std::vector<Sample> keystroke;
    std::vector<Sample> fromFull;
    for (const auto& [top, bottom] : edits) {
        keystroke.push_back(timed([&] {
            CaptionRenderer::render(picture, top, bottom, CaptionRenderer::previewMaxSide);
        }));
    }
    for (const auto& [top, bottom] : edits) {
        fromFull.push_back(timed([&] {
            CaptionRenderer::render(source, top, bottom, CaptionRenderer::previewMaxSide);
        }));
    }
    print("preview", keystroke);
    print("preview-full", fromFull);

    const QString top = QStringLiteral("one does not simply");
    const QString bottom = QStringLiteral("render two thousand pixels");
    QTemporaryDir dir;
    const QString cached = dir.filePath(QStringLiteral("photo.img"));
    source.save(cached, "JPEG", 90);
    std::vector<Sample> render;
    std::vector<Sample> jpeg;
    std::vector<Sample> save;
    for (int i = 0; i < options.runs; ++i) {
        std::optional<QImage> drawn;
        render.push_back(timed([&] { drawn = CaptionRenderer::render(source, top, bottom); }));
        jpeg.push_back(timed([&] { ImageConversion::jpegData(*drawn, CaptionFile::jpegQuality); }));
        save.push_back(timed([&] {
            CaptionFile::save({cached, top, bottom, dir.filePath(QStringLiteral("captioned")),
                               QStringLiteral("photo"), QDateTime::currentDateTimeUtc()});
        }));
    }
    print("full-render", render);
    print("full-jpeg", jpeg);
    print("full-save", save);
    return 0;
}
