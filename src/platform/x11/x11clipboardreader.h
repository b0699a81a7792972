// SPDX-License-Identifier: MIT
#pragma once

#include "base/serialexecutor.h"
#include "platform/clipboardreader.h"

#include <QByteArray>

// Reads the CLIPBOARD selection over a connection of its own on a worker thread, so the GUI
// thread keeps serving its own selections (a read of our own clipboard works) and a hung
// owner costs the deadline, not a frozen panel. Handles the incremental (INCR) transfer of
// large data.
class X11ClipboardReader : public ClipboardReader {
public:
    explicit X11ClipboardReader(QByteArray displayName);
    void read(Filter wanted, Limits limits, QObject* context, Done done) override;

    // Blocking; what the worker runs.
    static ClipboardContents readNow(const QByteArray& displayName, const Filter& wanted,
                                     const Limits& limits);

private:
    QByteArray m_displayName;
    SerialExecutor m_worker{QStringLiteral("clipboard-read")};
};
