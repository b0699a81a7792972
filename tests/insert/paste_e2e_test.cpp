// SPDX-License-Identifier: MIT
// The paste as a user meets it: a real program in front, the hotkey, typing, Enter, and the
// user's clipboard checked afterwards with xclip, on a private X display.
#include "app/appdelegate.h"
#include "app/panelcontroller.h"
#include "catalog/debugflags.h"
#include "catalog/memestore.h"
#include "insert/paster.h"
#include "search/pickermodel.h"
#include "support/catalogfixture.h"
#include "support/desktop.h"
#include "support/testenv.h"
#include "support/xvfbsession.h"
#include "ui/pickerpanel.h"
#include "ui/toast.h"

#include <QApplication>
#include <QBuffer>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTest>
#include <algorithm>

namespace {

bool xdotool(const QStringList& args) {
    return XvfbSession::run(QStringLiteral("xdotool"), args);
}
bool key(const char* keys) {
    return xdotool({QStringLiteral("key"), QLatin1String(keys)});
}

// xclip keeps serving what it copied until someone else takes the clipboard.
bool copyWithXclip(const QString& file, const QString& type = {}) {
    QStringList args{QStringLiteral("-selection"), QStringLiteral("clipboard"),
                     QStringLiteral("-i"), file};
    if (!type.isEmpty())
        args << QStringLiteral("-t") << type;
    return XvfbSession::run(QStringLiteral("xclip"), args);
}
// Keeps the event loop running meanwhile: when the clipboard is ours, we must answer xclip.
QByteArray clipboardAs(const QString& type) {
    QProcess xclip;
    xclip.start(QStringLiteral("xclip"), {QStringLiteral("-o"), QStringLiteral("-selection"),
                                          QStringLiteral("clipboard"), QStringLiteral("-t"), type});
    if (!QTest::qWaitFor([&] { return xclip.state() == QProcess::NotRunning; }, 10000))
        return {};
    return xclip.readAllStandardOutput();
}
QString writeFile(const QString& name, const QByteArray& bytes) {
    const QString path = TestEnv::freshDir() + QLatin1Char('/') + name;
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(bytes);
    return path;
}
QByteArray sha256(const QByteArray& bytes) {
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex();
}

// The project's own paste target (tests/insert/pastetarget.cpp): one JSON line per paste.
class PasteTarget {
public:
    bool start(const QStringList& args = {}) {
        m_process.setProgram(QStringLiteral(PASTE_TARGET_BINARY));
        m_process.setArguments(args);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        // Publish the accessibility tree even though no screen reader asked for it.
        env.insert(QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"), QStringLiteral("1"));
        m_process.setProcessEnvironment(env);
        m_process.start();
        if (!QTest::qWaitFor([&] { return !lines().isEmpty(); }, 10000))
            return false;
        return xdotool({QStringLiteral("search"), QStringLiteral("--sync"),
                        QStringLiteral("--name"), QStringLiteral("Orvane paste target"),
                        QStringLiteral("windowactivate"), QStringLiteral("--sync")});
    }
    ~PasteTarget() {
        m_process.kill();
        m_process.waitForFinished(3000);
    }
    QList<QJsonObject> lines() {
        m_buffer += m_process.readAllStandardOutput();
        QList<QJsonObject> result;
        for (const QByteArray& line : m_buffer.split('\n'))
            if (!line.isEmpty())
                result.append(QJsonDocument::fromJson(line).object());
        return result;
    }
    QList<QJsonObject> pastes() {
        QList<QJsonObject> all = lines();
        all.removeIf([](const QJsonObject& o) { return o.contains(QStringLiteral("ready")); });
        return all;
    }

private:
    QProcess m_process;
    QByteArray m_buffer;
};

QStringList formatsOf(const QJsonObject& paste) {
    QStringList formats;
    for (const QJsonValue& v : paste.value(QStringLiteral("formats")).toArray())
        formats.append(v.toString());
    return formats;
}

class PasteOnTheDesktop : public testing::Test {
protected:
    void SetUp() override {
        QString why;
        if (!desktopAvailable(&why))
            GTEST_SKIP() << why.toStdString();
        const QString root = TestEnv::freshDir();
        CatalogFixture::writeCatalog(root, 3, 2);
        ASSERT_TRUE(server.start(QStringLiteral(ORVANE_SERVER_BINARY), root, &why))
            << why.toStdString();
        TestEnv::installConfig({{QStringLiteral("MEME_SERVER"), server.url().toString()}});
        app = std::make_unique<AppDelegate>(CommandLine{});
        app->start();
        ASSERT_TRUE(QTest::qWaitFor([&] { return app->pickerModel().hasIndex(); }, 15000));
        ASSERT_TRUE(paster().isTrusted()) << "the X server has no XTEST extension";
    }
    void TearDown() override { app.reset(); }

