// SPDX-License-Identifier: MIT
#include "app/collectionsearchcommand.h"

#include "base/apppaths.h"
#include "catalog/catalogfetcher.h"
#include "catalog/catalogloader.h"
#include "catalog/debugflags.h"
#include "collections/collectionindex.h"
#include "collections/usercollections.h"
#include "search/pickermodel.h"
#include "userdata/userdata.h"

#include <QEventLoop>

int runCollectionSearchCommand(const QString& text, QTextStream& out) {
    CatalogFetcher fetcher(DebugFlags::serverURL());
    CatalogLoader loader(&fetcher, AppPaths::dataDir());
    QEventLoop loop;
    QObject::connect(&loader, &CatalogLoader::serverCheckDone, &loop, [&](QString document) {
        if (document == QLatin1String("collections"))
            loop.quit();
    });
    loader.reloadCollections();
    loop.exec();

    const UserCollections::Loaded imported = UserCollections().load();
    CollectionList all(imported.collections.crbegin(), imported.collections.crend());
    all += loader.adminCollections();
    UserData userData;
    PickerModel picker(nullptr, &userData);
    picker.switchTab(PickerModel::Tab::collections);
    if (!all.isEmpty())
        picker.setCollections(
            std::make_shared<CollectionIndex>(all, imported.stickers + loader.adminStickers()));
    picker.searchTextEdited(text);
    out << picker.status() << Qt::endl;
    for (const CollectionInfo& c : picker.collectionList())
        out << c.id << '\t' << c.name << '\t' << c.count << Qt::endl;
    return all.isEmpty() ? 1 : 0;
}
