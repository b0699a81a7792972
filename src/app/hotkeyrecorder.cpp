// SPDX-License-Identifier: MIT
#include "app/hotkeyrecorder.h"

#include "platform/keycodes.h"

#include <QApplication>
#include <QKeyEvent>
#include <QKeySequence>
#include <QLabel>
#include <QScreen>
#include <QVBoxLayout>

namespace {

// The dialog forwards key presses and reports being closed by the window manager.
class RecorderPanel : public QWidget {
public:
    RecorderPanel(HotKeyRecorder* recorder, QWidget* over)
        : QWidget(over, Qt::Dialog | Qt::CustomizeWindowHint | Qt::WindowTitleHint |
                            Qt::WindowCloseButtonHint | Qt::WindowStaysOnTopHint),
          m_recorder(recorder) {
        setWindowTitle(QStringLiteral("Record shortcut"));
        setAttribute(Qt::WA_DeleteOnClose);
        // Above the picker it belongs to, which keeps it open instead of losing the keyboard.
        if (over)
            setWindowModality(Qt::WindowModal);
        auto* prompt = new QLabel(QString::fromUtf8(HotKeyRecorder::prompt), this);
        prompt->setAlignment(Qt::AlignCenter);
        QFont font = prompt->font();
        font.setPointSizeF(15);
        prompt->setFont(font);
        // The prompt breaks only where its text does; the refusal line wraps within its width.
        const int width = prompt->sizeHint().width();
        message = new QLabel(this);
        message->setObjectName(QStringLiteral("message"));
        message->setAlignment(Qt::AlignCenter);
        message->setWordWrap(true);
        message->setFixedWidth(width);
        message->setMinimumHeight(message->fontMetrics().lineSpacing() * 2);
        auto* layout = new QVBoxLayout(this);
        layout->setContentsMargins(20, 20, 20, 20);
        layout->addWidget(prompt);
        layout->addWidget(message);
        setFixedSize(sizeHint());
    }

    QLabel* message;

protected:
    void keyPressEvent(QKeyEvent* event) override {
        if (!event->isAutoRepeat())
            m_recorder->handleKey(event->key(), event->modifiers());
    }
    void closeEvent(QCloseEvent* event) override {
        // Closed from its title bar: the recording is interrupted.
        if (m_recorder->panel() == this)
            QMetaObject::invokeMethod(
                m_recorder, [r = m_recorder] { r->record(nullptr); }, Qt::QueuedConnection);
        QWidget::closeEvent(event);
    }

private:
    HotKeyRecorder* m_recorder;
};

bool isModifierKey(int key) {
    return key == Qt::Key_Control || key == Qt::Key_Alt || key == Qt::Key_Shift ||
           key == Qt::Key_Meta || key == Qt::Key_Super_L || key == Qt::Key_Super_R ||
           key == Qt::Key_AltGr || key == Qt::Key_CapsLock || key == Qt::Key_NumLock;
}

// With Shift held, Qt reports the shifted symbol; shortcuts are stored by the key itself.
int unshifted(int key) {
    static const QHash<int, int> base = {{Qt::Key_Exclam, Qt::Key_1},
                                         {Qt::Key_At, Qt::Key_2},
                                         {Qt::Key_NumberSign, Qt::Key_3},
                                         {Qt::Key_Dollar, Qt::Key_4},
                                         {Qt::Key_Percent, Qt::Key_5},
                                         {Qt::Key_AsciiCircum, Qt::Key_6},
                                         {Qt::Key_Ampersand, Qt::Key_7},
                                         {Qt::Key_Asterisk, Qt::Key_8},
                                         {Qt::Key_ParenLeft, Qt::Key_9},
                                         {Qt::Key_ParenRight, Qt::Key_0},
                                         {Qt::Key_Underscore, Qt::Key_Minus},
                                         {Qt::Key_Plus, Qt::Key_Equal},
                                         {Qt::Key_BraceLeft, Qt::Key_BracketLeft},
                                         {Qt::Key_BraceRight, Qt::Key_BracketRight},
                                         {Qt::Key_Bar, Qt::Key_Backslash},
                                         {Qt::Key_Colon, Qt::Key_Semicolon},
                                         {Qt::Key_QuoteDbl, Qt::Key_Apostrophe},
                                         {Qt::Key_Less, Qt::Key_Comma},
                                         {Qt::Key_Greater, Qt::Key_Period},
                                         {Qt::Key_Question, Qt::Key_Slash},
                                         {Qt::Key_AsciiTilde, Qt::Key_QuoteLeft}};
    return base.value(key, key);
}

} // namespace

