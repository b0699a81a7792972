// SPDX-License-Identifier: MIT
#include "server/templateindex.h"

#include "catalog/catalogjson.h"
#include "server/catalogfiles.h"
#include "server/imagehash.h"
#include "server/serverlog.h"
#include "server/tagstore.h"

#include <QElapsedTimer>
#include <QFile>
#include <QImageReader>
#include <QUrl>
#include <algorithm>
#include <sys/stat.h>
#include <unordered_set>

TemplateIndex::TemplateIndex(std::filesystem::path root, std::string catalog, TagStore* cache,
                             int maxDistance)
    : m_root(std::move(root)), m_catalog(std::move(catalog)), m_cache(cache),
      m_maxDistance(maxDistance) {}

TemplateIndex::~TemplateIndex() {
    m_stop = true;
    if (m_builder.joinable())
        m_builder.join();
}

void TemplateIndex::start() {
    if (!m_builder.joinable())
        m_builder = std::thread([this] { build(); });
}

bool TemplateIndex::waitUntilReady(std::chrono::milliseconds timeout) {
    std::unique_lock lock(m_lock);
    return m_readyChanged.wait_for(lock, timeout, [this] { return m_ready; });
}

std::size_t TemplateIndex::size() const {
    const std::lock_guard lock(m_lock);
    return m_templates.size();
}

std::optional<TemplateIndex::Match> TemplateIndex::match(const ImageHash::Print& print) const {
    // Shapes this many bits further than the nearest still count as the same picture, so that
    // colour can choose between them (JPEG noise moves a few bits).
    constexpr int sameShapeBits = 4;
    const std::lock_guard lock(m_lock);
    int nearest = 65;
    for (const Template& t : m_templates)
        nearest = std::min(nearest, ImageHash::distance(print.shape, t.print.shape));
    if (nearest > m_maxDistance)
        return std::nullopt;
    const Template* best = nullptr;
    int bestColour = 0;
    for (const Template& t : m_templates) {
        const int d = ImageHash::distance(print.shape, t.print.shape);
        if (d > std::min(m_maxDistance, nearest + sameShapeBits))
            continue;
        const int colour = ImageHash::colourDistance(print.colours, t.print.colours);
        if (!best || colour < bestColour) {
            best = &t;
            bestColour = colour;
        }
    }
    return Match{*best, ImageHash::distance(print.shape, best->print.shape)};
}

void TemplateIndex::build() {
    QElapsedTimer timer;
    timer.start();
    const CatalogFiles files(m_root);
    QFile document(QString::fromStdString((m_root / m_catalog).string()));
    std::optional<MemeList> memes;
    QString error;
    if (document.open(QIODevice::ReadOnly))
        memes = CatalogJson::decodeMemes(document.readAll(), &error);
    if (!memes) {
        qCWarning(lcServer).noquote()
            << "tagging: no templates from" << document.fileName() << error;
        memes.emplace();
    }
    int computed = 0;
    std::unordered_set<std::string> seen;
    const auto cached =
        m_cache ? m_cache->prints() : std::unordered_map<std::string, TagStore::StoredPrint>();
    for (const Meme& meme : *memes) {
        if (m_stop)
            return;
        // `full` is a path on this server, or a whole URL pointing at it.
        const QString path =
            meme.full.startsWith('/') ? meme.full : QUrl(meme.full).path(QUrl::FullyDecoded);
        const auto file = files.resolve(path.toStdString());
        struct stat info {};
        if (!file || ::stat(file->c_str(), &info) != 0 || !seen.insert(file->string()).second)
            continue;
        const std::int64_t mtimeNs =
            std::int64_t(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
        std::optional<ImageHash::Print> print;
        if (const auto it = cached.find(file->string());
            it != cached.end() && it->second.size == info.st_size && it->second.mtimeNs == mtimeNs)
            print = it->second.print;
        if (!print) {
            QImageReader reader(QString::fromStdString(file->string()));
            const QImage image = reader.read();
            if (image.isNull())
                continue;
            print = ImageHash::of(image);
            ++computed;
            if (m_cache)
                m_cache->storePrint(file->string(), info.st_size, mtimeNs, *print);
        }
        Template t{meme.id,
                   meme.description,
                   meme.character.value_or(QString()),
                   meme.emotions,
                   meme.actions.value_or(QStringList()),
                   meme.use_cases,
                   meme.keywords,
                   *print};
        const std::lock_guard lock(m_lock);
        m_templates.push_back(std::move(t));
    }
    {
        const std::lock_guard lock(m_lock);
        m_ready = true;
        qCInfo(lcServer).noquote()
            << QStringLiteral("tagging: %1 templates ready in %2 ms (%3 hashed, the rest cached)")
                   .arg(m_templates.size())
                   .arg(timer.elapsed())
                   .arg(computed);
    }
    m_readyChanged.notify_all();
}
