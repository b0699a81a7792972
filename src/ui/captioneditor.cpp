// SPDX-License-Identifier: MIT
#include "ui/captioneditor.h"

#include "base/background.h"
#include "insert/captionrenderer.h"
#include "search/pickermodel.h"

#include <QHBoxLayout>
#include <QImageReader>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPainter>
#include <QPushButton>
#include <QVBoxLayout>

using Line = CaptionDraft::Line;

const QString CaptionEditor::hint = QStringLiteral("↵ done · tab next line · esc back");

// The preview, as large as the room allows up to its own size, or a word while there is none.
class CaptionEditor::PreviewView : public QWidget {
public:
    explicit PreviewView(QWidget* parent) : QWidget(parent) {
        setObjectName(QStringLiteral("captionPreview"));
        setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
        setMinimumSize(120, 80);
    }
    void display(const QImage& image, const QString& message = {}) {
        m_image = image;
        m_message = message;
        update();
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        if (m_image.isNull()) {
            painter.setPen(palette().color(QPalette::PlaceholderText));
            painter.drawText(rect(), Qt::AlignCenter, m_message);
            return;
        }
        // One preview pixel to one logical pixel at most, smaller when the panel is.
        const QSize fitted = m_image.size().boundedTo(size()).expandedTo(QSize(1, 1));
        const QSize shown = m_image.size().scaled(fitted, Qt::KeepAspectRatio);
        const QRect target(QPoint((width() - shown.width()) / 2, (height() - shown.height()) / 2),
                           shown);
        // What is transparent arrives white: the pasted picture is a JPEG.
        painter.fillRect(target, Qt::white);
        painter.setRenderHint(QPainter::SmoothPixmapTransform);
        painter.drawImage(target, m_image);
    }

private:
    QImage m_image;
    QString m_message;
};

CaptionEditor::CaptionEditor(PickerModel& model, QWidget* parent)
    : QWidget(parent), m_model(model) {
    setObjectName(QStringLiteral("captionEditor"));
    m_view = new PreviewView(this);
    m_top = new QLineEdit(this);
    m_top->setObjectName(QStringLiteral("captionTop"));
    m_top->setPlaceholderText(QStringLiteral("Top text"));
    m_bottom = new QLineEdit(this);
    m_bottom->setObjectName(QStringLiteral("captionBottom"));
    m_bottom->setPlaceholderText(QStringLiteral("Bottom text"));
    for (QLineEdit* line : {m_top, m_bottom})
        line->installEventFilter(this);

    auto* hintLabel = new QLabel(hint, this);
    hintLabel->setObjectName(QStringLiteral("captionHint"));
    hintLabel->setForegroundRole(QPalette::PlaceholderText);
    auto* back = new QPushButton(QStringLiteral("Back"), this);
    auto* done = new QPushButton(QStringLiteral("Done"), this);
    // The lines keep the keyboard when a button is clicked.
    back->setFocusPolicy(Qt::NoFocus);
    done->setFocusPolicy(Qt::NoFocus);

    auto* buttons = new QHBoxLayout;
    buttons->addWidget(hintLabel, 1);
    buttons->addWidget(back);
    buttons->addWidget(done);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(6);
    layout->addWidget(m_view, 1);
    layout->addWidget(m_top);
    layout->addWidget(m_bottom);
    layout->addLayout(buttons);

    connect(back, &QPushButton::clicked, &m_model, &PickerModel::cancelCaption);
    connect(done, &QPushButton::clicked, &m_model, &PickerModel::insertCaption);
    connect(m_top, &QLineEdit::textEdited, this,
            [this](const QString& text) { m_model.setCaptionLine(Line::top, text); });
    connect(m_bottom, &QLineEdit::textEdited, this,
            [this](const QString& text) { m_model.setCaptionLine(Line::bottom, text); });
    connect(&m_model, &PickerModel::captionChanged, this, &CaptionEditor::sync);
    connect(&m_model, &PickerModel::captionFocusRequested, this, &CaptionEditor::takeFocus);
}

CaptionEditor::~CaptionEditor() = default;

