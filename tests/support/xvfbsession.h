// SPDX-License-Identifier: MIT
#pragma once

#include <QProcess>
#include <QString>
#include <memory>

// A private X display (Xvfb) with a window manager (openbox) and a session bus, for tests of
// desktop behaviour. Started once per test process by the desktop test main.
class XvfbSession {
public:
    ~XvfbSession();

    // Starts Xvfb and openbox and exports DISPLAY; false (with `why`) when the tools are
    // missing or the server does not come up.
    bool start(QString* why);
    const QString& display() const { return m_display; }

    // Runs a program (xdotool, xclip, …) on this display and waits for it; true on exit 0.
    static bool run(const QString& program, const QStringList& args, QByteArray* out = nullptr,
                    int timeoutMs = 10000);
    static bool available(const QString& program);
    // Makes a process started later die with the test process, even when the test crashes,
    // so no server is left holding the caller's output open.
    static void endWithTest(QProcess& process);

private:
    QString m_display;
    std::unique_ptr<QProcess> m_xvfb;
    std::unique_ptr<QProcess> m_windowManager;
    qint64 m_busPid = 0;
};
