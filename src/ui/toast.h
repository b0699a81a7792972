// SPDX-License-Identifier: MIT
#pragma once

#include <QLabel>
#include <QTimer>

// A transient one-line message over the bottom of the panel: errors stay 1.8 s, guidance 3 s.
class Toast : public QLabel {
    Q_OBJECT
public:
    enum class Kind { error, guidance };
    static constexpr int errorMs = 1800;
    static constexpr int guidanceMs = 3000;

    // Without a parent the toast is a window of its own that never takes the keyboard, for
    // messages after the panel has gone (the user is back in their program).
    explicit Toast(QWidget* parent);
    void showMessage(const QString& text, Kind kind);
    // The window toast's place: centred near the bottom of `area`.
    void setAnchor(const QRect& area) { m_anchor = area; }

private:
    void place();
    QTimer m_timer;
    QRect m_anchor;
};
