// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QUrl>

// `base` with `path` appended as further path segments: "http://h/api" + "v1/events" is
// "http://h/api/v1/events" (QUrl::resolved() would replace "api" instead).
inline QUrl appendedPath(QUrl base, const QString& path) {
    QString joined = base.path();
    if (!joined.endsWith(QLatin1Char('/')))
        joined += QLatin1Char('/');
    base.setPath(joined + path);
    return base;
}
