// SPDX-License-Identifier: MIT
#include "app/querycommand.h"

#include "base/apppaths.h"
#include "catalog/catalogfetcher.h"
#include "catalog/catalogloader.h"
#include "catalog/debugflags.h"
#include "search/localindex.h"
#include "search/pickermodel.h"
#include "userdata/userdata.h"

#include <QCoreApplication>
#include <QEventLoop>

int runQueryCommand(const QString& text, QTextStream& out) {
    CatalogFetcher fetcher(DebugFlags::serverURL());
    CatalogLoader loader(&fetcher, AppPaths::dataDir());
    UserData userData;
    PickerModel picker(nullptr, &userData);

    QEventLoop loop;
    QObject::connect(&loader, &CatalogLoader::indexLoaded, &picker,
                     [&](std::shared_ptr<LocalIndex> index, MemeList items, QString) {
                         picker.setIndex(std::move(index), items);
                     });
    QObject::connect(&loader, &CatalogLoader::indexFailed, &picker, &PickerModel::showLoadFailure);
    // The server's answer settles which catalog counts; wait for it like the picker would.
    QObject::connect(&loader, &CatalogLoader::serverCheckDone, &loop, [&](QString document) {
        if (document == QLatin1String("index"))
            loop.quit();
    });
    if (!loader.reloadIndex())
        return 1; // could not open the local index (already logged)
    loop.exec();

    picker.searchTextEdited(text);
    QCoreApplication::processEvents(); // the "search" metric is posted after publishing
    out << picker.status() << Qt::endl;
    for (const Meme& m : picker.results())
        out << m.id << '\t' << (m.description.isEmpty() ? m.template_ : m.description) << Qt::endl;
    return picker.hasIndex() ? 0 : 1;
}
