// SPDX-License-Identifier: MIT
#include "catalog/memestore.h"
#include "collections/collectionindex.h"
#include "search/pickermodel.h"
#include "searchtesthelpers.h"
#include "support/httptestserver.h"
#include "telemetry/loggedevents.h"
#include "userdata/userdata.h"

#include <QSignalSpy>
#include <QTest>
#include <mutex>

using namespace SearchTest;
using Tab = PickerModel::Tab;

namespace {

const QString memesHints =
    QStringLiteral(" · ↵ paste · drag to insert · Ctrl+D favorite · Ctrl+E caption · esc close");

// Items c0..c(n-1) all match "cat", bm25-ranked in id order; d0, d1 match "dog".
MemeList catalog(int cats) {
    MemeList memes;
    for (int i = 0; i < cats; ++i)
        memes.append(meme(QStringLiteral("c%1").arg(i), QStringLiteral("cat"), cats - i));
    memes.append(meme(QStringLiteral("d0"), QStringLiteral("dog"), 0, {QStringLiteral("café")}));
    memes.append(meme(QStringLiteral("d1"), QStringLiteral("dog")));
    return memes;
}

// A real model over a real index, user data and image store. By default the store points at
// a closed port, for tests where images do not matter.
struct Picker {
    explicit Picker(int cats = 200, QUrl server = QUrl(QStringLiteral("http://127.0.0.1:9/")))
        : base(std::move(server)), memes(catalog(cats)) {
        model.setIndex(std::shared_ptr<LocalIndex>(indexWith(memes)), memes);
    }
    MemeStore::Options storeOptions() {
        MemeStore::Options o;
        o.base = base;
        o.cacheDir = root + QStringLiteral("/full");
        o.metrics = &log;
        return o;
    }
    QStringList shown() const { return idsOf(model.results()); }
    std::vector<nlohmann::json> searchEvents() { return loggedEvents(log, "search"); }

    QUrl base;
    QString root = TestEnv::freshDir();
    Metrics log{root + QStringLiteral("/spike.jsonl")};
    MemeStore store{storeOptions()};
    UserData userData{root + QStringLiteral("/userdata.json")};
    PickerModel model{&store, &userData};
    MemeList memes;
};

std::shared_ptr<CollectionIndex> frogsAndOwls() {
    CollectionList collections;
    MemeList stickers;
    for (const char* name : {"Frogs", "Owls"}) {
        CollectionInfo info;
        info.id = QString::fromLatin1(name).toLower();
        info.name = QString::fromLatin1(name);
        info.count = 3;
        collections.append(info);
        for (int i = 0; i < 3; ++i) {
            Meme s = meme(info.id + QString::number(i), QStringLiteral("sticker %1").arg(i));
            s.collection_id = info.id;
            stickers.append(s);
        }
    }
    return std::make_shared<CollectionIndex>(collections, stickers);
}

} // namespace

TEST(PickerModel, PagesBySixtyUntilEverythingShowsThenStops) {
    Picker p;
    p.model.searchTextEdited(QStringLiteral("cat"));
    const QStringList firstPage = p.shown();
    ASSERT_EQ(firstPage.size(), 60);
    EXPECT_EQ(p.model.status(), QStringLiteral("60 results") + memesHints);

    p.model.select(50);
    p.model.loadMoreIfNeeded(44); // 16 from the end
    EXPECT_EQ(p.shown().size(), 60);
    for (const qsizetype size : {120, 180, 200}) {
        p.model.loadMoreIfNeeded(int(p.model.results().size()) - 15);
        EXPECT_EQ(p.shown().size(), size);
    }
    EXPECT_EQ(p.model.status(), QStringLiteral("200 results (all)") + memesHints);
    EXPECT_EQ(p.model.results()[p.model.selected()].id, firstPage[50]) << "selection kept";
    p.model.loadMoreIfNeeded(199);
    EXPECT_EQ(p.model.window(), 240) << "no page past the end";

    // Another tab never pages, and coming back keeps the grown page.
    p.model.switchTab(Tab::recent);
    p.model.loadMoreIfNeeded(0);
    EXPECT_EQ(p.model.window(), 240);
    p.model.switchTab(Tab::memes);
    EXPECT_EQ(p.shown().size(), 200);

    // Typing starts again at one page, in the same order.
    p.model.searchTextEdited(QStringLiteral("cat"));
    EXPECT_EQ(p.shown(), firstPage);
    EXPECT_EQ(p.model.selected(), 0);
}

