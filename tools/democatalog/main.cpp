// SPDX-License-Identifier: MIT
// orvane-democatalog: builds the demo catalog folder from the OpenMoji package.
#include "catalogmapping.h"
#include "democatalogbuilder.h"
#include "openmojidata.h"

#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QTemporaryDir>
#include <QThreadPool>
#include <cstdio>
#include <unistd.h>

namespace {

// Bump when the catalog this tool writes changes, so cached catalogs are rebuilt.
constexpr const char* builderVersion = "2";

int fail(const QString& message) {
    std::fprintf(stderr, "orvane-democatalog: %s\n", qPrintable(message));
    return 1;
}

int intOption(const QCommandLineParser& parser, const QCommandLineOption& option, int min, int max,
              bool* ok) {
    const int value = parser.value(option).toInt(ok);
    *ok = *ok && value >= min && value <= max;
    return value;
}

} // namespace

int main(int argc, char** argv) {
    // Rendering and text need a GUI application but no display.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    // Without a session (build machines, CI) Qt warns about the missing runtime folder.
    QTemporaryDir runtimeDir;
    if (qEnvironmentVariableIsEmpty("XDG_RUNTIME_DIR"))
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDir.path()));
    QGuiApplication app(argc, argv);
    QGuiApplication::setApplicationName(QStringLiteral("orvane-democatalog"));
    QGuiApplication::setApplicationVersion(QString::fromLatin1(builderVersion));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Builds the Orvane demo catalog from the OpenMoji package."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption openmojiOption(QStringLiteral("openmoji"),
                                            QStringLiteral("The unpacked openmoji package folder."),
                                            QStringLiteral("DIR"));
    const QCommandLineOption outOption(QStringLiteral("out"),
                                       QStringLiteral("Catalog folder to write (replaced)."),
                                       QStringLiteral("DIR"));
    const QCommandLineOption mappingOption(
        QStringLiteral("mapping"), QStringLiteral("Mapping rules (default: the built-in ones)."),
        QStringLiteral("FILE"), QStringLiteral(":/democatalog/openmoji-mapping.json"));
    const QCommandLineOption fullOption(QStringLiteral("full-size"),
                                        QStringLiteral("Full image size in pixels."),
                                        QStringLiteral("PX"), QStringLiteral("512"));
    const QCommandLineOption thumbOption(QStringLiteral("thumb-size"),
                                         QStringLiteral("Thumbnail size in pixels."),
                                         QStringLiteral("PX"), QStringLiteral("160"));
    const QCommandLineOption stressOption(QStringLiteral("stress-count"),
                                          QStringLiteral("Items in index_stress.json."),
                                          QStringLiteral("N"), QStringLiteral("10000"));
    const QCommandLineOption jobsOption(QStringLiteral("jobs"),
                                        QStringLiteral("Rendering threads (default: all cores)."),
                                        QStringLiteral("N"));
    parser.addOptions({openmojiOption, outOption, mappingOption, fullOption, thumbOption,
                       stressOption, jobsOption});
    parser.process(app);

    if (!parser.isSet(openmojiOption) || !parser.isSet(outOption))
        return fail(QStringLiteral("--openmoji DIR and --out DIR are required (see --help)"));

    DemoCatalogBuilder::Options options;
    options.outDir = parser.value(outOption);
    bool ok = true;
    options.fullSize = intOption(parser, fullOption, 16, 4096, &ok);
    if (!ok)
        return fail(QStringLiteral("--full-size: 16 to 4096"));
    options.thumbSize = intOption(parser, thumbOption, 16, 4096, &ok);
    if (!ok)
        return fail(QStringLiteral("--thumb-size: 16 to 4096"));
    options.stressCount = intOption(parser, stressOption, 0, 99999, &ok);
    if (!ok)
        return fail(QStringLiteral("--stress-count: 0 to 99999 (ids have five digits)"));
    if (parser.isSet(jobsOption)) {
        const int jobs = intOption(parser, jobsOption, 1, 256, &ok);
        if (!ok)
            return fail(QStringLiteral("--jobs: 1 to 256"));
        QThreadPool::globalInstance()->setMaxThreadCount(jobs);
    }

    QString error;
    QFile mappingFile(parser.value(mappingOption));
    if (!mappingFile.open(QIODevice::ReadOnly))
        return fail(mappingFile.fileName() + QStringLiteral(": ") + mappingFile.errorString());
    auto mapping = CatalogMapping::fromJson(mappingFile.readAll(), &error);
    if (!mapping)
        return fail(error);
    auto data = OpenMojiData::load(parser.value(openmojiOption), &error);
    if (!data)
        return fail(error);

    // A live counter on a terminal; a line per quarter when the output goes to a log.
    const bool tty = isatty(STDERR_FILENO);
    QString lastStage;
    int lastShown = -1;
    const auto progress = [&](const QString& stage, int done, int total) {
        if (stage != lastStage) {
            lastStage = stage;
            lastShown = -1;
        }
        const int shown = tty ? done : (total ? done * 4 / total : 4);
        if (shown == lastShown)
            return;
        lastShown = shown;
        std::fprintf(stderr, tty ? "\rdemo catalog: %s %d/%d " : "demo catalog: %s %d/%d\n",
                     qPrintable(stage), done, total);
        if (tty && done == total)
            std::fputc('\n', stderr);
    };

    QElapsedTimer timer;
    timer.start();
    DemoCatalogBuilder builder(std::move(*data), std::move(*mapping), options);
    if (!builder.build(&error, progress))
        return fail(error);
    for (const QString& skipped : builder.skipped())
        std::fprintf(stderr, "orvane-democatalog: skipped %s\n", qPrintable(skipped));
    std::printf("demo catalog: written to %s in %.1f s\n", qPrintable(options.outDir),
                timer.elapsed() / 1000.0);
    return 0;
}
