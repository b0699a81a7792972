// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

// Where the program keeps its files, following the XDG base-directory variables.
// Each call reads the environment afresh, so tests can point them at temporary folders.
namespace AppPaths {
inline constexpr const char* bundleIdentifier = "com.tarnwell.Glimmet";

// $XDG_DATA_HOME/Glimmet: user data, cached catalog documents, the local index.
QString dataDir();
// $XDG_CACHE_HOME/com.tarnwell.Glimmet: image caches.
QString cacheDir();
// $XDG_STATE_HOME/Glimmet: the metrics log.
QString stateDir();
// $XDG_CONFIG_HOME/Glimmet: settings.json.
QString configDir();
// $XDG_CONFIG_HOME itself (autostart entries live below it).
QString configHome();

// Creates the folder with its parents; false when it cannot.
bool ensureDir(const QString& path);
} // namespace AppPaths
