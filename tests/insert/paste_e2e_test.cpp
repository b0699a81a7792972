// SPDX-License-Identifier: MIT
// The paste as a user meets it, into the project's own recording target: a real program in
// front, the hotkey, typing, Enter, and the user's clipboard checked afterwards with xclip.
#include "base/apppaths.h"
#include "pastefixture.h"
#include "support/images.h"

#include <QImage>
#include <nlohmann/json.hpp>
#include <xcb/xcb.h>

TEST_F(PasteOnTheDesktop, EachPayloadPastesAndTheUsersClipboardComesBack) {
    // Noise does not compress: megabytes, which X transfers in increments.
    QImage image(900, 700, QImage::Format_ARGB32);
    quint32 seed = 1;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            seed = seed * 1664525u + 1013904223u;
            image.setPixel(x, y, seed);
        }
    const QByteArray noise = TestImages::encode(image, "PNG");

    PasteTarget target;
    ASSERT_TRUE(target.start());
    struct Case {
        PastePayload payload;
        QStringList pasted;
        QString userType; // what the user had copied before, as xclip offers it
        QByteArray userBytes;
    };
    const QList<Case> cases = {
        {PastePayload::pngOnly, {"image/png"}, "UTF8_STRING", "words from before"},
        {PastePayload::pngTiff, {"image/png", "image/tiff"}, "image/png", noise},
        {PastePayload::fileURLPng, {"text/uri-list", "image/png"}, "UTF8_STRING", "more words"},
        {PastePayload::jpegOnly, {"image/jpeg"}, "image/png", noise},
    };
    QSignalSpy finished(&paster(), &Paster::finished);
    // With sharing on, every paste of a catalog item is also noted as a usage event.
    DebugFlags::setValue(QStringLiteral("shareUsage"), true);
    QStringList pasted;
    for (const Case& c : cases) {
        SCOPED_TRACE(rawValue(c.payload).toStdString());
        DebugFlags::setPastePayload(c.payload);
        ASSERT_TRUE(
            Desktop::copyFile(writeFile(QStringLiteral("before"), c.userBytes),
                              c.userType == QLatin1String("UTF8_STRING") ? QString() : c.userType));
        finished.clear();
        const qsizetype before = target.pastes().size();
        const QString id = pasteFirstResult();
        ASSERT_FALSE(id.isEmpty());
        pasted.append(id);
        ASSERT_TRUE(QTest::qWaitFor([&] { return target.pastes().size() > before; }, 10000));
        const QJsonObject paste = target.pastes().last();
        const QStringList formats = formatsOf(paste);
        for (const QString& type : c.pasted)
            EXPECT_TRUE(formats.contains(type)) << formats.join(u' ').toStdString();
        if (c.payload == PastePayload::jpegOnly) {
            EXPECT_FALSE(formats.contains(QStringLiteral("image/png")));
        } else if (c.payload == PastePayload::pngOnly) {
            EXPECT_EQ(paste["sha256"]["image/png"].toString().toLatin1(), sha256(cachedPNG(id)));
        }
        ASSERT_TRUE(pasteEnds(finished));
        EXPECT_TRUE(finished[0][1].toBool()) << finished[0][2].toString().toStdString();
        EXPECT_EQ(sha256(clipboardAs(c.userType)), sha256(c.userBytes));
    }
    EXPECT_EQ(target.pastes().size(), cases.size());
    EXPECT_EQ(panel().target().identifier, QStringLiteral("orvane-paste-target"));
    const QString events = AppPaths::dataDir() + QStringLiteral("/events_pending.jsonl");
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return TestEnv::readFile(events).count('\n') == cases.size(); }, 5000));
    const auto first =
        nlohmann::json::parse(TestEnv::readFile(events).split('\n').first().toStdString());
    EXPECT_EQ(first["picked_id"], pasted.first().toStdString());
    EXPECT_EQ(first["position"], 0);
    EXPECT_EQ(first["method"], "paste");

    // A second Enter within half a second does nothing; once the guard is over it works again.
    QSignalSpy inserted(&panel(), &PanelController::inserted);
    finished.clear();
    ASSERT_FALSE(pasteFirstResult().isEmpty());
    ASSERT_TRUE(QTest::qWaitFor([&] { return inserted.size() == 1; }, 5000));
    panel().insert(app->pickerModel().results().first());
    EXPECT_TRUE(panel().isInserting());
    ASSERT_TRUE(pasteEnds(finished));
    EXPECT_EQ(inserted.size(), 1);
    EXPECT_EQ(target.pastes().size(), cases.size() + 1);

    // A clipboard owner that never answers (it takes the clipboard, then never reads its
    // events, like a program that hangs) does not stop the paste.
    xcb_connection_t* hung = xcb_connect(nullptr, nullptr);
    ASSERT_FALSE(xcb_connection_has_error(hung));
    const xcb_window_t window = xcb_generate_id(hung);
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(hung)).data;
    xcb_create_window(hung, XCB_COPY_FROM_PARENT, window, screen->root, 0, 0, 1, 1, 0,
                      XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, 0, nullptr);
    xcb_intern_atom_reply_t* clipboard =
        xcb_intern_atom_reply(hung, xcb_intern_atom(hung, 0, 9, "CLIPBOARD"), nullptr);
    xcb_set_selection_owner(hung, window, clipboard->atom, XCB_CURRENT_TIME);
    free(clipboard);
    free(xcb_get_input_focus_reply(hung, xcb_get_input_focus(hung), nullptr));
    finished.clear();
    ASSERT_FALSE(pasteFirstResult().isEmpty());
    EXPECT_TRUE(QTest::qWaitFor([&] { return target.pastes().size() == cases.size() + 2; }, 10000));
    EXPECT_TRUE(pasteEnds(finished));
    xcb_disconnect(hung);
}

