// SPDX-License-Identifier: MIT
#include "mine/mineservice.h"

#include "base/logcategories.h"
#include "base/serialexecutor.h"
#include "catalog/ocrengine.h"
#include "mine/emoji.h"

#include <QFileInfo>
#include <QMimeData>
#include <QTimer>
#include <QUrl>

struct MineService::Batch {
    int total = 0;
    int done = 0;
    QStringList ids;     // newest first
    QStringList refused; // "“name” reason"
    bool emoji = false;
};

namespace {

QString quoted(const QString& name) {
    return QStringLiteral("“%1”").arg(name);
}

QString outcome(int added, const QStringList& refused, bool emoji, const QString& single) {
    if (added == 0 && refused.size() == 1)
        return refused.first();
    // One emoji is shown as itself.
    if (emoji && added == 1 && refused.isEmpty())
        return QStringLiteral("Added %1 to your images").arg(single);
    const QString what = emoji        ? QStringLiteral("emoji")
                         : added == 1 ? QStringLiteral("image")
                                      : QStringLiteral("images");
    QString line = added == 0 ? QStringLiteral("Nothing added")
                              : QStringLiteral("Added %1 %2 to your images").arg(added).arg(what);
    if (!refused.isEmpty())
        line += QStringLiteral(" · %1 skipped (%2%3)")
                    .arg(refused.size())
                    .arg(refused.first())
                    .arg(refused.size() > 1 ? QStringLiteral(", …") : QString());
    return line;
}

} // namespace

MineService::MineService(QString root, QObject* parent)
    : QObject(parent), m_library(std::make_unique<MineLibrary>(std::move(root))),
      m_stopping(std::make_shared<std::atomic<bool>>(false)),
      m_writer(std::make_unique<SerialExecutor>(QStringLiteral("mine-write"))),
      m_reader(std::make_unique<SerialExecutor>(QStringLiteral("mine-ocr"))) {}

MineService::~MineService() {
    m_stopping->store(true);
    m_reader.reset();
    m_writer.reset();
}

void MineService::waitForIdle() {
    // A read hands its words to the writer, so the writer is waited on last.
    m_reader->waitForIdle();
    m_writer->waitForIdle();
}

MemeList MineService::items() const {
    MemeList out;
    out.reserve(m_records.size());
    for (const MineLibrary::Record& r : m_records)
        out.append(m_library->toMeme(r));
    return out;
}

std::optional<MineLibrary::Record> MineService::record(const QString& id) const {
    for (const MineLibrary::Record& r : m_records)
        if (r.id == id)
            return r;
    return std::nullopt;
}

void MineService::publishSoon() {
    if (m_publishPending)
        return;
    m_publishPending = true;
    QTimer::singleShot(0, this, &MineService::publishNow);
}

void MineService::publishNow() {
    if (!m_publishPending)
        return;
    m_publishPending = false;
    emit itemsChanged(items());
}

// --- Loading ---

void MineService::load() {
    m_writer->post([this, stopping = m_stopping] {
        if (*stopping)
            return;
        MineLibrary::Loaded loaded = m_library->load();
        QMetaObject::invokeMethod(
            this,
            [this, loaded = std::move(loaded)] {
                m_records = loaded.records;
                m_loaded = true;
                publishSoon();
                for (const MineLibrary::Record& r : m_records)
                    queueRead(r);
            },
            Qt::QueuedConnection);
    });
}

// --- Adding ---

void MineService::postAdd(const std::shared_ptr<Batch>& batch,
                          std::function<MineLibrary::Added(MineLibrary&)> add,
                          const QString& name) {
    m_writer->post([this, batch, add = std::move(add), name, stopping = m_stopping] {
        if (*stopping)
            return;
        MineLibrary::Added result = add(*m_library);
        QMetaObject::invokeMethod(
            this,
            [this, batch, name, result = std::move(result)] {
                ++batch->done;
                if (const auto* record = std::get_if<MineLibrary::Record>(&result)) {
                    batch->ids.prepend(record->id);
                    stored(*record);
                } else {
                    const QString& why = std::get<QString>(result);
                    batch->refused.append(quoted(name) + u' ' + why);
                    qCInfo(lcApp).noquote() << "mine: not added:" << name << why;
                }
                if (batch->done == batch->total)
                    finishBatch(batch);
                else if (batch->total >= progressFrom)
                    emit notice(
                        QStringLiteral("Adding %1 of %2…").arg(batch->done + 1).arg(batch->total),
                        false);
            },
            Qt::QueuedConnection);
    });
}

void MineService::finishBatch(const std::shared_ptr<Batch>& batch) {
    // Whoever shows the new items finds them in the published list.
    publishNow();
    if (!batch->ids.isEmpty())
        emit added(batch->ids);
    const std::optional<MineLibrary::Record> first =
        batch->ids.isEmpty() ? std::nullopt : record(batch->ids.first());
    emit notice(outcome(int(batch->ids.size()), batch->refused, batch->emoji,
                        first ? first->emoji : QString()),
                batch->ids.isEmpty());
}

void MineService::stored(const MineLibrary::Record& record) {
    m_records.prepend(record);
    publishSoon();
    queueRead(record);
}

