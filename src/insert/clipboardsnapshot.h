// SPDX-License-Identifier: MIT
#pragma once

#include "platform/clipboardcontents.h"
#include "platform/clipboardreader.h"

#include <QList>

class QClipboard;
class QMimeData;

// The user's clipboard as it was before a paste, so it can be put back afterwards.
// Types the desktop makes up on its own (TARGETS, TIMESTAMP, UTF8_STRING…) and the toolkit's
// private ones are not kept: they are derived again from what is kept.
class ClipboardSnapshot {
public:
    // Marks the clipboard entries this program writes, so they are told from others'.
    static const QString ownerMarkerType;

    // Whether a type is kept.
    static bool isCaptured(const QString& type);
    // What to read for a snapshot: the kept types, plus the plain-text atoms that older X
    // programs (xterm, xclip) offer as their only form of text.
    static ClipboardReader::Filter readFilter();

    ClipboardSnapshot() = default;
    static ClipboardSnapshot fromContents(const ClipboardContents& contents);

    const QList<ClipboardItem>& items() const { return m_items; }
    bool isEmpty() const { return m_items.isEmpty(); }
    // False when the owner did not give everything in time (see ClipboardReader).
    bool isComplete() const { return m_complete; }

    // Puts the saved entries back (clears the clipboard when none were saved).
    void restore(QClipboard* clipboard) const;
    // Whether `current` gives back every saved type with the same bytes. Extra types are
    // allowed: a toolkit serving the restored data adds encodings of its own.
    bool matches(const ClipboardContents& current) const;

    static QMimeData* toMimeData(const ClipboardItem& item);

private:
    QList<ClipboardItem> m_items;
    bool m_complete = true;
};