// Where the paste cannot end as usual, the user keeps what is theirs and is told.
TEST_F(PasteOnTheDesktop, TheTargetAndTheClipboardDecideHowThePasteEnds) {
    QSignalSpy finished(&paster(), &Paster::finished);
    {
        // Terminals paste on Ctrl+Shift+V.
        PasteTarget terminal;
        ASSERT_TRUE(terminal.start({QStringLiteral("--terminal")}));
        QSignalSpy sent(&paster(), &Paster::keystrokeSent);
        ASSERT_FALSE(pasteFirstResult().isEmpty());
        ASSERT_TRUE(QTest::qWaitFor([&] { return !sent.isEmpty(); }, 10000));
        EXPECT_TRUE(sent[0][0].toBool());
        EXPECT_TRUE(QTest::qWaitFor([&] { return terminal.sawKeys("Ctrl+Shift+V"); }, 5000));
        EXPECT_TRUE(terminal.pastes().isEmpty());
        ASSERT_TRUE(pasteEnds(finished));
    }
    {
        // With no text field the image stays on the clipboard and the user is told.
        ASSERT_TRUE(Desktop::copyFile(writeFile(QStringLiteral("before.txt"), "old words")));
        PasteTarget button;
        ASSERT_TRUE(button.start({QStringLiteral("--button")}));
        finished.clear();
        const QString id = pasteFirstResult();
        ASSERT_FALSE(id.isEmpty());
        EXPECT_TRUE(QTest::qWaitFor(
            [&] {
                return visibleToasts().contains(
                    QStringLiteral("Copied. Press Ctrl+V where you want it."));
            },
            10000));
        ASSERT_TRUE(pasteEnds(finished));
        EXPECT_FALSE(finished[0][1].toBool());
        EXPECT_EQ(finished[0][2].toString(),
                  QStringLiteral("no text field has focus: meme kept on the clipboard"));
        EXPECT_EQ(sha256(clipboardAs(QStringLiteral("image/png"))), sha256(cachedPNG(id)));
    }
    {
        // What someone else wrote to the clipboard before it was restored stays.
        DebugFlags::setRestoreDelayMs(1500);
        ASSERT_TRUE(Desktop::copyFile(writeFile(QStringLiteral("before.txt"), "old words")));
        PasteTarget target;
        ASSERT_TRUE(target.start());
        QSignalSpy sent(&paster(), &Paster::keystrokeSent);
        finished.clear();
        ASSERT_FALSE(pasteFirstResult().isEmpty());
        ASSERT_TRUE(sent.wait(10000));
        ASSERT_TRUE(Desktop::copyFile(writeFile(QStringLiteral("after.txt"), "newer words")));
        ASSERT_TRUE(pasteEnds(finished));
        EXPECT_FALSE(finished[0][1].toBool());
        EXPECT_EQ(finished[0][2].toString(), QStringLiteral("clipboard changed by someone else"));
        EXPECT_EQ(clipboardAs(QStringLiteral("UTF8_STRING")), "newer words");
    }
}
