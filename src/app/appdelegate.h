// SPDX-License-Identifier: MIT
#pragma once

#include "app/commandline.h"
#include "catalog/hotkeycombo.h"
#include "catalog/meme.h"
#include "collections/usercollections.h"

#include <QObject>
#include <memory>
#include <optional>

class CatalogFetcher;
class CatalogLoader;
class GlobalHotkey;
class HotKeyRecorder;
class ImportWindow;
class MemeStore;
class MineService;
class Learning;
class PanelController;
class PickerModel;
class QMenu;
class QSystemTrayIcon;
class QWidget;
class ThumbnailCache;
class UserData;
class CollectionIndex;

// The resident application: owns the catalog, the image cache, user data, the picker model
// and panel, the tray icon and the global hotkey for the life of the process, and wires
// them together. GUI thread only.
class AppDelegate : public QObject {
    Q_OBJECT
public:
    explicit AppDelegate(CommandLine commandLine, QObject* parent = nullptr);
    ~AppDelegate() override;

    // The start-up sequence: tray, hotkey, catalog and collections, settings observer.
    void start();

    void reloadIndex();
    void reloadCollections();
    void applyCollections();
    bool registerHotKey();
    void recordHotKey();
    void clearUsageHistory();
    void resetPickerSize();
    // Imported collections: the import window, "Retry tagging", renaming and deleting one,
    // and asking the tagging server to forget this device's tags.
    void importCollection();
    void retryTagging();
    void renameImported(const QString& id);
    void deleteImported(const QString& id);
    void deleteMyData();
    // The user's own images: "My images…" opens the panel on the Mine tab; the file chooser
    // of "＋ Add"; relabelling and removing one item.
    void showMine();
    void addMineFiles();
    void editMineLabel(const Meme& meme);
    void removeMineItem(const Meme& meme);
    MineService& mine() const { return *m_mine; }
    bool importRunning() const { return m_importRunning; }
    ImportWindow* importWindow() const { return m_importWindow.get(); }
    UserCollections& userCollections() const { return *m_userCollections; }
    // Opens the picker unless it is already open (a second launch asks for this).
    void showPanel();
    // The version, in a box above the panel when the panel is open.
    void showAbout();
    // Shows an error line in the panel when it is open, else on the tray icon.
    void notify(const QString& text);
    // Shows the outcome of finished work for `ms`: over the panel when it is open, else on
    // the tray icon, else in a window where the panel was.
    void showNotice(const QString& text, int ms);

    // Fills `menu` with the current items; used by the tray icon and the panel's ⋯ button.
    void buildMenu(QMenu* menu);

    PanelController& panelController() const { return *m_panel; }
    PickerModel& pickerModel() const { return *m_picker; }
    MemeStore& memeStore() const { return *m_store; }
    HotKeyRecorder& hotKeyRecorder() const { return *m_recorder; }
    UserData& userData() const { return *m_userData; }
    // The shortcut the desktop holds for us now, if any.
    std::optional<HotKeyCombo> registeredHotKey() const;

signals:
    // applyCollections() handed a new collection index to the picker.
    void collectionsApplied();

private:
    void onSettingsChanged();
    void runImport(const QList<UserCollections::Plan>& plans, const QString& name);
    void finishImport(const UserCollections::Result& result);
    void addCollectionsMenu(QMenu* menu);
    void setUpMine();
    // Shows the Mine tab with `id` selected, from the top of an unfiltered list.
    void revealMineItem(const QString& id);
    void refocusPanel();
    void setUpTrayIcon();
    // Takes `combo` into use and stores it; when it is refused the previous one stays (in
    // the desktop and in the settings) and the user is told where they are looking.
    bool chooseHotKey(const HotKeyCombo& combo);
    bool tryHotKey(const HotKeyCombo& combo);
    void tellAboutHotKey(const QString& text);
    // Dialogs go over the picker when it shows: it stays on top of everything else.
    QWidget* dialogParent() const;

    CommandLine m_commandLine;
    std::unique_ptr<UserData> m_userData;
    std::unique_ptr<MemeStore> m_store;
    std::unique_ptr<ThumbnailCache> m_thumbnails;
    std::unique_ptr<PickerModel> m_picker;
    std::unique_ptr<PanelController> m_panel;
    std::unique_ptr<Learning> m_learning;
    std::unique_ptr<CatalogFetcher> m_fetcher;
    std::unique_ptr<CatalogLoader> m_loader;
    std::shared_ptr<CollectionIndex> m_collections;
    quint64 m_collectionBuilds = 0;
    // Shared with imports and tagging runs that may outlive a menu action.
    std::shared_ptr<UserCollections> m_userCollections;
    std::unique_ptr<ImportWindow> m_importWindow;
    std::unique_ptr<MineService> m_mine;
    bool m_importRunning = false;
    bool m_retryRunning = false;
    std::unique_ptr<GlobalHotkey> m_hotkey;
    std::unique_ptr<HotKeyRecorder> m_recorder;
    std::unique_ptr<QSystemTrayIcon> m_tray;
    std::unique_ptr<QMenu> m_trayMenu;
};
