// SPDX-License-Identifier: MIT
#include "collections/usercollections.h"

#include "base/apppaths.h"
#include "base/atomicfile.h"
#include "base/logcategories.h"
#include "base/urlpath.h"
#include "catalog/debugflags.h"
#include "telemetry/deviceid.h"

#include <QBuffer>
#include <QDateTime>
#include <QDir>
#include <QEventLoop>
#include <QFileInfo>
#include <QImageReader>
#include <QImageWriter>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPainter>
#include <QSaveFile>
#include <QUuid>
#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <nlohmann/json.hpp>

using nlohmann::ordered_json;

namespace {

const QString manifestName = QStringLiteral("collection.json");

std::string utf8(const QString& s) {
    return s.toStdString();
}
QString qs(const ordered_json& j) {
    return QString::fromStdString(j.get<std::string>());
}

ordered_json stringArray(const QStringList& list) {
    ordered_json out = ordered_json::array();
    for (const QString& s : list)
        out.push_back(utf8(s));
    return out;
}

// Strict reads: a missing key or a wrong type throws, and the caller rejects the document.
QString requireString(const ordered_json& object, const char* key) {
    const ordered_json& value = object.at(key);
    if (!value.is_string())
        throw std::runtime_error(key);
    return qs(value);
}
QStringList requireStrings(const ordered_json& object, const char* key) {
    const ordered_json& value = object.at(key);
    if (!value.is_array())
        throw std::runtime_error(key);
    QStringList out;
    for (const ordered_json& s : value) {
        if (!s.is_string())
            throw std::runtime_error(key);
        out.append(qs(s));
    }
    return out;
}
bool requireBool(const ordered_json& object, const char* key) {
    const ordered_json& value = object.at(key);
    if (!value.is_boolean())
        throw std::runtime_error(key);
    return value.get<bool>();
}
qint64 requireInt(const ordered_json& object, const char* key) {
    const ordered_json& value = object.at(key);
    if (!value.is_number_integer())
        throw std::runtime_error(key);
    return value.get<qint64>();
}

ordered_json encodeTags(const UserCollections::Tags& t) {
    return {{"ocr_text", utf8(t.ocr_text)},
            {"description", utf8(t.description)},
            {"character", utf8(t.character)},
            {"emotions", stringArray(t.emotions)},
            {"actions", stringArray(t.actions)},
            {"use_cases", stringArray(t.use_cases)},
            {"keywords", stringArray(t.keywords)},
            {"language", utf8(t.language)},
            {"nsfw", t.nsfw},
            {"hateful", t.hateful}};
}

UserCollections::Tags tagsFrom(const ordered_json& j) {
    if (!j.is_object())
        throw std::runtime_error("tags");
    return {requireString(j, "ocr_text"),  requireString(j, "description"),
            requireString(j, "character"), requireStrings(j, "emotions"),
            requireStrings(j, "actions"),  requireStrings(j, "use_cases"),
            requireStrings(j, "keywords"), requireString(j, "language"),
            requireBool(j, "nsfw"),        requireBool(j, "hateful")};
}

// Only ASCII letters and digits go through as they are, so the header stays plain ASCII.
QByteArray headerEncoded(const QString& text) {
    return QUrl::toPercentEncoding(text, QByteArray(), QByteArrayLiteral("-._~"));
}

QString fileNumber(int n, const QString& extension) {
    return QStringLiteral("%1.%2").arg(n, 4, 10, QLatin1Char('0')).arg(extension);
}

bool hasImageExt(const QFileInfo& info) {
    return UserCollections::imageExts.contains(info.suffix().toLower());
}

// Visible entries sorted by name in code-unit order, as the user sees them listed.
QFileInfoList entries(const QString& folder, QDir::Filters filters) {
    QFileInfoList list = QDir(folder).entryInfoList(filters | QDir::NoDotAndDotDot, QDir::NoSort);
    std::sort(list.begin(), list.end(),
              [](const QFileInfo& a, const QFileInfo& b) { return a.fileName() < b.fileName(); });
    return list;
}

QStringList imagesIn(const QString& folder) {
    QStringList files;
    for (const QFileInfo& info : entries(folder, QDir::Files))
        if (hasImageExt(info))
            files.append(info.absoluteFilePath());
    return files;
}

QByteArray encode(const QImage& image, const char* format) {
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    QImageWriter writer(&buffer, format);
    if (qstrcmp(format, "jpg") == 0)
        writer.setQuality(UserCollections::jpegQuality);
    return writer.write(image) ? bytes : QByteArray();
}

// `size` scaled so that its longest side is `longest`, the other side rounded.
QSize fitted(QSize size, int longest) {
    const bool wide = size.width() >= size.height();
    const double scale = double(longest) / double(wide ? size.width() : size.height());
    const int other = std::max(1, int(std::lround((wide ? size.height() : size.width()) * scale)));
    return wide ? QSize(longest, other) : QSize(other, longest);
}

bool writeFile(const QString& path, const QByteArray& data, QString* error) {
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly) && file.write(data) == data.size() && file.commit())
        return true;
    *error = file.errorString();
    return false;
}

