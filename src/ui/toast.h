// SPDX-License-Identifier: MIT
#pragma once

#include <QLabel>
#include <QTimer>

// A transient one-line message over the bottom of the panel: errors stay 1.8 s, guidance 3 s,
// notices of finished work (an import) 6 s.
class Toast : public QLabel {
    Q_OBJECT
public:
    enum class Kind { error, guidance, notice };
    static constexpr int errorMs = 1800;
    static constexpr int guidanceMs = 3000;
    static constexpr int noticeMs = 6000;

    // Without a parent the toast is a window of its own that never takes the keyboard, for
    // messages after the panel has gone (the user is back in their program).
    explicit Toast(QWidget* parent);
    // Shows `text` for the kind's time, or for `ms` when given.
    void showMessage(const QString& text, Kind kind, int ms = 0);
    // The window toast's place: centred near the bottom of `area`.
    void setAnchor(const QRect& area) { m_anchor = area; }

private:
    void place();
    QTimer m_timer;
    QRect m_anchor;
};
