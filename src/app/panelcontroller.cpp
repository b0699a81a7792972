// SPDX-License-Identifier: MIT
#include "app/panelcontroller.h"

#include "base/background.h"
#include "base/logcategories.h"
#include "base/memorytrim.h"
#include "catalog/debugflags.h"
#include "catalog/memestore.h"
#include "catalog/thumbnailcache.h"
#include "insert/captionfile.h"
#include "insert/dragsource.h"
#include "insert/paster.h"
#include "platform/clipboardreader.h"
#include "platform/eventguard.h"
#include "platform/focusprobe.h"
#include "platform/keysynthesizer.h"
#include "platform/platformbackend.h"
#include "platform/windowactivator.h"
#include "search/pickermodel.h"
#include "telemetry/learning.h"
#include "telemetry/metrics.h"
#include "ui/pickerpanel.h"
#include "userdata/userdata.h"

#include <QGuiApplication>
#include <QTimer>
#include <QWindow>

namespace {

// Two pages of results.
constexpr int thumbnailsKeptHidden = 2 * PickerModel::pageSize;

} // namespace

PanelController::PanelController(PickerModel& model, MemeStore& store, ThumbnailCache* thumbnails,
                                 UserData& userData, QObject* parent)
    : QObject(parent), m_model(model), m_store(store), m_userData(userData),
      m_eventGuard(PlatformBackend::createEventGuard()),
      m_activator(PlatformBackend::createWindowActivator()),
      m_keys(PlatformBackend::createKeySynthesizer()),
      m_focusProbe(PlatformBackend::createFocusProbe()),
      m_clipboardReader(PlatformBackend::createClipboardReader()),
      m_panel(new PickerPanel(model, thumbnails)) {
    m_paster = std::make_unique<Paster>(
        Paster::Desktop{m_activator.get(), m_keys.get(), m_focusProbe.get(),
                        m_clipboardReader.get()},
        m_store, QGuiApplication::clipboard(), [this](const QString& text, int ms) {
            m_panel->showToast(text, ms <= Paster::errorToastMs ? Toast::Kind::error
                                                                : Toast::Kind::guidance);
        });
    connect(&m_model, &PickerModel::insertRequested, this, &PanelController::insert);
    connect(&m_model, &PickerModel::captionInsertRequested, this,
            &PanelController::insertCaptioned);
    connect(m_panel.get(), &PickerPanel::dismissed, this, &PanelController::cancelWaitingInsert);
    connect(m_panel.get(), &PickerPanel::dismissed, this, [thumbnails] {
        // What the panel shows first when it opens again stays decoded; a day of searches
        // would otherwise keep hundreds of thumbnails decoded while the panel is hidden.
        if (thumbnails)
            thumbnails->keepRecent(thumbnailsKeptHidden);
        MemoryTrim::soon();
    });
    connectDrags();
    connect(&m_store, &MemeStore::downloadProgress, this,
            [this](const QString& id, qint64 received, qint64 total) {
                if (id == m_waitingFor || id == m_dragWaitingFor)
                    m_panel->setInsertProgress(id,
                                               total > 0 ? double(received) / double(total) : -1.0);
            });
}

PanelController::~PanelController() = default;

bool PanelController::isVisible() const {
    return m_panel && m_panel->isVisible();
}

bool PanelController::panelHasKeyboard() const {
    return isVisible() && m_activator->keyboardFocus() == m_panel->winId() &&
           QGuiApplication::focusWindow() == m_panel->windowHandle();
}

void PanelController::toggle(quint32 timestamp) {
    if (isVisible())
        hide();
    else
        show(timestamp);
}

void PanelController::show(quint32 timestamp) {
    // Read before the panel maps: then the desktop still names the user's window.
    m_target = m_activator->frontmost();
    if (isOurWindow(m_target))
        m_target = {};
    m_showTimestamp = timestamp;
    m_model.setAccessibilityOK(m_paster->isTrusted());
    m_panel->present();
    m_activationTries = 0;
    askForKeyboard(timestamp);
    emit shown();
    Metrics::log(
        QStringLiteral("panel_shown"),
        {{"target", m_target.identifier.toStdString()},
         {"activatingMode", DebugFlags::settings().boolean(QStringLiteral("activatingMode"))}});
}

bool PanelController::isOurWindow(const DesktopApp& app) {
    // The recorder or a dialog of ours may be in front: pasting there would go nowhere.
    if (app.pid == QCoreApplication::applicationPid())
        return true;
    const QWindowList windows = QGuiApplication::allWindows();
    return std::any_of(windows.begin(), windows.end(), [&](const QWindow* window) {
        return window->handle() && window->winId() == app.window;
    });
}

void PanelController::askForKeyboard(quint32 timestamp) {
    // Asks the X server, not Qt or the window manager's property: both can still name the
    // panel from before it was last hidden.
    if (!m_panel->isVisible() || m_activator->keyboardFocus() == m_panel->winId() ||
        ++m_activationTries > maxActivationTries)
        return;
    m_activator->activate(m_panel->winId(), timestamp);
    QTimer::singleShot(activationRetryMs, this, [this, timestamp] { askForKeyboard(timestamp); });
}