TEST(PickerModel, EmptyQueryBrowsesFavouritesRecentsThenTheMixToTheEnd) {
    Picker p(128); // 130 items
    p.userData.recordPick(QStringLiteral("c7"), QString());
    p.userData.toggleFavorite(QStringLiteral("d1"));
    p.model.searchTextEdited(QString());
    ASSERT_EQ(p.shown().size(), 60);
    EXPECT_EQ(p.shown().mid(0, 2), ids({"d1", "c7"}));

    p.model.loadMoreIfNeeded(59);
    p.model.loadMoreIfNeeded(119);
    const QStringList all = p.shown();
    EXPECT_EQ(QSet<QString>(all.begin(), all.end()).size(), 130) << "each item once";
    EXPECT_EQ(p.model.status(),
              QStringLiteral("★ favorites, recents, then a fresh mix every day (all)") +
                  memesHints);
}

TEST(PickerModel, OwnItemsGoOnTopOnceAndOnlyForWordsAndFavouritesLift) {
    Picker p(30);
    const Meme own = meme(QStringLiteral("g_1"), QStringLiteral("my cat"));
    p.model.searchTextEdited(QStringLiteral("cat"));
    p.model.setMine({own, p.memes[3], meme(QStringLiteral("g_2"), QStringLiteral("my dog"))});
    EXPECT_EQ(p.shown().mid(0, 5), ids({"g_1", "c3", "c0", "c1", "c2"})) << "c3 not twice";
    EXPECT_EQ(p.shown().size(), 31);
    EXPECT_EQ(p.model.status(), QStringLiteral("31 results (2 of yours)") + memesHints);

    p.model.select(25);
    const QString picked = p.model.selectedItem()->id;
    QSignalSpy favorites(&p.model, &PickerModel::favoritesChanged);
    p.model.toggleFavoriteOfSelected();
    EXPECT_EQ(p.userData.favorites(), QStringList{picked});
    EXPECT_EQ(favorites.size(), 1);
    p.model.searchTextEdited(QStringLiteral("cat"));
    EXPECT_LT(p.shown().indexOf(picked), 25);

    p.model.searchTextEdited(QStringLiteral("  "));
    EXPECT_FALSE(p.shown().contains(QStringLiteral("g_1")));
    EXPECT_TRUE(p.model.status().startsWith(QStringLiteral("32 results · "))) << "spaces count";
}

// Each operation changes all its state before announcing it, tab first, so a slot never
// reads a half-updated model.
TEST(PickerModel, TabsCycleBothWaysKeepTheQueryAndSignalAConsistentState) {
    Picker p(5);
    p.model.searchTextEdited(QStringLiteral("dog"));
    QSignalSpy tabs(&p.model, &PickerModel::tabChanged);
    QList<Tab> seen;
    for (int i = 0; i < 4; ++i) {
        p.model.nextTab();
        seen.append(p.model.tab());
    }
    EXPECT_EQ(seen, QList<Tab>({Tab::collections, Tab::recent, Tab::mine, Tab::memes}));
    p.model.previousTab();
    EXPECT_EQ(p.model.tab(), Tab::mine);
    EXPECT_EQ(p.model.query(), QStringLiteral("dog"));
    EXPECT_EQ(tabs.size(), 5);

    QSignalSpy results(&p.model, &PickerModel::resultsChanged);
    p.model.switchTab(Tab::mine);
    EXPECT_EQ(tabs.size(), 5) << "already there";
    EXPECT_TRUE(results.isEmpty());

    QString statusSeen;
    QStringList order;
    QObject::connect(&p.model, &PickerModel::resultsChanged, [&] {
        statusSeen = p.model.status();
        order.append(QStringLiteral("results"));
    });
    QObject::connect(&p.model, &PickerModel::tabChanged,
                     [&] { order.append(QStringLiteral("tab")); });
    p.model.switchTab(Tab::memes);
    EXPECT_EQ(statusSeen, p.model.status());
    EXPECT_EQ(order, QStringList({QStringLiteral("tab"), QStringLiteral("results")}));
}

