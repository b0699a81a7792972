// SPDX-License-Identifier: MIT
#include "platform/none/qtclipboardreader.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>
#include <QTimer>

void QtClipboardReader::read(Filter wanted, Limits limits, QObject* context, Done done) {
    ClipboardContents contents;
    const QMimeData* data = QGuiApplication::clipboard()->mimeData(QClipboard::Clipboard);
    qint64 budget = limits.maxBytes;
    if (data) {
        contents.owned = !data->formats().isEmpty();
        for (const QString& type : data->formats()) {
            if (!wanted(type))
                continue;
            const QByteArray bytes = data->data(type);
            if (bytes.size() > budget) {
                contents.complete = false;
                continue;
            }
            budget -= bytes.size();
            contents.types.append({type, bytes});
        }
    }
    QTimer::singleShot(0, context, [done, contents] { done(contents); });
}
