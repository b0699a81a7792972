// SPDX-License-Identifier: MIT
// orvane-import-bench: import throughput of generated photos, without tagging and with an
// in-process tagging endpoint on 127.0.0.1, and the Memes tab's per-keystroke search time
// with imported items beside the catalog.
#include "catalog/debugflags.h"
#include "collections/usercollections.h"
#include "percentile.h"
#include "search/importeditems.h"
#include "search/localindex.h"
#include "search/pickermodel.h"
#include "server/catalogserver.h"
#include "syntheticcatalog.h"
#include "userdata/userdata.h"

#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTextStream>
#include <algorithm>

namespace {

QTextStream& out() {
    static QTextStream stream(stdout);
    return stream;
}

// Photo-like pictures: a gradient with noise, so that JPEG works as hard as on a real photo.
void writePhotos(const QString& dir, int count, QSize size) {
    QDir().mkpath(dir);
    QRandomGenerator random(7);
    for (int i = 0; i < count; ++i) {
        QImage image(size, QImage::Format_RGB32);
        QLinearGradient gradient(0, 0, size.width(), size.height());
        gradient.setColorAt(0, QColor::fromHsv(i * 37 % 360, 160, 230));
        gradient.setColorAt(1, QColor::fromHsv(i * 91 % 360, 200, 60));
        QPainter(&image).fillRect(image.rect(), gradient);
        for (int y = 0; y < size.height(); y += 2) {
            auto* line = reinterpret_cast<QRgb*>(image.scanLine(y));
            for (int x = 0; x < size.width(); ++x)
                line[x] ^= random.bounded(16u) * 0x010101u;
        }
        image.save(QStringLiteral("%1/%2.jpg").arg(dir).arg(i, 4, 10, QLatin1Char('0')), "jpg", 90);
    }
}

void useAPI(const QString& url) {
    ConfigSources sources = ConfigSources::fromProcess();
    sources.environment.insert(QStringLiteral("MEME_API"), url);
    DebugFlags::installSources(std::move(sources));
}

void importOnce(const QString& label, const QString& photos, const QString& root) {
    UserCollections collections(root);
    const QList<UserCollections::Plan> plans = UserCollections::planFolder(photos);
    QElapsedTimer timer;
    timer.start();
    const UserCollections::Result result =
        collections.importCollection(plans.first(), plans.first().name, [](const QString&) {});
    const double seconds = double(timer.nsecsElapsed()) / 1e9;
    out() << "import " << label << ": " << result.added << " added, " << result.skipped
          << " skipped, " << result.tagged << " tagged in " << QString::number(seconds, 'f', 2)
          << " s = " << QString::number(result.added / seconds, 'f', 1) << " images/s\n";
    out().flush();
}

// The user's imports as the app loads them: realistic tag words, ten collections.
MemeList importedItems(int count) {
    MemeList items = SyntheticCatalog::generate(count, 99);
    for (int i = 0; i < items.size(); ++i) {
        Meme& m = items[i];
        m.id = QStringLiteral("u_bench_%1").arg(i);
        m.template_ = QStringLiteral("Folder %1").arg(i % 10);
        m.collection_id = QStringLiteral("bench-%1").arg(i % 10);
        m.popularity.reset();
    }
    return items;
}

void searchLatency(const MemeList& catalog, int imported, const QString& dir) {
    UserData userData(dir + QStringLiteral("/userdata.json"));
    std::shared_ptr<LocalIndex> index = LocalIndex::open(dir + QStringLiteral("/index.sqlite"));
    index->rebuild(catalog, QString(64, QLatin1Char('b')));
    index->waitUntilCommitted();
    index->prepareFastPath();
    PickerModel model(nullptr, &userData);
    model.setIndex(index, catalog);
    const QStringList queries = SyntheticCatalog::queries(100, 5);
    const auto run = [&](const QString& label) {
        std::vector<double> ms;
        for (const QString& query : queries) {
            for (const QString& keystroke : SyntheticCatalog::keystrokes(query)) {
                QElapsedTimer timer;
                timer.start();
                model.searchTextEdited(keystroke);
                ms.push_back(double(timer.nsecsElapsed()) / 1e6);
            }
            model.searchTextEdited(QString());
        }
        out() << "memes search " << label << ": " << ms.size() << " keystrokes, p50 "
              << QString::number(percentile(ms, 0.5), 'f', 3) << " ms, p95 "
              << QString::number(percentile(ms, 0.95), 'f', 3) << " ms, max "
              << QString::number(*std::max_element(ms.begin(), ms.end()), 'f', 3) << " ms\n";
        out().flush();
    };
    run(QStringLiteral("catalog %1 items").arg(catalog.size()));
    model.setImported(std::make_shared<ImportedItems>(importedItems(imported)));
    run(QStringLiteral("catalog %1 + %2 imported").arg(catalog.size()).arg(imported));
}

} // namespace

