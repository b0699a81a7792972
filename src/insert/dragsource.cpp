// SPDX-License-Identifier: MIT
#include "insert/dragsource.h"

#include "base/background.h"
#include "base/logcategories.h"
#include "catalog/debugflags.h"
#include "catalog/memestore.h"
#include "insert/dragitem.h"
#include "platform/windowactivator.h"
#include "telemetry/metrics.h"

#include <QDrag>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QGuiApplication>
#include <QMimeData>
#include <QUrl>

struct DragSource::Run {
    Meme meme;
    DragPayload payload = DragPayload::b;
    bool cached = false;
    QPointer<QObject> source;
    QPixmap image;
    QPoint hotSpot;
    SetLoading setLoading;
    QElapsedTimer waited;
};

DragSource::DragSource(MemeStore& store, WindowActivator& windows, QObject* parent)
    : QObject(parent), m_store(store), m_windows(windows) {}

DragSource::~DragSource() = default;

QString DragSource::jpegDir() const {
    // Beside the full-image and thumbnail folders.
    return QFileInfo(m_store.cacheDir()).absolutePath() + QStringLiteral("/drag");
}

void DragSource::begin(const Meme& meme, QObject* source, const QPixmap& image, QPoint hotSpot,
                       SetLoading setLoading) {
    if (m_run)
        return;
    auto run = std::make_shared<Run>();
    run->meme = meme;
    run->payload = DebugFlags::dragPayload();
    run->source = source;
    run->image = image;
    run->hotSpot = hotSpot;
    run->setLoading = std::move(setLoading);
    m_run = run;

    if (const std::optional<QUrl> file = m_store.cachedFullURL(meme)) {
        run->cached = true;
        m_store.touch(meme);
        build(run, *file);
        return;
    }
    Metrics::log(QStringLiteral("drag_miss"), {{"id", meme.id.toStdString()},
                                               {"payload", rawValue(run->payload).toStdString()}});
    if (run->setLoading)
        run->setLoading(true);
    run->waited.start();
    m_store.ensureFull(meme, [this, run](std::optional<QUrl> file) { imageArrived(run, file); });
}

void DragSource::imageArrived(const RunPtr& run, std::optional<QUrl> file) {
    if (!isCurrent(run))
        return;
    const bool holding = QGuiApplication::mouseButtons() != Qt::NoButton;
    Metrics::log(QStringLiteral("drag_wait"),
                 {{"id", run->meme.id.toStdString()},
                  {"ms", Metrics::ms(double(run->waited.nsecsElapsed()) / 1e9)},
                  {"ok", file.has_value()},
                  {"still_holding", holding}});
    if (run->setLoading)
        run->setLoading(false);
    // Let go while waiting: the image stays cached for next time, but nothing is dragged.
    if (!file || !holding) {
        end(run, false);
        return;
    }
    build(run, *file);
}

void DragSource::build(const RunPtr& run, const QUrl& file) {
    const Meme& meme = run->meme;
    DragItem::Source source;
    source.file = file.toLocalFile();
    source.isPNG = meme.isPNG();
    source.pngSibling = m_store.pngFileURL(meme).toLocalFile();
    // The user's own items go out as their own file, never as a copy.
    if (run->payload == DragPayload::c && !meme.isMine())
        source.jpegFile =
            jpegDir() + QLatin1Char('/') + DragItem::nameStem(meme) + QStringLiteral(".jpg");
    const DragPayload payload = run->payload;
    runInBackground(
        this, [source, payload] { return DragItem::make(source, payload); },
        [this, run, jpeg = !source.jpegFile.isEmpty()](std::optional<ClipboardItem> item) {
            if (!isCurrent(run))
                return;
            if (jpeg)
                m_store.trimDir(jpegDir(), jpegBudgetBytes);
            if (!item) {
                qCWarning(lcInsert).noquote() << "drag: could not prepare" << run->meme.id;
                end(run, false);
                return;
            }
            if (QGuiApplication::mouseButtons() == Qt::NoButton || !run->source) {
                end(run, false);
                return;
            }
            exec(run, *item);
        });
}

void DragSource::exec(const RunPtr& run, const ClipboardItem& item) {
    auto* data = new QMimeData;
    for (const auto& [type, bytes] : item)
        data->setData(type, bytes);
    // Owned by Qt's drag manager, which deletes it when the drag is over.
    auto* drag = new QDrag(run->source);
    drag->setMimeData(data);
    if (!run->image.isNull()) {
        drag->setPixmap(run->image);
        drag->setHotSpot(run->hotSpot);
    }
    emit dragStarted(run->meme.id);
    const Qt::DropAction action = drag->exec(Qt::CopyAction, Qt::CopyAction);
    if (action == Qt::IgnoreAction) {
        end(run, false);
        return;
    }
    // The button came up over the window that took the drop.
    const DesktopApp target = m_windows.underPointer();
    Metrics::log(QStringLiteral("insert"), {{"method", "drag"},
                                            {"id", run->meme.id.toStdString()},
                                            {"payload", rawValue(run->payload).toStdString()},
                                            {"cached", run->cached},
                                            {"target", target.identifier.toStdString()}});
    if (!isCurrent(run))
        return;
    // Over before dropped() is told, so that hiding the panel there cancels nothing.
    m_run.reset();
    emit dropped(run->meme, target);
    emit ended(run->meme.id, true);
}

void DragSource::cancel() {
    if (!m_run)
        return;
    if (m_run->setLoading)
        m_run->setLoading(false);
    end(m_run, false);
}

void DragSource::end(const RunPtr& run, bool dropped) {
    if (!isCurrent(run))
        return; // cancelled before
    m_run.reset();
    emit ended(run->meme.id, dropped);
}
