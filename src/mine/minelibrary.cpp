// SPDX-License-Identifier: MIT
#include "mine/minelibrary.h"

#include "base/apppaths.h"
#include "base/atomicfile.h"
#include "base/logcategories.h"
#include "catalog/ocrengine.h"
#include "mine/emoji.h"

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImageReader>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QUrl>
#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>

using nlohmann::ordered_json;

namespace {

const QString recordName = QStringLiteral("item.json");
// Hidden folders of our own: an item being written, an item being deleted.
const QString newPrefix = QStringLiteral(".new-");
const QString deletedPrefix = QStringLiteral(".del-");

// Formats other programs take as they are; anything else is kept as PNG.
const QList<QByteArray> keptFormats = {"png", "jpeg", "gif", "webp"};

bool isItemID(const QString& id) {
    static const QRegularExpression pattern(QStringLiteral("^g_[0-9a-z]{1,64}$"));
    return pattern.match(id).hasMatch();
}

QString newID() {
    return QStringLiteral("g_") +
           QString::number(QRandomGenerator::system()->generate64(), 36).rightJustified(13, u'0');
}

std::string utf8(const QString& text) {
    return text.toStdString();
}

QString text(const ordered_json& json, const char* key) {
    const auto it = json.find(key);
    return it != json.end() && it->is_string() ? QString::fromStdString(it->get<std::string>())
                                               : QString();
}

QByteArray encodeImage(const QImage& image, const char* format) {
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    if (!image.save(&buffer, format, std::strcmp(format, "jpg") == 0 ? 85 : -1))
        return {};
    return bytes;
}

QString cleanLabel(const QString& label) {
    return label.simplified().left(MineLibrary::maxLabelChars);
}

} // namespace

MineLibrary::MineLibrary(QString root) : m_root(std::move(root)) {}

QString MineLibrary::defaultRoot() {
    return AppPaths::dataDir() + QStringLiteral("/Mine");
}

QString MineLibrary::folder(const QString& id) const {
    return m_root + QLatin1Char('/') + id;
}

QString MineLibrary::imagePath(const Record& record) const {
    return folder(record.id) + QLatin1Char('/') + record.file;
}

// --- Records ---

QByteArray MineLibrary::encodeRecord(const Record& r) {
    ordered_json j = {
        {"id", utf8(r.id)},         {"label", utf8(r.label)},
        {"source", utf8(r.source)}, {"added", utf8(r.added.toUTC().toString(Qt::ISODateWithMs))},
        {"file", utf8(r.file)},     {"thumb", utf8(r.thumb)},
        {"bytes", r.bytes},         {"width", r.width},
        {"height", r.height}};
    j["ocr"] = r.ocr ? ordered_json(utf8(*r.ocr)) : ordered_json(nullptr);
    if (!r.emoji.isEmpty()) {
        j["emoji"] = utf8(r.emoji);
        j["name"] = utf8(r.emojiName);
    }
    return QByteArray::fromStdString(j.dump(2)) + '\n';
}

std::optional<MineLibrary::Record> MineLibrary::decodeRecord(const QByteArray& json) {
    const ordered_json j =
        ordered_json::parse(json.constData(), json.constData() + json.size(), nullptr, false);
    if (!j.is_object())
        return std::nullopt;
    Record r;
    r.id = text(j, "id");
    r.label = text(j, "label");
    r.source = text(j, "source");
    r.added = QDateTime::fromString(text(j, "added"), Qt::ISODateWithMs);
    r.file = text(j, "file");
    r.thumb = text(j, "thumb");
    const auto number = [&](const char* key) -> qint64 {
        const auto it = j.find(key);
        return it != j.end() && it->is_number_integer() ? it->get<qint64>() : -1;
    };
    r.bytes = number("bytes");
    r.width = int(std::clamp<qint64>(number("width"), -1, 1'000'000));
    r.height = int(std::clamp<qint64>(number("height"), -1, 1'000'000));
    if (const auto ocr = j.find("ocr"); ocr != j.end() && ocr->is_string())
        r.ocr = QString::fromStdString(ocr->get<std::string>());
    r.emoji = text(j, "emoji");
    r.emojiName = text(j, "name");
    // File names stay inside the item's folder.
    const auto plainName = [](const QString& name) {
        return !name.isEmpty() && !name.contains(u'/') && !name.startsWith(u'.');
    };
    if (!isItemID(r.id) || !r.added.isValid() || !plainName(r.file) || r.bytes < 0 ||
        r.width <= 0 || r.height <= 0)
        return std::nullopt;
    if (!plainName(r.thumb))
        r.thumb = r.file;
    return r;
}

// --- Loading ---

