// SPDX-License-Identifier: MIT
#include "insert/dragitem.h"

#include "base/atomicfile.h"
#include "catalog/imageconversion.h"
#include "insert/pasteitem.h"

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QUrl>

namespace {

constexpr qsizetype maxStemChars = 60;

QByteArray readAll(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool isJPEGData(const QByteArray& bytes) {
    return bytes.startsWith("\xff\xd8\xff");
}

PasteItem::Source pasteSource(const DragItem::Source& source) {
    return {source.file, source.pngSibling, source.isPNG, false};
}

// A JPEG as served is handed on unchanged; anything else is encoded.
bool writeJPEG(const QString& from, const QString& to) {
    QByteArray bytes = readAll(from);
    if (!isJPEGData(bytes)) {
        const std::optional<QByteArray> encoded = ImageConversion::jpegData(from);
        if (!encoded)
            return false;
        bytes = *encoded;
    }
    return writeFileAtomically(to, bytes);
}

QByteArray uriList(const QString& file) {
    return QUrl::fromLocalFile(file).toEncoded() + "\r\n";
}

} // namespace

namespace DragItem {

QString nameStem(const Meme& meme) {
    static const QRegularExpression notWord(QStringLiteral("[^\\p{L}\\p{N}]+"));
    const QString words = meme.template_.isEmpty() ? meme.description : meme.template_;
    QString stem = words.toLower().split(notWord, Qt::SkipEmptyParts).join(QLatin1Char('-'));
    if (stem.size() > maxStemChars) {
        // Cut between words where there is a break to cut at.
        const QString cut = stem.left(maxStemChars + 1).section(QLatin1Char('-'), 0, -2);
        stem = cut.isEmpty() ? stem.left(maxStemChars) : cut;
    }
    if (stem.isEmpty())
        stem = QFileInfo(meme.full).completeBaseName();
    if (stem.isEmpty() || stem.startsWith(QLatin1Char('.')))
        stem = meme.id;
    return stem;
}

std::optional<ClipboardItem> make(const Source& source, DragPayload payload) {
    if (source.file.isEmpty() || !QFileInfo(source.file).isFile())
        return std::nullopt;
    ClipboardItem item;
    if (payload == DragPayload::c && !source.jpegFile.isEmpty()) {
        if (!writeJPEG(source.file, source.jpegFile))
            return std::nullopt;
        item.append({QStringLiteral("text/uri-list"), uriList(source.jpegFile)});
        return item;
    }
    item.append(
        {QStringLiteral("text/uri-list"), uriList(PasteItem::fileForURL(pasteSource(source)))});
    if (payload == DragPayload::b) {
        const std::optional<QByteArray> png = PasteItem::pngBytes(pasteSource(source));
        if (!png || png->isEmpty())
            return std::nullopt;
        item.append({QStringLiteral("image/png"), *png});
    }
    return item;
}

} // namespace DragItem
