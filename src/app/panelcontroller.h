// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/meme.h"
#include "platform/desktopapp.h"

#include <QObject>
#include <QtGui/qwindowdefs.h>
#include <memory>
#include <optional>

class ClipboardReader;
class DragSource;
class EventGuard;
class FocusProbe;
class KeySynthesizer;
class Learning;
class MemeStore;
class Paster;
class PickerModel;
class PickerPanel;
class ThumbnailCache;
class UserData;
class WindowActivator;

// Shows and hides the picker panel and takes the chosen item from it. Created once; the
// panel is built at construction so showing it later costs no disk or network work.
class PanelController : public QObject {
    Q_OBJECT
public:
    PanelController(PickerModel& model, MemeStore& store, ThumbnailCache* thumbnails,
                    UserData& userData, QObject* parent = nullptr);
    ~PanelController() override;

    PickerPanel* panel() const { return m_panel.get(); }
    bool isVisible() const;
    // Whether the desktop has given the panel the keyboard.
    bool panelHasKeyboard() const;
    // Shows the panel (or hides it when it is already showing, for the hotkey).
    // `timestamp` is the desktop time of the key press that asked for it.
    void toggle(quint32 timestamp = 0);
    void show(quint32 timestamp = 0);
    void hide();

    // Enter on a result: records the pick, waits for the full image (the panel stays open
    // with "Download failed" if it cannot be had) and pastes it into the program that was in
    // front. Further Enters are ignored until 0.5 s after the paste was handed over.
    // Hiding the panel while the image is still on its way cancels the paste.
    void insert(const Meme& meme);
    // The same with a caption: the full image is drawn with `top` and `bottom` in the
    // background, saved as a JPEG beside the image caches, and that file is pasted.
    void insertCaptioned(const Meme& meme, const QString& top, const QString& bottom);
    bool isInserting() const { return m_inserting; }
    // Where inserted catalog items are reported when the user shares usage; none by default.
    void setLearning(Learning* learning) { m_learning = learning; }
    // Whether an insert waits for its full image.
    bool isWaitingForImage() const { return !m_waitingFor.isEmpty(); }
    Paster& paster() const { return *m_paster; }
    DragSource& dragSource() const { return *m_dragSource; }
    // The program in front when the panel last opened; invalid when unknown.
    const DesktopApp& target() const { return m_target; }

    static constexpr int insertGuardMs = 500;

signals:
    void shown();
    // The item went to the paster (its image is on the clipboard or about to be).
    void inserted(const Meme& meme);

private:
    struct CaptionLines {
        QString top;
        QString bottom;
    };
    void insertImage(const Meme& meme, std::optional<CaptionLines> caption);
    void saveCaption(const Meme& meme, const QUrl& full, bool cached, const CaptionLines& caption,
                     quint64 generation);
    void pasteFile(const Meme& meme, const QUrl& file, bool cached, bool captioned);
    static bool isOurWindow(const DesktopApp& app);
    // The window manager may not hand the keyboard to a program that had no input of its
    // own, and ignores requests for a window it has not mapped yet: ask until it takes.
    void askForKeyboard(quint32 timestamp);
    // The panel went away before the image came: the user no longer wants the paste.
    void cancelWaitingInsert();
    // What every insert leaves behind, whether pasted or dropped: the pick in user data
    // and, for a catalog item, the usage event.
    void recordPick(const Meme& meme, const QString& method);
    void connectDrags();
    static constexpr int maxActivationTries = 20;
    static constexpr int activationRetryMs = 15;

    PickerModel& m_model;
    MemeStore& m_store;
    UserData& m_userData;
    Learning* m_learning = nullptr;
    // Keeps other programs' bad timestamps away from Qt's clipboard and drags.
    std::unique_ptr<EventGuard> m_eventGuard;
    std::unique_ptr<WindowActivator> m_activator;
    std::unique_ptr<KeySynthesizer> m_keys;
    std::unique_ptr<FocusProbe> m_focusProbe;
    std::unique_ptr<ClipboardReader> m_clipboardReader;
    std::unique_ptr<PickerPanel> m_panel;
    std::unique_ptr<Paster> m_paster;
    std::unique_ptr<DragSource> m_dragSource;
    // The item whose drag waits for its download.
    QString m_dragWaitingFor;
    DesktopApp m_target;
    quint32 m_showTimestamp = 0;
    int m_activationTries = 0;
    bool m_inserting = false;
    // The item whose paste waits for its download, and a count that tells a cancelled
    // wait's late answer from the current one.
    QString m_waitingFor;
    // An insert's caption is being drawn and saved; hiding the panel cancels it too.
    bool m_savingCaption = false;
    quint64 m_insertGeneration = 0;
};
