// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"
#include "catalogmapping.h"
#include "emojirenderer.h"
#include "openmojidata.h"

#include <QHash>
#include <QString>
#include <functional>

// Turns the OpenMoji package into a catalog folder the server can host: images under f/ and t/,
// index.json, stickers.json, collections.json, index_stress.json, LICENSE.txt, ATTRIBUTION.txt.
// The folder is assembled next to the target and moved into place only when complete.
class DemoCatalogBuilder {
public:
    struct Options {
        QString outDir;
        int fullSize = 512;
        int thumbSize = 160;
        int stressCount = 10000;
    };
    // Called on the calling thread: a stage name, items done, items in the stage.
    using Progress = std::function<void(const QString& stage, int done, int total)>;

    DemoCatalogBuilder(OpenMojiData data, CatalogMapping mapping, Options options);

    // Builds the catalog; false with the reason in `error`. Renders on the global thread pool.
    bool build(QString* error, const Progress& progress = {});

    // What the last build left out because its SVG could not be rendered.
    const QStringList& skipped() const { return m_skipped; }

private:
    struct Rendered {
        OpenMojiEntry entry;
        EmojiRenderer::Result image;
    };

    QList<OpenMojiEntry> includedEntries() const;
    QList<Rendered> renderEmoji(const QString& dir, const Progress& progress);
    MemeList catalogRecords(const QList<Rendered>& rendered) const;
    void addCollections(const MemeList& index, MemeList* stickers,
                        CollectionList* collections) const;
    bool renderStressPictures(const QString& dir, QString* error, const Progress& progress) const;
    QByteArray attribution(qsizetype pictures) const;

    OpenMojiData m_data;
    CatalogMapping m_mapping;
    Options m_options;
    QHash<QString, OpenMojiEntry> m_byHexcode;
    QStringList m_skipped;
};
