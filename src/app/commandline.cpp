// SPDX-License-Identifier: MIT
#include "app/commandline.h"

#include "catalog/debugflags.h"

CommandLine CommandLine::parse(const QStringList& arguments) {
    CommandLine cl;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString& a = arguments[i];
        if (a == QLatin1String("--print-config")) {
            cl.printConfig = true;
        } else if (a == QLatin1String("--bench")) {
            cl.bench = true;
        } else if (a == QLatin1String("--startup-bench")) {
            cl.startupBench = true;
        } else if (a == QLatin1String("--bench-prefetch")) {
            cl.benchPrefetch = true;
        } else if (a == QLatin1String("--usage-test")) {
            cl.usageTest = true;
        } else if (a == QLatin1String("--delete-data-test")) {
            cl.deleteDataTest = true;
        } else if (a == QLatin1String("--caption-test")) {
            cl.captionTest = true;
        } else if (a == QLatin1String("--render-caption") && i + 4 < arguments.size()) {
            cl.renderCaption = arguments.mid(i + 1, 4);
            i += 4;
        } else if (a == QLatin1String("--help") || a == QLatin1String("-h")) {
            cl.help = true;
        } else if (a == QLatin1String("--version")) {
            cl.version = true;
        } else if (a == QLatin1String("--show")) {
            cl.show = true;
        } else if (a == QLatin1String("--query") && i + 1 < arguments.size()) {
            cl.hasQuery = true;
            cl.query = arguments[++i];
        } else if (a == QLatin1String("--search-collections") && i + 1 < arguments.size()) {
            cl.hasCollectionQuery = true;
            cl.collectionQuery = arguments[++i];
        } else {
            cl.unknown.append(a);
        }
    }
    return cl;
}

QString usageText() {
    return QStringLiteral(
        "Usage: orvane [--show]\n"
        "       orvane --print-config | --query TEXT | --search-collections TEXT\n"
        "       orvane --bench | --startup-bench | --bench-prefetch | --usage-test\n"
        "       orvane --caption-test | --render-caption IN TOP BOTTOM OUT.jpg\n"
        "       orvane --delete-data-test\n"
        "\n"
        "Without a switch, Orvane stays in the tray and its shortcut (Ctrl+M unless changed)\n"
        "opens the picker. Started again, it opens the picker of the copy already running.\n"
        "\n"
        "  --show            open the picker at launch\n"
        "  --print-config    print where Orvane looks for its servers\n"
        "  --query TEXT      print the ranked results for TEXT\n"
        "  --search-collections TEXT\n"
        "                    print the collections the Collections tab shows for TEXT\n"
        "  --bench           time per-keystroke searches of the rankers\n"
        "  --startup-bench   time a launch until a query is answered from the disk catalog\n"
        "  --bench-prefetch  time image downloads against naive prefetching\n"
        "  --usage-test      self-check of recents, most used and clearing\n"
        "  --caption-test    self-check of the caption editor and renderer\n"
        "  --render-caption  draw TOP and BOTTOM on the image IN, write OUT.jpg\n"
        "  --delete-data-test\n"
        "                    ask the API to delete the import tags kept for this device\n"
        "  --version         print the version\n"
        "  --help            print this help\n");
}

QStringList configReport() {
    return {QStringLiteral("files: ") + DebugFlags::serverURL().toString(),
            QStringLiteral("api: ") + DebugFlags::apiURL().toString(),
            QStringLiteral("cloud api: ") +
                (DebugFlags::hasCloudAPI() ? QStringLiteral("true") : QStringLiteral("false"))};
}