HotKeyRecorder::HotKeyRecorder(QObject* parent) : QObject(parent) {}

HotKeyRecorder::~HotKeyRecorder() {
    if (m_panel)
        delete m_panel.data();
}

void HotKeyRecorder::record(Completion completion, Check check, QWidget* over) {
    finish(std::nullopt);
    if (!completion)
        return;
    m_completion = std::move(completion);
    m_check = std::move(check);
    auto* panel = new RecorderPanel(this, over);
    m_panel = panel;
    m_message = panel->message;
    const QScreen* screen = QGuiApplication::screenAt(QCursor::pos());
    if (!screen)
        screen = QGuiApplication::primaryScreen();
    const QRect area = over     ? over->frameGeometry()
                       : screen ? screen->availableGeometry()
                                : QRect();
    if (area.isValid())
        panel->move(area.center() - panel->rect().center());
    panel->show();
    panel->raise();
    panel->activateWindow();
}

QString HotKeyRecorder::message() const {
    return m_message ? m_message->text() : QString();
}

bool HotKeyRecorder::handleKey(int qtKey, Qt::KeyboardModifiers modifiers) {
    if (!isRecording() || isModifierKey(qtKey))
        return false;
    if (qtKey == Qt::Key_Escape) {
        finish(std::nullopt);
        return true;
    }
    std::uint32_t mods = 0;
    if (modifiers & Qt::ControlModifier)
        mods |= HotKeyCombo::controlMask;
    if (modifiers & Qt::AltModifier)
        mods |= HotKeyCombo::altMask;
    if (modifiers & Qt::ShiftModifier)
        mods |= HotKeyCombo::shiftMask;
    if (modifiers & Qt::MetaModifier)
        mods |= HotKeyCombo::superMask;
    // Keypad digits arrive as plain digits; a grab would take the main row's keys instead.
    const auto key =
        modifiers & Qt::KeypadModifier ? std::nullopt : KeyCodes::byQtKey(unshifted(qtKey));
    if (!key) {
        const QString name = QKeySequence(qtKey).toString(QKeySequence::NativeText);
        refuse(modifiers & Qt::KeypadModifier
                   ? QStringLiteral("Keypad keys are not available for shortcuts.")
                   : (name.isEmpty() ? QStringLiteral("This key") : name) +
                         QStringLiteral(" is not available for shortcuts."));
        return false;
    }
    const HotKeyCombo combo{key->virtualCode, mods, KeyCodes::label(mods, key->virtualCode)};
    const bool hasCommandModifier =
        mods & (HotKeyCombo::controlMask | HotKeyCombo::altMask | HotKeyCombo::superMask);
    if (!hasCommandModifier && !KeyCodes::isFunctionKey(key->virtualCode)) {
        refuse(combo.label + QStringLiteral(" needs Ctrl, Alt or Super; only F-keys work alone."));
        return false;
    }
    if (m_check) {
        const QString why = m_check(combo);
        if (!why.isEmpty()) {
            refuse(why);
            return false;
        }
    }
    finish(combo);
    return true;
}

void HotKeyRecorder::refuse(const QString& why) {
    QApplication::beep();
    if (m_message)
        m_message->setText(why);
    emit refused(why);
}

void HotKeyRecorder::finish(std::optional<HotKeyCombo> result) {
    if (m_panel) {
        QWidget* panel = m_panel;
        m_panel.clear();
        panel->hide();
        panel->deleteLater();
    }
    m_check = nullptr;
    Completion done = std::exchange(m_completion, nullptr);
    if (done)
        done(std::move(result));
}
