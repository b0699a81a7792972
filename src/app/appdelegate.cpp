// SPDX-License-Identifier: MIT
#include "app/appdelegate.h"

#include "app/autostart.h"
#include "app/hotkeyrecorder.h"
#include "app/panelcontroller.h"
#include "base/apppaths.h"
#include "base/logcategories.h"
#include "buildinfo.h"
#include "catalog/catalogfetcher.h"
#include "catalog/catalogloader.h"
#include "catalog/debugflags.h"
#include "catalog/imageconversion.h"
#include "catalog/memestore.h"
#include "catalog/thumbnailcache.h"
#include "collections/servercollections.h"
#include "insert/paster.h"
#include "platform/globalhotkey.h"
#include "platform/platformbackend.h"
#include "search/localindex.h"
#include "search/pickermodel.h"
#include "telemetry/learning.h"
#include "telemetry/metrics.h"
#include "ui/fileopener.h"
#include "ui/pickerpanel.h"
#include "userdata/userdata.h"

#include <QActionGroup>
#include <QApplication>
#include <QDesktopServices>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QStyle>
#include <QSystemTrayIcon>
#include <QUrl>

namespace {

const QList<HotKeyCombo> hotKeyPresets = {
    HotKeyCombo::defaultCombo(),
    {46, HotKeyCombo::controlMask | HotKeyCombo::altMask, QStringLiteral("Ctrl+Alt+M")},
    {49, HotKeyCombo::controlMask | HotKeyCombo::shiftMask, QStringLiteral("Ctrl+Shift+Space")},
    {49, HotKeyCombo::controlMask | HotKeyCombo::altMask, QStringLiteral("Ctrl+Alt+Space")},
};

const QString hiddenTrayMessage =
    QStringLiteral("Your desktop shows no tray icons, so the Orvane icon is hidden. Use ⋯ in the "
                   "panel for the menu.");

// A group of exclusive, checkable choices writing one setting.
template <typename Value>
void addChoices(QMenu* menu, const QList<std::pair<QString, Value>>& choices, const Value& current,
                const std::function<void(const Value&)>& choose) {
    auto* group = new QActionGroup(menu);
    for (const auto& [title, value] : choices) {
        QAction* action = menu->addAction(title);
        action->setCheckable(true);
        action->setChecked(value == current);
        group->addAction(action);
        QObject::connect(action, &QAction::triggered, menu, [choose, value] { choose(value); });
    }
}

QIcon trayIcon() {
    QIcon icon = QIcon::fromTheme(QStringLiteral("face-smile"));
    if (icon.isNull())
        icon = QApplication::style()->standardIcon(QStyle::SP_DialogYesButton);
    return icon;
}

} // namespace

AppDelegate::AppDelegate(CommandLine commandLine, QObject* parent)
    : QObject(parent), m_commandLine(std::move(commandLine)) {}

AppDelegate::~AppDelegate() {
    // The panel refers to the model and the thumbnail cache: it goes first.
    m_panel.reset();
    m_tray.reset();
}

