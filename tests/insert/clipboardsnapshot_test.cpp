// SPDX-License-Identifier: MIT
#include "insert/clipboardsnapshot.h"
#include "platform/none/qtclipboardreader.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QTest>
#include <gtest/gtest.h>

namespace {

ClipboardContents owned(ClipboardItem types) {
    ClipboardContents contents;
    contents.owned = true;
    contents.types = std::move(types);
    return contents;
}

ClipboardContents readBack() {
    QtClipboardReader reader;
    QObject context;
    std::optional<ClipboardContents> result;
    reader.read(ClipboardSnapshot::readFilter(), {}, &context,
                [&](const ClipboardContents& c) { result = c; });
    EXPECT_TRUE(QTest::qWaitFor([&] { return result.has_value(); }, 2000));
    return result.value_or(ClipboardContents{});
}

} // namespace

TEST(ClipboardSnapshot, KeepsTheOwnersTypesAndDropsTheDesktopsAndOurs) {
    const ClipboardSnapshot snapshot = ClipboardSnapshot::fromContents(
        owned({{QStringLiteral("TARGETS"), "x"},
               {QStringLiteral("TIMESTAMP"), "x"},
               {QStringLiteral("text/html"), "<b>hi</b>"},
               {QStringLiteral("UTF8_STRING"), "hi"},
               {QStringLiteral("application/x-qt-image"), "x"},
               {QStringLiteral("application/x-orvane-owner"), "1:1"},
               {QStringLiteral("text/plain;charset=utf-8"), "hi"},
               {QStringLiteral("chromium/x-source-url"), "u"}}));
    ASSERT_EQ(snapshot.items().size(), 1);
    const ClipboardItem expected{{QStringLiteral("text/html"), "<b>hi</b>"},
                                 {QStringLiteral("text/plain;charset=utf-8"), "hi"},
                                 {QStringLiteral("chromium/x-source-url"), "u"}};
    EXPECT_EQ(snapshot.items().first(), expected);
}

TEST(ClipboardSnapshot, TextOfferedOnlyUnderLegacyNamesIsKeptAsPlainText) {
    // xclip and xterm offer text as UTF8_STRING or STRING (Latin-1) only.
    const ClipboardSnapshot utf8 = ClipboardSnapshot::fromContents(
        owned({{QStringLiteral("TARGETS"), "x"}, {QStringLiteral("UTF8_STRING"), "caf\xc3\xa9"}}));
    ASSERT_EQ(utf8.items().size(), 1);
    EXPECT_EQ(utf8.items().first(), (ClipboardItem{{QStringLiteral("text/plain"), "caf\xc3\xa9"}}));

    const ClipboardSnapshot latin1 =
        ClipboardSnapshot::fromContents(owned({{QStringLiteral("STRING"), "caf\xe9"}}));
    ASSERT_EQ(latin1.items().size(), 1);
    EXPECT_EQ(latin1.items().first(),
              (ClipboardItem{{QStringLiteral("text/plain"), "caf\xc3\xa9"}}));

    EXPECT_TRUE(ClipboardSnapshot::fromContents(ClipboardContents{}).isEmpty());
    EXPECT_TRUE(
        ClipboardSnapshot::fromContents(owned({{QStringLiteral("TARGETS"), "x"}})).isEmpty());
}

// Restoring the user's clipboard and noticing a change by someone else are checked on the
// desktop with real programs; what those cases do not reach is here.
TEST(ClipboardSnapshot, AMissingTypeIsAChangeAndAnEmptyClipboardComesBackEmpty) {
    QClipboard* clipboard = QGuiApplication::clipboard();
    const ClipboardSnapshot saved = ClipboardSnapshot::fromContents(
        owned({{QStringLiteral("image/png"), QByteArray("\x89PNG\r\n\x1a\n data", 14)},
               {QStringLiteral("text/uri-list"), "file:///tmp/a.png\r\n"}}));
    EXPECT_FALSE(
        saved.matches(owned({{QStringLiteral("text/uri-list"), "file:///tmp/a.png\r\n"}})));

    saved.restore(clipboard);
    EXPECT_TRUE(saved.matches(readBack()));
    const ClipboardSnapshot empty;
    empty.restore(clipboard);
    EXPECT_TRUE(empty.matches(readBack()));
    EXPECT_FALSE(saved.matches(readBack()));
}
