// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <optional>

// What a drag out of the panel carries; stored as its letter.
enum class DragPayload { a, b, c };

// What a paste writes to the clipboard; stored as its raw name.
enum class PastePayload { pngOnly, pngTiff, fileURLPng, jpegOnly };

QString rawValue(DragPayload payload);
QString rawValue(PastePayload payload);
// "a" and "c" map to their cases; anything else, including absent, is b.
DragPayload dragPayloadFromRaw(const std::optional<QString>& raw);
std::optional<PastePayload> pastePayloadFromRaw(const std::optional<QString>& raw);