// One HTTP exchange, run to its end on the calling thread.
struct Exchange {
    bool transportError = false;
    QString errorText;
    int status = 0; // 0 when the answer was no HTTP response
    QByteArray body;
};

Exchange exchange(const QByteArray& verb, QNetworkRequest request, const QByteArray& body,
                  int timeoutMs, const std::function<void(QNetworkReply*, bool)>& watch = {}) {
    QNetworkAccessManager network;
    network.setAutoDeleteReplies(false);
    request.setTransferTimeout(timeoutMs);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                         QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
    std::unique_ptr<QNetworkReply> reply(network.sendCustomRequest(request, verb, body));
    QEventLoop loop;
    QObject::connect(reply.get(), &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (watch)
        watch(reply.get(), true);
    if (!reply->isFinished())
        loop.exec();
    if (watch)
        watch(reply.get(), false);
    Exchange out;
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (status.isValid()) {
        out.status = status.toInt();
        out.body = reply->readAll();
    } else if (reply->error() != QNetworkReply::NoError) {
        out.transportError = true;
        out.errorText = reply->errorString();
    }
    return out;
}

QNetworkRequest serverRequest(const QString& path) {
    QNetworkRequest request(appendedPath(DebugFlags::apiURL(), path));
    request.setRawHeader("X-Device", DeviceID::value().toUtf8());
    request.setRawHeader("x-install-id", DebugFlags::installID().toUtf8());
    if (const std::optional<QString> key = DebugFlags::appKey())
        request.setRawHeader("x-app-key", key->toUtf8());
    return request;
}

QString couldNotReach(const QString& description) {
    return QStringLiteral("could not reach the server (") + description + QLatin1Char(')');
}

double retryDelayFromEnvironment() {
    bool ok = false;
    const double seconds = qEnvironmentVariable("MEME_TAG_RETRY_DELAY").toDouble(&ok);
    return ok && seconds >= 0 ? seconds : UserCollections::defaultRetryDelaySeconds;
}

// What tagging sends for a stored file: a PNG goes as JPEG (over white), the rest as stored.
std::optional<QByteArray> uploadBytes(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    QByteArray data = file.readAll();
    if (!path.endsWith(QLatin1String(".png")))
        return data;
    const QImage png = QImage::fromData(data, "png");
    if (png.isNull())
        return std::nullopt;
    QImage flat(png.size(), QImage::Format_RGB32);
    flat.fill(Qt::white);
    QPainter(&flat).drawImage(0, 0, png);
    return encode(flat, "jpg");
}

} // namespace

const QStringList UserCollections::imageExts = {
    QStringLiteral("jpg"),  QStringLiteral("jpeg"), QStringLiteral("png"),
    QStringLiteral("webp"), QStringLiteral("heic"), QStringLiteral("gif"),
    QStringLiteral("bmp"),  QStringLiteral("tif"),  QStringLiteral("tiff")};

