// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/meme.h"
#include "catalog/payloadkinds.h"
#include "insert/clipboardsnapshot.h"
#include "insert/clipboardwriter.h"
#include "platform/desktopapp.h"
#include "platform/focusprobe.h"

#include <QElapsedTimer>
#include <QObject>
#include <QUrl>
#include <functional>
#include <memory>
#include <optional>

class ClipboardReader;
class KeySynthesizer;
class MemeStore;
class QClipboard;
class WindowActivator;

// Puts an image into the program the user was working in: writes it to the clipboard, gives
// the keyboard back to that program, types Ctrl+V there, and afterwards puts the user's own
// clipboard back. Where the desktop does not let us type, it only copies and says so.
//
// Timeline: build the entry and save the clipboard (both in the background) → write → hide
// the panel → the target has the keyboard again → short settle delay → focus probe → Ctrl+V
// → restoreDelayMs → restore and verify. GUI thread only; one paste at a time (a new one
// takes over a restore still pending, so the saved clipboard is never our own image).
class Paster : public QObject {
    Q_OBJECT
public:
    // The desktop edges the paste goes through; not owned.
    struct Desktop {
        WindowActivator* windows;
        KeySynthesizer* keys;
        FocusProbe* focus;
        ClipboardReader* reader;
    };
    using ToastSink = std::function<void(const QString& text, int ms)>;
    // Builds the clipboard entry of an item of the user's own library. Called off the GUI
    // thread.
    using ItemBuilder = std::function<std::optional<ClipboardItem>(const QUrl& file)>;

    struct Request {
        Meme meme;
        QUrl file;
        // The full image was on disk when the user asked (for the log only).
        bool cached = false;
        bool captioned = false;
        // The program in front when the panel opened; invalid when unknown.
        DesktopApp target;
        // Desktop time of the key press that opened the panel.
        quint32 timestamp = 0;
        std::function<void()> hidePanel;
    };

    static const QString couldNotPrepareText;
    static const QString copiedOnlyText;
    static const QString noTextFieldText;
    static const QString changedBySomeoneElse;
    static const QString noTextFieldReason;
    static const QString verifyFailedReason;

    static constexpr int errorToastMs = 1800;
    static constexpr int guidanceToastMs = 3000;
    // How long the previous window may take to get the keyboard back.
    static constexpr int focusReturnMs = 300;
    // Asking the window manager when it has not handed focus back by itself after this.
    static constexpr int focusNudgeMs = 20;
    static constexpr int focusProbeMs = 250;
    static constexpr int modifierWaitMs = 1000;

    Paster(Desktop desktop, MemeStore& store, QClipboard* clipboard, ToastSink toast,
           QObject* parent = nullptr);
    ~Paster() override;

    void paste(Request request);
    void setMineItemBuilder(ItemBuilder builder) { m_mineItems = std::move(builder); }
    // Whether pastes type for the user (else they only copy).
    bool isTrusted() const;
    ClipboardWriter& writer() { return m_writer; }

signals:
    // The clipboard holds the image and the panel is hidden.
    void written(const QString& id);
    // Ctrl+V (with Shift for a terminal) went to the target.
    void keystrokeSent(bool withShift);
    // The paste is over: the clipboard was restored or why not ("" for a copy-only paste).
    void finished(const QString& id, bool restored, const QString& reason);
    // No entry could be made or written; the clipboard is as it was.
    void failed(const QString& id);

private:
    struct Run;
    using RunPtr = std::shared_ptr<Run>;

    void joined(const RunPtr& run);
    void write(const RunPtr& run);
    void waitForTarget(const RunPtr& run);
    void keystrokeStep(const RunPtr& run);
    void probeFocus(const RunPtr& run, const DesktopApp& app, FocusProbe::Done done);
    void restoreStep(const RunPtr& run);
    void restoreAndVerify(const RunPtr& run);
    void finish(const RunPtr& run, bool restored, const QString& reason);
    bool isCurrent(const RunPtr& run) const { return run == m_run; }

    Desktop m_desktop;
    MemeStore& m_store;
    ClipboardWriter m_writer;
    ToastSink m_toast;
    ItemBuilder m_mineItems;
    RunPtr m_run;
};
