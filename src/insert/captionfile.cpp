// SPDX-License-Identifier: MIT
#include "insert/captionfile.h"

#include "base/atomicfile.h"
#include "catalog/imageconversion.h"
#include "insert/captionrenderer.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImageReader>

namespace CaptionFile {

QString folderBeside(const QString& fullCacheDir) {
    return QDir::cleanPath(fullCacheDir + QStringLiteral("/../captioned"));
}

void removeExpired(const QString& folder, const QDateTime& now) {
    const QDateTime cutoff = now.addSecs(-keepSeconds);
    for (const QFileInfo& info : QDir(folder).entryInfoList(QDir::Files | QDir::Hidden)) {
        if (info.lastModified() < cutoff)
            QFile::remove(info.absoluteFilePath());
    }
}

Result save(const Request& request) {
    QImageReader reader(request.source);
    // The cache keeps most downloads under ".img": the content says what they are.
    reader.setDecideFormatFromContent(true);
    reader.setAutoTransform(true);
    const QImage source = reader.read();
    const std::optional<QImage> captioned =
        CaptionRenderer::render(source, request.top, request.bottom);
    const std::optional<QByteArray> jpeg =
        captioned ? ImageConversion::jpegData(*captioned, jpegQuality) : std::nullopt;
    if (!jpeg)
        return {{}, Result::Failure::render};

    QDir().mkpath(request.folder);
    removeExpired(request.folder, request.now);
    const QString file =
        QDir(request.folder)
            .filePath(request.key + QLatin1Char('-') +
                      QString::number(request.now.toSecsSinceEpoch()) + QStringLiteral(".jpg"));
    if (!writeFileAtomically(file, *jpeg))
        return {{}, Result::Failure::write};
    return {file, Result::Failure::none};
}

} // namespace CaptionFile
