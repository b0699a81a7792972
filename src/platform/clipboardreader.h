// SPDX-License-Identifier: MIT
#pragma once

#include "platform/clipboardcontents.h"

#include <QObject>
#include <functional>

// Reads the clipboard without blocking the GUI thread: another program owns it, and a hung
// owner must not freeze the panel. Each read has a deadline and a size limit.
class ClipboardReader {
public:
    struct Limits {
        int timeoutMs = 400;
        qint64 maxBytes = 64ll * 1024 * 1024;
    };
    // Which offered types to read; the reader never reads the others.
    using Filter = std::function<bool(const QString& type)>;
    using Done = std::function<void(const ClipboardContents&)>;

    virtual ~ClipboardReader() = default;
    // Reads the types `wanted` accepts and calls `done` on `context`'s thread; never calls it
    // once `context` is gone. GUI thread only.
    virtual void read(Filter wanted, Limits limits, QObject* context, Done done) = 0;
};
