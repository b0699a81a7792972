// SPDX-License-Identifier: MIT
// orvane-mine-bench: how long a dropped 1000 × 1000 picture takes to be findable by the words
// written on it (through the app's own library service, Tesseract included), and the Mine
// tab's per-keystroke time with 1,000 items.
//   orvane-mine-bench [--drops 6] [--items 1000] [--batch 500]
#include "mine/minesearch.h"
#include "mine/mineservice.h"
#include "percentile.h"
#include "search/pickermodel.h"
#include "syntheticcatalog.h"
#include "userdata/userdata.h"

#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QGuiApplication>
#include <QPainter>
#include <QTemporaryDir>
#include <QTextStream>
#include <QTimer>

namespace {

QTextStream& out() {
    static QTextStream stream(stdout);
    return stream;
}

QString ms(double value) {
    return QString::number(value, 'f', 1);
}

QString pictureWithWord(const QString& path, const QString& word, int hue) {
    QImage image(1000, 1000, QImage::Format_RGB32);
    image.fill(QColor::fromHsv(hue % 360, 30, 240));
    QPainter painter(&image);
    QFont font(QStringLiteral("DejaVu Sans"));
    font.setBold(true);
    font.setPixelSize(120);
    painter.setFont(font);
    painter.drawText(image.rect(), Qt::AlignCenter, word);
    painter.end();
    image.save(path);
    return path;
}

// Runs the event loop until `done` holds; the elapsed milliseconds of `timer` then.
template <typename Done> double waitFor(const QElapsedTimer& timer, Done done) {
    while (!done()) {
        QEventLoop loop;
        QTimer::singleShot(1, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return double(timer.nsecsElapsed()) / 1e6;
}

void dropToFindable(int drops, const QString& dir) {
    const QStringList words = {QStringLiteral("PELICAN"),  QStringLiteral("AVOCADO"),
                               QStringLiteral("TROMBONE"), QStringLiteral("GLACIER"),
                               QStringLiteral("LANTERN"),  QStringLiteral("WALRUS")};
    MineService service(dir + QStringLiteral("/Mine"));
    service.load();
    std::vector<double> listed;
    std::vector<double> findable;
    for (int i = 0; i < drops; ++i) {
        const QString path = pictureWithWord(dir + QStringLiteral("/drop%1.png").arg(i),
                                             words[i % words.size()], i * 47);
        const int before = int(service.records().size());
        QElapsedTimer timer;
        timer.start();
        service.addFiles({path}, MineService::Source::drop);
        listed.push_back(waitFor(timer, [&] { return service.records().size() > before; }));
        findable.push_back(waitFor(timer, [&] {
            return !MineSearch::search(words[i % words.size()].toLower(), service.items(), 8)
                        .isEmpty() &&
                   service.pendingReads() == 0;
        }));
        out() << "drop " << i + 1 << (i == 0 ? " (Tesseract loads its model)" : "") << ": listed "
              << ms(listed.back()) << " ms, findable by its word " << ms(findable.back())
              << " ms\n";
        out().flush();
    }
    std::vector<double> warm(findable.begin() + 1, findable.end());
    out() << "1000 × 1000 drop → findable by OCR words: first " << ms(findable.front())
          << " ms, then p50 " << ms(percentile(warm, 0.5)) << " ms, max "
          << ms(warm.empty() ? 0 : *std::max_element(warm.begin(), warm.end())) << " ms\n";
}

// Many files dropped at once, a few of them not pictures: the time until the one summary, and
// until the words on all of them were read.
void bigDrop(int count, const QString& dir) {
    const QString from = dir + QStringLiteral("/batch");
    QDir().mkpath(from);
    QStringList paths;
    for (int i = 0; i < count; ++i) {
        const QString path = from + QStringLiteral("/%1.png").arg(i, 4, 10, QLatin1Char('0'));
        if (i % 100 == 99) {
            QFile file(path); // named like a picture, but text
            file.open(QIODevice::WriteOnly);
            file.write("not a picture");
        } else {
            QImage image(320, 240, QImage::Format_RGB32);
            image.fill(QColor::fromHsv(i * 7 % 360, 120, 200));
            image.save(path);
        }
        paths.append(path);
    }
    MineService service(dir + QStringLiteral("/BigMine"));
    QString summary;
    int progress = 0;
    QObject::connect(&service, &MineService::notice, [&](const QString& text, bool) {
        if (text.startsWith(QLatin1String("Adding ")))
            ++progress;
        else
            summary = text;
    });
    service.load();
    QElapsedTimer timer;
    timer.start();
    service.addFiles(paths, MineService::Source::drop);
    const double stored = waitFor(timer, [&] { return !summary.isEmpty(); });
    const double read = waitFor(timer, [&] { return service.pendingReads() == 0; });
    out() << count << " files dropped at once: \"" << summary << "\" after " << ms(stored)
          << " ms (" << progress << " progress lines), words read on all after " << ms(read)
          << " ms\n";
    out().flush();
}

// Labels and words as users and Tesseract give them.
MemeList mineItems(int count) {
    MemeList items;
    const MemeList generated = SyntheticCatalog::generate(count, 42);
    for (int i = 0; i < generated.size(); ++i) {
        const Meme& g = generated[i];
        Meme m;
        m.id = QStringLiteral("g_bench%1").arg(i);
        m.description = g.template_.isEmpty() ? g.keywords.mid(0, 2).join(u' ') : g.template_;
        m.ocr_text = g.ocr_text;
        m.full = m.thumb = QStringLiteral("file:///nonexistent/%1.png").arg(i);
        items.append(m);
    }
    return items;
}

void mineTabKeystrokes(int count, const QString& dir) {
    UserData userData(dir + QStringLiteral("/userdata.json"));
    PickerModel model(nullptr, &userData);
    model.setMine(mineItems(count));
    model.switchTab(PickerModel::Tab::mine);
    const QStringList queries = SyntheticCatalog::queries(100, 5);
    std::vector<double> times;
    std::size_t found = 0;
    for (const QString& query : queries) {
        for (const QString& keystroke : SyntheticCatalog::keystrokes(query)) {
            QElapsedTimer timer;
            timer.start();
            model.searchTextEdited(keystroke);
            times.push_back(double(timer.nsecsElapsed()) / 1e6);
            found += model.results().isEmpty() ? 0 : 1;
        }
        model.searchTextEdited(QString());
    }
    out() << "mine tab with " << count << " items: " << times.size() << " keystrokes (" << found
          << " with results), p50 " << QString::number(percentile(times, 0.5), 'f', 3)
          << " ms, p95 " << QString::number(percentile(times, 0.95), 'f', 3) << " ms, max "
          << QString::number(*std::max_element(times.begin(), times.end()), 'f', 3) << " ms\n";
}

} // namespace

int main(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addOption({QStringLiteral("drops"), QStringLiteral("Pictures dropped one by one."),
                      QStringLiteral("n"), QStringLiteral("6")});
    parser.addOption({QStringLiteral("batch"), QStringLiteral("Files dropped at once."),
                      QStringLiteral("n"), QStringLiteral("500")});
    parser.addOption({QStringLiteral("items"), QStringLiteral("Items in the Mine tab."),
                      QStringLiteral("n"), QStringLiteral("1000")});
    parser.process(app);
    QTemporaryDir dir;
    dropToFindable(std::max(2, parser.value(QStringLiteral("drops")).toInt()), dir.path());
    mineTabKeystrokes(parser.value(QStringLiteral("items")).toInt(), dir.path());
    bigDrop(parser.value(QStringLiteral("batch")).toInt(), dir.path());
    return 0;
}