    Paster& paster() { return app->panelController().paster(); }

    // Opens the panel over the program in front, searches and presses Enter on the first
    // result; returns the id pasted.
    QString pasteFirstResult(const char* query = "cat") {
        PanelController& panel = app->panelController();
        if (!key("ctrl+m") || !QTest::qWaitFor([&] { return panel.panelHasKeyboard(); }, 5000))
            return {};
        xdotool({QStringLiteral("type"), QLatin1String(query)});
        PickerModel& model = app->pickerModel();
        if (!QTest::qWaitFor(
                [&] { return model.query() == QLatin1String(query) && !model.results().isEmpty(); },
                5000))
            return {};
        const QString id = model.results().first().id;
        key("Return");
        return id;
    }

    QByteArray cachedPNG(const QString& id) {
        for (const Meme& meme : app->pickerModel().results())
            if (meme.id == id) {
                QFile file(app->memeStore().cachedFullURL(meme).value_or(QUrl()).toLocalFile());
                file.open(QIODevice::ReadOnly);
                return file.readAll();
            }
        return {};
    }

    CatalogFixture server;
    std::unique_ptr<AppDelegate> app;
};

} // namespace

TEST_F(PasteOnTheDesktop, PastesTheImageAndBringsTheTextClipboardBack) {
    ASSERT_TRUE(copyWithXclip(writeFile(QStringLiteral("before.txt"), "words from before")));
    PasteTarget target;
    ASSERT_TRUE(target.start());
    QSignalSpy finished(&paster(), &Paster::finished);

    const QString id = pasteFirstResult();
    ASSERT_FALSE(id.isEmpty());
    ASSERT_TRUE(QTest::qWaitFor([&] { return !target.pastes().isEmpty(); }, 10000));
    const QJsonObject paste = target.pastes().first();
    EXPECT_TRUE(formatsOf(paste).contains(QStringLiteral("image/png")));
    EXPECT_EQ(paste[QStringLiteral("sha256")][QStringLiteral("image/png")].toString().toLatin1(),
              sha256(cachedPNG(id)));
    EXPECT_EQ(app->panelController().target().identifier, QStringLiteral("orvane-paste-target"));

    ASSERT_TRUE(finished.wait(10000));
    EXPECT_TRUE(finished[0][1].toBool()) << finished[0][2].toString().toStdString();
    EXPECT_EQ(clipboardAs(QStringLiteral("UTF8_STRING")), "words from before");
    EXPECT_EQ(target.pastes().size(), 1);
}

TEST_F(PasteOnTheDesktop, BringsAnImageClipboardBack) {
    QImage image(40, 30, QImage::Format_ARGB32);
    image.fill(QColor(10, 200, 30, 128));
    QByteArray png;
    {
        QBuffer buffer(&png);
        buffer.open(QIODevice::WriteOnly);
        image.save(&buffer, "PNG");
    }
    ASSERT_TRUE(
        copyWithXclip(writeFile(QStringLiteral("before.png"), png), QStringLiteral("image/png")));
    PasteTarget target;
    ASSERT_TRUE(target.start());
    QSignalSpy finished(&paster(), &Paster::finished);
    ASSERT_FALSE(pasteFirstResult().isEmpty());
    ASSERT_TRUE(finished.wait(10000));
    EXPECT_TRUE(finished[0][1].toBool()) << finished[0][2].toString().toStdString();
    EXPECT_EQ(sha256(clipboardAs(QStringLiteral("image/png"))), sha256(png));
    EXPECT_EQ(target.pastes().size(), 1);
}

TEST_F(PasteOnTheDesktop, LeavesAClipboardSomeoneElseWroteDuringTheDelay) {
    DebugFlags::setRestoreDelayMs(1500);
    ASSERT_TRUE(copyWithXclip(writeFile(QStringLiteral("before.txt"), "old words")));
    PasteTarget target;
    ASSERT_TRUE(target.start());
    QSignalSpy sent(&paster(), &Paster::keystrokeSent);
    QSignalSpy finished(&paster(), &Paster::finished);
    ASSERT_FALSE(pasteFirstResult().isEmpty());
    ASSERT_TRUE(sent.wait(10000));
    ASSERT_TRUE(copyWithXclip(writeFile(QStringLiteral("after.txt"), "newer words")));
    ASSERT_TRUE(finished.wait(10000));
    EXPECT_FALSE(finished[0][1].toBool());
    EXPECT_EQ(finished[0][2].toString(), Paster::changedBySomeoneElse);
    EXPECT_EQ(clipboardAs(QStringLiteral("UTF8_STRING")), "newer words");
}

TEST_F(PasteOnTheDesktop, WithNoTextFieldTheImageStaysAndTheUserIsTold) {
    ASSERT_TRUE(copyWithXclip(writeFile(QStringLiteral("before.txt"), "old words")));
    PasteTarget target;
    ASSERT_TRUE(target.start({QStringLiteral("--button")}));
    QSignalSpy finished(&paster(), &Paster::finished);
    const QString id = pasteFirstResult();
    ASSERT_FALSE(id.isEmpty());
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            const auto toasts = QApplication::topLevelWidgets();
            return std::any_of(toasts.begin(), toasts.end(), [](QWidget* w) {
                auto* toast = qobject_cast<Toast*>(w);
                return toast && toast->isVisible() && toast->text() == Paster::noTextFieldText;
            });
        },
        10000));
    ASSERT_TRUE(finished.wait(10000));
    EXPECT_FALSE(finished[0][1].toBool());
    EXPECT_EQ(finished[0][2].toString(), Paster::noTextFieldReason);
    EXPECT_EQ(sha256(clipboardAs(QStringLiteral("image/png"))), sha256(cachedPNG(id)));
}

