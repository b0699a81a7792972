// SPDX-License-Identifier: MIT
#pragma once

#include "search/captiondraft.h"

#include <QImage>
#include <QUrl>
#include <QWidget>

class PickerModel;
class QLineEdit;

// The caption editor shown over the results: the item with its caption as it will be pasted,
// a line for the top text and one for the bottom, the key hint, and Back and Done. Enter is
// Done, Tab the other line, Esc Back.
//
// The lines and which one has the keys live in the model. This widget keeps only pictures: the
// item's full image decoded at preview size (in the background) and the preview drawn on it,
// redrawn on the GUI thread at every change of a line.
class CaptionEditor : public QWidget {
    Q_OBJECT
public:
    static const QString hint;

    explicit CaptionEditor(PickerModel& model, QWidget* parent = nullptr);
    ~CaptionEditor() override;

    // The preview as last drawn; null while the image is on its way and once the editor closed.
    const QImage& preview() const { return m_preview; }

signals:
    // A new preview was drawn.
    void previewChanged();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    class PreviewView;

    void sync();
    void takeFocus();
    void decode(const QUrl& file);
    void redraw();
    QLineEdit* edit(CaptionDraft::Line line) const;

    PickerModel& m_model;
    PreviewView* m_view;
    QLineEdit* m_top;
    QLineEdit* m_bottom;
    // The full image m_base was decoded from (at preview size), and what m_preview shows.
    QUrl m_file;
    QImage m_base;
    QImage m_preview;
    QString m_drawnTop;
    QString m_drawnBottom;
};
