// SPDX-License-Identifier: MIT
#include "democatalogbuilder.h"

#include "stresscatalog.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFutureWatcher>
#include <QHash>
#include <QMap>
#include <QtConcurrent>
#include <algorithm>
#include <limits>

namespace {

// Runs `fn` over `items` on the global pool and reports progress from the calling thread.
template <typename T, typename Fn>
void runParallel(QList<T>& items, Fn fn, const QString& stage,
                 const DemoCatalogBuilder::Progress& progress) {
    QFutureWatcher<void> watcher;
    QEventLoop loop;
    const int total = static_cast<int>(items.size());
    if (progress)
        QObject::connect(&watcher, &QFutureWatcherBase::progressValueChanged, &loop,
                         [&](int done) { progress(stage, done, total); });
    QObject::connect(&watcher, &QFutureWatcherBase::finished, &loop, &QEventLoop::quit);
    watcher.setFuture(QtConcurrent::map(items, fn));
    loop.exec();
}

bool writeFile(const QString& path, const QByteArray& bytes, QString* error) {
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size())
        return true;
    *error = path + QStringLiteral(": ") + file.errorString();
    return false;
}

// Popularity follows Unicode's emoji order, which lists the most used kinds first (faces,
// hearts, hands); skin-tone variants come after every base emoji and OpenMoji's own extras
// last. The most popular item gets the highest number, the least popular 1.
QHash<QString, qint64> popularityRanks(const QList<OpenMojiEntry>& entries) {
    QList<qsizetype> order(entries.size());
    for (qsizetype i = 0; i < entries.size(); ++i)
        order[i] = i;
    const auto key = [&](qsizetype i) {
        const OpenMojiEntry& e = entries.at(i);
        const int tier = !e.order ? 2 : (e.skintoneBase.isEmpty() ? 0 : 1);
        return std::tuple(tier, e.order.value_or(std::numeric_limits<int>::max()), i);
    };
    std::sort(order.begin(), order.end(),
              [&](qsizetype a, qsizetype b) { return key(a) < key(b); });
    QHash<QString, qint64> ranks;
    for (qsizetype rank = 0; rank < order.size(); ++rank)
        ranks.insert(entries.at(order.at(rank)).hexcode, entries.size() - rank);
    return ranks;
}

// Emoji files carry a prefix: some hexcodes ("2049") are plain numbers, and /t/N.webp belongs
// to the stress catalog's cats.
QString fullPath(const OpenMojiEntry& entry) {
    return QStringLiteral("/f/om-") + entry.hexcode + QStringLiteral(".png");
}

QString thumbPath(const OpenMojiEntry& entry) {
    return QStringLiteral("/t/om-") + entry.hexcode + QStringLiteral(".webp");
}

QStringList mergedKeywords(const OpenMojiEntry& entry) {
    QStringList keywords;
    for (const QStringList* list : {&entry.tags, &entry.openmojiTags})
        for (const QString& tag : *list)
            if (!keywords.contains(tag, Qt::CaseInsensitive))
                keywords << tag;
    return keywords;
}

} // namespace

DemoCatalogBuilder::DemoCatalogBuilder(OpenMojiData data, CatalogMapping mapping, Options options)
    : m_data(std::move(data)), m_mapping(std::move(mapping)), m_options(std::move(options)) {
    for (const OpenMojiEntry& entry : m_data.entries())
        m_byHexcode.insert(entry.hexcode, entry);
}

