// SPDX-License-Identifier: MIT
// The caption editor's state in the picker model: which item, the two lines, the focused line
// and the item's full image. Drawing belongs to the views.
#include "catalog/memestore.h"
#include "search/pickermodel.h"
#include "search/pickermodelbatch.h"

#include <QPointer>

using Line = CaptionDraft::Line;

void PickerModel::beginCaption() {
    const std::optional<Meme> meme = selectedItem();
    if (!meme || meme->isMine())
        return;
    Batch batch(this);
    m_caption.emplace();
    m_caption->meme = *meme;
    ++m_captionFocusToken;
    const quint64 generation = ++m_captionGeneration;
    if (!m_store)
        return;
    // The user waits for this image: it goes ahead of every prefetch.
    m_store->ensureFull(*meme, [self = QPointer(this), generation](std::optional<QUrl> file) {
        if (!self || !self->m_caption || generation != self->m_captionGeneration)
            return;
        Batch batch(self.data());
        self->m_caption->image = file ? CaptionDraft::Image::ready : CaptionDraft::Image::failed;
        self->m_caption->imageFile = file.value_or(QUrl());
    });
}

void PickerModel::setCaptionLine(Line line, const QString& text) {
    if (!m_caption || m_caption->line(line) == text)
        return;
    Batch batch(this);
    (line == Line::top ? m_caption->top : m_caption->bottom) = text;
}

void PickerModel::nextCaptionLine() {
    if (!m_caption)
        return;
    Batch batch(this);
    m_caption->focus = m_caption->focus == Line::top ? Line::bottom : Line::top;
    ++m_captionFocusToken;
}

void PickerModel::captionLineFocused(Line line) {
    if (!m_caption || m_caption->focus == line)
        return;
    Batch batch(this);
    m_caption->focus = line;
}

void PickerModel::cancelCaption() {
    if (!m_caption)
        return;
    Batch batch(this);
    m_caption.reset();
    ++m_captionGeneration;
    ++m_focusToken;
}

void PickerModel::insertCaption() {
    if (!m_caption)
        return;
    const CaptionDraft draft = *m_caption;
    cancelCaption();
    if (draft.isBlank())
        emit insertRequested(draft.meme);
    else
        emit captionInsertRequested(draft.meme, draft.top, draft.bottom);
}
