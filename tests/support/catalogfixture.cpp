// SPDX-License-Identifier: MIT
#include "support/catalogfixture.h"

#include "catalog/catalogjson.h"
#include "support/testenv.h"
#include "support/xvfbsession.h"

#include <QColor>
#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QImage>
#include <QRegularExpression>

namespace {

Meme item(const QString& id, const QString& description, int n, QSize size) {
    Meme m;
    m.id = id;
    m.description = description;
    m.keywords = {description.section(QLatin1Char(' '), 1, 1)};
    m.thumb = QStringLiteral("/t/%1.png").arg(id);
    m.full = QStringLiteral("/f/%1.png").arg(id);
    m.width = size.width();
    m.height = size.height();
    m.popularity = 1000 - n;
    return m;
}

} // namespace

CatalogFixture::~CatalogFixture() {
    if (m_server) {
        m_server->terminate();
        if (!m_server->waitForFinished(3000))
            m_server->kill();
    }
}

void CatalogFixture::writeCatalog(const QString& root, int cats, int dogs, QSize imageSize) {
    MemeList memes;
    for (int i = 1; i <= cats + dogs; ++i) {
        const bool cat = i <= cats;
        memes.append(item(QStringLiteral("m_%1").arg(i, 5, 10, QLatin1Char('0')),
                          QStringLiteral("a %1 number %2").arg(cat ? "cat" : "dog").arg(i), i,
                          imageSize));
    }
    MemeList stickers;
    for (int i = 1; i <= 2; ++i) {
        Meme s = item(QStringLiteral("s_%1").arg(i), QStringLiteral("a sticker number %1").arg(i),
                      i, imageSize);
        s.collection_id = QStringLiteral("c1");
        s.order = i;
        stickers.append(s);
    }
    QDir().mkpath(root + QStringLiteral("/f"));
    QDir().mkpath(root + QStringLiteral("/t"));
    const auto drawImages = [&root](MemeList& list) {
        for (Meme& m : list) {
            QImage image(int(m.width), int(m.height), QImage::Format_RGB32);
            image.fill(QColor::fromHsv(int(qHash(m.id) % 360), 160, 220));
            image.save(root + m.full, "PNG");
            image.save(root + m.thumb, "PNG");
            m.bytes = QFileInfo(root + m.full).size();
        }
    };
    drawImages(memes);
    drawImages(stickers);
    CollectionInfo c{QStringLiteral("c1"),
                     QStringLiteral("Stickers"),
                     QStringLiteral("Stickers"),
                     std::nullopt,
                     {QStringLiteral("sticker")},
                     stickers.first().thumb,
                     2,
                     QStringLiteral("tests"),
                     QStringLiteral("tests")};
    TestEnv::writeFile(root + QStringLiteral("/index.json"), CatalogJson::encodeMemes(memes));
    TestEnv::writeFile(root + QStringLiteral("/stickers.json"), CatalogJson::encodeMemes(stickers));
    TestEnv::writeFile(root + QStringLiteral("/collections.json"),
                       CatalogJson::encodeCollections({c}));
}

bool CatalogFixture::start(const QString& serverBinary, const QString& root, QString* why) {
    m_server = std::make_unique<QProcess>();
    XvfbSession::endWithTest(*m_server);
    m_server->setProcessChannelMode(QProcess::SeparateChannels);
    m_server->start(serverBinary, {QStringLiteral("--root"), root, QStringLiteral("--port"),
                                   QStringLiteral("0")});
    // The start-up line names the address it bound.
    const QRegularExpression address(QStringLiteral("(http://127\\.0\\.0\\.1:\\d+)"));
    QByteArray out;
    const QDeadlineTimer deadline(15000);
    while (!deadline.hasExpired() && m_server->state() != QProcess::NotRunning) {
        m_server->waitForReadyRead(100);
        out += m_server->readAllStandardOutput();
        if (const auto match = address.match(QString::fromUtf8(out)); match.hasMatch()) {
            m_url = QUrl(match.captured(1));
            return true;
        }
    }
    *why = QStringLiteral("orvane-server did not start: ") +
           QString::fromUtf8(out + m_server->readAllStandardError());
    return false;
}