TEST_F(PasteOnTheDesktop, EveryPayloadDeliversItsTypes) {
    PasteTarget target;
    ASSERT_TRUE(target.start());
    const QList<QPair<PastePayload, QStringList>> cases = {
        {PastePayload::pngOnly, {QStringLiteral("image/png")}},
        {PastePayload::pngTiff, {QStringLiteral("image/png"), QStringLiteral("image/tiff")}},
        {PastePayload::fileURLPng, {QStringLiteral("text/uri-list"), QStringLiteral("image/png")}},
        {PastePayload::jpegOnly, {QStringLiteral("image/jpeg")}},
    };
    for (const auto& [payload, expected] : cases) {
        SCOPED_TRACE(rawValue(payload).toStdString());
        DebugFlags::setPastePayload(payload);
        QSignalSpy finished(&paster(), &Paster::finished);
        const qsizetype before = target.pastes().size();
        ASSERT_FALSE(pasteFirstResult().isEmpty());
        ASSERT_TRUE(QTest::qWaitFor([&] { return target.pastes().size() > before; }, 10000));
        const QStringList formats = formatsOf(target.pastes().last());
        for (const QString& type : expected)
            EXPECT_TRUE(formats.contains(type)) << formats.join(u' ').toStdString();
        if (payload == PastePayload::jpegOnly) {
            EXPECT_FALSE(formats.contains(QStringLiteral("image/png")));
        }
        ASSERT_TRUE(finished.wait(10000));
        QTest::qWait(PanelController::insertGuardMs);
    }
}

TEST_F(PasteOnTheDesktop, ASecondEnterWithinHalfASecondDoesNothing) {
    PasteTarget target;
    ASSERT_TRUE(target.start());
    QSignalSpy inserted(&app->panelController(), &PanelController::inserted);
    QSignalSpy finished(&paster(), &Paster::finished);
    PanelController& panel = app->panelController();
    ASSERT_TRUE(key("ctrl+m"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return panel.panelHasKeyboard(); }, 5000));
    app->pickerModel().runSearch(QStringLiteral("cat"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !app->pickerModel().results().isEmpty(); }, 5000));
    const Meme meme = app->pickerModel().results().first();
    panel.insert(meme);
    ASSERT_TRUE(QTest::qWaitFor([&] { return inserted.size() == 1; }, 5000));
    panel.insert(meme);
    EXPECT_TRUE(panel.isInserting());
    ASSERT_TRUE(finished.wait(10000));
    QTest::qWait(200);
    EXPECT_EQ(inserted.size(), 1);
    EXPECT_EQ(target.pastes().size(), 1);
    // Once the guard is over, Enter works again.
    ASSERT_TRUE(QTest::qWaitFor([&] { return !panel.isInserting(); }, 2000));
}
