// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/meme.h"
#include "catalog/payloadkinds.h"
#include "platform/clipboardcontents.h"

#include <QString>
#include <optional>

// The clipboard entry a paste writes for one image, per payload. Reads files and runs image
// encoders, so call it off the GUI thread.
namespace PasteItem {

struct Source {
    // The full image on disk (a cached download, the user's own file, or a rendered caption).
    QString file;
    // Where a PNG rendering of a non-PNG image may already wait; empty when there is none.
    QString pngSibling;
    // The full image is a PNG, so `file` can be pasted as it is.
    bool isPNG = false;
    bool captioned = false;
};

std::optional<ClipboardItem> make(const Source& source, PastePayload payload);

} // namespace PasteItem
