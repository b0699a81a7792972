// SPDX-License-Identifier: MIT
#include "insert/clipboardwriter.h"

#include "insert/clipboardsnapshot.h"

#include <QClipboard>
#include <QCoreApplication>
#include <QMimeData>

ClipboardWriter::ClipboardWriter(QClipboard* clipboard, QObject* parent)
    : QObject(parent), m_clipboard(clipboard) {
    connect(m_clipboard, &QClipboard::changed, this, [this](QClipboard::Mode mode) {
        if (mode == QClipboard::Clipboard)
            ++m_changes;
    });
}

bool ClipboardWriter::write(const ClipboardItem& item) {
    m_marker = QByteArray::number(QCoreApplication::applicationPid()) + ':' +
               QByteArray::number(++m_writes);
    QMimeData* mime = ClipboardSnapshot::toMimeData(item);
    mime->setData(ClipboardSnapshot::ownerMarkerType, m_marker);
    m_clipboard->setMimeData(mime, QClipboard::Clipboard);
    const QMimeData* now = m_clipboard->mimeData(QClipboard::Clipboard);
    return now && now->data(ClipboardSnapshot::ownerMarkerType) == m_marker;
}