TEST(PickerModel, ArrowsStopAtTheEndsAndMarkTheSelectionMoved) {
    Picker p(20);
    p.model.setColumns(4);
    p.model.searchTextEdited(QStringLiteral("cat"));
    EXPECT_FALSE(p.model.userMoved());
    p.model.moveBy(-1);
    EXPECT_EQ(p.model.selected(), 0);
    EXPECT_TRUE(p.model.userMoved());
    p.model.moveBy(p.model.columns());
    p.model.moveBy(1);
    EXPECT_EQ(p.model.selected(), 5);
    p.model.moveBy(100);
    EXPECT_EQ(p.model.selected(), 19);

    p.model.searchTextEdited(QStringLiteral("nothing matches"));
    p.model.moveBy(1);
    EXPECT_EQ(p.model.selected(), 0);
    EXPECT_FALSE(p.model.selectedItem());
}

TEST(PickerModel, MovingTheSelectionFetchesItsImage) {
    HttpTestServer server;
    std::mutex lock;
    QStringList asked;
    server.server().Get(".*", [&](const httplib::Request& request, httplib::Response& response) {
        const std::lock_guard guard(lock);
        asked.append(QString::fromStdString(request.path));
        response.status = 404;
    });
    ASSERT_TRUE(server.start());
    Picker p(20, server.url());
    p.model.searchTextEdited(QStringLiteral("cat"));
    // The first results are tried (and fail) before the user moves.
    ASSERT_TRUE(QTest::qWaitFor([&] { return p.store.inFlightCount() == 0; }, 10000));
    const auto wasAsked = [&](const Meme& m) {
        const std::lock_guard guard(lock);
        return asked.contains(QStringLiteral("/f/%1.jpg").arg(m.id));
    };
    EXPECT_TRUE(wasAsked(p.model.results()[0]));
    int target = PickerModel::prefetchHead;
    while (target < 20 && wasAsked(p.model.results()[target]))
        ++target;
    ASSERT_LT(target, 20);

    p.model.moveBy(target);
    EXPECT_TRUE(QTest::qWaitFor([&] { return wasAsked(p.model.results()[target]); }, 10000));
}

TEST(PickerModel, RecentTabListsSectionsFilteredByFoldedWords) {
    Picker p(5);
    for (const char* id : {"d0", "c1", "d0", "c2", "c2", "gone"})
        p.userData.recordPick(QString::fromLatin1(id), QStringLiteral("x"));
    p.model.switchTab(Tab::recent);
    EXPECT_EQ(p.shown(), ids({"c2", "d0", "c1", "c2", "d0"}));
    ASSERT_EQ(p.model.recentSections().size(), 2);
    EXPECT_EQ(p.model.recentSections()[1].start, 3);
    // The same item in both sections is two cells.
    EXPECT_EQ(p.model.recentCellID(0), QStringLiteral("recent-c2"));
    EXPECT_EQ(p.model.recentCellID(3), QStringLiteral("most-c2"));
    EXPECT_EQ(p.model.status(),
              QStringLiteral("3 recent · 2 most used · ↵ paste · drag to "
                             "insert · Ctrl+D favorite · ⇥ next tab · esc close"));

    p.model.searchTextEdited(QStringLiteral("CAF"));
    EXPECT_EQ(p.shown(), ids({"d0", "d0"}));

    p.userData.clearHistory();
    p.model.resetWindowAndRerun();
    EXPECT_TRUE(p.shown().isEmpty());
    EXPECT_TRUE(p.model.recentSections().isEmpty());
}