QString UserCollections::TagError::message() const {
    switch (kind) {
    case Kind::server:
        return QStringLiteral("the tagging server answered HTTP %1").arg(status);
    case Kind::other:
        return text;
    case Kind::limit:
        return QStringLiteral("the tagging limit for this device is reached");
    case Kind::rateLimited:
        return QStringLiteral("the tagging server asked us to slow down");
    }
    return text;
}

UserCollections::UserCollections(QString root)
    : m_root(std::move(root)), m_retryDelaySeconds(retryDelayFromEnvironment()) {
    AppPaths::ensureDir(m_root);
    m_tagPool.setMaxThreadCount(maxTagsInFlight);
}

UserCollections::~UserCollections() {
    m_tagPool.waitForDone();
}

void UserCollections::stop() {
    {
        const std::lock_guard guard(m_stopLock);
        m_stopping = true;
        // Each reply belongs to the thread waiting for it; a deleted one drops the call.
        for (QNetworkReply* reply : m_replies)
            QMetaObject::invokeMethod(reply, &QNetworkReply::abort, Qt::QueuedConnection);
    }
    m_stopWake.notify_all();
}

QString UserCollections::defaultRoot() {
    return AppPaths::dataDir() + QStringLiteral("/UserCollections");
}

QString UserCollections::folder(const QString& id) const {
    return m_root + QLatin1Char('/') + id;
}

// --- Planning ---

QList<UserCollections::Plan> UserCollections::planFolder(const QString& folder) {
    QList<Plan> plans;
    if (QStringList own = imagesIn(folder); !own.isEmpty())
        plans.append({QFileInfo(folder).fileName(), std::move(own)});
    for (const QFileInfo& sub : entries(folder, QDir::Dirs)) {
        if (QStringList files = imagesIn(sub.absoluteFilePath()); !files.isEmpty())
            plans.append({sub.fileName(), std::move(files)});
    }
    return plans;
}

QList<UserCollections::Plan> UserCollections::plan(const QStringList& selection) {
    QList<Plan> plans;
    QStringList loose;
    QStringList parents;
    for (const QString& path : selection) {
        const QFileInfo info(path);
        if (info.isDir()) {
            plans += planFolder(info.absoluteFilePath());
        } else if (info.isFile() && hasImageExt(info)) {
            loose.append(info.absoluteFilePath());
            if (!parents.contains(info.absolutePath()))
                parents.append(info.absolutePath());
        }
    }
    if (!loose.isEmpty()) {
        const QString name = parents.size() == 1 ? QFileInfo(parents.first()).fileName()
                                                 : QStringLiteral("My collection");
        plans.append({name, loose});
    }
    return plans;
}

bool UserCollections::hasSubfolders(const QStringList& selection) {
    return std::any_of(selection.begin(), selection.end(), [](const QString& path) {
        return QFileInfo(path).isDir() && !entries(path, QDir::Dirs).isEmpty();
    });
}

// --- Resizing ---

std::optional<UserCollections::Resized> UserCollections::resize(const QString& path) {
    QImageReader reader(path);
    reader.setAutoTransform(true);
    if (!reader.canRead())
        return std::nullopt;
    if (reader.supportsAnimation() && reader.imageCount() > 1)
        return std::nullopt;
    const QSize declared = reader.size();
    if (!declared.isValid() || declared.isEmpty())
        return std::nullopt;
    if (qint64(declared.width()) * declared.height() > maxDecodedPixels)
        return std::nullopt;
    if (std::min(declared.width(), declared.height()) < minShortSide)
        return std::nullopt;

    // Opaque JPEGs decode straight to the smaller size; the orientation turns the picture
    // afterwards, which keeps its longest side.
    const bool jpegSource = reader.format() == "jpeg";
    const int longest = std::max(declared.width(), declared.height());
    if (jpegSource && longest > maxSideOpaque)
        reader.setScaledSize(fitted(declared, maxSideOpaque));
    QImage image = reader.read();
    if (image.isNull())
        return std::nullopt;

    const bool alpha = image.hasAlphaChannel();
    const int limit =
        std::min(alpha ? maxSideAlpha : maxSideOpaque, std::max(image.width(), image.height()));
    if (std::max(image.width(), image.height()) > limit)
        image = image.scaled(fitted(image.size(), limit), Qt::IgnoreAspectRatio,
                             Qt::SmoothTransformation);
    if (!alpha && image.format() != QImage::Format_RGB32)
        image = image.convertToFormat(QImage::Format_RGB32);
    const char* format = alpha ? "png" : "jpg";

    Resized out;
    out.extension = QString::fromLatin1(format);
    out.size = image.size();
    out.full = encode(image, format);
    const int thumbLimit = std::min(maxThumbSide, std::max(image.width(), image.height()));
    const QImage thumb = std::max(image.width(), image.height()) > thumbLimit
                             ? image.scaled(fitted(image.size(), thumbLimit), Qt::IgnoreAspectRatio,
                                            Qt::SmoothTransformation)
                             : image;
    out.thumbSize = thumb.size();
    out.thumb = encode(thumb, format);
    if (out.full.isEmpty() || out.thumb.isEmpty())
        return std::nullopt;
    return out;
}

