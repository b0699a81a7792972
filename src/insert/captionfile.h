// SPDX-License-Identifier: MIT
#pragma once

#include <QDateTime>
#include <QString>

// The captioned images that pastes hand to other programs: the full image rendered with its
// caption, as a JPEG in a folder of their own beside the image caches. A day's worth is kept,
// so a program that reads a pasted file late still finds it.
//
// Reads, renders and writes files: call it off the GUI thread.
namespace CaptionFile {
inline constexpr qint64 keepSeconds = 24 * 60 * 60;
inline constexpr int jpegQuality = 85;

struct Request {
    // The full image as cached (any format the image readers sniff).
    QString source;
    QString top;
    QString bottom;
    QString folder;
    // The full image's cache key: its file name in the catalog without the extension.
    QString key;
    QDateTime now;
};

struct Result {
    enum class Failure { none, render, write };
    // The written file; empty on failure.
    QString file;
    Failure failure = Failure::none;
};

// "captioned" beside the full-image cache folder `fullCacheDir`.
QString folderBeside(const QString& fullCacheDir);

// Renders the caption onto the source at full size and writes it as `key`-<unix seconds>.jpg
// (atomically), after removing what has expired from the folder. Failure::render when the
// source does not decode or the image cannot be made or encoded, Failure::write when the file
// cannot be written.
Result save(const Request& request);

// Deletes the files of `folder` last modified more than keepSeconds before `now`.
void removeExpired(const QString& folder, const QDateTime& now);
} // namespace CaptionFile
