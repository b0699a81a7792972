// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/hotkeycombo.h"

#include <QObject>
#include <QPointer>
#include <QWidget>
#include <functional>
#include <optional>

class QKeyEvent;

// Lets the user choose a new global shortcut: shows a small floating panel and takes the
// next acceptable key press. A shortcut needs Ctrl, Alt or Super, unless it is an F-key;
// anything else beeps and keeps waiting. GUI thread only.
class HotKeyRecorder : public QObject {
    Q_OBJECT
public:
    using Completion = std::function<void(std::optional<HotKeyCombo>)>;

    static constexpr const char* prompt = "Press the shortcut you want.\nUse Ctrl, Alt or Super "
                                          "with a key (or an F-key).\nEsc cancels.";

    explicit HotKeyRecorder(QObject* parent = nullptr);
    ~HotKeyRecorder() override;

    // Ends a recording in progress (its completion gets none) and starts a new one.
    void record(Completion completion);
    bool isRecording() const { return bool(m_completion); }
    // The recording panel while recording, else null.
    QWidget* panel() const { return m_panel; }

    // Decides on one key press: true when it finished the recording.
    bool handleKey(int qtKey, Qt::KeyboardModifiers modifiers);

signals:
    // A key was refused (the user hears a beep).
    void refused();

private:
    void finish(std::optional<HotKeyCombo> result);

    Completion m_completion;
    QPointer<QWidget> m_panel;
};
