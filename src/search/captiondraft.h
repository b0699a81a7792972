// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/meme.h"

#include <QString>
#include <QUrl>

// The caption the user is writing onto one item in the picker: its two lines, which line has
// the keyboard, and where the item's full image stands (the editor previews on it).
struct CaptionDraft {
    enum class Line { top, bottom };
    enum class Image { loading, ready, failed };

    Meme meme;
    QString top;
    QString bottom;
    Line focus = Line::top;
    Image image = Image::loading;
    // The full image on disk once `image` is ready.
    QUrl imageFile;

    const QString& line(Line which) const { return which == Line::top ? top : bottom; }
    // Both lines are empty or only white space: there is nothing to draw.
    bool isBlank() const { return top.trimmed().isEmpty() && bottom.trimmed().isEmpty(); }

    friend bool operator==(const CaptionDraft&, const CaptionDraft&) = default;
};