bool DemoCatalogBuilder::build(QString* error, const Progress& progress) {
    const QString staging = m_options.outDir + QStringLiteral(".partial");
    QDir(staging).removeRecursively();
    if (!QDir().mkpath(staging + QStringLiteral("/f")) ||
        !QDir().mkpath(staging + QStringLiteral("/t"))) {
        *error = staging + QStringLiteral(": cannot create the folder");
        return false;
    }

    const QList<Rendered> rendered = renderEmoji(staging, progress);
    if (rendered.isEmpty()) {
        *error = QStringLiteral("no emoji could be rendered") +
                 (m_skipped.isEmpty() ? QString() : QStringLiteral(" (") + m_skipped.first() + ')');
        return false;
    }
    const MemeList index = catalogRecords(rendered);
    MemeList stickers;
    CollectionList collections;
    addCollections(index, &stickers, &collections);
    if (!renderStressPictures(staging, error, progress))
        return false;

    QFile license(m_data.licensePath());
    if (!license.open(QIODevice::ReadOnly)) {
        *error = m_data.licensePath() + QStringLiteral(": ") + license.errorString();
        return false;
    }
    const std::pair<const char*, QByteArray> files[] = {
        {"index.json", CatalogJson::encodeMemes(index)},
        {"stickers.json", CatalogJson::encodeMemes(stickers)},
        {"collections.json", CatalogJson::encodeCollections(collections)},
        {"index_stress.json",
         CatalogJson::encodeMemes(StressCatalog::records(m_options.stressCount))},
        {"ATTRIBUTION.txt", attribution(index.size())},
        {"LICENSE.txt", license.readAll()},
    };
    for (const auto& [name, bytes] : files)
        if (!writeFile(staging + '/' + QLatin1String(name), bytes, error))
            return false;

    // Swap the finished folder in; a reader never sees a half-built catalog.
    const QString old = m_options.outDir + QStringLiteral(".old");
    QDir(old).removeRecursively();
    if (QDir(m_options.outDir).exists() && !QDir().rename(m_options.outDir, old)) {
        *error = m_options.outDir + QStringLiteral(": cannot move the previous catalog aside");
        return false;
    }
    if (!QDir().rename(staging, m_options.outDir)) {
        *error = m_options.outDir + QStringLiteral(": cannot move the new catalog into place");
        return false;
    }
    QDir(old).removeRecursively();
    return true;
}

QList<OpenMojiEntry> DemoCatalogBuilder::includedEntries() const {
    QList<OpenMojiEntry> entries;
    for (OpenMojiEntry entry : m_data.entries()) {
        if (!m_mapping.includes(entry))
            continue;
        // Skin-tone variants carry no tags of their own; they are found by their base's words.
        if (!entry.skintoneBase.isEmpty() && entry.tags.isEmpty()) {
            const OpenMojiEntry base = m_byHexcode.value(entry.skintoneBase);
            entry.tags = base.tags;
            entry.openmojiTags = base.openmojiTags;
        }
        entries << entry;
    }
    return entries;
}

QList<DemoCatalogBuilder::Rendered> DemoCatalogBuilder::renderEmoji(const QString& dir,
                                                                    const Progress& progress) {
    QList<Rendered> jobs;
    for (const OpenMojiEntry& entry : includedEntries())
        jobs.append({entry, {}});
    const EmojiRenderer renderer(m_options.fullSize, m_options.thumbSize);
    runParallel(
        jobs,
        [&](Rendered& job) {
            job.image = renderer.render(m_data.svgPath(job.entry.hexcode),
                                        dir + fullPath(job.entry), dir + thumbPath(job.entry));
        },
        QStringLiteral("emoji"), progress);

    QList<Rendered> rendered;
    m_skipped.clear();
    for (const Rendered& job : jobs) {
        if (job.image.ok)
            rendered << job;
        else
            m_skipped << job.image.error;
    }
    return rendered;
}

MemeList DemoCatalogBuilder::catalogRecords(const QList<Rendered>& rendered) const {
    QList<OpenMojiEntry> entries;
    for (const Rendered& item : rendered)
        entries << item.entry;
    const QHash<QString, qint64> popularity = popularityRanks(entries);

    MemeList index;
    for (const auto& [entry, image] : rendered) {
        Meme meme;
        meme.id = entry.hexcode;
        meme.template_ = m_mapping.templateFor(entry);
        meme.ocr_text = m_mapping.ocrText(entry);
        meme.description = entry.annotation;
        meme.emotions = m_mapping.emotions(entry);
        meme.use_cases = m_mapping.useCases(entry);
        meme.keywords = mergedKeywords(entry);
        meme.thumb = thumbPath(entry);
        meme.full = fullPath(entry);
        meme.width = image.width;
        meme.height = image.height;
        meme.bytes = image.fullBytes;
        meme.popularity = popularity.value(entry.hexcode);
        if (const QStringList actions = m_mapping.actions(entry); !actions.isEmpty())
            meme.actions = actions;
        index << meme;
    }
    std::stable_sort(index.begin(), index.end(), [](const Meme& a, const Meme& b) {
        return a.popularity.value_or(0) > b.popularity.value_or(0);
    });
    return index;
}

