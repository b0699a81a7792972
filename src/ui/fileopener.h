// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QUrl>
#include <functional>

class QWidget;

// Hands a file to the desktop's application for it, and does not leave the user with nothing
// when no application takes that kind of file.
namespace FileOpener {

enum class Outcome { opened, folderOpened, declined, pathShown };

// Opens `path` through `open` (QDesktopServices::openUrl in the app). When nothing opens it,
// asks above `parent` whether to open its folder instead; when that fails too, `tell` gets a
// line with the file's path.
Outcome open(const QString& path, QWidget* parent, const std::function<bool(const QUrl&)>& open,
             const std::function<void(const QString&)>& tell);

} // namespace FileOpener