void PanelController::hide() {
    if (m_panel)
        m_panel->hide();
}

void PanelController::insert(const Meme& meme) {
    insertImage(meme, std::nullopt);
}

void PanelController::insertCaptioned(const Meme& meme, const QString& top, const QString& bottom) {
    insertImage(meme, CaptionLines{top, bottom});
}

void PanelController::insertImage(const Meme& meme, std::optional<CaptionLines> caption) {
    if (m_inserting)
        return;
    m_inserting = true;
    recordPick(meme, QStringLiteral("paste"));
    m_store.touch(meme);
    const bool cached = m_store.cachedFullURL(meme).has_value();
    const quint64 generation = ++m_insertGeneration;
    if (!cached) {
        m_waitingFor = meme.id;
        m_panel->setInsertProgress(meme.id, -1);
    }
    m_store.ensureFull(meme, [this, meme, cached, caption, generation](std::optional<QUrl> file) {
        if (generation != m_insertGeneration)
            return; // cancelled while it downloaded
        if (!m_waitingFor.isEmpty()) {
            m_waitingFor.clear();
            m_panel->setInsertProgress({}, 0);
        }
        if (!file) {
            m_inserting = false;
            m_panel->showToast(QStringLiteral("Download failed"), Toast::Kind::error);
            return;
        }
        if (caption)
            saveCaption(meme, *file, cached, *caption, generation);
        else
            pasteFile(meme, *file, cached, false);
    });
}

void PanelController::saveCaption(const Meme& meme, const QUrl& full, bool cached,
                                  const CaptionLines& caption, quint64 generation) {
    m_savingCaption = true;
    const CaptionFile::Request request{full.toLocalFile(),
                                       caption.top,
                                       caption.bottom,
                                       CaptionFile::folderBeside(m_store.cacheDir()),
                                       m_store.fullLocation(meme).baseName(),
                                       m_store.now()};
    // Decoding, drawing and encoding a full-size image takes longer than a frame.
    runInBackground(
        this, [request] { return CaptionFile::save(request); },
        [this, meme, cached, generation](const CaptionFile::Result& saved) {
            if (generation != m_insertGeneration)
                return; // the panel went away meanwhile
            m_savingCaption = false;
            if (saved.failure != CaptionFile::Result::Failure::none) {
                m_inserting = false;
                m_panel->showToast(saved.failure == CaptionFile::Result::Failure::render
                                       ? QStringLiteral("Could not render the caption")
                                       : QStringLiteral("Could not save the caption image"),
                                   Toast::Kind::error);
                return;
            }
            pasteFile(meme, QUrl::fromLocalFile(saved.file), cached, true);
        });
}

void PanelController::pasteFile(const Meme& meme, const QUrl& file, bool cached, bool captioned) {
    Paster::Request request;
    request.meme = meme;
    request.file = file;
    request.cached = cached;
    request.captioned = captioned;
    request.target = m_target;
    request.timestamp = m_showTimestamp;
    request.hidePanel = [this] { hide(); };
    m_paster->paste(std::move(request));
    QTimer::singleShot(insertGuardMs, this, [this] { m_inserting = false; });
    emit inserted(meme);
}

void PanelController::cancelWaitingInsert() {
    if (m_waitingFor.isEmpty() && !m_savingCaption)
        return;
    // The download goes on and lands in the cache; only its paste is dropped.
    ++m_insertGeneration;
    m_waitingFor.clear();
    m_savingCaption = false;
    m_panel->setInsertProgress({}, 0);
    m_inserting = false;
}

void PanelController::recordPick(const Meme& meme, const QString& method) {
    m_userData.recordPick(meme.id, m_model.query());
    if (meme.isMine()) {
        Metrics::log(QStringLiteral("insert_mine"), {{"method", method.toStdString()}});
    } else if (m_learning) {
        QStringList shown;
        for (const Meme& result : m_model.results())
            shown.append(result.id);
        m_learning->recordPick(m_model.query(), shown, meme.id, method);
    }
}

void PanelController::connectDrags() {
    m_dragSource = std::make_unique<DragSource>(m_store, *m_activator);
    connect(m_panel.get(), &PickerPanel::dragRequested, this,
            [this](const Meme& meme, QWidget* source, const QPixmap& image, QPoint hotSpot) {
                if (m_dragSource->isBusy())
                    return;
                m_panel->setDragging(true);
                m_dragSource->begin(meme, source, image, hotSpot, [this, id = meme.id](bool on) {
                    m_dragWaitingFor = on ? id : QString();
                    m_panel->setInsertProgress(m_dragWaitingFor, -1);
                });
            });
    connect(m_dragSource.get(), &DragSource::dropped, this, [this](const Meme& meme) {
        recordPick(meme, QStringLiteral("drag"));
        hide();
    });
    connect(m_dragSource.get(), &DragSource::dragStarted, this,
            [this] { m_eventGuard->setDragRunning(true); });
    connect(m_dragSource.get(), &DragSource::ended, this, [this] {
        m_eventGuard->setDragRunning(false);
        m_panel->setDragging(false);
    });
    connect(m_panel.get(), &PickerPanel::dismissed, m_dragSource.get(), &DragSource::cancel);
}
