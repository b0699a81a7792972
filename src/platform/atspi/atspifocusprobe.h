// SPDX-License-Identifier: MIT
#pragma once

#include "base/serialexecutor.h"
#include "platform/focusprobe.h"

// Finds the focused element of a program through the AT-SPI accessibility bus (D-Bus), the
// way screen readers see it. Works under X11 and Wayland alike, for every toolkit that
// publishes its tree (GTK, Qt, Chromium, Firefox, LibreOffice…). Runs its blocking D-Bus
// calls on a worker thread.
class AtSpiFocusProbe : public FocusProbe {
public:
    void probe(qint64 pid, int timeoutMs, QObject* context, Done done) override;

    // Blocking; what the worker runs.
    static FocusReport probeNow(qint64 pid, int timeoutMs);

private:
    SerialExecutor m_worker{QStringLiteral("focus-probe")};
};
