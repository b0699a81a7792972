// SPDX-License-Identifier: MIT
#include "insert/paster.h"

#include "base/background.h"
#include "base/logcategories.h"
#include "catalog/debugflags.h"
#include "catalog/memestore.h"
#include "insert/pasteitem.h"
#include "insert/terminalpaste.h"
#include "platform/clipboardreader.h"
#include "platform/keysynthesizer.h"
#include "platform/windowactivator.h"
#include "telemetry/metrics.h"

#include <QClipboard>
#include <QTimer>

const QString Paster::couldNotPrepareText = QStringLiteral("Could not prepare image");
const QString Paster::copiedOnlyText = QStringLiteral(
    "Copied — press Ctrl+V. Turn on Paste for you in the menu to paste automatically.");
const QString Paster::noTextFieldText = QStringLiteral("Copied. Press Ctrl+V where you want it.");
const QString Paster::changedBySomeoneElse = QStringLiteral("clipboard changed by someone else");
const QString Paster::noTextFieldReason =
    QStringLiteral("no text field has focus: meme kept on the clipboard");
const QString Paster::verifyFailedReason = QStringLiteral("verify failed");

namespace {

// File managers take a pasted image as a new file even though no text field has focus.
const QStringList fileManagerClasses = {
    QStringLiteral("nautilus"), QStringLiteral("org.gnome.Nautilus"),
    QStringLiteral("dolphin"),  QStringLiteral("thunar"),
    QStringLiteral("nemo"),     QStringLiteral("caja"),
    QStringLiteral("pcmanfm"),  QStringLiteral("pcmanfm-qt"),
};

constexpr int pollMs = 5;
constexpr int settleActivatingMs = 150;
constexpr int settleNonActivatingMs = 40;
const ClipboardReader::Limits snapshotLimits{400, 64ll * 1024 * 1024};
const ClipboardReader::Limits markerLimits{200, 4096};

} // namespace

struct Paster::Run {
    Request request;
    PastePayload payload = PastePayload::pngOnly;
    bool trusted = false;
    bool activatingMode = false;
    QString source;
    int waitingFor = 0;
    std::optional<ClipboardItem> item;
    ClipboardSnapshot snapshot;
    quint64 changesAfterWrite = 0;
    QByteArray marker;
    QElapsedTimer focusClock;
    bool nudged = false;
    FocusReport focus;
    qint64 restoreMs = 0;
    bool awaitingRestore = false;

    QString target() const { return request.target.identifier; }
};

Paster::Paster(Desktop desktop, MemeStore& store, QClipboard* clipboard, ToastSink toast,
               QObject* parent)
    : QObject(parent), m_desktop(desktop), m_store(store), m_writer(clipboard),
      m_toast(std::move(toast)) {}

Paster::~Paster() = default;

bool Paster::isTrusted() const {
    return m_desktop.keys->isAvailable();
}

void Paster::paste(Request request) {
    auto run = std::make_shared<Run>();
    run->request = std::move(request);
    run->payload = DebugFlags::pastePayload().value_or(PastePayload::pngOnly);
    run->trusted = isTrusted();
    run->activatingMode = DebugFlags::settings().boolean(QStringLiteral("activatingMode"));
    run->source = run->request.meme.isMine() ? QStringLiteral("mine") : QStringLiteral("library");

    // A paste whose restore is still pending saved the user's clipboard: this one keeps that
    // snapshot, since the clipboard now holds our previous image.
    const RunPtr previous = m_run;
    const bool inherits = previous && previous->awaitingRestore;
    if (inherits)
        run->snapshot = previous->snapshot;
    m_run = run;

    run->waitingFor = run->trusted && !inherits ? 2 : 1;
    const Meme& meme = run->request.meme;
    PasteItem::Source source;
    source.file = run->request.file.toLocalFile();
    source.captioned = run->request.captioned;
    source.isPNG = meme.isPNG() && !source.captioned;
    if (!source.captioned)
        source.pngSibling = m_store.pngFileURL(meme).toLocalFile();
    const ItemBuilder mine = meme.isMine() ? m_mineItems : ItemBuilder();
    const QUrl file = run->request.file;
    const PastePayload payload = run->payload;
    runInBackground(
        this,
        [mine, file, source, payload]() -> std::optional<ClipboardItem> {
            return mine ? mine(file) : PasteItem::make(source, payload);
        },
        [this, run](std::optional<ClipboardItem> item) {
            run->item = std::move(item);
            joined(run);
        });
    if (run->waitingFor == 2) {
        // Only a paste that types for the user restores, so only it saves the clipboard.
        m_desktop.reader->read(ClipboardSnapshot::readFilter(), snapshotLimits, this,
                               [this, run](const ClipboardContents& contents) {
                                   run->snapshot = ClipboardSnapshot::fromContents(contents);
                                   joined(run);
                               });
    }
}