int main(int argc, char** argv) {
    QTemporaryDir work;
    // Nothing of the user's: every file goes below the temporary folder.
    for (const char* name :
         {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME"})
        qputenv(name, (work.path() + u'/' + QLatin1String(name)).toUtf8());
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addOption({QStringLiteral("photos"), QStringLiteral("Photos to import."),
                      QStringLiteral("n"), QStringLiteral("500")});
    parser.addOption({QStringLiteral("size"), QStringLiteral("Photo size WxH."),
                      QStringLiteral("WxH"), QStringLiteral("1600x1200")});
    parser.addOption({QStringLiteral("imported"),
                      QStringLiteral("Imported items beside the "
                                     "catalog for the search."),
                      QStringLiteral("n"), QStringLiteral("5000")});
    parser.addOption({QStringLiteral("catalog"),
                      QStringLiteral("index.json to search (the demo catalog's); a synthetic "
                                     "catalog of --catalog-size items without it."),
                      QStringLiteral("file")});
    parser.addOption({QStringLiteral("catalog-size"), QStringLiteral("Synthetic catalog size."),
                      QStringLiteral("n"), QStringLiteral("4000")});
    parser.process(app);

    const QStringList wh = parser.value(QStringLiteral("size")).split(u'x');
    const QSize size(wh.value(0).toInt(), wh.value(1).toInt());
    const int photos = parser.value(QStringLiteral("photos")).toInt();
    const QString photoDir = work.path() + QStringLiteral("/Photos");
    writePhotos(photoDir, photos, size);
    out() << "generated " << photos << " photos " << size.width() << "x" << size.height() << "\n";

    // No server: the three refused requests that stop tagging cost next to nothing.
    useAPI(QStringLiteral("http://127.0.0.1:9/"));
    importOnce(QStringLiteral("without tagging"), photoDir, work.path() + QStringLiteral("/a"));

    CatalogServer tagger(work.path().toStdString());
    tagger.addRoute(
        "POST", "/v1/import/tag",
        [](const HttpRequest&) {
            return HttpResponse{
                200,
                "application/json",
                R"({"ocr_text":"","description":"a photo","character":"","emotions":["calm"],)"
                R"("actions":[],"use_cases":[],"keywords":["photo"],"language":"en",)"
                R"("nsfw":false,"hateful":false})",
                {}};
        },
        8 * 1024 * 1024);
    const int port = tagger.start("127.0.0.1", 0);
    useAPI(QStringLiteral("http://127.0.0.1:%1/").arg(port));
    importOnce(QStringLiteral("with tagging (in-process server on 127.0.0.1)"), photoDir,
               work.path() + QStringLiteral("/b"));
    tagger.stop();

    MemeList catalog;
    if (parser.isSet(QStringLiteral("catalog"))) {
        QFile file(parser.value(QStringLiteral("catalog")));
        if (!file.open(QIODevice::ReadOnly)) {
            out() << "cannot read " << file.fileName() << "\n";
            return 1;
        }
        catalog = CatalogJson::decodeMemes(file.readAll()).value_or(MemeList());
    } else {
        catalog =
            SyntheticCatalog::generate(parser.value(QStringLiteral("catalog-size")).toInt(), 1);
    }
    searchLatency(catalog, parser.value(QStringLiteral("imported")).toInt(), work.path());
    return 0;
}