// --- Manifests ---

QByteArray UserCollections::encodeStored(const Stored& stored) {
    ordered_json items = ordered_json::array();
    for (const Item& item : stored.items) {
        ordered_json j = {{"id", utf8(item.id)},       {"file", utf8(item.file)},
                          {"thumb", utf8(item.thumb)}, {"orig", utf8(item.orig)},
                          {"width", item.width},       {"height", item.height}};
        if (item.tags)
            j["tags"] = encodeTags(*item.tags);
        items.push_back(std::move(j));
    }
    const ordered_json j = {{"id", utf8(stored.id)},
                            {"name", utf8(stored.name)},
                            {"created", utf8(stored.created)},
                            {"items", std::move(items)}};
    return QByteArray::fromStdString(j.dump(2));
}

std::optional<UserCollections::Stored> UserCollections::decodeStored(const QByteArray& json) {
    try {
        const ordered_json j = ordered_json::parse(json.toStdString());
        Stored stored{
            requireString(j, "id"), requireString(j, "name"), requireString(j, "created"), {}};
        if (!QDateTime::fromString(stored.created, Qt::ISODateWithMs).isValid())
            return std::nullopt;
        const ordered_json& items = j.at("items");
        if (!items.is_array())
            return std::nullopt;
        for (const ordered_json& i : items) {
            Item item{requireString(i, "id"),
                      requireString(i, "file"),
                      requireString(i, "thumb"),
                      requireString(i, "orig"),
                      requireInt(i, "width"),
                      requireInt(i, "height"),
                      std::nullopt};
            if (const auto tags = i.find("tags"); tags != i.end() && !tags->is_null())
                item.tags = tagsFrom(*tags);
            stored.items.append(std::move(item));
        }
        return stored;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::optional<UserCollections::Tags> UserCollections::decodeTags(const QByteArray& json) {
    try {
        return tagsFrom(ordered_json::parse(json.toStdString()));
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

bool UserCollections::save(const Stored& stored) const {
    // A collection deleted while it was being tagged must not come back.
    if (!QFileInfo(folder(stored.id)).isDir())
        return false;
    return writeFileAtomically(folder(stored.id) + QLatin1Char('/') + manifestName,
                               encodeStored(stored));
}

std::optional<UserCollections::Stored> UserCollections::stored(const QString& id) const {
    QFile file(folder(id) + QLatin1Char('/') + manifestName);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    return decodeStored(file.readAll());
}

QList<UserCollections::Stored> UserCollections::allStored() const {
    QList<Stored> all;
    for (const QFileInfo& sub : entries(m_root, QDir::Dirs))
        if (std::optional<Stored> s = stored(sub.fileName()); s && s->id == sub.fileName())
            all.append(std::move(*s));
    std::stable_sort(all.begin(), all.end(), [](const Stored& a, const Stored& b) {
        return QDateTime::fromString(a.created, Qt::ISODateWithMs) <
               QDateTime::fromString(b.created, Qt::ISODateWithMs);
    });
    return all;
}

QList<UserCollections::Row> UserCollections::list() const {
    QList<Row> rows;
    for (const Stored& s : allStored()) {
        const auto untagged =
            std::count_if(s.items.begin(), s.items.end(), [](const Item& i) { return !i.tags; });
        rows.append({s.id, s.name, int(s.items.size()), int(untagged)});
    }
    return rows;
}

bool UserCollections::rename(const QString& id, const QString& name) {
    const std::lock_guard guard(m_lock);
    std::optional<Stored> s = stored(id);
    if (!s || name.trimmed().isEmpty())
        return false;
    s->name = name.trimmed();
    return save(*s);
}

bool UserCollections::remove(const QString& id) {
    // Only a collection's own folder, never a path that an id could smuggle in.
    if (QUuid::fromString(id).isNull())
        return false;
    const std::lock_guard guard(m_lock);
    QDir dir(folder(id));
    return dir.exists() && dir.removeRecursively();
}

// --- Import ---

UserCollections::Result UserCollections::importCollection(const Plan& plan, const QString& name,
                                                          const Progress& progress) {
    Result result;
    Stored stored{QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper(),
                  name,
                  QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs),
                  {}};
    const QString dir = folder(stored.id);
    if (!QDir().mkpath(dir + QStringLiteral("/full")) ||
        !QDir().mkpath(dir + QStringLiteral("/thumb")) || !save(stored)) {
        result.skipped = int(plan.files.size());
        result.stopped = QStringLiteral("could not write into ") + m_root;
        return result;
    }

    const qsizetype total = plan.files.size();
    for (qsizetype n = 0; n < total && !m_stopping; ++n) {
        progress(QStringLiteral("Importing %1: resizing %2/%3").arg(name).arg(n + 1).arg(total));
        const QString& source = plan.files[n];
        const std::optional<Resized> resized = resize(source);
        if (!resized) {
            ++result.skipped;
            continue;
        }
        const QString file = fileNumber(result.added + 1, resized->extension);
        const QString fullPath = dir + QStringLiteral("/full/") + file;
        const QString thumbPath = dir + QStringLiteral("/thumb/") + file;
        QString error;
        if (!writeFile(fullPath, resized->full, &error) ||
            !writeFile(thumbPath, resized->thumb, &error)) {
            QFile::remove(fullPath);
            QFile::remove(thumbPath);
            // The disk is full or the folder went away: every further image would fail too.
            qCWarning(lcUserData).noquote() << "import: write failed:" << error;
            result.skipped += int(total - n);
            result.stopped = QStringLiteral("could not save the images (") + error + u')';
            break;
        }
        stored.items.append({QStringLiteral("u_%1_%2").arg(stored.id).arg(result.added + 1), file,
                             file, QFileInfo(source).fileName(), resized->size.width(),
                             resized->size.height(), std::nullopt});
        ++result.added;
        // A crash keeps what was imported so far.
        if (result.added % checkpointEvery == 0) {
            const std::lock_guard guard(m_lock);
            save(stored);
        }
    }
    {
        const std::lock_guard guard(m_lock);
        if (!save(stored) && !result.stopped)
            result.stopped = QStringLiteral("could not save the collection");
    }
    if (result.added > 0) {
        const TagRun run = tagPending(stored.id, progress);
        result.tagged = run.tagged;
        result.tagError = run.firstError;
    }
    return result;
}

// --- Tagging ---

UserCollections::TagRun UserCollections::tagPending(const QString& id, const Progress& progress) {
    std::optional<Stored> manifest;
    {
        const std::lock_guard guard(m_lock);
        manifest = stored(id);
    }
    if (!manifest)
        return {};
    QList<int> pending;
    for (int i = 0; i < manifest->items.size(); ++i)
        if (!manifest->items[i].tags)
            pending.append(i);
    if (pending.isEmpty())
        return {};

    struct Run {
        int done = 0;
        int tagged = 0;
        int failuresInARow = 0;
        bool stop = false;
        std::optional<QString> firstError;
        int inFlight = 0;
        std::condition_variable slotFree;
    } run;
    const QString dir = folder(id);
    const int total = int(pending.size());

    for (const int index : pending) {
        {
            std::unique_lock guard(m_lock);
            run.slotFree.wait(guard, [&] { return run.inFlight < maxTagsInFlight; });
            if (run.stop || m_stopping)
                break;
            ++run.inFlight;
        }
        const Item item = manifest->items[index];
        m_tagPool.start([&, index, item] {
            const std::optional<QByteArray> data =
                uploadBytes(dir + QStringLiteral("/full/") + item.file);
            const TagResult answer =
                data ? requestTagsRetrying(*data, id, item.orig)
                     : TagResult(TagError::other(QStringLiteral("file missing")));
            const std::lock_guard guard(m_lock);
            ++run.done;
            if (const Tags* tags = std::get_if<Tags>(&answer)) {
                manifest->items[index].tags = *tags;
                ++run.tagged;
                run.failuresInARow = 0;
            } else {
                const TagError& error = std::get<TagError>(answer);
                if (!run.firstError)
                    run.firstError = error.message();
                ++run.failuresInARow;
                if (error.kind == TagError::Kind::limit ||
                    run.failuresInARow >= failuresInARowToStop)
                    run.stop = true;
            }
            progress(QStringLiteral("Tagging %1: %2/%3…").arg(id).arg(run.done).arg(total));
            if (run.done % checkpointEvery == 0)
                save(*manifest);
            --run.inFlight;
            run.slotFree.notify_all();
        });
    }
    {
        std::unique_lock guard(m_lock);
        run.slotFree.wait(guard, [&] { return run.inFlight == 0; });
        // The collection may have been renamed or deleted meanwhile: keep its name, and never
        // bring a deleted one back.
        if (const std::optional<Stored> current = stored(id)) {
            manifest->name = current->name;
            save(*manifest);
        }
    }
    return {run.tagged, run.firstError};
}

UserCollections::TagRun UserCollections::retryAll(const Progress& progress) {
    TagRun all;
    for (const Stored& s : allStored()) {
        const TagRun run = tagPending(s.id, progress);
        all.tagged += run.tagged;
        if (!all.firstError)
            all.firstError = run.firstError;
    }
    return all;
}

UserCollections::TagResult UserCollections::requestTags(const QByteArray& data,
                                                        const QString& collection,
                                                        const QString& file) {
    return requestTagsWatched(data, collection, file, {});
}

UserCollections::TagResult UserCollections::requestTagsAbortable(const QByteArray& data,
                                                                 const QString& collection,
                                                                 const QString& file) const {
    return requestTagsWatched(data, collection, file, [this](QNetworkReply* reply, bool sent) {
        const std::lock_guard guard(m_stopLock);
        if (!sent)
            m_replies.erase(reply);
        else if (m_stopping)
            reply->abort();
        else
            m_replies.insert(reply);
    });
}

UserCollections::TagResult
UserCollections::requestTagsWatched(const QByteArray& data, const QString& collection,
                                    const QString& file,
                                    const std::function<void(QNetworkReply*, bool)>& watch) {
    QNetworkRequest request = serverRequest(QStringLiteral("v1/import/tag"));
    request.setHeader(QNetworkRequest::ContentTypeHeader,
                      QByteArrayLiteral("application/octet-stream"));
    request.setRawHeader("X-Collection", headerEncoded(collection));
    request.setRawHeader("X-File", headerEncoded(file));
    const Exchange answer = exchange("POST", request, data, tagTimeoutMs, watch);
    if (answer.transportError)
        return TagError::other(couldNotReach(answer.errorText));
    if (answer.status == 200) {
        if (std::optional<Tags> tags = decodeTags(answer.body))
            return *tags;
        return TagError::server(200);
    }
    if (answer.status == 429) {
        const nlohmann::json body =
            nlohmann::json::parse(answer.body.toStdString(), nullptr, false);
        if (body.is_object() && body.value("code", nlohmann::json()) == "device_cap")
            return TagError{TagError::Kind::limit, 0, {}};
        return TagError{TagError::Kind::rateLimited, 0, {}};
    }
    return TagError::server(answer.status);
}

UserCollections::TagResult UserCollections::requestTagsRetrying(const QByteArray& data,
                                                                const QString& collection,
                                                                const QString& file) const {
    for (int attempt = 1;; ++attempt) {
        TagResult result = requestTagsAbortable(data, collection, file);
        const TagError* error = std::get_if<TagError>(&result);
        if (!error || error->kind != TagError::Kind::rateLimited)
            return result;
        // The wait follows the last attempt too, so the next image also starts later.
        std::unique_lock guard(m_stopLock);
        if (m_stopWake.wait_for(guard, std::chrono::duration<double>(m_retryDelaySeconds * attempt),
                                [this] { return m_stopping.load(); }) ||
            attempt == maxAttempts)
            return result;
    }
}

UserCollections::DeleteOutcome UserCollections::deleteCloudData() {
    const Exchange answer =
        exchange("DELETE", serverRequest(QStringLiteral("v1/import/data")), {}, deleteTimeoutMs);
    using Kind = DeleteOutcome::Kind;
    if (answer.transportError)
        return {Kind::failed, couldNotReach(answer.errorText)};
    if (answer.status == 200) {
        const nlohmann::json body =
            nlohmann::json::parse(answer.body.toStdString(), nullptr, false);
        if (body.is_object() && body.contains("deleted") && body["deleted"].is_boolean() &&
            !body["deleted"].get<bool>())
            return {Kind::failed, QStringLiteral("some of it is still on the server, try again")};
        return {Kind::deleted, {}};
    }
    if (answer.status == 202)
        return {Kind::pending, {}};
    return {Kind::failed, QStringLiteral("the server answered HTTP %1").arg(answer.status)};
}

// --- Records ---

Meme UserCollections::meme(const Stored& collection, const Item& item, int index) const {
    const QString dir = folder(collection.id);
    Meme m;
    m.id = item.id;
    // The collection's name stands where a catalog meme names its template, so it is found
    // by it like every other searchable word.
    m.template_ = collection.name;
    m.thumb = QUrl::fromLocalFile(dir + QStringLiteral("/thumb/") + item.thumb).toString();
    m.full = QUrl::fromLocalFile(dir + QStringLiteral("/full/") + item.file).toString();
    m.width = item.width;
    m.height = item.height;
    m.bytes = QFileInfo(dir + QStringLiteral("/full/") + item.file).size();
    m.collection_id = collection.id;
    m.order = index + 1;
    if (item.tags) {
        m.ocr_text = item.tags->ocr_text;
        m.description = item.tags->description;
        m.emotions = item.tags->emotions;
        m.use_cases = item.tags->use_cases;
        m.keywords = item.tags->keywords;
        if (!item.tags->character.isEmpty())
            m.character = item.tags->character;
        if (!item.tags->actions.isEmpty())
            m.actions = item.tags->actions;
    }
    return m;
}

UserCollections::Loaded UserCollections::load() const {
    Loaded loaded;
    for (const Stored& s : allStored()) {
        CollectionInfo info;
        info.id = s.id;
        info.name = s.name;
        info.name_en = s.name;
        info.count = s.items.size();
        info.owner = QStringLiteral("me");
        info.source = QStringLiteral("import");
        for (int i = 0; i < s.items.size(); ++i)
            loaded.stickers.append(meme(s, s.items[i], i));
        if (!s.items.isEmpty())
            info.cover = loaded.stickers[loaded.stickers.size() - s.items.size()].thumb;
        loaded.collections.append(std::move(info));
    }
    return loaded;
}

QImage UserCollections::previewIcon(const QString& id, int side) const {
    const std::optional<Stored> s = stored(id);
    if (!s || s->items.isEmpty())
        return {};
    const QImage thumb(folder(id) + QStringLiteral("/thumb/") + s->items.first().thumb);
    if (thumb.isNull())
        return {};
    const QImage filled =
        thumb.scaled(side, side, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation);
    return filled.copy((filled.width() - side) / 2, (filled.height() - side) / 2, side, side);
}
