// SPDX-License-Identifier: MIT
#include "app/startupbench.h"

#include "base/apppaths.h"
#include "catalog/catalogfetcher.h"
#include "catalog/catalogloader.h"
#include "catalog/debugflags.h"
#include "search/localindex.h"
#include "search/pickermodel.h"
#include "userdata/userdata.h"

#include <QStringList>

int runStartupBench(QTextStream& out, std::chrono::steady_clock::time_point launched) {
    QStringList laps;
    const auto lap = [&](const char* what) {
        const auto ms =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - launched)
                .count();
        laps.append(QStringLiteral("%1 %2 ms").arg(QLatin1String(what)).arg(ms, 0, 'f', 1));
        return ms;
    };
    lap("application");
    CatalogFetcher fetcher(DebugFlags::serverURL());
    CatalogLoader loader(&fetcher, AppPaths::dataDir());
    UserData userData;
    PickerModel picker(nullptr, &userData);
    lap("set-up");

    const QString query = QStringLiteral("cat");
    qsizetype items = 0;
    double answeredMs = -1;
    bool fast = false;
    // A catalog on disk is published before reloadIndex() returns; the server's answer comes
    // later through the event loop, which this never runs.
    QObject::connect(&loader, &CatalogLoader::indexLoaded, &picker,
                     [&](std::shared_ptr<LocalIndex> index, MemeList memes, QString source) {
                         if (source != QLatin1String("disk") || answeredMs >= 0)
                             return;
                         items = memes.size();
                         lap("catalog read");
                         picker.setIndex(index, memes);
                         picker.searchTextEdited(query);
                         fast = index->lastSearchWasFast();
                         answeredMs = lap("first query answered");
                     });
    if (!loader.reloadIndex())
        return 1;
    if (answeredMs < 0) {
        out << "startup-bench: no catalog on disk yet; run orvane once with the server up"
            << Qt::endl;
        return 1;
    }
    out << "startup-bench: " << items << " items on disk"
        << (loader.loadedStress().value_or(false) ? " (stress catalog)" : "") << ", "
        << picker.results().size() << " results for \"" << query << "\" "
        << (fast ? "from memory" : "through SQL") << Qt::endl;
    out << "startup-bench: since main(): " << laps.join(QStringLiteral(", ")) << Qt::endl;
    out << "startup-bench: launch to searchable " << QString::number(answeredMs, 'f', 1) << " ms"
        << Qt::endl;
    return 0;
}
