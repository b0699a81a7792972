// SPDX-License-Identifier: MIT
#include "server/catalogsummary.h"

#include "catalog/catalogjson.h"

#include <QFile>
#include <QStringList>

namespace {

CatalogSummary::Document readDocument(const std::filesystem::path& root, const QString& fileName,
                                      bool collections) {
    CatalogSummary::Document doc;
    doc.fileName = fileName;
    QFile file(QString::fromStdString((root / fileName.toStdString()).string()));
    if (!file.open(QIODevice::ReadOnly))
        return doc;
    doc.present = true;
    const QByteArray bytes = file.readAll();
    if (collections) {
        if (const auto decoded = CatalogJson::decodeCollections(bytes, &doc.error)) {
            doc.valid = true;
            doc.count = decoded->size();
        }
    } else if (const auto decoded = CatalogJson::decodeMemes(bytes, &doc.error)) {
        doc.valid = true;
        doc.count = decoded->size();
    }
    return doc;
}

} // namespace

CatalogSummary CatalogSummary::read(const std::filesystem::path& root) {
    CatalogSummary summary;
    summary.m_documents = {
        readDocument(root, QStringLiteral("index.json"), false),
        readDocument(root, QStringLiteral("index_stress.json"), false),
        readDocument(root, QStringLiteral("collections.json"), true),
        readDocument(root, QStringLiteral("stickers.json"), false),
    };
    return summary;
}

qsizetype CatalogSummary::indexCount() const {
    const Document& index = m_documents.at(0);
    return index.valid ? index.count : -1;
}

QString CatalogSummary::describe() const {
    QStringList parts;
    for (const Document& doc : m_documents) {
        QString state;
        if (!doc.present)
            state = QStringLiteral("missing");
        else if (!doc.valid)
            state = QStringLiteral("does not decode (%1)").arg(doc.error);
        else if (doc.fileName == QLatin1String("collections.json"))
            state = QStringLiteral("%1 collections").arg(doc.count);
        else if (doc.fileName == QLatin1String("stickers.json"))
            state = QStringLiteral("%1 stickers").arg(doc.count);
        else
            state = QStringLiteral("%1 items").arg(doc.count);
        parts << doc.fileName + QStringLiteral(": ") + state;
    }
    return parts.join(QStringLiteral(", "));
}
