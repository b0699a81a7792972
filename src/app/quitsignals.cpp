// SPDX-License-Identifier: MIT
#include "app/quitsignals.h"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <cerrno>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int g_fds[2] = {-1, -1}; // [0] written by the handler, [1] read by the event loop
constexpr int handledSignals[] = {SIGTERM, SIGINT};

void onSignal(int signal) {
    // Only async-signal-safe calls here.
    const int savedErrno = errno;
    const char byte = char(signal);
    [[maybe_unused]] const ssize_t n = ::write(g_fds[0], &byte, 1);
    errno = savedErrno;
}

} // namespace

QuitSignals::QuitSignals() {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, g_fds) != 0) {
        qWarning("quit signals: socketpair failed; SIGTERM and SIGINT end the process at once");
        return;
    }
    m_notifier = std::make_unique<QSocketNotifier>(g_fds[1], QSocketNotifier::Read);
    QObject::connect(m_notifier.get(), &QSocketNotifier::activated, [] {
        char buffer[16];
        while (::read(g_fds[1], buffer, sizeof buffer) > 0) {
        }
        QCoreApplication::quit();
    });
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int signal : handledSignals)
        ::sigaction(signal, &action, nullptr);
}

QuitSignals::~QuitSignals() {
    if (!m_notifier)
        return;
    for (const int signal : handledSignals)
        std::signal(signal, SIG_DFL);
    m_notifier.reset();
    ::close(g_fds[0]);
    ::close(g_fds[1]);
    g_fds[0] = g_fds[1] = -1;
}
