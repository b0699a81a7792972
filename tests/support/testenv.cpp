// SPDX-License-Identifier: MIT
#include "support/testenv.h"

#include "telemetry/metrics.h"

#include <QDir>
#include <QFile>
#include <QUuid>

namespace TestEnv {

void usePrivateFolders(const QString& root) {
    const QByteArray base = root.toUtf8();
    for (const char* name :
         {"XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME"})
        qputenv(name, base + '/' + name);
    qputenv("GLIMMET_TEST_ROOT", base);
}

QString freshDir() {
    const QString path = qEnvironmentVariable("GLIMMET_TEST_ROOT") + QLatin1Char('/') +
                         QUuid::createUuid().toString(QUuid::Id128);
    QDir().mkpath(path);
    return path;
}

std::shared_ptr<SettingsStore> installConfig(QHash<QString, QString> environment,
                                             QHash<QString, QString> infoKeys,
                                             QString settingsPath) {
    if (settingsPath.isEmpty())
        settingsPath = freshDir() + QStringLiteral("/settings.json");
    ConfigSources sources;
    sources.environment = std::move(environment);
    sources.infoKeys = std::move(infoKeys);
    sources.settings = std::make_shared<SettingsStore>(settingsPath);
    auto store = sources.settings;
    DebugFlags::installSources(std::move(sources));
    return store;
}

QByteArray readFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeFile(const QString& path, const QByteArray& bytes) {
    QDir().mkpath(path.section(QLatin1Char('/'), 0, -2));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(bytes);
}

std::vector<nlohmann::json> loggedEvents(const std::string& name) {
    Metrics::shared().flush();
    std::vector<nlohmann::json> found;
    for (const QByteArray& line : readFile(Metrics::url()).split('\n')) {
        if (line.isEmpty())
            continue;
        nlohmann::json event = nlohmann::json::parse(line.toStdString());
        event.erase("t");
        if (name.empty() || event["event"] == name)
            found.push_back(std::move(event));
    }
    return found;
}

} // namespace TestEnv
