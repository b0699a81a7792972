// SPDX-License-Identifier: MIT
#include "ui/toast.h"

Toast::Toast(QWidget* parent) : QLabel(parent) {
    if (!parent) {
        setWindowFlags(Qt::ToolTip | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                       Qt::WindowDoesNotAcceptFocus);
        setAttribute(Qt::WA_ShowWithoutActivating);
    }
    setAlignment(Qt::AlignCenter);
    setWordWrap(true);
    setAutoFillBackground(true);
    setMargin(8);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setForegroundRole(QPalette::ToolTipText);
    setBackgroundRole(QPalette::ToolTipBase);
    hide();
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &QWidget::hide);
}

void Toast::showMessage(const QString& text, Kind kind, int ms) {
    setText(text);
    setProperty("kind", kind == Kind::error      ? QStringLiteral("error")
                        : kind == Kind::guidance ? QStringLiteral("guidance")
                                                 : QStringLiteral("notice"));
    place();
    show();
    raise();
    m_timer.start(ms > 0                   ? ms
                  : kind == Kind::error    ? errorMs
                  : kind == Kind::guidance ? guidanceMs
                                           : noticeMs);
}

void Toast::place() {
    if (isWindow()) {
        const int width = qMin(qMax(m_anchor.width() - 24, 240), 460);
        setFixedWidth(width);
        adjustSize();
        move(m_anchor.left() + (m_anchor.width() - width) / 2, m_anchor.bottom() - height() - 36);
        return;
    }
    const QWidget* host = parentWidget();
    const int width = qMin(host->width() - 24, 460);
    setFixedWidth(width);
    adjustSize();
    move((host->width() - width) / 2, host->height() - height() - 36);
}