void AppDelegate::start() {
    m_userData = std::make_unique<UserData>();
    // Quit and SIGTERM/SIGINT both end the event loop: the last change reaches the disk.
    connect(qApp, &QCoreApplication::aboutToQuit, m_userData.get(), &UserData::flush);
    MemeStore::Options options = MemeStore::Options::fromConfiguration();
    options.convertToPNG = ImageConversion::makePNG;
    m_store = std::make_unique<MemeStore>(std::move(options));
    m_thumbnails = std::make_unique<ThumbnailCache>(*m_store);
    m_picker = std::make_unique<PickerModel>(m_store.get(), m_userData.get());
    m_panel =
        std::make_unique<PanelController>(*m_picker, *m_store, m_thumbnails.get(), *m_userData);
    m_panel->panel()->setMenuBuilder([this](QMenu* menu) { buildMenu(menu); });
    m_learning = std::make_unique<Learning>(Learning::defaultOptions());
    m_panel->setLearning(m_learning.get());
    setUpTrayIcon();
    Metrics::log(QStringLiteral("accessibility"), {{"trusted", m_panel->paster().isTrusted()}});

    m_hotkey = PlatformBackend::createGlobalHotkey();
    connect(m_hotkey.get(), &GlobalHotkey::pressed, this,
            [this](quint32 timestamp) { m_panel->toggle(timestamp); });
    m_recorder = std::make_unique<HotKeyRecorder>();
    registerHotKey();

    m_fetcher = std::make_unique<CatalogFetcher>(DebugFlags::serverURL());
    m_loader = std::make_unique<CatalogLoader>(m_fetcher.get(), AppPaths::dataDir());
    connect(m_loader.get(), &CatalogLoader::indexLoaded, this,
            [this](std::shared_ptr<LocalIndex> index, MemeList items, QString) {
                m_picker->setIndex(std::move(index), items);
            });
    connect(m_loader.get(), &CatalogLoader::indexFailed, this,
            [this](QString message) { m_picker->showLoadFailure(message); });
    connect(m_loader.get(), &CatalogLoader::collectionsChanged, this,
            &AppDelegate::applyCollections);
    reloadIndex();
    reloadCollections();
    m_learning->start();

    connect(DebugFlags::notifier(), &DebugFlagsNotifier::didChange, this,
            &AppDelegate::onSettingsChanged, Qt::QueuedConnection);

    if (!m_tray) {
        // Without a tray the menu lives behind ⋯: say so the first time the panel opens.
        connect(
            m_panel.get(), &PanelController::shown, this,
            [this] { m_panel->panel()->showToast(hiddenTrayMessage, Toast::Kind::guidance); },
            Qt::SingleShotConnection);
    }
    if (m_commandLine.show)
        m_panel->show();
}

void AppDelegate::setUpTrayIcon() {
    if (!QSystemTrayIcon::isSystemTrayAvailable()) {
        Metrics::log(QStringLiteral("status_item"),
                     {{"frame", ""}, {"hidden", true}, {"notch", false}});
        qCInfo(lcApp).noquote() << hiddenTrayMessage;
        return;
    }
    m_tray = std::make_unique<QSystemTrayIcon>(trayIcon());
    m_tray->setToolTip(QStringLiteral("Orvane"));
    m_trayMenu = std::make_unique<QMenu>();
    // Rebuilt each time it opens, so it always shows the current settings.
    connect(m_trayMenu.get(), &QMenu::aboutToShow, this, [this] {
        m_trayMenu->clear();
        buildMenu(m_trayMenu.get());
    });
    m_tray->setContextMenu(m_trayMenu.get());
    connect(m_tray.get(), &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger)
                    m_panel->toggle();
            });
    m_tray->show();
    const QRect frame = m_tray->geometry();
    const QString frameText = frame.isEmpty() ? QString()
                                              : QStringLiteral("%1,%2 %3x%4")
                                                    .arg(frame.x())
                                                    .arg(frame.y())
                                                    .arg(frame.width())
                                                    .arg(frame.height());
    Metrics::log(QStringLiteral("status_item"),
                 {{"frame", frameText.toStdString()}, {"hidden", false}, {"notch", false}});
}

void AppDelegate::reloadIndex() {
    m_loader->reloadIndex();
}

void AppDelegate::reloadCollections() {
    m_loader->reloadCollections();
}

void AppDelegate::applyCollections() {
    if (m_loader->adminCollections().isEmpty())
        return; // the tab keeps saying the collections are loading
    m_collections = std::make_shared<ServerCollections>(m_loader->adminCollections(),
                                                        m_loader->adminStickers());
    m_picker->setCollections(m_collections);
    Metrics::log(QStringLiteral("collections_loaded"),
                 {{"collections", m_loader->adminCollections().size()}, {"mine", 0}});
}

