// SPDX-License-Identifier: MIT
// Pastes into programs the project does not write: a GTK text editor and a web page in
// Chromium. Each is skipped where the program is not installed.
#include "pastefixture.h"

#include <QStandardPaths>

namespace {

// A program from the distribution, started on the test display and brought to the front.
// Some map helper windows of the same name first: retry until the visible one takes the
// keyboard.
bool startInFront(Desktop::Program& program, const QString& path, const QStringList& args,
                  const QString& windowName) {
    // Browsers complain at length about the missing system bus.
    program.process.setStandardErrorFile(QProcess::nullDevice());
    program.process.start(path, args);
    return program.process.waitForStarted(5000) &&
           QTest::qWaitFor([&] { return Desktop::activate(windowName); }, 30000);
}

} // namespace

TEST_F(PasteOnTheDesktop, GtkEditorGetsTheFileAndTheUserKeepsTheirText) {
    const QString mousepad = QStandardPaths::findExecutable(QStringLiteral("mousepad"));
    if (mousepad.isEmpty())
        GTEST_SKIP() << "mousepad is not installed";
    const QString note = writeFile(QStringLiteral("note.txt"), "");
    Desktop::Program editor;
    ASSERT_TRUE(startInFront(editor, mousepad, {note}, QStringLiteral("note.txt")));
    ASSERT_TRUE(Desktop::copyFile(writeFile(QStringLiteral("before.txt"), "kept words")));
    DebugFlags::setPastePayload(PastePayload::fileURLPng);
    QSignalSpy finished(&paster(), &Paster::finished);

    ASSERT_FALSE(pasteFirstResult().isEmpty());
    ASSERT_TRUE(QTest::qWaitFor([&] { return !finished.isEmpty(); }, 10000));
    EXPECT_TRUE(finished[0][1].toBool()) << finished[0][2].toString().toStdString();
    // The user pastes their own text after ours, and saves.
    // GTK pastes asynchronously: save until the text is in the file.
    ASSERT_TRUE(key("ctrl+v"));
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            QTest::qWait(300);
            key("ctrl+s");
            return TestEnv::readFile(note).contains("kept words");
        },
        10000))
        << TestEnv::readFile(note).toStdString();
    const QByteArray text = TestEnv::readFile(note);
    EXPECT_TRUE(text.startsWith("file://")) << text.toStdString();
    EXPECT_TRUE(text.contains(".png")) << text.toStdString();
}

TEST_F(PasteOnTheDesktop, WebPageReceivesThePNG) {
    const QString chromium = QStandardPaths::findExecutable(QStringLiteral("chromium"));
    if (chromium.isEmpty())
        GTEST_SKIP() << "chromium is not installed";
    // The page lists what the paste carried in its title, where xdotool can read it.
    const QString page = writeFile(QStringLiteral("page.html"), R"(<!doctype html>
<title>paste here</title>
<div id="box" contenteditable="true" style="width:100%;height:300px">type here</div>
<script>
const box = document.getElementById('box');
box.focus();
document.addEventListener('paste', event => {
  const data = event.clipboardData;
  const files = [...data.files].map(f => f.type + ':' + f.size);
  document.title = 'pasted ' + [...data.types].join(',') + ' ' + files.join(',');
  event.preventDefault();
});
</script>
)");
    const QString profile = TestEnv::freshDir();
    Desktop::Program browser;
    ASSERT_TRUE(startInFront(
        browser, chromium,
        {QStringLiteral("--no-sandbox"), QStringLiteral("--user-data-dir=") + profile,
         QStringLiteral("--no-first-run"), QStringLiteral("--disable-gpu"),
         QStringLiteral("--disable-background-networking"),
         QStringLiteral("--disable-component-update"), QStringLiteral("--disable-sync"),
         QStringLiteral("--force-renderer-accessibility"),
         QStringLiteral("--app=") + QUrl::fromLocalFile(page).toString()},
        QStringLiteral("paste here")));
    QSignalSpy finished(&paster(), &Paster::finished);

    const QString id = pasteFirstResult();
    ASSERT_FALSE(id.isEmpty());
    QString title;
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            title = Desktop::windowNameMatching(QStringLiteral("^pasted "));
            return !title.isEmpty();
        },
        15000));
    EXPECT_TRUE(title.contains(QStringLiteral("image/png:%1").arg(cachedPNG(id).size())))
        << title.toStdString();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !finished.isEmpty(); }, 10000));
    EXPECT_TRUE(finished[0][1].toBool()) << finished[0][2].toString().toStdString();
}
