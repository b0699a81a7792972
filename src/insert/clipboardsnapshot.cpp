// SPDX-License-Identifier: MIT
#include "insert/clipboardsnapshot.h"

#include <QClipboard>
#include <QMimeData>

const QString ClipboardSnapshot::ownerMarkerType = QStringLiteral("application/x-orvane-owner");

namespace {

bool isLegacyText(const QString& type) {
    return type == QLatin1String("UTF8_STRING") || type == QLatin1String("STRING");
}

} // namespace

bool ClipboardSnapshot::isCaptured(const QString& type) {
    return !type.isEmpty() && type.at(0).isLower() && type.at(0).unicode() < 0x80 &&
           !type.startsWith(QLatin1String("application/x-qt-")) && type != ownerMarkerType;
}

ClipboardReader::Filter ClipboardSnapshot::readFilter() {
    return [](const QString& type) { return isCaptured(type) || isLegacyText(type); };
}

ClipboardSnapshot ClipboardSnapshot::fromContents(const ClipboardContents& contents) {
    ClipboardSnapshot snapshot;
    snapshot.m_complete = contents.complete;
    ClipboardItem item;
    bool hasPlainText = false;
    for (const auto& [type, bytes] : contents.types) {
        if (!isCaptured(type))
            continue;
        hasPlainText |= type.startsWith(QLatin1String("text/plain"));
        item.append({type, bytes});
    }
    if (!hasPlainText) {
        // Keep legacy-only text as text/plain: the toolkit offers it under the legacy names
        // again when the snapshot is restored.
        for (const auto& [type, bytes] : contents.types) {
            if (type == QLatin1String("UTF8_STRING")) {
                item.append({QStringLiteral("text/plain"), bytes});
                break;
            }
            if (type == QLatin1String("STRING")) {
                item.append({QStringLiteral("text/plain"), QString::fromLatin1(bytes).toUtf8()});
                break;
            }
        }
    }
    if (!item.isEmpty())
        snapshot.m_items.append(item);
    return snapshot;
}

QMimeData* ClipboardSnapshot::toMimeData(const ClipboardItem& item) {
    auto* mime = new QMimeData;
    for (const auto& [type, bytes] : item)
        mime->setData(type, bytes);
    return mime;
}

void ClipboardSnapshot::restore(QClipboard* clipboard) const {
    // One entry is all a desktop clipboard holds here.
    if (m_items.isEmpty())
        clipboard->clear(QClipboard::Clipboard);
    else
        clipboard->setMimeData(toMimeData(m_items.first()), QClipboard::Clipboard);
}

bool ClipboardSnapshot::matches(const ClipboardContents& current) const {
    const ClipboardSnapshot now = fromContents(current);
    if (now.m_items.size() != m_items.size())
        return false;
    for (qsizetype i = 0; i < m_items.size(); ++i) {
        for (const auto& [type, bytes] : m_items[i]) {
            const auto found = std::find_if(now.m_items[i].begin(), now.m_items[i].end(),
                                            [&](const auto& entry) { return entry.first == type; });
            if (found == now.m_items[i].end() || found->second != bytes)
                return false;
        }
    }
    return true;
}
