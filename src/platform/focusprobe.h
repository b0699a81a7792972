// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QString>
#include <functional>

// What has the keyboard inside another program, as its accessibility tree tells.
struct FocusReport {
    enum class TextInput { yes, no, unknown };
    TextInput textInput = TextInput::unknown;
    // The focused element is a terminal.
    bool terminal = false;
    // The focused element's role name, for the log ("text", "push button"); empty if none.
    QString role;
};

// Asks a program which of its elements has the keyboard. Slow and at the mercy of the other
// program, so it runs off the GUI thread with a deadline: no answer in time is unknown.
class FocusProbe {
public:
    using Done = std::function<void(const FocusReport&)>;
    virtual ~FocusProbe() = default;
    // Calls `done` on `context`'s thread within about `timeoutMs`; never once `context` is
    // gone. GUI thread only.
    virtual void probe(qint64 pid, int timeoutMs, QObject* context, Done done) = 0;
};
