// SPDX-License-Identifier: MIT
#pragma once

#include <memory>

class QSocketNotifier;

// Turns SIGTERM and SIGINT into QCoreApplication::quit(), so a session logout or Ctrl-C
// takes the same way out as "Quit" (aboutToQuit, then the destructors). The handler only
// writes the signal number to a socket pair; the event loop reads it and quits. One instance
// at a time, created after the application object; the destructor restores the defaults.
class QuitSignals {
public:
    QuitSignals();
    ~QuitSignals();
    QuitSignals(const QuitSignals&) = delete;
    QuitSignals& operator=(const QuitSignals&) = delete;

private:
    std::unique_ptr<QSocketNotifier> m_notifier;
};
