// SPDX-License-Identifier: MIT
// What desktop tests share: the private display (started by the desktop test main), the
// keyboard, mouse and clipboard driven from outside as a user's tools would, and other
// programs running on that display.
#pragma once

#include "support/xvfbsession.h"

#include <QPoint>
#include <QProcess>
#include <QString>
#include <QTest>
#include <gtest/gtest.h>

bool desktopAvailable(QString* why);

// Skips the current test where no private X display could be started (tools missing).
#define GLIMMET_REQUIRE_DESKTOP()                                                                  \
    do {                                                                                           \
        QString why_;                                                                              \
        if (!desktopAvailable(&why_))                                                              \
            GTEST_SKIP() << why_.toStdString();                                                    \
    } while (0)

namespace Desktop {

inline bool xdotool(const QStringList& args) {
    return XvfbSession::run(QStringLiteral("xdotool"), args);
}
inline bool key(const char* keys) {
    return xdotool({QStringLiteral("key"), QLatin1String(keys)});
}
inline bool type(const QString& text) {
    return xdotool({QStringLiteral("type"), text});
}
inline bool click(QPoint at, int button = 1) {
    return xdotool({QStringLiteral("mousemove"), QString::number(at.x()), QString::number(at.y()),
                    QStringLiteral("click"), QString::number(button)});
}
// Brings the first visible window whose name matches to the front, with the keyboard.
inline bool activate(const QString& name) {
    return xdotool({QStringLiteral("search"), QStringLiteral("--sync"),
                    QStringLiteral("--onlyvisible"), QStringLiteral("--name"), name,
                    QStringLiteral("windowactivate"), QStringLiteral("--sync")});
}
// The name of a window whose name matches `pattern`, or empty when none does.
inline QString windowNameMatching(const QString& pattern) {
    QByteArray out;
    XvfbSession::run(QStringLiteral("xdotool"),
                     {QStringLiteral("search"), QStringLiteral("--name"), pattern,
                      QStringLiteral("getwindowname")},
                     &out);
    return QString::fromUtf8(out).trimmed();
}

// xclip keeps serving what it copied until someone else takes the clipboard.
inline bool copyFile(const QString& file, const QString& type = {}) {
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

// Another program on the test display; it ends with the test, or with the test process
// should that crash.
class Program {
public:
    Program() { XvfbSession::endWithTest(process); }
    ~Program() {
        if (process.state() == QProcess::NotRunning)
            return;
        process.kill();
        process.waitForFinished(3000);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    QProcess process;
};

} // namespace Desktop
