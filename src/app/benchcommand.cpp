// SPDX-License-Identifier: MIT
#include "app/benchcommand.h"

#include "catalog/catalogjson.h"
#include "search/localindex.h"
#include "search/rankingbench.h"
#include "search/searchengine.h"

#include <QElapsedTimer>
#include <QTemporaryDir>
#include <functional>

namespace {

constexpr int catalogSize = 10000;
constexpr int resultLimit = 60;

// The self-checks' catalog: "m_%05d" ids, "a cat number N", keyword cat, popularity 200 - N.
MemeList selfCheckCatalog() {
    MemeList memes;
    memes.reserve(catalogSize);
    for (int n = 1; n <= catalogSize; ++n) {
        Meme m;
        m.id = QString::asprintf("m_%05d", n);
        m.description = QStringLiteral("a cat number ") + QString::number(n);
        m.keywords = {QStringLiteral("cat")};
        m.thumb = QStringLiteral("/t/") + QString::number(n) + QStringLiteral(".webp");
        m.full = QStringLiteral("/f/") + QString::number(n) + QStringLiteral(".jpg");
        m.width = m.height = 100;
        m.bytes = 1;
        m.popularity = 200 - n;
        memes.append(std::move(m));
    }
    return memes;
}

QStringList typed(const QStringList& queries) {
    QStringList keystrokes;
    for (const QString& q : queries)
        for (qsizetype n = 1; n <= q.size(); ++n)
            keystrokes.append(q.left(n));
    return keystrokes;
}

} // namespace

int runRankingBench(QTextStream& out) {
    const MemeList memes = selfCheckCatalog();
    const QStringList keystrokes =
        typed({QStringLiteral("cat"), QStringLiteral("a cat number 42"), QStringLiteral("number 7"),
               QStringLiteral("cat num 1234"), QStringLiteral("nu 99"), QStringLiteral("dog"),
               QStringLiteral("a"), QStringLiteral("9999 cat")});

    QTemporaryDir dir;
    auto index =
        dir.isValid() ? LocalIndex::open(dir.filePath(QStringLiteral("bench.sqlite"))) : nullptr;
    if (!index) {
        out << "bench: could not open a temporary local index" << Qt::endl;
        return 1;
    }
    QElapsedTimer timer;
    timer.start();
    index->rebuild(memes, QString(64, QLatin1Char('0')));
    out << "index rebuild: " << timer.elapsed() << " ms for " << memes.size() << " items"
        << Qt::endl;
    const SearchEngine engine(memes);

    const auto report = [&](const QString& label, const std::function<void(const QString&)>& run) {
        out << RankingBench::line(RankingBench::run(label, memes.size(), keystrokes, run))
            << Qt::endl;
    };
    report(QStringLiteral("SearchEngine"),
           [&](const QString& text) { engine.search(text, resultLimit); });
    report(QStringLiteral("LocalIndex"),
           [&](const QString& text) { index->search(text, resultLimit); });
    report(QStringLiteral("LocalIndex fts5 query"),
           [&](const QString& text) { index->searchPlain(text, resultLimit); });
    return 0;
}
