// SPDX-License-Identifier: MIT
#pragma once

#include "platform/clipboardcontents.h"

#include <QByteArray>
#include <QObject>

class QClipboard;

// Writes paste entries to the clipboard and counts every change to it, ours and others'.
// Each write carries a marker with a value of its own, so a clipboard manager that takes
// over our entry (it copies every type) is still recognised as holding our write.
class ClipboardWriter : public QObject {
    Q_OBJECT
public:
    explicit ClipboardWriter(QClipboard* clipboard, QObject* parent = nullptr);

    // Bumped on every change of the clipboard, including our own writes.
    quint64 changeCount() const { return m_changes; }
    // Writes `item` with a fresh marker; false when the clipboard did not take it.
    bool write(const ClipboardItem& item);
    // The marker value of the last write.
    const QByteArray& lastMarker() const { return m_marker; }
    QClipboard* clipboard() const { return m_clipboard; }

private:
    QClipboard* m_clipboard;
    quint64 m_changes = 0;
    quint64 m_writes = 0;
    QByteArray m_marker;
};