MineLibrary::Loaded MineLibrary::load() {
    Loaded out;
    const QDir root(m_root);
    const QFileInfoList entries =
        root.entryInfoList(QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    for (const QFileInfo& entry : entries) {
        const QString name = entry.fileName();
        if (name.startsWith(newPrefix) || name.startsWith(deletedPrefix)) {
            // Our own: an add or a removal that did not finish.
            QDir(entry.absoluteFilePath()).removeRecursively();
            continue;
        }
        if (!name.startsWith(QLatin1String("g_")))
            continue;
        std::optional<Record> record;
        QFile file(entry.absoluteFilePath() + QLatin1Char('/') + recordName);
        if (file.size() <= 1'000'000 && file.open(QIODevice::ReadOnly))
            record = decodeRecord(file.readAll());
        if (record && record->id == name) {
            const QFileInfo image(imagePath(*record));
            if (!image.isFile() || image.size() == 0)
                record.reset();
            else if (!QFileInfo::exists(folder(name) + QLatin1Char('/') + record->thumb))
                record->thumb = record->file;
        } else {
            record.reset();
        }
        if (!record) {
            qCWarning(lcApp).noquote()
                << "mine: skipped" << name << "(no readable item.json or image)";
            out.skipped.append(name);
            continue;
        }
        out.records.append(*record);
    }
    std::stable_sort(out.records.begin(), out.records.end(), [](const Record& a, const Record& b) {
        return a.added != b.added ? a.added > b.added : a.id > b.id;
    });
    return out;
}

std::optional<MineLibrary::Record> MineLibrary::record(const QString& id) const {
    if (!isItemID(id))
        return std::nullopt;
    QFile file(folder(id) + QLatin1Char('/') + recordName);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    std::optional<Record> r = decodeRecord(file.readAll());
    if (!r || r->id != id)
        return std::nullopt;
    return r;
}

// --- Adding ---

std::variant<MineLibrary::Prepared, QString> MineLibrary::prepare(const QByteArray& bytes) {
    if (bytes.isEmpty())
        return QStringLiteral("is empty");
    if (bytes.size() > maxFileBytes)
        return QStringLiteral("is larger than 100 MB");
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    QImageReader reader(&buffer);
    reader.setDecideFormatFromContent(true);
    reader.setAutoTransform(true);
    if (!reader.canRead())
        return QStringLiteral("is not an image");
    const QByteArray format = reader.format();
    const QSize declared = reader.size();
    if (declared.isValid() && qint64(declared.width()) * declared.height() > maxPixels)
        return QStringLiteral("is too large (%1 × %2 pixels)")
            .arg(declared.width())
            .arg(declared.height());
    // Decoders refuse what they would allocate beyond this, so a lying header cannot
    // exhaust memory either.
    reader.setAllocationLimit(int(maxPixels * 4 / 1'000'000) + 1);
    Prepared out;
    out.decoded = reader.read();
    if (out.decoded.isNull())
        return QStringLiteral("could not be read (damaged or incomplete)");
    if (qint64(out.decoded.width()) * out.decoded.height() > maxPixels)
        return QStringLiteral("is too large (%1 × %2 pixels)")
            .arg(out.decoded.width())
            .arg(out.decoded.height());
    if (keptFormats.contains(format)) {
        out.image = bytes;
        out.extension = format == "jpeg" ? QStringLiteral("jpg") : QString::fromLatin1(format);
    } else {
        out.image = encodeImage(out.decoded, "png");
        out.extension = QStringLiteral("png");
        if (out.image.isEmpty())
            return QStringLiteral("could not be converted");
    }
    return out;
}

MineLibrary::Added MineLibrary::addFile(const QString& path, Source source) {
    const QFileInfo info(path);
    if (info.isDir())
        return QStringLiteral("is a folder");
    if (!info.isFile())
        return QStringLiteral("is not there any more");
    if (info.size() == 0)
        return QStringLiteral("is empty");
    if (info.size() > maxFileBytes)
        return QStringLiteral("is larger than 100 MB");
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("could not be opened");
    return addData(file.readAll(), source, info.completeBaseName());
}

MineLibrary::Added MineLibrary::addData(const QByteArray& bytes, Source source,
                                        const QString& label) {
    auto prepared = prepare(bytes);
    if (const QString* error = std::get_if<QString>(&prepared))
        return *error;
    return store(std::get<Prepared>(prepared), source, label);
}

MineLibrary::Added MineLibrary::addImage(const QImage& image, Source source, const QString& label) {
    if (image.isNull())
        return QStringLiteral("is not an image");
    if (qint64(image.width()) * image.height() > maxPixels)
        return QStringLiteral("is too large (%1 × %2 pixels)")
            .arg(image.width())
            .arg(image.height());
    Prepared prepared;
    prepared.decoded = image;
    prepared.image = encodeImage(image, "png");
    prepared.extension = QStringLiteral("png");
    if (prepared.image.isEmpty())
        return QStringLiteral("could not be converted");
    return store(prepared, source, label);
}

MineLibrary::Added MineLibrary::addEmoji(const QString& emoji) {
    if (Emoji::split(emoji) != QStringList{emoji})
        return QStringLiteral("is not an emoji");
    const QImage image = Emoji::render(emoji);
    if (image.isNull())
        return QStringLiteral("could not be drawn (is the Noto Color Emoji font installed?)");
    Prepared prepared;
    prepared.decoded = image;
    prepared.image = encodeImage(image, "png");
    prepared.extension = QStringLiteral("png");
    const QString name = Emoji::name(emoji);
    return store(prepared, Source::emoji, name, emoji, name);
}

MineLibrary::Added MineLibrary::store(const Prepared& prepared, Source source, const QString& label,
                                      const QString& emoji, const QString& emojiName) {
    static const char* sourceNames[] = {"file", "drop", "paste", "emoji"};
    Record r;
    do {
        r.id = newID();
    } while (QFileInfo::exists(folder(r.id)));
    r.label = cleanLabel(label);
    r.source = QString::fromLatin1(sourceNames[int(source)]);
    r.added = QDateTime::currentDateTimeUtc();
    r.file = QStringLiteral("image.") + prepared.extension;
    r.bytes = prepared.image.size();
    r.width = prepared.decoded.width();
    r.height = prepared.decoded.height();
    r.emoji = emoji;
    r.emojiName = emojiName;
    // Emoji carry their name; there is nothing to read on them.
    if (!emoji.isEmpty())
        r.ocr = QString();

    const QImage& image = prepared.decoded;
    const bool alpha = image.hasAlphaChannel();
    const char* thumbFormat = alpha ? "png" : "jpg";
    const int longest = std::max(image.width(), image.height());
    const QImage small =
        longest > thumbSide
            ? image.scaled(thumbSide, thumbSide, Qt::KeepAspectRatio, Qt::SmoothTransformation)
            : image;
    const QByteArray thumb =
        encodeImage(alpha ? small : small.convertToFormat(QImage::Format_RGB32), thumbFormat);
    r.thumb = QStringLiteral("thumb.") + QString::fromLatin1(thumbFormat);

    const QString staging = m_root + QLatin1Char('/') + newPrefix + r.id;
    const auto fail = [&] {
        QDir(staging).removeRecursively();
        qCWarning(lcApp).noquote() << "mine: could not write" << staging;
        return QStringLiteral("could not be saved (is the disk full?)");
    };
    if (thumb.isEmpty() || !QDir().mkpath(staging))
        return fail();
    const auto write = [&](const QString& name, const QByteArray& bytes) {
        QFile file(staging + QLatin1Char('/') + name);
        return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.flush();
    };
    if (!write(r.file, prepared.image) || !write(r.thumb, thumb) ||
        !write(recordName, encodeRecord(r)))
        return fail();
    if (!QDir().rename(staging, folder(r.id)))
        return fail();
    return r;
}

// --- Changing and removing ---

std::optional<MineLibrary::Record>
MineLibrary::rewrite(const QString& id, const std::function<void(Record&)>& change) {
    std::optional<Record> r = record(id);
    if (!r)
        return std::nullopt;
    change(*r);
    if (!writeFileAtomically(folder(id) + QLatin1Char('/') + recordName, encodeRecord(*r)))
        return std::nullopt;
    return r;
}

std::optional<MineLibrary::Record> MineLibrary::setLabel(const QString& id, const QString& label) {
    return rewrite(id, [&](Record& r) { r.label = cleanLabel(label); });
}

std::optional<MineLibrary::Record> MineLibrary::setOcr(const QString& id, const QString& words) {
    return rewrite(id, [&](Record& r) { r.ocr = words.simplified(); });
}

bool MineLibrary::remove(const QString& id) {
    if (!isItemID(id) || !QFileInfo(folder(id)).isDir())
        return false;
    // Out of sight in one step, so an interrupted deletion never leaves half an item.
    const QString doomed = m_root + QLatin1Char('/') + deletedPrefix + id;
    if (!QDir().rename(folder(id), doomed))
        return false;
    QDir(doomed).removeRecursively();
    return true;
}

// --- Reading ---

QString MineLibrary::readWords(const QString& path, OcrEngine& engine) {
    // Below this, Tesseract's "words" on photos are mostly texture read as letters.
    constexpr float minConfidence = 60;
    QImageReader reader(path);
    reader.setAutoTransform(true);
    reader.setAllocationLimit(int(maxPixels * 4 / 1'000'000) + 1);
    const QImage image = reader.read();
    QStringList words;
    for (const OcrEngine::Word& word : engine.read(image)) {
        const QString clean = word.text.trimmed();
        const qsizetype letters =
            std::count_if(clean.begin(), clean.end(), [](QChar c) { return c.isLetterOrNumber(); });
        if (word.confidence >= minConfidence && letters >= 2)
            words.append(clean);
    }
    return words.join(u' ');
}

// --- The picker's view ---

Meme MineLibrary::toMeme(const Record& r) const {
    Meme meme;
    meme.id = r.id;
    meme.description = r.label;
    meme.ocr_text = r.ocr.value_or(QString());
    if (!r.emojiName.isEmpty())
        meme.keywords = {r.emojiName};
    if (!r.emoji.isEmpty())
        meme.character = r.emoji;
    meme.thumb = QUrl::fromLocalFile(folder(r.id) + QLatin1Char('/') + r.thumb).toString();
    meme.full = QUrl::fromLocalFile(imagePath(r)).toString();
    meme.width = r.width;
    meme.height = r.height;
    meme.bytes = r.bytes;
    return meme;
}
