// SPDX-License-Identifier: MIT
#include "app/appdelegate.h"

#include "app/autostart.h"
#include "app/hotkeyrecorder.h"
#include "app/panelcontroller.h"
#include "base/apppaths.h"
#include "base/background.h"
#include "base/logcategories.h"
#include "buildinfo.h"
#include "catalog/catalogfetcher.h"
#include "catalog/catalogloader.h"
#include "catalog/debugflags.h"
#include "catalog/imageconversion.h"
#include "catalog/memestore.h"
#include "catalog/thumbnailcache.h"
#include "collections/collectionindex.h"
#include "insert/pasteitem.h"
#include "insert/paster.h"
#include "mine/mineservice.h"
#include "platform/globalhotkey.h"
#include "platform/platformbackend.h"
#include "search/importeditems.h"
#include "search/localindex.h"
#include "search/pickermodel.h"
#include "telemetry/learning.h"
#include "telemetry/metrics.h"
#include "ui/fileopener.h"
#include "ui/importwindow.h"
#include "ui/pickerpanel.h"
#include "userdata/userdata.h"

#include <QActionGroup>
#include <QApplication>
#include <QDesktopServices>
#include <QDir>
#include <QFileDialog>
#include <QImageReader>
#include <QInputDialog>
#include <QMenu>
#include <QMessageBox>
#include <QPointer>
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

const QString deleteDataInformative = QStringLiteral(
    "When you import a folder, our server keeps the search tags of each image (feelings, text, "
    "keywords, collection and file name) under your device id. This removes all of them.\n\nYour "
    "images and collections on this computer are not touched, and still work. We never kept the "
    "images themselves. Your own images never leave this computer.");
constexpr int notDeletedNoticeMs = 8000;

// "Imported 12 images (2 skipped), 9 tagged. Not tagged: …. Menu → Retry tagging"
QString importNotice(const UserCollections::Result& r) {
    QString text = QStringLiteral("Imported %1 images").arg(r.added);
    if (r.skipped > 0)
        text += QStringLiteral(" (%1 skipped)").arg(r.skipped);
    text += QStringLiteral(", %1 tagged").arg(r.tagged);
    if (r.tagged < r.added && r.tagError)
        text += QStringLiteral(". Not tagged: ") + *r.tagError +
                QStringLiteral(". Menu → Retry tagging");
    if (r.stopped)
        text += QStringLiteral(". Stopped: ") + *r.stopped;
    return text;
}

// Progress lines come from import and tagging threads; they are shown on the GUI thread.
UserCollections::Progress progressTo(ImportWindow* window) {
    QPointer<ImportWindow> target(window);
    return [target](const QString& line) {
        QMetaObject::invokeMethod(
            qApp,
            [target, line] {
                if (target)
                    target->showProgress(line);
            },
            Qt::QueuedConnection);
    };
}

// Return is the picker's paste key: it must never be the one that destroys.
bool confirmDestructive(QWidget* parent, const QString& text, const QString& informative,
                        const QString& action) {
    QMessageBox box(parent);
    box.setWindowFlag(Qt::WindowStaysOnTopHint);
    box.setIcon(QMessageBox::Question);
    box.setText(text);
    box.setInformativeText(informative);
    QPushButton* confirm = box.addButton(action, QMessageBox::AcceptRole);
    QPushButton* cancel = box.addButton(QStringLiteral("Cancel"), QMessageBox::RejectRole);
    box.setDefaultButton(cancel);
    box.setEscapeButton(cancel);
    box.raise();
    box.activateWindow();
    box.exec();
    return box.clickedButton() == static_cast<QAbstractButton*>(confirm);
}

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
    // Quitting waits for the background import: it must end after the image at hand.
    if (m_userCollections)
        m_userCollections->stop();
    // The panel refers to the model and the thumbnail cache: it goes first.
    m_panel.reset();
    // Finishes the write at hand; nothing else of the library outlives the app.
    m_mine.reset();
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

    setUpMine();

    m_userCollections = std::make_shared<UserCollections>();
    connect(qApp, &QCoreApplication::aboutToQuit, this, [this] { m_userCollections->stop(); });
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

