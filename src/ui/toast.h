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

    explicit Toast(QWidget* parent);
    void showMessage(const QString& text, Kind kind);

private:
    void place();
    QTimer m_timer;
};