void MineService::addFiles(const QStringList& paths, Source source) {
    if (paths.isEmpty())
        return;
    auto batch = std::make_shared<Batch>();
    batch->total = int(paths.size());
    if (batch->total >= progressFrom)
        emit notice(QStringLiteral("Adding 1 of %1…").arg(batch->total), false);
    for (const QString& path : paths)
        postAdd(
            batch, [path, source](MineLibrary& library) { return library.addFile(path, source); },
            QFileInfo(path).fileName());
}

void MineService::addData(const QByteArray& bytes, Source source) {
    auto batch = std::make_shared<Batch>();
    batch->total = 1;
    postAdd(
        batch, [bytes, source](MineLibrary& library) { return library.addData(bytes, source); },
        QStringLiteral("The image"));
}

void MineService::addImage(const QImage& image, Source source) {
    auto batch = std::make_shared<Batch>();
    batch->total = 1;
    postAdd(
        batch, [image, source](MineLibrary& library) { return library.addImage(image, source); },
        QStringLiteral("The image"));
}

void MineService::addText(const QString& text) {
    const QStringList emoji = Emoji::split(text);
    if (emoji.isEmpty()) {
        emit notice(QStringLiteral("Only images and emoji can be added to your images"), true);
        return;
    }
    auto batch = std::make_shared<Batch>();
    batch->total = int(emoji.size());
    batch->emoji = true;
    for (const QString& one : emoji)
        postAdd(
            batch, [one](MineLibrary& library) { return library.addEmoji(one); }, one);
}

namespace {

QStringList localFiles(const QMimeData* mime) {
    QStringList files;
    for (const QUrl& url : mime->urls())
        if (url.isLocalFile())
            files.append(url.toLocalFile());
    return files;
}

// The encoded image type to take: the common ones first, then any other.
QString imageFormat(const QMimeData* mime) {
    const QStringList formats = mime->formats();
    for (const char* preferred : {"image/png", "image/jpeg", "image/gif", "image/webp"})
        if (formats.contains(QLatin1String(preferred)))
            return QLatin1String(preferred);
    for (const QString& format : formats)
        if (format.startsWith(QLatin1String("image/")))
            return format;
    return {};
}

} // namespace

bool MineService::offersItems(const QMimeData* mime) {
    return mime && (!localFiles(mime).isEmpty() || !imageFormat(mime).isEmpty() ||
                    mime->hasImage() || (mime->hasText() && !Emoji::split(mime->text()).isEmpty()));
}

void MineService::addMimeData(const QMimeData* mime, Source source) {
    if (!mime)
        return;
    if (const QStringList files = localFiles(mime); !files.isEmpty()) {
        addFiles(files, source);
        return;
    }
    if (const QString format = imageFormat(mime); !format.isEmpty()) {
        if (const QByteArray bytes = mime->data(format); !bytes.isEmpty()) {
            addData(bytes, source);
            return;
        }
    }
    if (mime->hasImage()) {
        addImage(qvariant_cast<QImage>(mime->imageData()), source);
        return;
    }
    if (mime->hasText() && !mime->text().trimmed().isEmpty()) {
        addText(mime->text());
        return;
    }
    emit notice(QStringLiteral("Only images and emoji can be added to your images"), true);
}

// --- Reading the words on new images ---

void MineService::queueRead(const MineLibrary::Record& record) {
    if (record.ocr || !record.emoji.isEmpty())
        return;
    ++m_pendingReads;
    const QString id = record.id;
    const QString path = m_library->imagePath(record);
    m_reader->post([this, id, path, stopping = m_stopping] {
        if (*stopping)
            return;
        if (!m_ocr)
            m_ocr = std::make_unique<OcrEngine>();
        // Without Tesseract's model nothing is stored, so a later run reads them.
        std::optional<QString> words;
        if (m_ocr->isReady())
            words = MineLibrary::readWords(path, *m_ocr);
        m_writer->post([this, id, words, stopping] {
            std::optional<MineLibrary::Record> updated;
            if (words && !*stopping)
                updated = m_library->setOcr(id, *words);
            QMetaObject::invokeMethod(
                this,
                [this, id, updated] {
                    --m_pendingReads;
                    if (updated) {
                        replace(*updated);
                        emit wordsRead(id);
                    }
                },
                Qt::QueuedConnection);
        });
    });
}

// --- Changing and removing ---

void MineService::replace(const MineLibrary::Record& record) {
    for (MineLibrary::Record& r : m_records) {
        if (r.id == record.id) {
            r = record;
            publishSoon();
            return;
        }
    }
}

void MineService::setLabel(const QString& id, const QString& label) {
    m_writer->post([this, id, label, stopping = m_stopping] {
        if (*stopping)
            return;
        const std::optional<MineLibrary::Record> updated = m_library->setLabel(id, label);
        QMetaObject::invokeMethod(
            this,
            [this, updated] {
                if (updated)
                    replace(*updated);
                else
                    emit notice(QStringLiteral("Could not change the label"), true);
            },
            Qt::QueuedConnection);
    });
}

void MineService::remove(const QString& id) {
    m_writer->post([this, id, stopping = m_stopping] {
        if (*stopping)
            return;
        const bool removed = m_library->remove(id);
        QMetaObject::invokeMethod(
            this,
            [this, id, removed] {
                if (!removed) {
                    emit notice(QStringLiteral("Could not remove it from your images"), true);
                    return;
                }
                m_records.removeIf([&](const MineLibrary::Record& r) { return r.id == id; });
                publishSoon();
                emit notice(QStringLiteral("Removed from your images"), false);
            },
            Qt::QueuedConnection);
    });
}