// One sticker collection per group, holding its base emoji (no skin-tone variants) in
// popularity order. Sticker ids differ from the catalog's so a favourite sticker stays a sticker.
void DemoCatalogBuilder::addCollections(const MemeList& index, MemeList* stickers,
                                        CollectionList* collections) const {
    for (const CatalogMapping::Group& group : m_mapping.groups()) {
        const QString collectionId = QStringLiteral("openmoji-") + group.slug;
        CollectionInfo info;
        for (const Meme& meme : index) {
            const OpenMojiEntry entry = m_byHexcode.value(meme.id);
            if (entry.group != group.slug || !entry.skintoneBase.isEmpty())
                continue;
            Meme sticker = meme;
            sticker.id = QStringLiteral("st-") + meme.id;
            sticker.collection_id = collectionId;
            sticker.order = ++info.count;
            *stickers << sticker;
            if (info.cover.isEmpty() || meme.id == group.cover)
                info.cover = meme.thumb;
            for (const QString& word : entry.subgroup.split(QLatin1Char('-'), Qt::SkipEmptyParts))
                if (!info.keywords.contains(word) && word != QLatin1String("other"))
                    info.keywords << word;
        }
        if (info.count == 0)
            continue;
        info.id = collectionId;
        info.name = group.name;
        info.name_en = group.name;
        if (!group.theme.isEmpty())
            info.theme = group.theme;
        info.owner = QStringLiteral("OpenMoji");
        info.source = QStringLiteral("OpenMoji %1 (CC BY-SA 4.0)").arg(m_data.version());
        *collections << info;
    }
}

bool DemoCatalogBuilder::renderStressPictures(const QString& dir, QString* error,
                                              const Progress& progress) const {
    const QImage cat = EmojiRenderer::rasterize(m_data.svgPath(QStringLiteral("1F431")), 64);
    QList<int> numbers;
    for (int n = 1; n <= m_options.stressCount; ++n)
        numbers << n;
    std::atomic<int> failures{0};
    runParallel(
        numbers,
        [&](int n) {
            const QImage image = StressCatalog::picture(cat, n);
            const QString name = QString::number(n);
            if (!EmojiRenderer::write(image,
                                      dir + QStringLiteral("/f/") + name + QStringLiteral(".jpg"),
                                      "jpg", 85) ||
                !EmojiRenderer::write(image,
                                      dir + QStringLiteral("/t/") + name + QStringLiteral(".webp"),
                                      "webp", 75))
                ++failures;
        },
        QStringLiteral("stress"), progress);
    if (failures > 0) {
        *error = QStringLiteral("%1 stress pictures could not be written").arg(failures.load());
        return false;
    }
    return true;
}

QByteArray DemoCatalogBuilder::attribution(qsizetype pictures) const {
    QMap<QString, int> byAuthor;
    for (const OpenMojiEntry& entry : m_data.entries())
        if (m_mapping.includes(entry) && !entry.author.isEmpty())
            ++byAuthor[entry.author];
    QString text =
        QStringLiteral(
            "Orvane demo catalog\n"
            "===================\n\n"
            "All emojis designed by OpenMoji - the open-source emoji and icon project.\n"
            "License: CC BY-SA 4.0 (see LICENSE.txt). https://openmoji.org\n\n"
            "This folder holds %1 OpenMoji %2 emoji, rendered from the original SVG files to PNG\n"
            "(%3 px) and WebP (%4 px), and %5 numbered cat pictures (index_stress.json) made from "
            "the\n"
            "OpenMoji \"cat face\". The rendered pictures are adaptations of OpenMoji and are "
            "shared\n"
            "under the same licence, CC BY-SA 4.0.\n\n"
            "Descriptions and keywords come from OpenMoji's data file, whose emoji names and\n"
            "keywords are the Unicode CLDR annotations (Unicode License v3).\n\n"
            "OpenMoji designers of the pictures here, with their number of emoji:\n")
            .arg(pictures)
            .arg(m_data.version())
            .arg(m_options.fullSize)
            .arg(m_options.thumbSize)
            .arg(m_options.stressCount);
    for (auto it = byAuthor.cbegin(); it != byAuthor.cend(); ++it)
        text += QStringLiteral("  %1 (%2)\n").arg(it.key()).arg(it.value());
    return text.toUtf8();
}
