// SPDX-License-Identifier: MIT
#pragma once

#include <QList>
#include <QString>
#include <filesystem>

// What the catalog documents in a folder hold, decoded as strictly as the app decodes them,
// so whoever starts the server learns about a broken document before any client does.
class CatalogSummary {
public:
    struct Document {
        QString fileName;
        bool present = false;
        bool valid = false;
        qsizetype count = 0;
        QString error; // where decoding failed, when present but not valid
    };

    // Reads and decodes index.json, index_stress.json, collections.json and stickers.json.
    static CatalogSummary read(const std::filesystem::path& root);

    const QList<Document>& documents() const { return m_documents; }
    // Items in index.json; -1 when it is missing or does not decode.
    qsizetype indexCount() const;
    // "index.json: 12 items, index_stress.json: missing, collections.json: 2 collections, ..."
    QString describe() const;

private:
    CatalogSummary() = default;

    QList<Document> m_documents;
};
