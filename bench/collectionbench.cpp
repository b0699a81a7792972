// SPDX-License-Identifier: MIT
// orvane-collection-bench: the Collections tab's time per keystroke, on the collection list
// and inside an open collection, through the picker model as the panel drives it.
//   orvane-collection-bench [--collections 2000] [--stickers 40]
#include "collections/collectionindex.h"
#include "percentile.h"
#include "search/pickermodel.h"
#include "syntheticcatalog.h"
#include "userdata/userdata.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTextStream>
#include <algorithm>

namespace {

QTextStream& out() {
    static QTextStream stream(stdout);
    return stream;
}

// Names of two or three words and twenty keywords each, from the synthetic catalog's words,
// so queries hit the way they would hit real collections.
std::shared_ptr<CollectionIndex> makeIndex(int collections, int stickersEach) {
    const MemeList items = SyntheticCatalog::generate(collections * stickersEach, 7);
    CollectionList list;
    MemeList stickers;
    for (int c = 0; c < collections; ++c) {
        CollectionInfo info;
        info.id = QStringLiteral("bench-%1").arg(c);
        const Meme& first = items[c * stickersEach];
        info.name = first.template_;
        for (int s = 0; s < stickersEach && info.keywords.size() < 20; ++s)
            info.keywords += items[c * stickersEach + s].keywords;
        info.keywords = info.keywords.mid(0, 20);
        info.count = stickersEach;
        list.append(info);
        for (int s = 0; s < stickersEach; ++s) {
            Meme m = items[c * stickersEach + s];
            m.collection_id = info.id;
            m.order = s;
            stickers.append(m);
        }
    }
    QElapsedTimer build;
    build.start();
    auto index = std::make_shared<CollectionIndex>(list, stickers);
    out() << "collections index: " << collections << " collections, " << index->stickerCount()
          << " stickers, built in " << QString::number(double(build.nsecsElapsed()) / 1e6, 'f', 1)
          << " ms\n";
    return index;
}

void report(const QString& label, const std::vector<double>& ms) {
    out() << "collections " << label << ": " << ms.size() << " keystrokes, p50 "
          << QString::number(percentile(ms, 0.5), 'f', 4) << " ms, p95 "
          << QString::number(percentile(ms, 0.95), 'f', 4) << " ms, max "
          << QString::number(*std::max_element(ms.begin(), ms.end()), 'f', 4) << " ms\n";
    out().flush();
}

std::vector<double> typeQueries(PickerModel& model, const QStringList& queries) {
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
    return ms;
}

} // namespace

int main(int argc, char** argv) {
    QTemporaryDir work;
    for (const char* name :
         {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME"})
        qputenv(name, (work.path() + u'/' + QLatin1String(name)).toUtf8());
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addOption({QStringLiteral("collections"), QStringLiteral("Collections to index."),
                      QStringLiteral("n"), QStringLiteral("2000")});
    parser.addOption({QStringLiteral("stickers"), QStringLiteral("Stickers per collection."),
                      QStringLiteral("n"), QStringLiteral("40")});
    parser.process(app);
    const int collections = parser.value(QStringLiteral("collections")).toInt();
    const int stickers = parser.value(QStringLiteral("stickers")).toInt();
    if (collections < 1 || stickers < 1) {
        out() << "--collections and --stickers must be at least 1\n";
        return 1;
    }

    const std::shared_ptr<CollectionIndex> index = makeIndex(collections, stickers);

    UserData userData(work.path() + QStringLiteral("/userdata.json"));
    PickerModel model(nullptr, &userData);
    model.setCollections(index);
    model.switchTab(PickerModel::Tab::collections);
    const QStringList queries = SyntheticCatalog::queries(200, 11);
    report(QStringLiteral("list of %1").arg(collections), typeQueries(model, queries));

    model.open(index->search(QString()).first());
    report(QStringLiteral("open collection of %1 stickers").arg(stickers),
           typeQueries(model, queries));
    return 0;
}