bool AppDelegate::registerHotKey() {
    const HotKeyCombo combo = DebugFlags::hotKey();
    if (registeredHotKey())
        return chooseHotKey(combo);
    if (tryHotKey(combo) || !m_hotkey->canRegister())
        return registeredHotKey().has_value();
    const QString taken = QStringLiteral("%1 is already used by another program").arg(combo.label);
    if (m_tray || (m_panel && m_panel->isVisible())) {
        tellAboutHotKey(taken +
                        QStringLiteral(". Choose another shortcut under Hotkey in the menu."));
        return false;
    }
    // Neither a shortcut nor a tray icon leads to the app: say how else to reach it.
    qCWarning(lcApp).noquote() << taken;
    auto* box = new QMessageBox(QMessageBox::Warning, QStringLiteral("Orvane"),
                                taken + QStringLiteral(", so no shortcut opens Orvane."));
    box->setInformativeText(QStringLiteral("Run orvane again to open the picker, then choose "
                                           "another shortcut under Hotkey in its ⋯ menu."));
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setObjectName(QStringLiteral("hotkeyUnavailable"));
    box->show();
    return false;
}

bool AppDelegate::tryHotKey(const HotKeyCombo& combo) {
    const bool ok = m_hotkey->registerCombo(combo);
    Metrics::log(QStringLiteral("hotkey_registered"),
                 {{"combo", combo.label.toStdString()}, {"ok", ok}});
    return ok;
}

std::optional<HotKeyCombo> AppDelegate::registeredHotKey() const {
    return m_hotkey ? m_hotkey->registered() : std::nullopt;
}

bool AppDelegate::chooseHotKey(const HotKeyCombo& combo) {
    if (registeredHotKey() == combo)
        return true;
    if (tryHotKey(combo)) {
        DebugFlags::setHotKey(combo);
        tellAboutHotKey(QStringLiteral("Shortcut set to %1.").arg(combo.label));
        return true;
    }
    if (!m_hotkey->canRegister())
        return false;
    QString text = QStringLiteral("%1 is already used by another program.").arg(combo.label);
    if (const std::optional<HotKeyCombo> kept = registeredHotKey()) {
        // Never store the refused one: it would be dead after a restart too.
        DebugFlags::setHotKey(*kept);
        text += QStringLiteral(" %1 still opens the picker.").arg(kept->label);
    } else {
        text += QStringLiteral(" Choose another shortcut under Hotkey in the menu.");
    }
    tellAboutHotKey(text);
    return false;
}

void AppDelegate::tellAboutHotKey(const QString& text) {
    qCInfo(lcApp).noquote() << text;
    if (m_tray && !m_panel->isVisible())
        m_tray->showMessage(QStringLiteral("Orvane"), text, QSystemTrayIcon::Information);
    else // over the panel, or where it was when it is hidden
        m_panel->panel()->showToast(text, Toast::Kind::guidance);
}

QWidget* AppDelegate::dialogParent() const {
    return m_panel && m_panel->isVisible() ? m_panel->panel() : nullptr;
}

void AppDelegate::recordHotKey() {
    m_recorder->record(nullptr); // a recording in progress gives its shortcut back first
    // The current shortcut must reach the recorder rather than open the picker.
    const std::optional<HotKeyCombo> previous = registeredHotKey();
    m_hotkey->unregister();
    m_recorder->record(
        [this, previous](std::optional<HotKeyCombo> combo) {
            if (combo) {
                DebugFlags::setHotKey(*combo);
                tellAboutHotKey(QStringLiteral("Shortcut set to %1.").arg(combo->label));
            } else if (previous && !registeredHotKey()) {
                tryHotKey(*previous);
            }
        },
        [this](const HotKeyCombo& combo) {
            if (tryHotKey(combo))
                return QString();
            m_hotkey->unregister(); // still recording
            return QStringLiteral("%1 is already used by another program. Try another.")
                .arg(combo.label);
        },
        dialogParent());
}

void AppDelegate::onSettingsChanged() {
    const bool stress = DebugFlags::settings().boolean(QStringLiteral("stressIndex"));
    if (m_loader->loadedStress() != stress)
        reloadIndex();
    if (DebugFlags::hotKey() != registeredHotKey() && !m_recorder->isRecording())
        registerHotKey();
}

