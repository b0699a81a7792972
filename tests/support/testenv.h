// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/debugflags.h"

#include <QHash>
#include <QString>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace TestEnv {
// Points every XDG folder below `root` so no test touches the real home. Call first in main.
void usePrivateFolders(const QString& root);
// A fresh folder below the process's temporary root, removed with the process.
QString freshDir();
// Installs configuration sources with this environment and build keys, and a settings store
// at `settingsPath` (a fresh file when empty). Returns the store.
std::shared_ptr<SettingsStore> installConfig(QHash<QString, QString> environment = {},
                                             QHash<QString, QString> infoKeys = {},
                                             QString settingsPath = {});
QByteArray readFile(const QString& path);
void writeFile(const QString& path, const QByteArray& bytes);
// The metrics log's events called `name` (all of them when empty), without their time.
std::vector<nlohmann::json> loggedEvents(const std::string& name = {});
} // namespace TestEnv
