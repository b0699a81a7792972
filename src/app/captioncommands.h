// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QTextStream>

// `orvane --caption-test`: opens the caption editor on a search result of a temporary index,
// renders a caption on a generated image and closes the editor again as Esc does. Prints
// "caption-test: editor open=…", what the bands show, and "caption-test: after esc editor
// open=…"; returns 0 when every step behaved. Needs a QGuiApplication (fonts).
int runCaptionTest(QTextStream& out);

// `orvane --render-caption IN TOP BOTTOM OUT`: draws the two lines on the image IN at its
// full size and writes OUT as the JPEG the picker would paste. Returns 0 on success.
int runRenderCaption(const QString& in, const QString& top, const QString& bottom,
                     const QString& out, QTextStream& err);
