// SPDX-License-Identifier: MIT
#include "catalog/payloadkinds.h"

#include <array>

namespace {
constexpr std::array<const char*, 4> pasteNames = {"pngOnly", "pngTiff", "fileURLPng", "jpegOnly"};
}

QString rawValue(DragPayload payload) {
    return QString(QChar(u'a' + int(payload)));
}

QString rawValue(PastePayload payload) {
    return QString::fromLatin1(pasteNames[size_t(payload)]);
}

DragPayload dragPayloadFromRaw(const std::optional<QString>& raw) {
    if (raw == QLatin1String("a"))
        return DragPayload::a;
    if (raw == QLatin1String("c"))
        return DragPayload::c;
    return DragPayload::b;
}

std::optional<PastePayload> pastePayloadFromRaw(const std::optional<QString>& raw) {
    for (size_t i = 0; raw && i < pasteNames.size(); ++i)
        if (*raw == QLatin1String(pasteNames[i]))
            return PastePayload(i);
    return std::nullopt;
}
