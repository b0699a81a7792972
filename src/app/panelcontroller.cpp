// SPDX-License-Identifier: MIT
#include "app/panelcontroller.h"

#include "base/logcategories.h"
#include "catalog/debugflags.h"
#include "catalog/memestore.h"
#include "platform/platformbackend.h"
#include "platform/windowactivator.h"
#include "search/pickermodel.h"
#include "telemetry/metrics.h"
#include "ui/pickerpanel.h"
#include "userdata/userdata.h"

#include <QBuffer>
#include <QClipboard>
#include <QFile>
#include <QGuiApplication>
#include <QImage>
#include <QMimeData>
#include <QTimer>
#include <QWindow>

namespace {

// PNG bytes of the file: as they are when the file already is PNG, else re-encoded.
QByteArray pngBytes(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray bytes = file.readAll();
    if (bytes.startsWith("\x89PNG\r\n\x1a\n"))
        return bytes;
    QImage image;
    if (!image.loadFromData(bytes))
        return {};
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return png;
}

} // namespace

PanelController::PanelController(PickerModel& model, MemeStore& store, ThumbnailCache* thumbnails,
                                 UserData& userData, QObject* parent)
    : QObject(parent), m_model(model), m_store(store), m_userData(userData),
      m_activator(PlatformBackend::createWindowActivator()),
      m_panel(new PickerPanel(model, thumbnails)) {
    connect(&m_model, &PickerModel::insertRequested, this, &PanelController::insert);
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
    m_previousWindow = m_activator->activeWindow();
    m_panel->present();
    m_activationTries = 0;
    askForKeyboard(timestamp);
    emit shown();
    Metrics::log(
        QStringLiteral("panel_shown"),
        {{"target", ""},
         {"activatingMode", DebugFlags::settings().boolean(QStringLiteral("activatingMode"))}});
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
    if (m_inserting)
        return;
    m_inserting = true;
    const QString query = m_model.query();
    m_store.ensureFull(meme, [this, meme, query](std::optional<QUrl> file) {
        m_inserting = false;
        const QByteArray png = file ? pngBytes(file->toLocalFile()) : QByteArray();
        if (png.isEmpty()) {
            if (m_panel)
                m_panel->showToast(QStringLiteral("Download failed"), Toast::Kind::error);
            return;
        }
        auto* mime = new QMimeData;
        mime->setData(QStringLiteral("image/png"), png);
        QGuiApplication::clipboard()->setMimeData(mime, QClipboard::Clipboard);
        m_store.touch(meme);
        m_userData.recordPick(meme.id, query);
        hide();
        emit inserted(meme);
    });
}
