// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/meme.h"
#include "catalog/payloadkinds.h"
#include "platform/clipboardcontents.h"
#include "platform/desktopapp.h"

#include <QObject>
#include <QPixmap>
#include <QPoint>
#include <QPointer>
#include <functional>
#include <memory>
#include <optional>

class MemeStore;
class QUrl;
class WindowActivator;

// Drags a result out of the panel into another program. What the drag carries follows the
// dragPayload setting: a, the full image's file; b, that file and its PNG bytes; c, a JPEG
// copy named after the meme (Linux has no common file promise, so the copy is made first).
//
// Timeline: begin → full image on disk? (else "drag_miss", the cell's bar, ensureFull and
// "drag_wait"; a button released meanwhile ends it there) → payload built in the background
// → a button still held? → QDrag::exec (its own event loop) → an accepted drop logs
// "insert" and emits dropped(). GUI thread only; one drag at a time.
class DragSource : public QObject {
    Q_OBJECT
public:
    // Turns the cell's loading indicator on or off.
    using SetLoading = std::function<void(bool on)>;

    // Copies for payload c that are this old may go; newer ones a target may still be reading.
    static constexpr qint64 jpegBudgetBytes = 50'000'000;

    DragSource(MemeStore& store, WindowActivator& windows, QObject* parent = nullptr);
    ~DragSource() override;

    // The user pressed on the cell of `meme` in `source` and moved beyond the drag distance.
    // `image` follows the pointer with its point `hotSpot` under it. Ignored while a drag
    // is under way.
    void begin(const Meme& meme, QObject* source, const QPixmap& image, QPoint hotSpot,
               SetLoading setLoading);
    // Gives up a drag that still waits for its image or payload (the panel went away).
    void cancel();
    // From begin() until ended().
    bool isBusy() const { return bool(m_run); }
    // The folder of the JPEG copies of payload c.
    QString jpegDir() const;

signals:
    // The pointer carries the image now (QDrag::exec is about to run).
    void dragStarted(const QString& id);
    // A program took the drop; `target` is the window under the drop point (may be invalid).
    void dropped(const Meme& meme, const DesktopApp& target);
    // Every begin() ends here: `dropped` says whether a program took the item.
    void ended(const QString& id, bool dropped);

private:
    struct Run;
    using RunPtr = std::shared_ptr<Run>;

    void imageArrived(const RunPtr& run, std::optional<QUrl> file);
    void build(const RunPtr& run, const QUrl& file);
    void exec(const RunPtr& run, const ClipboardItem& item);
    void end(const RunPtr& run, bool dropped);
    bool isCurrent(const RunPtr& run) const { return run == m_run; }

    MemeStore& m_store;
    WindowActivator& m_windows;
    RunPtr m_run;
};