namespace {
struct CollectionsBuilt {
    MemeList importedItems;
    std::shared_ptr<ImportedItems> imported;
    std::shared_ptr<CollectionIndex> index;
    qsizetype collections = 0;
};
} // namespace

void AppDelegate::applyCollections() {
    // Reading the manifests and indexing tens of thousands of stickers takes seconds at the
    // high end, so both run off the GUI thread; only the newest build is applied.
    const quint64 build = ++m_collectionBuilds;
    runInBackground(
        this,
        [userCollections = m_userCollections, admin = m_loader->adminCollections(),
         adminStickers = m_loader->adminStickers()] {
            const UserCollections::Loaded imported = userCollections->load();
            CollectionsBuilt out;
            out.importedItems = imported.stickers;
            if (!imported.stickers.isEmpty())
                out.imported = std::make_shared<ImportedItems>(imported.stickers);
            // The user's own collections first, the newest on top.
            CollectionList all(imported.collections.crbegin(), imported.collections.crend());
            all += admin;
            out.collections = all.size();
            if (!all.isEmpty())
                out.index = std::make_shared<CollectionIndex>(std::move(all),
                                                              imported.stickers + adminStickers);
            return out;
        },
        [this, build](const CollectionsBuilt& out) {
            if (build != m_collectionBuilds)
                return;
            m_store->setLocalItems(QStringLiteral("imports"), out.importedItems);
            m_picker->setImported(out.imported);
            // Until something is known the tab keeps saying the collections are loading; once
            // it showed some, a deleted last import must disappear from it.
            if (!out.index && !m_collections)
                return;
            m_collections = out.index
                                ? out.index
                                : std::make_shared<CollectionIndex>(CollectionList(), MemeList());
            m_picker->setCollections(m_collections);
            Metrics::log(QStringLiteral("collections_loaded"),
                         {{"collections", out.collections},
                          {"mine", m_mine ? m_mine->records().size() : 0}});
            emit collectionsApplied();
        });
}

void AppDelegate::setUpMine() {
    m_mine = std::make_unique<MineService>();
    // Local files are honoured only for registered items: register before the model shows them.
    connect(m_mine.get(), &MineService::itemsChanged, this, [this](const MemeList& items) {
        m_store->setLocalItems(QStringLiteral("mine"), items);
        m_picker->setMine(items);
    });
    connect(m_mine.get(), &MineService::notice, this, [this](const QString& text, bool failure) {
        m_panel->panel()->showToast(text, failure ? Toast::Kind::error : Toast::Kind::notice);
    });
    connect(m_mine.get(), &MineService::added, this,
            [this](const QStringList& ids) { revealMineItem(ids.first()); });
    // The user's own file goes out as it is, with a PNG rendering beside it.
    m_panel->paster().setMineItemBuilder([](const QUrl& file) {
        PasteItem::Source source;
        source.file = file.toLocalFile();
        source.isPNG = source.file.endsWith(QLatin1String(".png"), Qt::CaseInsensitive);
        return PasteItem::make(source, PastePayload::fileURLPng);
    });
    PickerPanel* panel = m_panel->panel();
    panel->enableMineActions(&MineService::offersItems);
    connect(panel, &PickerPanel::mineDrop, this, [this](const QMimeData* data) {
        m_mine->addMimeData(data, MineService::Source::drop);
    });
    connect(panel, &PickerPanel::minePaste, this, [this](const QMimeData* data) {
        m_mine->addMimeData(data, MineService::Source::paste);
    });
    connect(panel, &PickerPanel::mineAddRequested, this, &AppDelegate::addMineFiles);
    connect(panel, &PickerPanel::mineRemoveRequested, this, &AppDelegate::removeMineItem);
    connect(panel, &PickerPanel::mineLabelRequested, this, &AppDelegate::editMineLabel);
    m_mine->load();
}

void AppDelegate::revealMineItem(const QString& id) {
    if (!m_panel->isVisible())
        return;
    m_picker->switchTab(PickerModel::Tab::mine);
    if (!m_picker->query().isEmpty())
        m_picker->searchTextEdited(QString());
    const MemeList& shown = m_picker->results();
    for (qsizetype row = 0; row < shown.size(); ++row) {
        if (shown[row].id == id) {
            m_picker->select(int(row));
            return;
        }
    }
}

