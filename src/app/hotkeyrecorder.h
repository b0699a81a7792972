// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/hotkeycombo.h"

#include <QObject>
#include <QPointer>
#include <QWidget>
#include <functional>
#include <optional>

class QKeyEvent;
class QLabel;

// Lets the user choose a new global shortcut: shows a small fixed-size dialog and takes the
// next acceptable key press. A shortcut needs Ctrl, Alt or Super, unless it is an F-key;
// anything else beeps, says why under the prompt and keeps waiting. GUI thread only.
class HotKeyRecorder : public QObject {
    Q_OBJECT
public:
    using Completion = std::function<void(std::optional<HotKeyCombo>)>;
    // Tries an acceptable shortcut before the recording ends: empty when it was taken into
    // use, else why not (shown under the prompt while the recording goes on).
    using Check = std::function<QString(const HotKeyCombo&)>;

    static constexpr const char* prompt = "Press the shortcut you want.\nUse Ctrl, Alt or Super "
                                          "with a key (or an F-key).\nEsc cancels.";

    explicit HotKeyRecorder(QObject* parent = nullptr);
    ~HotKeyRecorder() override;

    // Ends a recording in progress (its completion gets none) and starts a new one. With
    // `over`, the dialog belongs to that window and stays above it.
    void record(Completion completion, Check check = {}, QWidget* over = nullptr);
    bool isRecording() const { return bool(m_completion); }
    // The recording dialog while recording, else null.
    QWidget* panel() const { return m_panel; }
    // The line under the prompt: why the last key was refused, or empty.
    QString message() const;

    // Decides on one key press: true when it finished the recording.
    bool handleKey(int qtKey, Qt::KeyboardModifiers modifiers);

signals:
    // A key was refused (the user hears a beep and reads `why`).
    void refused(const QString& why);

private:
    void refuse(const QString& why);
    void finish(std::optional<HotKeyCombo> result);

    Completion m_completion;
    Check m_check;
    QPointer<QWidget> m_panel;
    QPointer<QLabel> m_message;
};
