// SPDX-License-Identifier: MIT
#include "ui/toast.h"

Toast::Toast(QWidget* parent) : QLabel(parent) {
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

void Toast::showMessage(const QString& text, Kind kind) {
    setText(text);
    setProperty("kind", kind == Kind::error ? QStringLiteral("error") : QStringLiteral("guidance"));
    place();
    show();
    raise();
    m_timer.start(kind == Kind::error ? errorMs : guidanceMs);
}

void Toast::place() {
    const QWidget* host = parentWidget();
    const int width = qMin(host->width() - 24, 460);
    setFixedWidth(width);
    adjustSize();
    move((host->width() - width) / 2, host->height() - height() - 36);
}
