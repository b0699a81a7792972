// SPDX-License-Identifier: MIT
#pragma once

#include <QProcess>
#include <QSize>
#include <QString>
#include <QUrl>
#include <memory>

// A small catalog on disk (index.json, collections.json, stickers.json and PNG images) served
// by the real orvane-server binary on 127.0.0.1 and a free port.
class CatalogFixture {
public:
    ~CatalogFixture();
    // Writes the catalog below `root`: `cats` items described "a cat number N", `dogs`
    // described "a dog number N", and one collection with two stickers. Every image is one
    // colour, `imageSize` large.
    static void writeCatalog(const QString& root, int cats, int dogs,
                             QSize imageSize = QSize(64, 64));
    // Starts the server on `root`; false (with `why`) when it does not come up.
    bool start(const QString& serverBinary, const QString& root, QString* why);
    QUrl url() const { return m_url; }

private:
    std::unique_ptr<QProcess> m_server;
    QUrl m_url;
};
