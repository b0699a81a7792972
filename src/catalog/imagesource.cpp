// SPDX-License-Identifier: MIT
#include "catalog/imagesource.h"

#include <QDir>
#include <QStringList>

QString ImageLocation::baseName() const {
    // A leading dot starts a hidden name, not an extension.
    const qsizetype dot = fileName.lastIndexOf(QLatin1Char('.'));
    return dot > 0 ? fileName.left(dot) : fileName;
}

QString ImageLocation::suffix() const {
    const qsizetype dot = fileName.lastIndexOf(QLatin1Char('.'));
    return dot > 0 ? fileName.mid(dot + 1).toLower() : QString();
}

namespace {
ImageLocation localFile(const QString& reference) {
    const QUrl url(reference, QUrl::StrictMode);
    if (!url.isValid() || !url.isLocalFile() || !QDir::isAbsolutePath(url.toLocalFile()))
        return {};
    ImageLocation location;
    location.localPath = url.toLocalFile();
    location.fileName = location.localPath.section(QLatin1Char('/'), -1);
    if (location.fileName.isEmpty())
        return {};
    location.kind = ImageLocation::Kind::localFile;
    return location;
}

ImageLocation belowBase(const QUrl& base, const QString& reference) {
    // Some servers read a backslash as a separator; refuse it rather than guess.
    if (reference.contains(QLatin1Char('\\')))
        return {};
    const QStringList segments = reference.split(QLatin1Char('/'));
    // "memes/" or "memes/.." names a folder, not an image.
    const QString& last = segments.last();
    if (last.isEmpty() || last == QLatin1String(".") || last == QLatin1String(".."))
        return {};
    QStringList parts;
    for (const QString& part : segments) {
        if (part.isEmpty())
            continue;
        if (part == QLatin1String("."))
            continue;
        if (part == QLatin1String("..")) {
            if (parts.isEmpty())
                return {};
            parts.removeLast();
            continue;
        }
        parts.append(part);
    }
    if (parts.isEmpty())
        return {};

    QString path = base.path(QUrl::FullyDecoded);
    if (!path.endsWith(QLatin1Char('/')))
        path += QLatin1Char('/');
    path += parts.join(QLatin1Char('/'));

    ImageLocation location;
    location.url = base.adjusted(QUrl::RemoveQuery | QUrl::RemoveFragment);
    // Decoded mode encodes every '%', '?' and '#', so the parts stay literal file names.
    location.url.setPath(path, QUrl::DecodedMode);
    if (!location.url.isValid())
        return {};
    location.fileName = parts.last();
    location.kind = ImageLocation::Kind::remote;
    return location;
}
} // namespace

namespace ImageSource {
ImageLocation locate(const QUrl& base, const QString& reference, ImageOrigin origin) {
    if (reference.startsWith(QLatin1String("file:"), Qt::CaseInsensitive))
        return origin == ImageOrigin::local ? localFile(reference) : ImageLocation{};
    return belowBase(base, reference);
}
} // namespace ImageSource