void AppDelegate::showMine() {
    m_panel->show();
    m_picker->switchTab(PickerModel::Tab::mine);
}

void AppDelegate::addMineFiles() {
    QStringList patterns;
    for (const QByteArray& format : QImageReader::supportedImageFormats())
        patterns.append(QStringLiteral("*.") + QString::fromLatin1(format));
    const QStringList files = QFileDialog::getOpenFileNames(
        dialogParent(), QStringLiteral("Add to my images"), QDir::homePath(),
        QStringLiteral("Images (%1)").arg(patterns.join(u' ')));
    refocusPanel();
    m_mine->addFiles(files, MineService::Source::file);
}

void AppDelegate::editMineLabel(const Meme& meme) {
    bool ok = false;
    const QString label = QInputDialog::getText(dialogParent(), QStringLiteral("Edit label"),
                                                QStringLiteral("Words to find this image by:"),
                                                QLineEdit::Normal, meme.description, &ok);
    if (ok)
        m_mine->setLabel(meme.id, label);
    refocusPanel();
}

void AppDelegate::removeMineItem(const Meme& meme) {
    const QString name = meme.description.isEmpty() ? QStringLiteral("this image")
                                                    : QStringLiteral("“%1”").arg(meme.description);
    if (!confirmDestructive(dialogParent(), QStringLiteral("Remove %1 from your images?").arg(name),
                            QStringLiteral("Its files are deleted from this computer."),
                            QStringLiteral("Remove"))) {
        refocusPanel();
        return;
    }
    m_mine->remove(meme.id);
    refocusPanel();
}

void AppDelegate::refocusPanel() {
    // A dialog over the panel took the keyboard; typing goes on in the search field.
    PickerPanel* panel = m_panel->panel();
    if (!panel->isVisible())
        return;
    panel->raise();
    panel->activateWindow();
}

void AppDelegate::importCollection() {
    if (m_importRunning) {
        notify(QStringLiteral("An import is already running"));
        return;
    }
    if (!m_importWindow) {
        m_importWindow = std::make_unique<ImportWindow>();
        connect(m_importWindow.get(), &ImportWindow::importRequested, this,
                &AppDelegate::runImport);
    }
    m_importWindow->begin();
}

void AppDelegate::runImport(const QList<UserCollections::Plan>& plans, const QString& name) {
    if (m_importRunning) {
        notify(QStringLiteral("An import is already running"));
        return;
    }
    m_importRunning = true;
    runInBackground(
        this,
        [collections = m_userCollections, plans, name,
         progress = progressTo(m_importWindow.get())] {
            UserCollections::Result total;
            for (const UserCollections::Plan& plan : plans) {
                const UserCollections::Result one = collections->importCollection(
                    plan, plans.size() == 1 ? name : plan.name, progress);
                total.added += one.added;
                total.tagged += one.tagged;
                total.skipped += one.skipped;
                if (!total.tagError)
                    total.tagError = one.tagError;
                if (one.stopped) {
                    total.stopped = one.stopped;
                    break;
                }
            }
            return total;
        },
        [this](const UserCollections::Result& result) { finishImport(result); });
}

void AppDelegate::finishImport(const UserCollections::Result& result) {
    m_importRunning = false;
    const QString notice = importNotice(result);
    qCInfo(lcApp).noquote() << notice;
    Metrics::log(QStringLiteral("import_done"),
                 {{"added", result.added}, {"tagged", result.tagged}, {"skipped", result.skipped}});
    if (m_importWindow && m_importWindow->isVisible())
        m_importWindow->showResult(notice);
    else
        showNotice(notice, Toast::noticeMs);
    applyCollections();
    m_picker->switchTab(PickerModel::Tab::collections);
}

void AppDelegate::retryTagging() {
    if (m_retryRunning)
        return;
    m_retryRunning = true;
    runInBackground(
        this,
        [collections = m_userCollections] { return collections->retryAll([](const QString&) {}); },
        [this](const UserCollections::TagRun& run) {
            m_retryRunning = false;
            QString text = QStringLiteral("Tagged %1 images").arg(run.tagged);
            if (run.firstError)
                text += QStringLiteral(". Not tagged: ") + *run.firstError;
            showNotice(text, Toast::noticeMs);
            applyCollections();
        });
}