void AppDelegate::notify(const QString& text) {
    if (m_panel && m_panel->isVisible())
        m_panel->panel()->showToast(text, Toast::Kind::error);
    else if (m_tray)
        m_tray->showMessage(QStringLiteral("Orvane"), text, QSystemTrayIcon::Warning);
    qCWarning(lcApp).noquote() << text;
}

void AppDelegate::clearUsageHistory() {
    QMessageBox box(dialogParent());
    box.setWindowFlag(Qt::WindowStaysOnTopHint);
    box.setIcon(QMessageBox::Question);
    box.setText(QStringLiteral("Clear recent and most used?"));
    box.setInformativeText(QStringLiteral("Forgets which memes you used and how often. Favorites "
                                          "and your imported collections stay."));
    QPushButton* clear = box.addButton(QStringLiteral("Clear"), QMessageBox::AcceptRole);
    // Return is the picker's paste key: it must never be the one that destroys.
    QPushButton* cancel = box.addButton(QStringLiteral("Cancel"), QMessageBox::RejectRole);
    box.setDefaultButton(cancel);
    box.setEscapeButton(cancel);
    box.raise();
    box.activateWindow();
    box.exec();
    if (box.clickedButton() != static_cast<QAbstractButton*>(clear))
        return;
    m_userData->clearHistory();
    m_picker->resetWindowAndRerun();
}

void AppDelegate::resetPickerSize() {
    DebugFlags::settings().remove(QStringLiteral("panelWidth"));
    DebugFlags::settings().remove(QStringLiteral("panelHeight"));
    // A panel dragged to another size is usually off centre too.
    if (m_panel->isVisible())
        m_panel->panel()->placeOnScreen();
}

void AppDelegate::showPanel() {
    if (!m_panel->isVisible())
        m_panel->show();
}

