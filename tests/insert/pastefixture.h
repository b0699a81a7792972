// SPDX-License-Identifier: MIT
// Shared by the paste tests: the app on a private display with a catalog server, programs
// to paste into, and xclip to set and read the clipboard.
#pragma once

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

namespace pastetest {

inline bool xdotool(const QStringList& args) {
    return XvfbSession::run(QStringLiteral("xdotool"), args);
}
inline bool key(const char* keys) {
    return xdotool({QStringLiteral("key"), QLatin1String(keys)});
}

// xclip keeps serving what it copied until someone else takes the clipboard.
inline bool copyWithXclip(const QString& file, const QString& type = {}) {
    QStringList args{QStringLiteral("-selection"), QStringLiteral("clipboard"),
                     QStringLiteral("-i"), file};
    if (!type.isEmpty())
        args << QStringLiteral("-t") << type;
    return XvfbSession::run(QStringLiteral("xclip"), args);
}
// Keeps the event loop running meanwhile: when the clipboard is ours, we must answer xclip.
inline QByteArray clipboardAs(const QString& type) {
    QProcess xclip;
    xclip.start(QStringLiteral("xclip"), {QStringLiteral("-o"), QStringLiteral("-selection"),
                                          QStringLiteral("clipboard"), QStringLiteral("-t"), type});
    if (!QTest::qWaitFor([&] { return xclip.state() == QProcess::NotRunning; }, 10000))
        return {};
    return xclip.readAllStandardOutput();
}
inline QString writeFile(const QString& name, const QByteArray& bytes) {
    const QString path = TestEnv::freshDir() + QLatin1Char('/') + name;
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(bytes);
    return path;
}
inline QByteArray sha256(const QByteArray& bytes) {
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex();
}

// The project's own paste target (tests/insert/pastetarget.cpp): one JSON line per paste.
class PasteTarget {
public:
    bool start(const QStringList& args = {}) {
        XvfbSession::endWithTest(m_process);
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
        all.removeIf([](const QJsonObject& o) { return !o.contains(QStringLiteral("formats")); });
        return all;
    }
    QStringList keystrokes() {
        QStringList keys;
        for (const QJsonObject& line : lines())
            if (line.contains(QStringLiteral("keys")))
                keys.append(line.value(QStringLiteral("keys")).toString());
        return keys;
    }

private:
    QProcess m_process;
    QByteArray m_buffer;
};

inline QStringList formatsOf(const QJsonObject& paste) {
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
        ASSERT_TRUE(server.serveAsConfigured(QStringLiteral(ORVANE_SERVER_BINARY), 3, 2, &why))
            << why.toStdString();
        // As a screen reader would: programs then publish what has their keyboard.
        XvfbSession::run(
            QStringLiteral("dbus-send"),
            {QStringLiteral("--session"), QStringLiteral("--dest=org.a11y.Bus"),
             QStringLiteral("/org/a11y/bus"), QStringLiteral("org.freedesktop.DBus.Properties.Set"),
             QStringLiteral("string:org.a11y.Status"), QStringLiteral("string:IsEnabled"),
             QStringLiteral("variant:boolean:true")});
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

} // namespace pastetest

using namespace pastetest;
