// SPDX-License-Identifier: MIT
// glimmet-catalog-gen: writes the synthetic benchmark catalog as an index.json, and
// optionally its queries as a JSON array, for glimmet-bench or any other tool.
#include "base/atomicfile.h"
#include "catalog/catalogjson.h"
#include "syntheticcatalog.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>
#include <nlohmann/json.hpp>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Writes the synthetic catalog (sizes such as 10000, 100000, 1000000)."));
    parser.addHelpOption();
    const QCommandLineOption sizeOpt(QStringLiteral("size"), QStringLiteral("Items."),
                                     QStringLiteral("N"), QStringLiteral("10000"));
    const QCommandLineOption seedOpt(QStringLiteral("seed"), QStringLiteral("Seed."),
                                     QStringLiteral("S"), QStringLiteral("1"));
    const QCommandLineOption outOpt(QStringLiteral("out"), QStringLiteral("index.json to write."),
                                    QStringLiteral("FILE"), QStringLiteral("index.json"));
    const QCommandLineOption queriesOpt(QStringLiteral("queries"),
                                        QStringLiteral("Also write 100 queries to FILE."),
                                        QStringLiteral("FILE"));
    parser.addOptions({sizeOpt, seedOpt, outOpt, queriesOpt});
    parser.process(app);

    const std::uint64_t seed = parser.value(seedOpt).toULongLong();
    const MemeList memes = SyntheticCatalog::generate(parser.value(sizeOpt).toInt(), seed);
    QTextStream err(stderr);
    if (!writeFileAtomically(parser.value(outOpt), CatalogJson::encodeMemes(memes))) {
        err << "cannot write " << parser.value(outOpt) << Qt::endl;
        return 1;
    }
    if (parser.isSet(queriesOpt)) {
        nlohmann::json queries = nlohmann::json::array();
        for (const QString& q : SyntheticCatalog::queries(100, seed))
            queries.push_back(q.toStdString());
        if (!writeFileAtomically(parser.value(queriesOpt),
                                 QByteArray::fromStdString(queries.dump(1)))) {
            err << "cannot write " << parser.value(queriesOpt) << Qt::endl;
            return 1;
        }
    }
    return 0;
}
