// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

// "Launch at login" through an XDG autostart entry ($XDG_CONFIG_HOME/autostart/orvane.desktop),
// which every freedesktop session honours.
namespace Autostart {
QString entryPath();
bool isEnabled();
// Writes or removes the entry. On failure returns false and sets `error` to a sentence.
bool setEnabled(bool enabled, const QString& executable, QString* error);
} // namespace Autostart
