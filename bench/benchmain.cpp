// SPDX-License-Identifier: MIT
// glimmet-bench: per-keystroke ranking times on a catalog (given or synthetic).
#include "catalog/catalogjson.h"
#include "search/localindex.h"
#include "search/rankingbench.h"
#include "search/searchengine.h"
#include "syntheticcatalog.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTextStream>
#include <nlohmann/json.hpp>

namespace {

std::optional<QStringList> readQueries(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QByteArray bytes = file.readAll();
    const auto doc = nlohmann::json::parse(bytes.begin(), bytes.end(), nullptr, false);
    if (!doc.is_array())
        return std::nullopt;
    QStringList out;
    for (const auto& q : doc) {
        if (!q.is_string())
            return std::nullopt;
        out.append(QString::fromStdString(q.get<std::string>()));
    }
    return out;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Times every keystroke of typed queries through the plain FTS5 bm25 query, "
                       "SearchEngine and the local index's in-memory path, at limit 60."));
    parser.addHelpOption();
    const QCommandLineOption catalogOpt(QStringLiteral("catalog"),
                                        QStringLiteral("An index.json to search."),
                                        QStringLiteral("FILE"));
    const QCommandLineOption sizeOpt(QStringLiteral("size"),
                                     QStringLiteral("Synthetic catalog size (default 10000)."),
                                     QStringLiteral("N"), QStringLiteral("10000"));
    const QCommandLineOption seedOpt(QStringLiteral("seed"),
                                     QStringLiteral("Seed of the synthetic catalog and queries."),
                                     QStringLiteral("S"), QStringLiteral("1"));
    const QCommandLineOption queriesOpt(
        QStringLiteral("queries"),
        QStringLiteral("A JSON array of query strings, each typed one character at a time."),
        QStringLiteral("FILE"));
    const QCommandLineOption countOpt(QStringLiteral("query-count"),
                                      QStringLiteral("Generated queries (default 100)."),
                                      QStringLiteral("N"), QStringLiteral("100"));
    const QCommandLineOption limitOpt(QStringLiteral("limit"),
                                      QStringLiteral("Results per search (default 60)."),
                                      QStringLiteral("N"), QStringLiteral("60"));
    const QCommandLineOption rankersOpt(
        QStringLiteral("rankers"),
        QStringLiteral("Comma-separated: plain, engine, memory (default all)."),
        QStringLiteral("LIST"), QStringLiteral("plain,engine,memory"));
    const QCommandLineOption againOpt(QStringLiteral("rebuild-twice"),
                                      QStringLiteral("Also time a second rebuild of the file."));
    parser.addOptions(
        {catalogOpt, sizeOpt, seedOpt, queriesOpt, countOpt, limitOpt, rankersOpt, againOpt});
    parser.process(app);

    QTextStream out(stdout);
    QTextStream err(stderr);
    const std::uint64_t seed = parser.value(seedOpt).toULongLong();
    const int limit = parser.value(limitOpt).toInt();
    const QStringList rankers = parser.value(rankersOpt).split(QLatin1Char(','));

    MemeList memes;
    QElapsedTimer timer;
    timer.start();
    if (parser.isSet(catalogOpt)) {
        QFile file(parser.value(catalogOpt));
        if (!file.open(QIODevice::ReadOnly)) {
            err << "cannot read " << file.fileName() << Qt::endl;
            return 1;
        }
        QString error;
        auto decoded = CatalogJson::decodeMemes(file.readAll(), &error);
        if (!decoded) {
            err << "cannot decode " << file.fileName() << ": " << error << Qt::endl;
            return 1;
        }
        memes = std::move(*decoded);
        out << "bench catalog: " << memes.size() << " items from " << file.fileName() << Qt::endl;
    } else {
        memes = SyntheticCatalog::generate(parser.value(sizeOpt).toInt(), seed);
        out << "bench catalog: " << memes.size() << " synthetic items, seed " << seed << " ("
            << timer.elapsed() << " ms to generate)" << Qt::endl;
    }

    QStringList queries;
    if (parser.isSet(queriesOpt)) {
        auto read = readQueries(parser.value(queriesOpt));
        if (!read) {
            err << "cannot read a JSON array of strings from " << parser.value(queriesOpt)
                << Qt::endl;
            return 1;
        }
        queries = std::move(*read);
    } else {
        queries = SyntheticCatalog::queries(parser.value(countOpt).toInt(), seed);
    }
    QStringList keystrokes;
    for (const QString& q : queries)
        keystrokes += SyntheticCatalog::keystrokes(q);
    out << "bench queries: " << queries.size() << " typed as " << keystrokes.size()
        << " keystrokes, limit " << limit << Qt::endl;

    QTemporaryDir dir;
    auto index = LocalIndex::open(dir.filePath(QStringLiteral("index.sqlite")));
    if (!index) {
        err << "cannot open a local index in " << dir.path() << Qt::endl;
        return 1;
    }
    const auto rebuild = [&](const char* what) {
        const double cpu = RankingBench::processCpuMs();
        timer.restart();
        index->rebuild(memes, QString(64, QLatin1Char('0')));
        // rebuild() returns when search() answers from the new catalog; the SQLite transaction
        // is committed on another thread after that.
        const qint64 searchable = timer.elapsed();
        index->waitUntilCommitted();
        const qint64 committed = timer.elapsed();
        out << "bench rebuild (" << what << "): " << searchable << " ms until searchable, "
            << committed << " ms until committed to SQLite, "
            << qRound64(RankingBench::processCpuMs() - cpu) << " ms CPU on all threads, for "
            << memes.size() << " items" << Qt::endl;
    };
    rebuild("new file");
    if (parser.isSet(againOpt))
        rebuild("replacing the same items");

    const qsizetype entries = memes.size();
    std::optional<SearchEngine> engine;
    if (rankers.contains(QLatin1String("engine"))) {
        timer.restart();
        engine.emplace(memes);
        out << "bench SearchEngine build: " << timer.elapsed() << " ms" << Qt::endl;
    }
    {
        // What a launch from the cached file costs before the first keystroke is fast.
        timer.restart();
        {
            std::lock_guard guard(index->lock());
            index->exec(QStringLiteral("PRAGMA user_version = 0"));
        }
        index->prepareFastPath();
        out << "bench mirror read back from the table: " << timer.elapsed() << " ms" << Qt::endl;
    }

    // Warm both paths once so the first measured keystroke pays no one-off costs.
    index->search(QStringLiteral("a"), limit);
    index->searchPlain(QStringLiteral("a"), limit);

    if (rankers.contains(QLatin1String("plain")))
        out << RankingBench::line(
                   RankingBench::run(QStringLiteral("fts5 bm25 query"), entries, keystrokes,
                                     [&](const QString& text) { index->searchPlain(text, limit); }))
            << Qt::endl;
    if (engine)
        out << RankingBench::line(
                   RankingBench::run(QStringLiteral("SearchEngine"), entries, keystrokes,
                                     [&](const QString& text) { engine->search(text, limit); }))
            << Qt::endl;
    if (rankers.contains(QLatin1String("memory"))) {
        int slow = 0;
        out << RankingBench::line(RankingBench::run(QStringLiteral("LocalIndex"), entries,
                                                    keystrokes,
                                                    [&](const QString& text) {
                                                        index->search(text, limit);
                                                        slow += index->lastSearchWasFast() ? 0 : 1;
                                                    }))
            << Qt::endl;
        if (slow)
            out << "bench LocalIndex: " << slow << " keystrokes went through SQL" << Qt::endl;
        if (rankers.contains(QLatin1String("plain"))) {
            int differ = 0;
            for (const QString& text : keystrokes)
                differ += index->search(text, limit) != index->searchPlain(text, limit) ? 1 : 0;
            out << "bench LocalIndex vs fts5 bm25 query: " << differ
                << " keystrokes with different ids" << Qt::endl;
        }
    }
    out << "bench peak RSS: " << QString::number(RankingBench::peakRssMiB(), 'f', 0) << " MiB"
        << Qt::endl;
    return 0;
}
