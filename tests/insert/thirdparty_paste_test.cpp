// SPDX-License-Identifier: MIT
// Pastes into programs the project does not write: a GTK text editor and a web page in
// Chromium. Each is skipped where the program is not installed.
#include "pastefixture.h"

#include <QStandardPaths>

namespace {

// A program from the distribution, started on the test display and brought to the front.
class ForeignProgram {
public:
    ~ForeignProgram() {
        m_process.kill();
        m_process.waitForFinished(3000);
    }
    bool start(const QString& program, const QStringList& args, const QString& windowName) {
        XvfbSession::endWithTest(m_process);
        m_process.setProgram(program);
        m_process.setArguments(args);
        // Browsers complain at length about the missing system bus.
        m_process.setStandardErrorFile(QProcess::nullDevice());
        m_process.start();
        if (!m_process.waitForStarted(5000))
            return false;
        // Some programs map helper windows of the same name first: retry until the visible
        // one takes the keyboard.
        return QTest::qWaitFor(
            [&] {
                return XvfbSession::run(QStringLiteral("xdotool"),
                                        {QStringLiteral("search"), QStringLiteral("--onlyvisible"),
                                         QStringLiteral("--name"), windowName,
                                         QStringLiteral("windowactivate"),
                                         QStringLiteral("--sync")},
                                        nullptr, 5000);
            },
            30000);
    }

private:
    QProcess m_process;
};

QString windowNameMatching(const QString& pattern) {
    QByteArray out;
    XvfbSession::run(QStringLiteral("xdotool"),
                     {QStringLiteral("search"), QStringLiteral("--name"), pattern,
                      QStringLiteral("getwindowname")},
                     &out);
    return QString::fromUtf8(out).trimmed();
}

} // namespace

TEST_F(PasteOnTheDesktop, GtkEditorGetsTheFileAndTheUserKeepsTheirText) {
    const QString mousepad = QStandardPaths::findExecutable(QStringLiteral("mousepad"));
    if (mousepad.isEmpty())
        GTEST_SKIP() << "mousepad is not installed";
    const QString note = writeFile(QStringLiteral("note.txt"), "");
    ForeignProgram editor;
    ASSERT_TRUE(editor.start(mousepad, {note}, QStringLiteral("note.txt")));
    ASSERT_TRUE(copyWithXclip(writeFile(QStringLiteral("before.txt"), "kept words")));
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
    ForeignProgram browser;
    ASSERT_TRUE(browser.start(
        chromium,
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
            title = windowNameMatching(QStringLiteral("^pasted "));
            return !title.isEmpty();
        },
        15000));
    EXPECT_TRUE(title.contains(QStringLiteral("image/png:%1").arg(cachedPNG(id).size())))
        << title.toStdString();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !finished.isEmpty(); }, 10000));
    EXPECT_TRUE(finished[0][1].toBool()) << finished[0][2].toString().toStdString();
}