TEST(PickerModel, CollectionsOpenAndEscapeGoesBackAndFavouriteStickersShowInMine) {
    Picker p(5);
    p.model.switchTab(Tab::mine);
    EXPECT_TRUE(p.model.status().startsWith(QStringLiteral("Nothing here yet. Click ＋ Add")));
    p.model.switchTab(Tab::collections);
    EXPECT_EQ(p.model.status(),
              QStringLiteral("Collections are loading… (is the server running?)"));
    EXPECT_FALSE(p.model.handleEscape());

    p.model.setCollections(frogsAndOwls());
    p.model.searchTextEdited(QStringLiteral("ow"));
    EXPECT_EQ(p.model.status(),
              QStringLiteral("1 collection · ↵ open · drag to insert · ⇥ memes · esc close"));
    EXPECT_EQ(p.model.itemCount(), 1);
    p.model.toggleFavoriteOfSelected();
    EXPECT_TRUE(p.userData.favorites().isEmpty()) << "a collection is not an item";

    QSignalSpy focus(&p.model, &PickerModel::focusRequested);
    p.model.insertSelected();
    EXPECT_EQ(p.model.openCollection()->id, QStringLiteral("owls"));
    EXPECT_EQ(p.model.query(), QString());
    EXPECT_EQ(p.model.placeholder(), QStringLiteral("Search in Owls…"));
    EXPECT_EQ(focus.size(), 1);
    p.model.searchTextEdited(QStringLiteral("2"));
    EXPECT_EQ(p.shown(), ids({"owls2"}));
    EXPECT_EQ(p.model.status(), QStringLiteral("1 of 3 stickers in Owls · ↵ paste · drag to "
                                               "insert · ⇥ memes · esc back"));
    QSignalSpy inserted(&p.model, &PickerModel::insertRequested);
    p.model.insertSelected();
    ASSERT_EQ(inserted.size(), 1);
    EXPECT_EQ(inserted[0][0].value<Meme>().id, QStringLiteral("owls2"));

    EXPECT_TRUE(p.model.handleEscape());
    EXPECT_FALSE(p.model.openCollection());
    EXPECT_EQ(p.model.collectionList().size(), 2);
    EXPECT_EQ(focus.size(), 2);
    EXPECT_FALSE(p.model.handleEscape());

    p.userData.toggleFavorite(QStringLiteral("owls1"));
    p.userData.toggleFavorite(QStringLiteral("c0")); // a catalog meme: Memes tab only
    p.userData.toggleFavorite(QStringLiteral("frogs2"));
    p.model.setMine({meme(QStringLiteral("g_1"), QStringLiteral("mine"))});
    p.model.switchTab(Tab::mine);
    p.model.searchTextEdited(QString());
    EXPECT_EQ(p.shown(), ids({"g_1", "owls1", "frogs2"}));
    EXPECT_TRUE(p.model.status().startsWith(QStringLiteral("1 yours · 2 favorite stickers · ")));
}

TEST(PickerModel, LoadFailureShowsUntilAnIndexArrives) {
    Picker p(0);
    PickerModel fresh(&p.store, &p.userData);
    EXPECT_EQ(fresh.status(), QStringLiteral("Loading index…"));
    fresh.showLoadFailure(QStringLiteral("Index failed to load. Is the server running?"));
    EXPECT_EQ(fresh.status(), QStringLiteral("Index failed to load. Is the server running?"));
    EXPECT_TRUE(fresh.results().isEmpty());

    fresh.setIndex(std::shared_ptr<LocalIndex>(indexWith(p.memes)), p.memes);
    fresh.searchTextEdited(QStringLiteral("dog"));
    fresh.showLoadFailure(QStringLiteral("ignored"));
    EXPECT_EQ(fresh.results().size(), 2);
    EXPECT_TRUE(fresh.status().startsWith(QStringLiteral("2 results")));
}