void AppDelegate::showAbout() {
    QWidget* parent = m_panel->isVisible() ? m_panel->panel() : nullptr;
    auto* box = new QMessageBox(QMessageBox::Information, QStringLiteral("About Orvane"),
                                QStringLiteral("Orvane %1").arg(BuildInfo::Version),
                                QMessageBox::Ok, parent);
    box->setInformativeText(QStringLiteral("Reaction images for any app: press %1, type, Enter.")
                                .arg(DebugFlags::hotKey().label));
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

void AppDelegate::buildMenu(QMenu* menu) {
    // Hotkey presets, the current one checked; a recorded one that is no preset is listed too.
    QMenu* hotkey = menu->addMenu(QStringLiteral("Hotkey"));
    const HotKeyCombo current = DebugFlags::hotKey();
    QList<std::pair<QString, HotKeyCombo>> presets;
    for (const HotKeyCombo& preset : hotKeyPresets)
        presets.append({preset.label, preset});
    if (!hotKeyPresets.contains(current))
        presets.append({current.label + QStringLiteral("  (custom)"), current});
    addChoices<HotKeyCombo>(hotkey, presets, current,
                            [this](const HotKeyCombo& combo) { chooseHotKey(combo); });
    hotkey->addSeparator();
    hotkey->addAction(QStringLiteral("Record custom shortcut…"), this, &AppDelegate::recordHotKey);

    QAction* login = menu->addAction(QStringLiteral("Launch at login"));
    login->setCheckable(true);
    login->setChecked(Autostart::isEnabled());
    connect(login, &QAction::triggered, this, [this](bool on) {
        QString error;
        if (!Autostart::setEnabled(on, QCoreApplication::applicationFilePath(), &error))
            notify(QStringLiteral("Launch at login failed: ") + error);
    });

    QAction* share = menu->addAction(QStringLiteral("Share anonymous usage (query → pick)"));
    share->setCheckable(true);
    share->setChecked(DebugFlags::settings().boolean(QStringLiteral("shareUsage")));
    connect(share, &QAction::triggered, this,
            [](bool on) { DebugFlags::setValue(QStringLiteral("shareUsage"), on); });

    if (DebugFlags::showDebug()) {
        const QString searchURL =
            DebugFlags::settings().string(QStringLiteral("searchURL")).value_or(QString());
        menu->addAction(QStringLiteral("Cloud search: ") +
                        (searchURL.isEmpty() ? QStringLiteral("not configured") : searchURL))
            ->setEnabled(false);
    }

    QMenu* cache = menu->addMenu(QStringLiteral("Image cache limit"));
    addChoices<std::int64_t>(cache,
                             {{QStringLiteral("100 MB"), 100},
                              {QStringLiteral("500 MB"), 500},
                              {QStringLiteral("2000 MB"), 2000}},
                             DebugFlags::cacheMB(), [this](const std::int64_t& mb) {
                                 DebugFlags::setCacheMB(mb);
                                 m_store->trimFullCache();
                             });

    if (DebugFlags::showDebug()) {
        QMenu* debug = menu->addMenu(QStringLiteral("Debug / A-B tests"));
        const auto toggle = [&](const QString& title, const QString& key) {
            QAction* action = debug->addAction(title);
            action->setCheckable(true);
            action->setChecked(DebugFlags::settings().boolean(key));
            connect(action, &QAction::triggered, this,
                    [key](bool on) { DebugFlags::setValue(key, on); });
        };
        toggle(QStringLiteral("10,000-item stress index"), QStringLiteral("stressIndex"));
        toggle(QStringLiteral("Activating panel (A/B)"), QStringLiteral("activatingMode"));
        addChoices<DragPayload>(debug->addMenu(QStringLiteral("Drag payload")),
                                {{QStringLiteral("A: file URL only"), DragPayload::a},
                                 {QStringLiteral("B: file URL + PNG"), DragPayload::b},
                                 {QStringLiteral("JPEG only (smallest, fastest)"), DragPayload::c}},
                                DebugFlags::dragPayload(),
                                [](const DragPayload& p) { DebugFlags::setDragPayload(p); });
        addChoices<PastePayload>(debug->addMenu(QStringLiteral("Paste payload")),
                                 {{QStringLiteral("PNG only"), PastePayload::pngOnly},
                                  {QStringLiteral("PNG + TIFF"), PastePayload::pngTiff},
                                  {QStringLiteral("File URL + PNG"), PastePayload::fileURLPng},
                                  {QStringLiteral("JPEG only"), PastePayload::jpegOnly}},
                                 DebugFlags::pastePayload().value_or(PastePayload::pngOnly),
                                 [](const PastePayload& p) { DebugFlags::setPastePayload(p); });
        addChoices<std::int64_t>(debug->addMenu(QStringLiteral("Clipboard restore delay")),
                                 {{QStringLiteral("300 ms"), 300},
                                  {QStringLiteral("600 ms"), 600},
                                  {QStringLiteral("1000 ms"), 1000}},
                                 DebugFlags::restoreDelayMs(),
                                 [](const std::int64_t& ms) { DebugFlags::setRestoreDelayMs(ms); });
        toggle(QStringLiteral("Semantic (hybrid) cloud search"), QStringLiteral("semanticSearch"));
        debug->addAction(QStringLiteral("Open metrics log"), this, [this] {
            FileOpener::open(Metrics::url(), m_panel->isVisible() ? m_panel->panel() : nullptr,
                             &QDesktopServices::openUrl, [this](const QString& t) { notify(t); });
        });
        debug->addAction(QStringLiteral("Clear image cache"), this,
                         [this] { m_store->clearCache(); });
    }

    menu->addSeparator();
    menu->addAction(QStringLiteral("Reset picker size"), this, &AppDelegate::resetPickerSize);
    menu->addAction(QStringLiteral("Clear recent and most used…"), this,
                    &AppDelegate::clearUsageHistory);
    menu->addAction(QStringLiteral("About Orvane"), this, &AppDelegate::showAbout);
    menu->addAction(QStringLiteral("Quit"), qApp, &QCoreApplication::quit);
}
