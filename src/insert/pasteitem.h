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

// The PNG bytes of the image: the file itself when it is a PNG, else its ready PNG sibling,
// else a PNG encoded now. None when the image does not decode.
std::optional<QByteArray> pngBytes(const Source& source);
// The file other programs get for a file URL: the PNG sibling when the cache keeps the
// download under its neutral ".img" name (receivers go by the name), else the file itself.
QString fileForURL(const Source& source);

} // namespace PasteItem
