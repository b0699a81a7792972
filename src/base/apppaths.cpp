// SPDX-License-Identifier: MIT
#include "base/apppaths.h"

#include <QDir>

namespace {
QString xdgHome(const char* variable, const char* fallbackBelowHome) {
    const QString value = qEnvironmentVariable(variable);
    // The XDG rules ignore relative paths.
    if (!value.isEmpty() && QDir::isAbsolutePath(value))
        return QDir::cleanPath(value);
    return QDir::homePath() + QLatin1Char('/') + QLatin1String(fallbackBelowHome);
}
} // namespace

namespace AppPaths {
QString dataDir() { return xdgHome("XDG_DATA_HOME", ".local/share") + QStringLiteral("/Glimmet"); }

QString cacheDir() {
    return xdgHome("XDG_CACHE_HOME", ".cache") + QLatin1Char('/') + QLatin1String(bundleIdentifier);
}

QString stateDir() { return xdgHome("XDG_STATE_HOME", ".local/state") + QStringLiteral("/Glimmet"); }

QString configDir() { return configHome() + QStringLiteral("/Glimmet"); }

QString configHome() { return xdgHome("XDG_CONFIG_HOME", ".config"); }

bool ensureDir(const QString& path) { return QDir().mkpath(path); }
} // namespace AppPaths
