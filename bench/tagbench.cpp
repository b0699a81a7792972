// SPDX-License-Identifier: MIT
// The tagging endpoint, measured through HTTP against an in-process orvane-server stack:
//   orvane-tag-bench [--catalog DIR] [--ocr 50] [--templates 200] [--others 50] [--workers 2]
//                    [--show-misses]
// Prints
//   ocr        POST /v1/import/tag of captioned pictures (640×360, 2 lines of 2 to 4 words,
//              half black on white, half white with a black outline on a busy background):
//              p50 / p95 / max in ms, and the share of caption words found in "ocr_text"
//   templates  catalog pictures resized to 50–80% and re-encoded as JPEG of quality 60–85:
//              the share answered with their own template's description
//   others     pictures not in the catalog: how many were taken for a template
// DIR is a catalog folder (index.json and its pictures, e.g. build/demo-catalog); without it
// a made-up catalog of 400 pictures of blocks and discs is used.
#include "catalog/catalogjson.h"
#include "percentile.h"
#include "server/catalogserver.h"
#include "server/tagger.h"
#include "server/tagservice.h"
#include "server/tagstore.h"
#include "server/templateindex.h"
#include "server/wordnet.h"

#include <QBuffer>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QImageReader>
#include <QPainter>
#include <QPainterPath>
#include <QRandomGenerator>
#include <QSet>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <httplib.h>
#include <nlohmann/json.hpp>
#include <vector>

namespace {

struct Options {
    QString catalog;
    int ocr = 50;
    int templates = 200;
    int others = 50;
    int workers = 2;
    bool showMisses = false;
};

Options parse(const QStringList& args) {
    Options o;
    o.showMisses = args.contains(QLatin1String("--show-misses"));
    for (qsizetype i = 1; i + 1 < args.size(); i += 2) {
        const QString& name = args[i];
        const int value = args[i + 1].toInt();
        if (name == QLatin1String("--catalog"))
            o.catalog = args[i + 1];
        else if (name == QLatin1String("--ocr"))
            o.ocr = std::max(1, value);
        else if (name == QLatin1String("--templates"))
            o.templates = std::max(1, value);
        else if (name == QLatin1String("--others"))
            o.others = std::max(1, value);
        else if (name == QLatin1String("--workers"))
            o.workers = std::max(1, value);
    }
    return o;
}

QByteArray encoded(const QImage& image, const char* format, int quality = -1) {
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, format, quality);
    return bytes;
}

QImage blocks(quint32 seed, int width = 500, int height = 400) {
    QRandomGenerator random(seed);
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(QColor::fromHsv(random.bounded(360), 80, 200));
    QPainter painter(&image);
    painter.setPen(Qt::NoPen);
    for (int i = 0; i < 12; ++i) {
        painter.setBrush(
            QColor::fromHsv(random.bounded(360), random.bounded(256), random.bounded(256)));
        const QRect r(random.bounded(width - 50), random.bounded(height - 50),
                      40 + random.bounded(width / 2), 40 + random.bounded(height / 2));
        i % 2 ? painter.drawEllipse(r) : painter.drawRect(r);
    }
    return image;
}

const QStringList captionWords = {
    "when",   "the",  "build", "is",     "green", "monday",  "coffee", "deadline", "meeting",
    "friday", "code", "works", "nobody", "knows", "why",     "boss",   "says",     "just",
    "one",    "more", "bug",   "ship",   "it",    "me",      "trying", "to",       "sleep",
    "cat",    "dog",  "happy", "angry",  "final", "version", "really", "weekend",  "again"};