void AppDelegate::renameImported(const QString& id) {
    const std::optional<UserCollections::Stored> stored = m_userCollections->stored(id);
    if (!stored)
        return;
    bool ok = false;
    const QString name =
        QInputDialog::getText(dialogParent(), QStringLiteral("Rename collection"),
                              QStringLiteral("Name:"), QLineEdit::Normal, stored->name, &ok);
    if (ok && m_userCollections->rename(id, name))
        applyCollections();
}

void AppDelegate::deleteImported(const QString& id) {
    const std::optional<UserCollections::Stored> stored = m_userCollections->stored(id);
    if (!stored)
        return;
    if (!confirmDestructive(dialogParent(),
                            QStringLiteral("Delete the collection “%1”?").arg(stored->name),
                            QStringLiteral("Its %1 images are removed from this computer.")
                                .arg(stored->items.size()),
                            QStringLiteral("Delete")))
        return;
    m_userCollections->remove(id);
    applyCollections();
}

void AppDelegate::deleteMyData() {
    if (!confirmDestructive(dialogParent(), QStringLiteral("Delete my data on our server?"),
                            deleteDataInformative, QStringLiteral("Delete")))
        return;
    runInBackground(
        this, [] { return UserCollections::deleteCloudData(); },
        [this](const UserCollections::DeleteOutcome& outcome) {
            using Kind = UserCollections::DeleteOutcome::Kind;
            switch (outcome.kind) {
            case Kind::deleted:
                showNotice(QStringLiteral("Your data on our server is deleted"), Toast::guidanceMs);
                break;
            case Kind::pending:
                showNotice(QStringLiteral("Deleting. It will be finished in a moment"),
                           Toast::guidanceMs);
                break;
            case Kind::failed:
                showNotice(QStringLiteral("Not deleted: ") + outcome.text, notDeletedNoticeMs);
                break;
            }
        });
}

void AppDelegate::showNotice(const QString& text, int ms) {
    qCInfo(lcApp).noquote() << text;
    if (m_tray && !m_panel->isVisible())
        m_tray->showMessage(QStringLiteral("Orvane"), text, QSystemTrayIcon::Information, ms);
    else
        m_panel->panel()->showToast(text, Toast::Kind::notice, ms);
}

void AppDelegate::addCollectionsMenu(QMenu* menu) {
    menu->addAction(QStringLiteral("Import collection…"), this, &AppDelegate::importCollection);
    menu->addAction(QStringLiteral("My images…"), this, &AppDelegate::showMine);
    const QList<UserCollections::Row> rows = m_userCollections->list();
    // An empty submenu would offer nothing.
    if (rows.isEmpty())
        return;
    QMenu* mine = menu->addMenu(QStringLiteral("My collections"));
    for (const UserCollections::Row& row : rows) {
        QMenu* one = mine->addMenu(row.name);
        const QImage icon = m_userCollections->previewIcon(row.id, 32);
        if (!icon.isNull())
            one->setIcon(QIcon(QPixmap::fromImage(icon)));
        const QString id = row.id;
        one->addAction(QStringLiteral("Rename…"), this, [this, id] { renameImported(id); });
        one->addAction(QStringLiteral("Delete…"), this, [this, id] { deleteImported(id); });
        if (row.untagged > 0) {
            one->addSeparator();
            one->addAction(QStringLiteral("%1 not tagged").arg(row.untagged))->setEnabled(false);
            QAction* retry =
                one->addAction(QStringLiteral("Retry tagging"), this, &AppDelegate::retryTagging);
            retry->setEnabled(!m_retryRunning);
        }
    }
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
    if (!confirmDestructive(dialogParent(), QStringLiteral("Clear recent and most used?"),
                            QStringLiteral("Forgets which memes you used and how often. Favorites "
                                           "and your imported collections stay."),
                            QStringLiteral("Clear")))
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
    addCollectionsMenu(menu);

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
    menu->addAction(QStringLiteral("Delete my data on our server…"), this,
                    &AppDelegate::deleteMyData);

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