QLineEdit* CaptionEditor::edit(Line line) const {
    return line == Line::top ? m_top : m_bottom;
}

void CaptionEditor::sync() {
    const std::optional<CaptionDraft>& draft = m_model.caption();
    if (!draft) {
        m_file.clear();
        m_base = QImage();
        m_preview = QImage();
        m_view->display({});
        m_top->clear();
        m_bottom->clear();
        return;
    }
    for (Line line : {Line::top, Line::bottom}) {
        // Only what the model changed by itself: rewriting the text would move the caret.
        if (edit(line)->text() != draft->line(line))
            edit(line)->setText(draft->line(line));
    }
    if (draft->imageFile != m_file) {
        m_file = draft->imageFile;
        m_base = QImage();
        m_preview = QImage();
        if (!m_file.isEmpty())
            decode(m_file);
    }
    if (m_base.isNull()) {
        m_view->display({}, draft->image == CaptionDraft::Image::failed
                                ? QStringLiteral("Download failed")
                                : QStringLiteral("Loading…"));
        return;
    }
    redraw();
}

void CaptionEditor::takeFocus() {
    if (const std::optional<CaptionDraft>& draft = m_model.caption())
        edit(draft->focus)->setFocus(Qt::TabFocusReason);
}

void CaptionEditor::decode(const QUrl& file) {
    const QString path = file.toLocalFile();
    runInBackground(
        this,
        [path] {
            QImageReader reader(path);
            // The cache keeps most downloads under ".img": the content says what they are.
            reader.setDecideFormatFromContent(true);
            reader.setAutoTransform(true);
            // Decoding straight to preview size spares most of the work for a large JPEG.
            const QSize size =
                CaptionRenderer::outputSize(reader.size(), CaptionRenderer::previewMaxSide);
            if (size.isValid() && size != reader.size())
                reader.setScaledSize(size);
            QImage image = reader.read();
            // PNG decoders cannot scale while decoding: scale here, not on the GUI thread.
            const QSize fitted =
                CaptionRenderer::outputSize(image.size(), CaptionRenderer::previewMaxSide);
            if (!image.isNull() && fitted != image.size())
                image = image.scaled(fitted, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
            return image;
        },
        [this, file](const QImage& image) {
            // The user may have gone back, or on to another item, meanwhile.
            const std::optional<CaptionDraft>& draft = m_model.caption();
            if (!draft || draft->imageFile != file || m_file != file)
                return;
            if (image.isNull()) {
                m_view->display({}, QStringLiteral("Could not render the caption"));
                return;
            }
            m_base = image;
            redraw();
        });
}

void CaptionEditor::redraw() {
    const std::optional<CaptionDraft>& draft = m_model.caption();
    if (!draft || m_base.isNull())
        return;
    if (!m_preview.isNull() && draft->top == m_drawnTop && draft->bottom == m_drawnBottom)
        return;
    // m_base is at preview size already: this draws the lines and scales nothing.
    const std::optional<QImage> image =
        CaptionRenderer::render(m_base, draft->top, draft->bottom, CaptionRenderer::previewMaxSide);
    if (!image) {
        m_view->display({}, QStringLiteral("Could not render the caption"));
        return;
    }
    m_preview = *image;
    m_drawnTop = draft->top;
    m_drawnBottom = draft->bottom;
    m_view->display(m_preview);
    emit previewChanged();
}

bool CaptionEditor::eventFilter(QObject* watched, QEvent* event) {
    const Line line = watched == m_top ? Line::top : Line::bottom;
    if (event->type() == QEvent::FocusIn) {
        m_model.captionLineFocused(line);
    } else if (event->type() == QEvent::KeyPress) {
        switch (static_cast<QKeyEvent*>(event)->key()) {
        case Qt::Key_Return:
        case Qt::Key_Enter:
            m_model.insertCaption();
            return true;
        case Qt::Key_Tab:
        case Qt::Key_Backtab:
            m_model.nextCaptionLine();
            return true;
        case Qt::Key_Escape:
            m_model.cancelCaption();
            return true;
        default:
            break;
        }
    }
    return QWidget::eventFilter(watched, event);
}
