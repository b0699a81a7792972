// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/meme.h"
#include "catalog/payloadkinds.h"
#include "platform/clipboardcontents.h"

#include <QString>
#include <optional>

// What a drag out of the panel carries for one image, per payload. Reads files, runs image
// encoders and writes the JPEG copy, so call make() off the GUI thread.
namespace DragItem {

struct Source {
    // The full image on disk: a cached download or the user's own file.
    QString file;
    // Where a PNG rendering of a non-PNG image may already wait; empty when there is none.
    QString pngSibling;
    // The full image is a PNG, so its bytes can go out as they are.
    bool isPNG = false;
    // Where payload c puts its JPEG copy; empty carries `file` itself (the user's own items).
    QString jpegFile;
};

// The file name (without ".jpg") a JPEG copy of `meme` gets: its words in lower case joined
// by '-', else the name of its image file, else its id.
QString nameStem(const Meme& meme);

// The types and bytes of the drag: "text/uri-list" always, "image/png" too for payload b.
// Nothing when the image cannot be read, converted or copied.
std::optional<ClipboardItem> make(const Source& source, DragPayload payload);

} // namespace DragItem