void Paster::joined(const RunPtr& run) {
    if (--run->waitingFor > 0 || !isCurrent(run))
        return;
    write(run);
}

void Paster::write(const RunPtr& run) {
    const Meme& meme = run->request.meme;
    if (!run->item || !m_writer.write(*run->item)) {
        qCWarning(lcInsert).noquote() << "paste: could not prepare" << meme.id;
        m_toast(couldNotPrepareText, errorToastMs);
        m_run.reset();
        emit failed(meme.id);
        return;
    }
    run->changesAfterWrite = m_writer.changeCount();
    run->marker = m_writer.lastMarker();
    Metrics::log(QStringLiteral("insert"), {{"method", "paste"},
                                            {"id", meme.id.toStdString()},
                                            {"source", run->source.toStdString()},
                                            {"cached", run->request.cached},
                                            {"payload", rawValue(run->payload).toStdString()},
                                            {"target", run->target().toStdString()},
                                            {"trusted", run->trusted},
                                            {"captioned", run->request.captioned}});
    if (run->request.hidePanel)
        run->request.hidePanel();
    emit written(meme.id);

    if (!run->trusted) {
        m_toast(copiedOnlyText, guidanceToastMs);
        Metrics::log(QStringLiteral("paste"), {{"id", meme.id.toStdString()},
                                               {"method", "fallback"},
                                               {"target", run->target().toStdString()}});
        m_run.reset();
        emit finished(meme.id, false, QString());
        return;
    }
    if (!run->snapshot.isComplete())
        qCWarning(lcInsert) << "paste: the previous clipboard was only partly saved";
    run->restoreMs = DebugFlags::restoreDelayMs();
    run->focusClock.start();
    waitForTarget(run);
}

// The panel had the keyboard: after hiding it, the window manager usually hands focus back
// by itself; if it has not within a few milliseconds, ask it to.
void Paster::waitForTarget(const RunPtr& run) {
    if (!isCurrent(run))
        return;
    const DesktopApp& target = run->request.target;
    const bool back = !target.isValid() || m_desktop.windows->activeWindow() == target.window;
    if (!back && run->focusClock.elapsed() < focusReturnMs) {
        if (!run->nudged && run->focusClock.elapsed() >= focusNudgeMs) {
            run->nudged = true;
            m_desktop.windows->activate(target.window, run->request.timestamp);
        }
        QTimer::singleShot(pollMs, this, [this, run] { waitForTarget(run); });
        return;
    }
    if (!back)
        qCInfo(lcInsert) << "paste: the target window did not get the keyboard back in"
                         << focusReturnMs << "ms";
    const int settle = run->activatingMode ? settleActivatingMs : settleNonActivatingMs;
    QTimer::singleShot(settle, this, [this, run] { keystrokeStep(run); });
}

