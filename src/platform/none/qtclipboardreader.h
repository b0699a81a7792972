// SPDX-License-Identifier: MIT
#pragma once

#include "platform/clipboardreader.h"

// Reads through QClipboard on the GUI thread, where no backend can read the clipboard on its
// own: the limits then bound only the size.
class QtClipboardReader : public ClipboardReader {
public:
    void read(Filter wanted, Limits limits, QObject* context, Done done) override;
};
