// SPDX-License-Identifier: MIT
#include "support/xvfbsession.h"

#include <QDeadlineTimer>
#include <QFileInfo>
#include <QStandardPaths>
#include <QThread>
#include <csignal>
#include <cstring>
#include <sys/prctl.h>
#include <unistd.h>

XvfbSession::~XvfbSession() {
    if (m_busPid > 0)
        ::kill(pid_t(m_busPid), SIGTERM);
    for (auto* p : {m_windowManager.get(), m_xvfb.get()})
        if (p && p->state() != QProcess::NotRunning) {
            p->terminate();
            if (!p->waitForFinished(3000))
                p->kill();
            p->waitForFinished(1000);
        }
}

bool XvfbSession::available(const QString& program) {
    return !QStandardPaths::findExecutable(program).isEmpty();
}

bool XvfbSession::start(QString* why) {
    for (const char* tool : {"Xvfb", "openbox", "xdotool"})
        if (!available(QLatin1String(tool))) {
            *why = QStringLiteral("%1 is not installed").arg(QLatin1String(tool));
            return false;
        }
    // A display number no one else uses: start from one derived from our pid. Xvfb exits at
    // once when another server holds the number; then the next one is tried.
    for (int attempt = 0; attempt < 20 && !m_xvfb; ++attempt) {
        const int number = 100 + (getpid() + attempt * 37) % 800;
        const QString socket = QStringLiteral("/tmp/.X11-unix/X%1").arg(number);
        if (QFileInfo::exists(socket) ||
            QFileInfo::exists(QStringLiteral("/tmp/.X%1-lock").arg(number)))
            continue;
        m_display = QStringLiteral(":%1").arg(number);
        m_xvfb = std::make_unique<QProcess>();
        endWithTest(*m_xvfb);
        m_xvfb->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_xvfb->start(QStringLiteral("Xvfb"), {m_display, QStringLiteral("-screen"),
                                               QStringLiteral("0"), QStringLiteral("1280x800x24"),
                                               QStringLiteral("-nolisten"), QStringLiteral("tcp")});
        const QDeadlineTimer deadline(10000);
        while (!QFileInfo::exists(socket) && m_xvfb->state() != QProcess::NotRunning &&
               !deadline.hasExpired())
            QThread::msleep(20);
        // The socket may be another server's that started at the same moment: ours must
        // still be running.
        QThread::msleep(50);
        if (!QFileInfo::exists(socket) || m_xvfb->state() == QProcess::NotRunning)
            m_xvfb.reset();
    }
    if (!m_xvfb) {
        *why = QStringLiteral("Xvfb did not start");
        return false;
    }
    qputenv("DISPLAY", m_display.toUtf8());
    if (!run(QStringLiteral("xdotool"), {QStringLiteral("getmouselocation")})) {
        *why = QStringLiteral("the X server on %1 does not answer").arg(m_display);
        return false;
    }
    // A private session bus, as a desktop session has (accessibility and portals live there).
    QByteArray bus;
    if (run(QStringLiteral("dbus-launch"), {}, &bus)) {
        for (const QByteArray& line : bus.split('\n')) {
            if (line.startsWith("DBUS_SESSION_BUS_ADDRESS="))
                qputenv("DBUS_SESSION_BUS_ADDRESS",
                        line.mid(int(strlen("DBUS_SESSION_BUS_ADDRESS="))));
            else if (line.startsWith("DBUS_SESSION_BUS_PID="))
                m_busPid = line.mid(int(strlen("DBUS_SESSION_BUS_PID="))).toLongLong();
        }
    }
    // openbox is ready once it has claimed the window-manager selection. Under load it has been
    // seen to exit at start-up: start it again then.
    const QDeadlineTimer deadline(20000);
    QByteArray out;
    while (!deadline.hasExpired()) {
        // Without an event loop yet, only a wait updates the process state.
        if (m_windowManager)
            m_windowManager->waitForFinished(0);
        if (!m_windowManager || m_windowManager->state() == QProcess::NotRunning) {
            if (m_windowManager)
                qWarning("openbox exited: %s", m_windowManager->readAllStandardError().constData());
            m_windowManager = std::make_unique<QProcess>();
            endWithTest(*m_windowManager);
            m_windowManager->start(QStringLiteral("openbox"), {QStringLiteral("--sm-disable")});
            m_windowManager->waitForStarted(5000);
        }
        if (run(QStringLiteral("xprop"),
                {QStringLiteral("-root"), QStringLiteral("_NET_SUPPORTING_WM_CHECK")}, &out) &&
            out.contains("window id"))
            return true;
        QThread::msleep(50);
    }
    *why = QStringLiteral("openbox did not start on %1 (xprop: %2)")
               .arg(m_display, QString::fromLocal8Bit(out));
    return false;
}

void XvfbSession::endWithTest(QProcess& process) {
    process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
}

bool XvfbSession::run(const QString& program, const QStringList& args, QByteArray* out,
                      int timeoutMs) {
    QProcess p;
    p.start(program, args);
    if (!p.waitForFinished(timeoutMs)) {
        p.kill();
        p.waitForFinished(1000);
        return false;
    }
    if (out)
        *out = p.readAllStandardOutput();
    return p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
}