void Paster::keystrokeStep(const RunPtr& run) {
    if (!isCurrent(run))
        return;
    const DesktopApp frontmost = m_desktop.windows->frontmost();
    const DesktopApp& target = run->request.target;
    if (run->activatingMode) {
        const bool same = target.pid > 0 && frontmost.pid > 0 && target.pid == frontmost.pid;
        Metrics::log(QStringLiteral("activation_check"), {{"target_is_frontmost", same}});
    }
    const DesktopApp app = target.isValid() ? target : frontmost;
    probeFocus(run, app, [this, run, app](const FocusReport& focus) {
        if (!isCurrent(run))
            return;
        run->focus = focus;
        const bool shift = TerminalPaste::needsShift(app.identifier, focus.terminal);
        m_desktop.keys->sendPaste(shift, modifierWaitMs, this, [this, run, shift](bool) {
            if (!isCurrent(run))
                return;
            emit keystrokeSent(shift);
            if (run->focus.textInput == FocusReport::TextInput::no)
                m_toast(noTextFieldText, guidanceToastMs);
            run->awaitingRestore = true;
            QTimer::singleShot(int(run->restoreMs), this, [this, run] { restoreStep(run); });
        });
    });
}

void Paster::probeFocus(const RunPtr& run, const DesktopApp& app, FocusProbe::Done done) {
    if (!run->trusted || !app.isValid() || app.pid <= 0 ||
        fileManagerClasses.contains(app.identifier, Qt::CaseInsensitive)) {
        QTimer::singleShot(0, this, [done] { done(FocusReport{}); });
        return;
    }
    m_desktop.focus->probe(app.pid, focusProbeMs, this, std::move(done));
}

void Paster::restoreStep(const RunPtr& run) {
    if (!isCurrent(run) || !run->awaitingRestore)
        return;
    run->awaitingRestore = false;
    if (run->focus.textInput == FocusReport::TextInput::no) {
        finish(run, false, noTextFieldReason);
        return;
    }
    // Our marker still on the clipboard means nobody copied since: that also holds when a
    // clipboard manager took our entry over (it copies every type). The change count only
    // decides when the owner does not say in time.
    const QString marker = ClipboardSnapshot::ownerMarkerType;
    m_desktop.reader->read(
        [marker](const QString& type) { return type == marker; }, markerLimits, this,
        [this, run, marker](const ClipboardContents& now) {
            if (!isCurrent(run))
                return;
            const auto found =
                std::find_if(now.types.begin(), now.types.end(),
                             [&](const auto& entry) { return entry.first == marker; });
            bool ours = m_writer.changeCount() == run->changesAfterWrite;
            if (found != now.types.end())
                ours = found->second == run->marker;
            else if (now.owned && now.complete)
                ours = false; // an owner that answered without our marker

            if (ours)
                restoreAndVerify(run);
            else
                finish(run, false, changedBySomeoneElse);
        });
}

void Paster::restoreAndVerify(const RunPtr& run) {
    run->snapshot.restore(m_writer.clipboard());
    m_desktop.reader->read(ClipboardSnapshot::readFilter(), snapshotLimits, this,
                           [this, run](const ClipboardContents& now) {
                               if (!isCurrent(run))
                                   return;
                               const bool same = run->snapshot.matches(now);
                               finish(run, same, same ? QString() : verifyFailedReason);
                           });
}

void Paster::finish(const RunPtr& run, bool restored, const QString& reason) {
    const QString& id = run->request.meme.id;
    nlohmann::json fields = {{"id", id.toStdString()},
                             {"restore_ms", run->restoreMs},
                             {"clipboard_restored", restored},
                             {"target", run->target().toStdString()}};
    if (!reason.isEmpty())
        fields["reason"] = reason.toStdString();
    Metrics::log(QStringLiteral("paste"), std::move(fields));
    if (restored)
        qCInfo(lcInsert).noquote() << "paste:" << id << "clipboard restored";
    else
        qCInfo(lcInsert).noquote() << "paste:" << id << "clipboard not restored:" << reason;
    if (isCurrent(run))
        m_run.reset();
    emit finished(id, restored, reason);
}