QImage captionPicture(quint32 seed, QStringList* words) {
    QRandomGenerator random(seed);
    QStringList lines;
    for (int line = 0; line < 2; ++line) {
        QStringList picked;
        for (int i = 0, n = 2 + random.bounded(3); i < n; ++i)
            picked.append(captionWords[random.bounded(captionWords.size())].toUpper());
        *words += picked;
        lines.append(picked.join(' '));
    }
    const bool meme = seed % 2;
    QImage image = meme ? blocks(seed, 640, 360) : QImage(640, 360, QImage::Format_RGB32);
    if (!meme)
        image.fill(Qt::white);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    QFont font(QStringLiteral("DejaVu Sans"));
    font.setBold(true);
    font.setPixelSize(30 + random.bounded(10));
    for (int line = 0; line < 2; ++line) {
        const QRect band(0, line == 0 ? 10 : 300 - font.pixelSize() / 2, 640, 60);
        if (!meme) {
            painter.setFont(font);
            painter.setPen(Qt::black);
            painter.drawText(band, Qt::AlignHCenter | Qt::AlignTop, lines[line]);
            continue;
        }
        // The classic caption: white letters with a black outline.
        QPainterPath path;
        path.addText(0, 0, font, lines[line]);
        const QRectF box = path.boundingRect();
        path.translate((640 - box.width()) / 2 - box.left(), band.top() - box.top());
        painter.strokePath(path, QPen(Qt::black, 4));
        painter.fillPath(path, Qt::white);
    }
    return image;
}

} // namespace

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    const Options options = parse(app.arguments());
    QTemporaryDir work;

    QString root = options.catalog;
    if (root.isEmpty()) {
        root = work.path() + QStringLiteral("/catalog");
        QDir().mkpath(root + QStringLiteral("/full"));
        MemeList memes;
        for (int n = 1; n <= 400; ++n) {
            Meme meme;
            meme.id = QStringLiteral("b%1").arg(n);
            meme.full = meme.thumb = QStringLiteral("/full/%1.png").arg(n);
            meme.description = QStringLiteral("made-up template %1").arg(n);
            blocks(n).save(root + meme.full);
            memes.append(meme);
        }
        QFile index(root + QStringLiteral("/index.json"));
        index.open(QIODevice::WriteOnly);
        index.write(CatalogJson::encodeMemes(memes));
    }
    QFile document(root + QStringLiteral("/index.json"));
    document.open(QIODevice::ReadOnly);
    const MemeList memes = CatalogJson::decodeMemes(document.readAll()).value_or(MemeList());
    QSet<QString> descriptions;
    for (const Meme& meme : memes)
        descriptions.insert(meme.description);

    const std::unique_ptr<TagStore> store =
        TagStore::open(work.path() + QStringLiteral("/tags.sqlite"));
    const std::unique_ptr<WordNet> wordNet = WordNet::open();
    TemplateIndex templates(root.toStdString(), "index.json", store.get());
    QElapsedTimer hashing;
    hashing.start();
    templates.start();
    templates.waitUntilReady(std::chrono::minutes(10));
    std::printf("catalog: %zu templates hashed in %lld ms\n", templates.size(),
                static_cast<long long>(hashing.elapsed()));
    const Tagger tagger(wordNet.get(), &templates);
    TagLimits limits;
    limits.perMinute = 0;
    limits.perDeviceCap = 1'000'000;
    limits.workers = options.workers;
    TagService service(*store, tagger, limits);
    CatalogServer server(root.toStdString());
    service.install(server);
    const int port = server.start("127.0.0.1", 0);
    httplib::Client client("127.0.0.1", port);
    client.set_read_timeout(120);
    const auto post = [&](const QByteArray& body) {
        const auto result = client.Post("/v1/import/tag", {{"X-Device", "bench"}}, body.constData(),
                                        std::size_t(body.size()), "application/octet-stream");
        return result && result->status == 200 ? nlohmann::json::parse(result->body, nullptr, false)
                                               : nlohmann::json();
    };

    std::vector<double> ms;
    int words = 0, found = 0;
    int words2[2] = {}, found2[2] = {};
    QStringList warmUp;
    post(encoded(captionPicture(0, &warmUp), "JPEG", 85)); // the engines are loaded by now
    for (int i = 1; i <= options.ocr; ++i) {
        QStringList expected;
        const QByteArray body = encoded(captionPicture(quint32(i), &expected), "JPEG", 85);
        QElapsedTimer timer;
        timer.start();
        const nlohmann::json tags = post(body);
        ms.push_back(double(timer.nsecsElapsed()) / 1e6);
        const QStringList read = QString::fromStdString(tags.value("ocr_text", ""))
                                     .toUpper()
                                     .split(' ', Qt::SkipEmptyParts);
        for (const QString& word : expected) {
            ++words;
            found += read.contains(word);
            ++words2[i % 2];
            found2[i % 2] += read.contains(word);
        }
    }
    std::printf("ocr: %d pictures, p50 %.0f ms, p95 %.0f ms, max %.0f ms; %.1f%% of %d caption "
                "words read\n",
                options.ocr, percentile(ms, 0.5), percentile(ms, 0.95), percentile(ms, 1.0),
                100.0 * found / std::max(1, words), words);
    std::printf("ocr: black on white %.1f%% of %d words, outlined white on a busy background "
                "%.1f%% of %d\n",
                100.0 * found2[0] / std::max(1, words2[0]), words2[0],
                100.0 * found2[1] / std::max(1, words2[1]), words2[1]);

    QRandomGenerator random(42);
    int tried = 0, right = 0, wrong = 0;
    for (int i = 0; i < options.templates && !memes.isEmpty(); ++i) {
        const Meme& meme = memes[random.bounded(memes.size())];
        const QString path = root + meme.full;
        QImage image = QImageReader(path).read();
        if (image.isNull())
            continue;
        if (image.hasAlphaChannel()) {
            // The client sends transparent pictures as JPEG, on white.
            QImage flat(image.size(), QImage::Format_RGB32);
            flat.fill(Qt::white);
            QPainter(&flat).drawImage(0, 0, image);
            image = flat;
        }
        const double scale = 0.5 + random.bounded(0.3);
        const QImage copy = image.scaled(int(image.width() * scale), int(image.height() * scale),
                                         Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
        const nlohmann::json tags = post(encoded(copy, "JPEG", 60 + random.bounded(26)));
        ++tried;
        const QString description = QString::fromStdString(tags.value("description", ""));
        if (description == meme.description)
            ++right;
        else if (descriptions.contains(description))
            ++wrong;
        if (options.showMisses && description != meme.description)
            std::printf("  miss: %s \"%s\" answered \"%s\"\n", qPrintable(meme.id),
                        qPrintable(meme.description), qPrintable(description));
    }
    std::printf("templates: %d of %d resized copies recognised (%.1f%%), %d taken for another "
                "template\n",
                right, tried, 100.0 * right / std::max(1, tried), wrong);

    int falseMatches = 0;
    for (int i = 0; i < options.others; ++i) {
        // Half made-up pictures no catalog has, half captioned ones.
        QStringList ignored;
        const QImage picture =
            i % 2 ? blocks(quint32(100000 + i)) : captionPicture(quint32(5000 + i), &ignored);
        const nlohmann::json tags = post(encoded(picture, "JPEG", 80));
        falseMatches +=
            descriptions.contains(QString::fromStdString(tags.value("description", "")));
    }
    std::printf("others: %d of %d pictures not in the catalog taken for a template\n", falseMatches,
                options.others);
    server.stop();
    return 0;
}