TEST(PickerModel, OnlyTypingLogsASearchEvent) {
    Picker p(5);
    p.model.runSearch(QStringLiteral("cat")); // a reload: not the user typing
    p.model.searchTextEdited(QStringLiteral("dog"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !p.searchEvents().empty(); }, 10000));
    const auto events = p.searchEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]["q"], "dog");
    EXPECT_EQ(events[0]["results"], 2);
}

TEST(PickerModel, CaptionKeepsTwoLinesAndBlankLinesInsertThePlainItem) {
    Picker p(5);
    p.model.setMine({meme(QStringLiteral("g_1"), QStringLiteral("my cat"))});
    p.model.searchTextEdited(QStringLiteral("cat"));
    QSignalSpy plain(&p.model, &PickerModel::insertRequested);
    QSignalSpy captioned(&p.model, &PickerModel::captionInsertRequested);
    QSignalSpy lineFocus(&p.model, &PickerModel::captionFocusRequested);
    using Line = CaptionDraft::Line;

    // The user's own items are pasted by their own library: no caption on them.
    ASSERT_EQ(p.model.selectedItem()->id, QStringLiteral("g_1"));
    p.model.beginCaption();
    EXPECT_FALSE(p.model.caption());

    p.model.moveBy(1);
    const Meme chosen = *p.model.selectedItem();
    p.model.beginCaption();
    ASSERT_TRUE(p.model.caption());
    EXPECT_EQ(p.model.caption()->meme.id, chosen.id);
    EXPECT_EQ(p.model.caption()->focus, Line::top);
    EXPECT_EQ(lineFocus.size(), 1);
    // Nobody serves the image here: the editor learns that it will not come.
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return p.model.caption()->image == CaptionDraft::Image::failed; }, 10000));

    // Tab goes to the other line; lines of spaces and tabs insert the item as it is.
    p.model.setCaptionLine(Line::top, QStringLiteral("   "));
    p.model.nextCaptionLine();
    EXPECT_EQ(p.model.caption()->focus, Line::bottom);
    EXPECT_EQ(lineFocus.size(), 2);
    p.model.setCaptionLine(Line::bottom, QStringLiteral("\t"));
    QSignalSpy searchFocus(&p.model, &PickerModel::focusRequested);
    p.model.insertCaption();
    EXPECT_FALSE(p.model.caption());
    ASSERT_EQ(plain.size(), 1);
    EXPECT_EQ(plain[0][0].value<Meme>().id, chosen.id);
    EXPECT_TRUE(captioned.isEmpty());
    EXPECT_EQ(searchFocus.size(), 1);

    // With words, the captioned insert gets both lines as typed.
    p.model.beginCaption();
    p.model.setCaptionLine(Line::bottom, QStringLiteral("only the bottom"));
    p.model.insertCaption();
    ASSERT_EQ(captioned.size(), 1);
    EXPECT_EQ(captioned[0][0].value<Meme>().id, chosen.id);
    EXPECT_EQ(captioned[0][1].toString(), QString());
    EXPECT_EQ(captioned[0][2].toString(), QStringLiteral("only the bottom"));

    // Back drops the lines: the next caption starts empty, and Done without an editor does
    // nothing.
    p.model.beginCaption();
    p.model.setCaptionLine(Line::top, QStringLiteral("forgotten"));
    p.model.cancelCaption();
    EXPECT_FALSE(p.model.caption());
    p.model.insertCaption();
    EXPECT_EQ(plain.size() + captioned.size(), 2);
    p.model.beginCaption();
    EXPECT_TRUE(p.model.caption()->top.isEmpty());
}
